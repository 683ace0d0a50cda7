#include "collectorFixture.hpp"

#include <csignal>
#include <ctime>

namespace e2e
{
namespace
{

using testsupport::readFile;

std::string expected(const std::string& name)
{
    return readFile(std::string(EXPECTED_DIR) + "/" + name);
}

const std::string exitTrace = "5|171|qvDbusCollectSmartData.L: Exit main";

std::string mainLine(const std::string& text)
{
    return "9|171|qvDbusCollectSmartData.L.main: " + text;
}

std::string driverLine(const std::string& text)
{
    return "9|171|qvDbusCollectSmartData.L.addSmartData: " + text;
}

// The solid-state drive and NVMe drive of the documented example.
Server exampleServer()
{
    Server server;
    server
        .tableEntry("k1", "DRIVE-SSD-1", sata, solidState,
                    {{"powerOnHours", 12873},
                     {"powerCycleCount", 41},
                     {"unusedReservedBlockCount", 100},
                     {"driveTemperature", 31},
                     {"mediaWriteCount", 5188},
                     {"percentDriveLifeRemaining", 98}})
        .nvmeEntry(
            "k5", "DRIVE-NVME-5", nvmeProtocol,
            {{"compositeTemparature", 309},
             {"availableSpare", 100},
             {"availableSpareThreshold", 10},
             {"percentageUsed", 1},
             {"dataUnitsReadLower", 1830566},
             {"dataUnitsWrittenLower", 2217458},
             {"hostReadCmdsLower", 40123456},
             {"hostWriteCmdsLower", 51234567},
             {"controllerBusyTimeLower", 97},
             {"powerCyclesLower", 41},
             {"powerOnHoursLower", 12873},
             {"unsafeShutdownsLower", 3},
             {"numOfErrorInfoLogEntriesLower", 2},
             {"temperatureSensor1", 309},
             {"temperatureSensor2", 315},
             {"errorInfoLogRecordErrorCount", 2},
             {"errorInfoLogRecordCommandID", 12},
             {"errorInfoLogRecordStatusFieldPhaseTag", 1},
             {"errorInfoLogRecordStatusFieldStatus", 2},
             {"errorInfoLogRecordParameterErrorLocationByteInCommand", 40},
             {"errorInfoLogRecordNamespace", 1}})
        .inventoryDrive("1", "DRIVE-SSD-1", sata, solidState)
        .rawData("DRIVE-SSD-1",
                 {{"status", {0, 0}}, {"data", countingHex(0, 20)}});
    return server;
}

// One NVMe record with only its protocol set: every other member is "0".
std::string nvmeRecord(const std::string& fqdd, uint32_t protocol)
{
    std::string record = "\"" + fqdd + "\":\n{\n\t\"Protocol\": \"" +
                         std::to_string(protocol) + "\",\n";
    std::string document = expected("logs-ssd-nvme.json");
    auto from = document.find("\t\"Critical Warning\"");
    auto to = document.rfind("}\n}");
    std::string members = document.substr(from, to - from);
    for (size_t at = members.find("\": \""); at != std::string::npos;
         at = members.find("\": \"", at + 1))
    {
        auto end = members.find('"', at + 4);
        members.replace(at + 4, end - (at + 4), "0");
    }
    return record + members;
}

TEST_F(CollectorTest, DocumentedExampleByteForByte)
{
    auto result = run(exampleServer(), {"0"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(smartLogs(), expected("logs-ssd-nvme.json"));
    EXPECT_TRUE(dailyFiles().empty()) << "collection mode writes no dated file";
    EXPECT_TRUE(root->exists(testsupport::dailyDir));
    auto lines = logLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "5|171|qvDbusCollectSmartData.L: Entry main");
    EXPECT_EQ(lines.back(), exitTrace);
    EXPECT_TRUE(
        logged("5|171|qvDbusCollectSmartData.L: Exit addSmartData: rc:0x0"));
    EXPECT_TRUE(logged(driverLine("SSDObjCount = 1, nvmeObjCount=1, "
                                  "TotalDriveObjCount=1")));
    EXPECT_TRUE(logged(
        driverLine("obj.protocol=16, obj.attributes=2, fqdd=DRIVE-SSD-1")));
    EXPECT_TRUE(logged(driverLine("nvmeobj=64, fqdd=DRIVE-NVME-5")));
}

TEST_F(CollectorTest, ArgumentsAndExitCodes)
{
    struct Case
    {
        std::vector<std::string> args;
        int exitCode;
        std::string logLine; // empty: the run reached the driver and wrote
    };
    const Case cases[] = {
        {{}, 5, mainLine("Invalid Aguments passed: Invalid argument")},
        {{"abc"}, 5, mainLine("Invalid Aguments passed: stoi")},
        {{""}, 5, mainLine("Invalid Aguments passed: stoi")},
        {{"2147483648"}, 2, mainLine("Failed to Add Smart Data: stoi")},
        {{"-2147483649"}, 2, mainLine("Failed to Add Smart Data: stoi")},
        {{" 0"}, 0, ""},
        {{"0", "ignored"}, 0, ""},
        {{"7xyz"}, 0, ""},
        {{"-3"}, 0, ""},
        {{"2147483647"}, 0, ""},
        {{"-2147483648"}, 0, ""},
    };
    for (const auto& c : cases)
    {
        root = std::make_unique<testsupport::CollectorRoot>();
        auto result = run(exampleServer(), c.args);
        std::string name = c.args.empty() ? "(none)" : "'" + c.args[0] + "'";
        EXPECT_EQ(result.exitCode, c.exitCode) << name << result.err;
        auto lines = logLines();
        ASSERT_FALSE(lines.empty()) << name;
        EXPECT_EQ(lines.back(), exitTrace) << name;
        bool dailyMode =
            !c.args.empty() && c.args[0] != " 0" && c.args[0] != "0";
        if (!c.logLine.empty())
        {
            EXPECT_TRUE(logged(c.logLine)) << name;
            EXPECT_FALSE(root->exists(testsupport::smartLogsPath)) << name;
            EXPECT_TRUE(dailyFiles().empty()) << name;
        }
        else if (dailyMode)
        {
            EXPECT_FALSE(root->exists(testsupport::smartLogsPath)) << name;
            EXPECT_EQ(dailyFiles().size(), 2u) << name;
        }
        else
        {
            EXPECT_EQ(smartLogs(), expected("logs-ssd-nvme.json")) << name;
            EXPECT_TRUE(dailyFiles().empty()) << name;
        }
        // An argument that does not convert stops the run before the
        // directory is made.
        EXPECT_EQ(root->exists(testsupport::dailyDir), c.logLine.empty())
            << name;
    }
}

TEST_F(CollectorTest, CancelSignalMattersOnlyBeforeTheDriver)
{
    const std::string sigusr1 = std::to_string(SIGUSR1);
    struct Case
    {
        const char* name;
        EnvChanges env;
        int exitCode;
        int termSignal;
    };
    const Case cases[] = {
        // Before the handler is installed the signal's default action ends
        // the process.
        {"at the entry trace", {{"DLOG_RAISE_AT", "Entry main"}}, -1, SIGUSR1},
        {"while the directory is made",
         {{"UTL_MAKE_PATH_RAISE", sigusr1}},
         10,
         0},
        {"during the driver", {{"DLOG_RAISE_AT", "SSDObjCount"}}, 0, 0},
        {"at the last record", {{"DLOG_RAISE_AT", "nvmeobj="}}, 0, 0},
    };
    // A document of an earlier run, which every case must keep.
    const std::string earlier = "{\n\"OLD\":\n{\n}\n}";
    for (const auto& c : cases)
    {
        root = std::make_unique<testsupport::CollectorRoot>();
        root->write(testsupport::smartLogsPath, earlier);
        auto result = run(exampleServer(), {"0"}, c.env);
        EXPECT_EQ(result.exitCode, c.exitCode) << c.name;
        EXPECT_EQ(result.termSignal, c.termSignal) << c.name;
        std::string report = smartLogs();
        if (c.exitCode == 0)
        {
            EXPECT_EQ(report, earlier + expected("logs-ssd-nvme.json"))
                << c.name;
        }
        else
        {
            EXPECT_EQ(report, earlier) << c.name;
            EXPECT_FALSE(root->exists(testsupport::smartRawDataPath)) << c.name;
        }
        EXPECT_EQ(logged(mainLine(
                      "Failed to Collect Smart Data: Collection cancelled")),
                  c.exitCode == 10)
            << c.name;
    }
}

TEST_F(CollectorTest, DirectoryCreationFailureLeavesReportsAlone)
{
    root->write("/mmc2/mas032", "a file where a directory belongs");
    root->write(testsupport::smartLogsPath, "earlier text");
    auto result = run(exampleServer(), {"0"});
    EXPECT_EQ(result.exitCode, 21);
    EXPECT_TRUE(logged(
        mainLine("Failed to Collect Smart Data: Error creating directory")));
    EXPECT_EQ(smartLogs(), "earlier text");
    EXPECT_FALSE(logged("5|171|qvDbusCollectSmartData.L: Entry addSmartData"));
}

TEST_F(CollectorTest, CollectionDirectoryMissing)
{
    root = std::make_unique<testsupport::CollectorRoot>(false);
    auto result = run(exampleServer(), {"0"});
    EXPECT_EQ(result.exitCode, 21);
    EXPECT_TRUE(logged(driverLine("Cant write to the file..")));
    EXPECT_TRUE(logged(driverLine(
        "Failed to add smart data: Failed to open file for writing")));
    EXPECT_TRUE(
        logged("5|171|qvDbusCollectSmartData.L: Exit addSmartData: rc:0x15"));
    EXPECT_FALSE(root->exists(testsupport::smartLogsPath));
}

TEST_F(CollectorTest, RawReportUnopenableAfterLogReportOpened)
{
    // A directory where the raw report belongs cannot be opened as a file.
    std::filesystem::create_directories(
        root->hostPath(testsupport::smartRawDataPath));
    auto result = run(exampleServer(), {"0"});
    EXPECT_EQ(result.exitCode, 21);
    EXPECT_TRUE(logged(driverLine("Can't write to the file..")));
    EXPECT_FALSE(logged(driverLine("Cant write to the file..")));
    EXPECT_EQ(smartLogs(), "{\n");
}

TEST_F(CollectorTest, NoDriveObjectsFailsTheCountAndTouchesNothing)
{
    Server server = exampleServer();
    server.doc["objects"] = json::array();
    auto result = run(server, {"0"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(
        logged("9|171|qvDbusCollectSmartData.L.qvdbusGetSmartDataCount: "
               "No storage objects"));
    EXPECT_TRUE(logged(driverLine(
        "Failed to add smart data: Failed to get smart data count")));
    EXPECT_TRUE(
        logged("5|171|qvDbusCollectSmartData.L: Exit addSmartData: rc:0x2"));
    EXPECT_FALSE(root->exists(testsupport::smartLogsPath));
    EXPECT_FALSE(root->exists(testsupport::smartRawDataPath));
}

TEST_F(CollectorTest, FramingOfTheLogReport)
{
    struct Case
    {
        const char* name;
        Server server;
        std::string document; // empty: no file may be created
    };
    Server onlyNvme;
    onlyNvme.nvmeEntry("a", "NVME-A", 0x100)
        .nvmeEntry("b", "NOT-NVME", sata)
        .nvmeEntry("c", "NVME-C", nvmeProtocol)
        .inventoryDrive("1", "HDD", 0, 0);
    Server nothing;
    nothing.tableEntry("a", "SATA-HDD", sata, 0)
        .tableEntry("b", "ODD-SSD", nvmeProtocol, solidState)
        .nvmeEntry("c", "NOT-NVME", sas)
        .inventoryDrive("1", "HDD", 0, 0);
    const Case cases[] = {
        {"only NVMe", onlyNvme,
         "{\n" + nvmeRecord("NVME-A", 0x100) + "},\n" +
             nvmeRecord("NVME-C", nvmeProtocol) + "}\n}"},
        {"nothing qualifies", nothing, ""},
    };
    for (const auto& c : cases)
    {
        root = std::make_unique<testsupport::CollectorRoot>();
        auto result = run(c.server, {"0"});
        EXPECT_EQ(result.exitCode, 0) << c.name << result.err;
        EXPECT_EQ(root->exists(testsupport::smartLogsPath), !c.document.empty())
            << c.name;
        EXPECT_EQ(smartLogs(), c.document) << c.name;
        EXPECT_FALSE(root->exists(testsupport::smartRawDataPath)) << c.name;
    }
}

TEST_F(CollectorTest, TableEntriesComeInKeyOrderWithFieldsNarrowed)
{
    Server server;
    server
        .nvmeEntry(
            "k2", "SECOND", nvmeProtocol,
            {{"errorInfoLogRecordStatusFieldPhaseTag", 3},
             {"errorInfoLogRecordStatusFieldStatus", 0x8005},
             {"errorInfoLogRecordParameterErrorLocationByteInCommand", 0x1ff},
             {"errorInfoLogRecordParameterErrorLocationBitInCommand", 9},
             {"dataUnitsReadLower", UINT64_MAX},
             {"criticalWarning", 0x1ff},
             {"compositeTemparature", 0x12345}})
        .nvmeEntry("k1", "FIRST", nvmeProtocol)
        .inventoryDrive("1", "HDD", 0, 0);
    auto result = run(server, {"0"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    std::string report = smartLogs();
    auto first = report.find("\"FIRST\":");
    auto second = report.find("\"SECOND\":");
    ASSERT_NE(first, std::string::npos);
    ASSERT_NE(second, std::string::npos);
    EXPECT_LT(first, second);
    std::string record = report.substr(second);
    for (const char* member :
         {"\t\"PhaseTag\": \"1\",\n", "\t\"Status\": \"5\",\n",
          "\t\"ByteInCommand\": \"255\",\n", "\t\"BitInCommand\": \"1\",\n",
          "\t\"Data Units Read Lower\": \"18446744073709551615\",\n",
          "\t\"Critical Warning\": \"255\",\n",
          "\t\"Composite Temperature\": \"9029\",\n"})
    {
        EXPECT_NE(record.find(member), std::string::npos) << member;
    }
}

// Date of "now" under a TZ of the given offset east of UTC.
std::string dateAt(long secondsEast)
{
    std::time_t now = std::time(nullptr) + secondsEast;
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[16] = {};
    std::strftime(text, sizeof(text), "%Y%m%d", &utc);
    return text;
}

TEST_F(CollectorTest, DailyRunsAppendUnderTheLocalDate)
{
    // Pick a zone whose date differs from the UTC date right now.
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    bool late = utc.tm_hour >= 10;
    std::string zone = late ? "UTC-14" : "UTC+12";
    std::string date = dateAt(late ? 14 * 3600 : -12 * 3600);
    ASSERT_NE(date, dateAt(0));

    for (int runNumber = 0; runNumber < 2; ++runNumber)
    {
        auto result = run(exampleServer(), {"1"}, {{"TZ", zone}});
        ASSERT_EQ(result.exitCode, 0) << result.err;
    }
    std::vector<std::string> files = {"RD" + date + ".json",
                                      "SL" + date + ".json"};
    ASSERT_EQ(dailyFiles(), files);
    std::string document = expected("logs-ssd-nvme.json");
    EXPECT_EQ(root->read(testsupport::dailyDir + files[1]),
              document + document);
    EXPECT_FALSE(root->exists(testsupport::smartLogsPath));
    std::string path = "/mmc2/mas032/smartlogs/SL" + date + ".json";
    EXPECT_TRUE(logged(driverLine("Curr Day [" + path + "]")));
    EXPECT_TRUE(logged(
        "9|171|qvDbusCollectSmartData.L.getCurrentDay: file : [" + path + "]"));
}

} // namespace
} // namespace e2e
