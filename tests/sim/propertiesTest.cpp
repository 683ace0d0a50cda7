#include "simClient.hpp"

namespace simtest
{
namespace
{

struct TypedCase
{
    const char* signature;
    const char* value;    // as the scenario writes it
    const char* expected; // as the client decodes it
};

// Every kind of D-Bus type the encoder has a rule for, with the edges of
// the integer ranges.
const std::vector<TypedCase> typedCases = {
    {"s", R"("DRIVE-SSD-1")", R"("DRIVE-SSD-1")"},
    {"b", "true", "true"},
    {"y", "255", "255"},
    {"n", "-32768", "-32768"},
    {"q", "65535", "65535"},
    {"i", "-2147483648", "-2147483648"},
    {"u", "4294967295", "4294967295"},
    {"x", "-9223372036854775808", "-9223372036854775808"},
    {"t", "18446744073709551615", "18446744073709551615"},
    {"d", "2.5", "2.5"},
    {"o", R"("/com/kest/x")", R"("/com/kest/x")"},
    {"g", R"("a{sv}")", R"("a{sv}")"},
    {"as", R"(["a", "b"])", R"(["a", "b"])"},
    {"ay", R"("00 7f FF")", R"("007fff")"},
    {"ay", "[1, 2]", R"("0102")"},
    {"aay", R"(["01", [2]])", R"(["01", "02"])"},
    {"(ys)", R"([7, "x"])", R"([7, "x"])"},
    {"(yyyy)", "[1, 2, 3, 4]", "[1, 2, 3, 4]"},
    {"a(ssu)", R"([["a", "b", 3]])", R"([["a", "b", 3]])"},
    {"a{sv}", R"({"z": ["i", -1], "a": ["as", []]})",
     R"([["z", ["i", -1]], ["a", ["as", []]]])"},
    {"a{qs}", R"({"7": "seven"})", R"([[7, "seven"]])"},
    {"a{ss}", R"([["k", "v"], ["k", "w"]])", R"([["k", "v"], ["k", "w"]])"},
    {"a{s(ii)}", R"({"p": [1, -2]})", R"([["p", [1, -2]]])"},
    {"v", R"(["v", ["t", 5]])", R"(["v", ["t", 5]])"},
};

std::string propertyName(std::size_t index)
{
    return "P" + std::to_string(index);
}

std::string typedScenario()
{
    std::string properties;
    for (std::size_t i = 0; i < typedCases.size(); ++i)
    {
        properties += (i == 0 ? "\"" : ", \"") + propertyName(i) + "\": [\"" +
                      typedCases[i].signature + "\", " + typedCases[i].value +
                      "]";
    }
    return R"({"objects": [{"path": "/com/kest/omrix/storage/drive/1",
        "interfaces": {"com.kest.omrix.storage.drive.inventory": {)" +
           properties + "}, \"org.example.Empty\": {}}}]}";
}

const char* drivePath = "/com/kest/omrix/storage/drive/1";

TEST_F(SimTest, getAllKeepsTypesValuesAndOrder)
{
    serve(typedScenario());
    Reply reply = client->getAll(drivePath, driveInventory);
    ASSERT_EQ(reply.result, 1) << reply.errorMessage;
    ASSERT_EQ(reply.signature, "a{sv}");
    ASSERT_EQ(reply.body[0].size(), typedCases.size());
    for (std::size_t i = 0; i < typedCases.size(); ++i)
    {
        SCOPED_TRACE(typedCases[i].signature);
        Json expected =
            Json::array({propertyName(i),
                         Json::array({typedCases[i].signature,
                                      Json::parse(typedCases[i].expected)})});
        EXPECT_EQ(reply.body[0][i], expected);
    }
    Reply empty = client->getAll(drivePath, "org.example.Empty");
    EXPECT_EQ(empty.body, Json::parse("[[]]"));
}

TEST_F(SimTest, getReadsOneProperty)
{
    serve(typedScenario());
    Reply reply = client->getProperty(drivePath, driveInventory, "P0");
    EXPECT_EQ(reply.signature, "v");
    EXPECT_EQ(reply.body, Json::parse(R"([["s", "DRIVE-SSD-1"]])"));
    EXPECT_EQ(client->getProperty(drivePath, driveInventory, "Nope").errorName,
              "org.freedesktop.DBus.Error.UnknownProperty");
}

TEST_F(SimTest, getAllRejectsUnknownObjectsAndInterfaces)
{
    serve(typedScenario());
    struct Case
    {
        std::string path;
        std::string interface;
        std::string error;
    };
    const std::vector<Case> cases = {
        {"/com/kest/omrix/storage/drive/2", driveInventory,
         "org.freedesktop.DBus.Error.UnknownObject"},
        {drivePath, "com.kest.omrix.storage.controller.inventory",
         "org.freedesktop.DBus.Error.UnknownInterface"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.path + " " + c.interface);
        EXPECT_EQ(client->getAll(c.path, c.interface).errorName, c.error);
    }
}

} // namespace
} // namespace simtest
