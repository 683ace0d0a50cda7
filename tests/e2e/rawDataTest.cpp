#include "collectorFixture.hpp"

namespace e2e
{
namespace
{

using testsupport::readFile;

std::string expected(const std::string& name)
{
    return readFile(std::string(EXPECTED_DIR) + "/" + name);
}

std::string driverLine(const std::string& text)
{
    return "9|171|qvDbusCollectSmartData.L.addSmartData: " + text;
}

json ok(const json& answer)
{
    json result = answer;
    result["status"] = {0, 0};
    return result;
}

json page(unsigned code, const std::string& hex)
{
    return {{"code", code}, {"data", hex}};
}

json emptyPage()
{
    return {{"code", 0}, {"data", ""}};
}

json sataPagesOf(std::vector<json> pages)
{
    pages.resize(5, emptyPage());
    return ok({{"protocol", sata}, {"attributes", 0}, {"pages", pages}});
}

json sasPagesOf(std::vector<json> pages)
{
    pages.resize(7, emptyPage());
    return ok({{"protocol", sas}, {"attributes", 0}, {"pages", pages}});
}

// The server of the documented example: one solid-state drive, then a SATA
// and a SAS hard drive in the inventory.
Server exampleServer()
{
    Server server;
    server.tableEntry("k1", "DRIVE-SSD-1", sata, solidState)
        .inventoryDrive("0", "DRIVE-SSD-1", sata, solidState)
        .inventoryDrive("1", "DRIVE-SATA-2", sata, 0)
        .inventoryDrive("2", "DRIVE-SAS-3", sas, 0)
        .rawData("DRIVE-SSD-1", ok({{"data", countingHex(0, 20)}}))
        .sataPages("DRIVE-SATA-2",
                   sataPagesOf({page(0, "0001030405060708"),
                                page(1, "010001000000000038000000000000c0"
                                        "2a01")}))
        .sasPages("DRIVE-SAS-3",
                  sasPagesOf({page(3, "0300000c"), emptyPage(), emptyPage(),
                              emptyPage(), emptyPage(), emptyPage(),
                              page(13, "0d00000c000000020027")}));
    return server;
}

std::string hexRow(const std::string& offset, const std::string& cells)
{
    std::string padded = cells;
    padded.resize(48, ' ');
    return "\"" + offset + "\": \"" + padded + "\"";
}

TEST_F(CollectorTest, DocumentedRawExampleByteForByte)
{
    auto result = run(exampleServer(), {"0"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(rawData(), expected("raw-ssd-sata-sas.json"));
    EXPECT_TRUE(
        logged(driverLine("FQDD:DRIVE-SSD-1 | Protocol:16 | Attributes:2")));
    EXPECT_TRUE(
        logged(driverLine("Drive type is SATA HDD, adding only raw data")));
    EXPECT_TRUE(
        logged(driverLine("Drive type is SAS HDD, adding only raw data")));
    // One "Buf len" line per dump: the raw data and four pages.
    EXPECT_EQ(result.err, "Buf len is [20]\nBuf len is [8]\nBuf len is "
                          "[18]\nBuf len is [4]\nBuf len is [10]\n");
}

TEST_F(CollectorTest, RawReportShapes)
{
    struct Case
    {
        const char* name;
        Server server;
        std::string document;
    };
    Server ssdOnly;
    ssdOnly.tableEntry("a", "SSD-A", sas, solidState)
        .tableEntry("b", "SSD-B", sata, solidState | 0x1)
        .inventoryDrive("0", "SSD-A", sas, solidState)
        .rawData("SSD-A", ok({{"data", countingHex(0xf0, 3)}}))
        .rawData("SSD-B", ok({{"data", countingHex(0, 16)}}));

    Server hddOnly;
    hddOnly.inventoryDrive("0", "SAS-0", sas | sata, 0)
        .inventoryDrive("1", "NVME-1", 0x140, 0)
        .inventoryDrive("2", "SATA-2", sata, 0)
        .sasPages("SAS-0", sasPagesOf({emptyPage(), page(21, "aa"), emptyPage(),
                                       emptyPage(), emptyPage(), emptyPage(),
                                       page(21, "bb")}))
        .sataPages("SATA-2", sataPagesOf({emptyPage(), emptyPage(), emptyPage(),
                                          emptyPage(), page(5, "cc")}));

    const Case cases[] = {
        {"solid-state only", ssdOnly,
         "{\n\"SSD-A\":\n{\n" + hexRow("000000", "f0 f1 f2 ") +
             "\n},\n\"SSD-B\":\n{\n" +
             hexRow("000000", "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e "
                              "0f ") +
             "\n}\n}"},
        // Protocol 0x30 counts as SAS; the first page code of the run is
        // decimal, every later one hexadecimal; 0x140 is skipped.
        {"hard drives only", hddOnly,
         "{\n\"SAS-0\":\n{\n\"writeErrCounter(21)\": {\n" +
             hexRow("000000", "aa ") + "\n},\n\"temperature(15)\": {\n" +
             hexRow("000000", "bb ") + "\n}\n},\n\"SATA-2\":\n{\n" +
             "\"tempStatistics(5)\": {\n" + hexRow("000000", "cc ") +
             "\n}\n}\n}"},
    };
    for (const auto& c : cases)
    {
        root = std::make_unique<testsupport::CollectorRoot>();
        auto result = run(c.server, {"0"});
        EXPECT_EQ(result.exitCode, 0) << c.name << result.err;
        EXPECT_EQ(rawData(), c.document) << c.name;
    }
}

TEST_F(CollectorTest, SataAfterSasShowsOnlyItsOwnPages)
{
    std::vector<json> allSas;
    for (unsigned code = 1; code <= 7; ++code)
    {
        allSas.push_back(page(code, countingHex(code, 1)));
    }
    Server server;
    server.inventoryDrive("0", "SAS", sas, 0)
        .inventoryDrive("1", "SATA", sata, 0)
        .sasPages("SAS", sasPagesOf(allSas))
        .sataPages("SATA", sataPagesOf({page(9, "09")}));
    auto result = run(server, {"0"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    std::string sasRecord = "\"SAS\":\n{\n";
    const char* names[] = {
        "readErrCounter",      "writeErrCounter",       "verifyErrCounter",
        "nonMediumErrCounter", "startStopCycleCounter", "backGrndScanResult",
        "temperature"};
    for (unsigned code = 1; code <= 7; ++code)
    {
        sasRecord += std::string(code == 1 ? "" : "\n},\n") + "\"" +
                     names[code - 1] + "(" + std::to_string(code) + ")\": {\n" +
                     hexRow("000000", countingHex(code, 1) + " ");
    }
    EXPECT_EQ(rawData(), "{\n" + sasRecord + "\n}\n},\n\"SATA\":\n{\n" +
                             "\"suppLogPages(9)\": {\n" +
                             hexRow("000000", "09 ") + "\n}\n}\n}");
}

TEST_F(CollectorTest, EmptyFqddGivesNoGroupHead)
{
    // Without the group head the record's pages close one object too many:
    // the documented text, kept as it is.
    expectWellFormed = false;
    Server server;
    server.inventoryDrive("0", "", sas, 0)
        .sasPages("", sasPagesOf({page(3, "01")}));
    auto result = run(server, {"0"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(rawData(), "{\n\"readErrCounter(3)\": {\n" +
                             hexRow("000000", "01 ") + "\n}\n}\n}");
}

TEST_F(CollectorTest, RawDataAnswers)
{
    struct Case
    {
        const char* name;
        json answer; // null: the storage service is not on the bus
        std::string rows;
        std::string logLine;
    };
    const Case cases[] = {
        {"empty data", ok({{"data", ""}}), "",
         "9|171|qvDbusCollectSmartData.L.qvdbusGetSmartPDSASSATARawData: "
         "Empty raw data received for FQDD: SSD"},
        {"status (0, 7)",
         {{"status", {0, 7}}, {"data", "01"}},
         "",
         "9|171|qvDbusCollectSmartData.L.qvdbusGetSmartPDSASSATARawData: "
         "Failed qvdbusGetSmartPDSASSATARawData: primaryErr=0 "
         "secondaryErr=7"},
        {"extra fields",
         ok({{"data", "01"},
             {"extra", {{"signature", "su"}, {"values", {"x", 1}}}}}),
         hexRow("000000", "01 "), ""},
        {"wrong status structure",
         {{"reply", {{"signature", "(uu)ay"}, {"values", {{0, 0}, "01"}}}}},
         "",
         driverLine("Failed to get SAS/SATA raw data for FQDD: SSD")},
        {"service absent", nullptr, "",
         driverLine("Failed to get SAS/SATA raw data for FQDD: SSD")},
    };
    for (const auto& c : cases)
    {
        root = std::make_unique<testsupport::CollectorRoot>();
        Server server;
        server.tableEntry("a", "SSD", sata, solidState)
            .inventoryDrive("0", "SSD", sata, solidState);
        if (c.answer.is_null())
        {
            server.doc["names"] = {{"storage", false}};
        }
        else
        {
            server.rawData("SSD", c.answer);
        }
        auto result = run(server, {"0"});
        EXPECT_EQ(result.exitCode, 0) << c.name << result.err;
        // The record stands with or without rows.
        EXPECT_EQ(rawData(), "{\n\"SSD\":\n{\n" + c.rows + "\n}\n}") << c.name;
        if (!c.logLine.empty())
        {
            EXPECT_TRUE(logged(c.logLine)) << c.name;
        }
    }
}

} // namespace
} // namespace e2e

namespace e2e
{
namespace
{

TEST_F(CollectorTest, RecordsWithoutPagesStayBalanced)
{
    json failing = {{"error",
                     {{"name", "com.kest.omrix.storage.Error.Busy"},
                      {"message", "drive busy"}}}};
    json refused = {{"status", {5, 0}}, {"protocol", sata}, {"attributes", 0}};
    struct Case
    {
        const char* name;
        json sataAnswer;
        std::string logLine;
    };
    const Case cases[] = {
        {"error reply", failing,
         driverLine("Failed to get smartdata of sata HDD")},
        {"status not zero", refused,
         "9|171|qvDbusCollectSmartData.L.qvdbusGetSmartPDSATAHDDData: Failed "
         "to qvdbusGetSmartPDSATAHDDData call method"},
        {"every page empty", sataPagesOf({}), ""},
    };
    for (const auto& c : cases)
    {
        root = std::make_unique<testsupport::CollectorRoot>();
        Server server;
        server.tableEntry("a", "SSD", sata, solidState)
            .inventoryDrive("0", "SATA", sata, 0)
            .inventoryDrive("1", "SAS", sas, 0)
            .rawData("SSD", ok({{"data", "01"}}))
            .sataPages("SATA", c.sataAnswer)
            .sasPages("SAS", sasPagesOf({page(3, "02")}));
        auto result = run(server, {"0"});
        ASSERT_EQ(result.exitCode, 0) << c.name << result.err;
        // The drive keeps its group, holding one empty-named page group.
        EXPECT_EQ(rawData(), "{\n\"SSD\":\n{\n" + hexRow("000000", "01 ") +
                                 "\n},\n\"SATA\":\n{\n\"\": {\n" +
                                 "\n}\n},\n\"SAS\":\n{\n" +
                                 "\"readErrCounter(3)\": {\n" +
                                 hexRow("000000", "02 ") + "\n}\n}\n}")
            << c.name;
        if (!c.logLine.empty())
        {
            EXPECT_TRUE(logged(c.logLine)) << c.name;
        }
    }
}

TEST_F(CollectorTest, TableEntryWithoutFqddGetsAnEmptyNamedGroup)
{
    Server server;
    server.tableEntry("a", "", sas, solidState, {{"powerOnHours", 7}})
        .inventoryDrive("0", "", sas, solidState)
        .rawData("", ok({{"data", "0a"}}));
    auto result = run(server, {"0"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(rawData(), "{\n\"\":\n{\n" + hexRow("000000", "0a ") + "\n}\n}");
    const std::string head = "{\n\"\":\n{\n\t\"Protocol\": \"32\",\n";
    EXPECT_EQ(smartLogs().substr(0, head.size()), head);
}

TEST_F(CollectorTest, PageLengthsNeverReachPastWhatWasDelivered)
{
    std::string rows256;
    for (unsigned row = 0; row < 16; ++row)
    {
        std::string cells;
        for (unsigned i = 0; i < 16; ++i)
        {
            cells += countingHex(row * 16 + i, 1) + " ";
        }
        char offset[8];
        std::snprintf(offset, sizeof(offset), "%06x", row * 16);
        rows256 += (row == 0 ? "" : ",\n") + hexRow(offset, cells);
    }
    json longPage = {{"code", 1}, {"data", countingHex(0, 300)}};
    json overstated = {{"code", 2}, {"data", "abcd"}, {"length", 10}};
    json understated = {{"code", 3}, {"data", "a1a2a3a4"}, {"length", 2}};
    Server server;
    server.inventoryDrive("0", "SATA", sata, 0)
        .sataPages("SATA", sataPagesOf({longPage, overstated, understated}));
    auto result = run(server, {"0"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(rawData(), "{\n\"SATA\":\n{\n\"suppLogPages(1)\": {\n" + rows256 +
                             "\n},\n\"genStatistics(2)\": {\n" +
                             hexRow("000000", "ab cd ") +
                             "\n},\n\"rotaStatistics(3)\": {\n" +
                             hexRow("000000", "a1 a2 ") + "\n}\n}\n}");
}

} // namespace
} // namespace e2e
