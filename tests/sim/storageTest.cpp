#include "simClient.hpp"

namespace simtest
{
namespace
{

const char* rawData = "GetSmartPDSASSATARawData";
const char* sataData = "GetSmartPDSATAHDDData";
const char* sasData = "GetSmartPDSASHDDData";
const char* notFound = "com.kest.omrix.storage.Error.NotFound";

const char* drives = R"({"drives": {
  "SSD-1": {"rawData": {"data": "000102030405060708090a0b0c0d0e0f1011"}},
  "SSD-2": {"rawData": {"status": [0, 7]}},
  "SSD-3": {"rawData": {"status": [18446744073709551615, 1], "data": [9]}},
  "SSD-BIG": {"rawData": {"dataLength": 16777216}},
  "SATA-1": {"sataHdd": {"protocol": 16, "attributes": 0,
     "field1": 1, "field2": 2, "field4": 4, "field6": "six", "field7": "seven",
     "pages": [{"code": 0, "data": "0001030405060708"},
               {"code": 1, "length": 2, "data": "aabbcc"},
               {"code": 2, "length": 300, "data": "dd"}]}},
  "SAS-1": {"rawData": {}, "sasHdd": {"status": [1, 0], "protocol": 32,
     "pages": [{"code": 3, "dataLength": 300},
               {}, {}, {}, {}, {},
               {"code": 13, "data": "0d00"}]}}
}})";

std::string pages(const std::vector<std::string>& given, std::size_t count)
{
    std::string text;
    for (std::size_t i = 0; i < count; ++i)
    {
        text += (i < given.size() ? given[i] : R"("", 0, 0)");
        text += i + 1 < count ? ", " : "";
    }
    return text;
}

std::string generated(std::size_t length)
{
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < length; ++i)
    {
        text += digits[(i >> 4) & 0xf];
        text += digits[i & 0xf];
    }
    return text;
}

TEST_F(SimTest, storageMethodsReplyWithExactSignatureAndContent)
{
    serve(drives);
    const std::string sataSignature = "(tt)yuutussayyqayyqayyqayyqayyq";
    const std::string sasSignature = "(tt)yuutussayyqayyqayyqayyqayyqayyqayyq";
    struct Case
    {
        const char* member;
        const char* fqdd;
        std::string signature;
        std::string body;
    };
    const std::vector<Case> cases = {
        {rawData, "SSD-1", "(tt)ay",
         R"([[0, 0], "000102030405060708090a0b0c0d0e0f1011"])"},
        {rawData, "SSD-2", "(tt)ay", R"([[0, 7], ""])"},
        {rawData, "SSD-3", "(tt)ay", R"([[18446744073709551615, 1], "09"])"},
        {rawData, "SAS-1", "(tt)ay", R"([[0, 0], ""])"},
        {sataData, "SATA-1", sataSignature,
         R"([[0, 0], 1, 2, 16, 4, 0, "six", "seven", )" +
             pages({R"("0001030405060708", 0, 8)", R"("aabbcc", 1, 2)",
                    R"("dd", 2, 300)"},
                   5) +
             "]"},
        {sasData, "SAS-1", sasSignature,
         R"([[1, 0], 0, 0, 32, 0, 0, "", "", )" +
             pages({"\"" + generated(300) + R"(", 3, 300)", R"("", 0, 0)",
                    R"("", 0, 0)", R"("", 0, 0)", R"("", 0, 0)", R"("", 0, 0)",
                    R"("0d00", 13, 2)"},
                   7) +
             "]"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(std::string(c.member) + " " + c.fqdd);
        Reply reply = client->drive(c.member, c.fqdd);
        ASSERT_EQ(reply.result, 1) << reply.errorMessage;
        EXPECT_EQ(reply.signature, c.signature);
        EXPECT_EQ(reply.body, Json::parse(c.body));
    }
}

TEST_F(SimTest, generatedRawDataNeedsNoFile)
{
    serve(drives);
    Reply reply = client->drive(rawData, "SSD-BIG");
    ASSERT_EQ(reply.result, 1) << reply.errorMessage;
    const auto& hex = reply.body[1].get_ref<const std::string&>();
    ASSERT_EQ(hex.size(), 2U * 16777216U);
    EXPECT_EQ(hex.substr(0, 8), "00010203");
    EXPECT_EQ(hex.substr(2 * 255, 6), "ff0001");
    EXPECT_EQ(hex.substr(hex.size() - 4), "feff");
}

TEST_F(SimTest, drivesWithoutDataForAMethodAreNotFound)
{
    serve(drives);
    const std::vector<std::pair<const char*, const char*>> cases = {
        {rawData, "NO-SUCH"}, {rawData, "SATA-1"}, {sataData, "SAS-1"},
        {sasData, "SATA-1"},  {sasData, "ssd-1"},
    };
    for (const auto& [member, fqdd] : cases)
    {
        SCOPED_TRACE(std::string(member) + " " + fqdd);
        Reply reply = client->drive(member, fqdd);
        EXPECT_EQ(reply.errorName, notFound);
        EXPECT_NE(reply.errorMessage.find(fqdd), std::string::npos);
    }
    EXPECT_EQ(client->drive("GetSmartPDNVMeData", "SSD-1").errorName,
              "org.freedesktop.DBus.Error.UnknownMethod");
}

} // namespace
} // namespace simtest
