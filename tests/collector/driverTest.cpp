#include "collectorTest.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <sstream>
#include <vector>

namespace
{

using collectortest::collectorLines;
using collectortest::driveObject;

struct RunResult
{
    int result;
    std::optional<std::string> smartLogs; // absent: the file was not made
    std::optional<std::string> rawData;
    std::vector<std::string> driverLines;
};

std::optional<std::string> contentOf(const std::string& path)
{
    if (!std::filesystem::exists(path))
    {
        return std::nullopt;
    }
    return testsupport::readFile(path);
}

// One collection-mode run against the scenario, into scratch files.
RunResult collect(const std::string& scenario, bool withDirectory = true)
{
    collectortest::Server server(scenario);
    const std::string dir = server.scratch().file("storagelog");
    if (withDirectory)
    {
        std::filesystem::create_directory(dir);
    }
    const ReportFiles files{dir + "/SmartLogs.json", dir + "/SmartRawData.json",
                            server.scratch().file("daily/")};
    dlog::Capture capture;
    collectortest::CerrCapture cerr;
    const int result = addSmartData(0, files);
    std::vector<std::string> driverLines;
    for (const auto& line : collectorLines(capture))
    {
        if (line.find(" addSmartData") != std::string::npos ||
            line.find(".addSmartData: ") != std::string::npos)
        {
            driverLines.push_back(line);
        }
    }
    return {result, contentOf(files.smartLogs), contentOf(files.smartRawData),
            driverLines};
}

std::string row(const std::string& offset, const std::string& cells)
{
    return "\"" + offset + "\": \"" + cells +
           std::string(48 - cells.size(), ' ') + "\"";
}

// The document without its member lines.
std::string frameOf(const std::string& text)
{
    std::istringstream in(text);
    std::string frame;
    for (std::string line; std::getline(in, line);)
    {
        if (!line.starts_with('\t'))
        {
            frame += line + (in.eof() ? "" : "\n");
        }
    }
    return frame;
}

// Every brace outside a quoted text has its partner.
bool balanced(const std::string& text)
{
    int depth = 0;
    bool quoted = false;
    for (char c : text)
    {
        quoted ^= c == '"';
        depth += quoted ? 0 : (c == '{') - (c == '}');
        if (depth < 0)
        {
            return false;
        }
    }
    return depth == 0 && !quoted;
}

const std::string ssdEntry =
    R"({"key": "k1", "fqdd": "DRIVE-SSD-1", "protocol": 16, "attributes": 2,
        "powerOnHours": 12873, "powerCycleCount": 41,
        "unusedReservedBlockCount": 100, "driveTemperature": 31,
        "mediaWriteCount": 5188, "percentDriveLifeRemaining": 98})";
const std::string nvmeEntry =
    R"({"key": "k5", "fqdd": "DRIVE-NVME-5", "protocol": 64,
        "compositeTemparature": 309, "availableSpare": 100,
        "availableSpareThreshold": 10, "percentageUsed": 1,
        "dataUnitsReadLower": 1830566, "dataUnitsWrittenLower": 2217458,
        "hostReadCmdsLower": 40123456, "hostWriteCmdsLower": 51234567,
        "controllerBusyTimeLower": 97, "powerCyclesLower": 41,
        "powerOnHoursLower": 12873, "unsafeShutdownsLower": 3,
        "numOfErrorInfoLogEntriesLower": 2, "temperatureSensor1": 309,
        "temperatureSensor2": 315, "errorInfoLogRecordErrorCount": 2,
        "errorInfoLogRecordCommandID": 12,
        "errorInfoLogRecordStatusFieldPhaseTag": 1,
        "errorInfoLogRecordStatusFieldStatus": 2,
        "errorInfoLogRecordParameterErrorLocationByteInCommand": 40,
        "errorInfoLogRecordNamespace": 1, "badFlashBlock": 5})";

const std::string ssdMembers =
    "\t\"Protocol\": \"16\",\n\t\"Read Error Rate\": \"0\",\n"
    "\t\"Reallocated block count\": \"0\",\n\t\"Power On hours\": "
    "\"12873\",\n\t\"Power Cycle Count\": \"41\",\n\t\"ECCERate\": \"0\",\n"
    "\t\"usedReservedBlockCount\": \"0\",\n\t\"unusedReservedBlockCount\": "
    "\"100\",\n\t\"programFailCount\": \"0\",\n\t\"eraseFailCount\": \"0\",\n"
    "\t\"commandTimeout\": \"0\",\n\t\"Drive Temp\": \"31\",\n"
    "\t\"uncorrectableErrorCount\": \"0\",\n\t\"uncorrectableLBACount\": "
    "\"0\",\n\t\"CRCErrorCount\": \"0\",\n"
    "\t\"volatileMemoryBackupSourceFailures\": \"0\",\n"
    "\t\"exceptionModeStatus\": \"0\",\n\t\"mediaWriteCount\": \"5188\",\n"
    "\t\"percentDriveLifeRemaining\": \"98\",\n"
    "\t\"currentPendingSectorCount\": \"0\",\n";

const std::string nvmeMembers =
    "\t\"Protocol\": \"64\",\n\t\"Critical Warning\": \"0\",\n"
    "\t\"Composite Temperature\": \"309\",\n\t\"Available Spare\": \"100\",\n"
    "\t\"Available Spare Threshold\": \"10\",\n\t\"Percentage used\": "
    "\"1\",\n\t\"Data Units Read Lower\": \"1830566\",\n\t\"Data Units Read "
    "Upper\": \"0\",\n\t\"Data Units Written Lower\": \"2217458\",\n"
    "\t\"Data Units Written Upper\": \"0\",\n\t\"Host Read Cmds Lower\": "
    "\"40123456\",\n\t\"Host Read Cmds Upper\": \"0\",\n\t\"Host Write Cmds "
    "Lower\": \"51234567\",\n\t\"Host Write Cmds Upper\": \"0\",\n"
    "\t\"ControllerBusyTime Lower\": \"97\",\n\t\"ControllerBusyTime "
    "Upper\": \"0\",\n\t\"PowerCycles Lower\": \"41\",\n\t\"PowerCycles "
    "Upper\": \"0\",\n\t\"PowerOnHours Lower\": \"12873\",\n\t\"PowerOnHours "
    "Upper\": \"0\",\n\t\"UnsafeShutdowns Lower\": \"3\",\n\t\"UnsafeShutdowns "
    "Upper\": \"0\",\n\t\"MediaAndDataIntegrityErrs Lower\": \"0\",\n"
    "\t\"MediaAndDataIntegrityErrs Upper\": \"0\",\n"
    "\t\"NumOfErrorInfoLogEntries Lower\": \"2\",\n"
    "\t\"NumOfErrorInfoLogEntries Upper\": \"0\",\n"
    "\t\"warningCompositeTemperatureTime\": \"0\",\n"
    "\t\"criticalCompositeTemperatureTime\": \"0\",\n\t\"temperatureSensor1\": "
    "\"309\",\n\t\"temperatureSensor2\": \"315\",\n\t\"temperatureSensor3\": "
    "\"0\",\n\t\"temperatureSensor4\": \"0\",\n\t\"temperatureSensor5\": "
    "\"0\",\n\t\"temperatureSensor6\": \"0\",\n\t\"temperatureSensor7\": "
    "\"0\",\n\t\"temperatureSensor8\": \"0\",\n"
    "\t\"thermalMgmtTempTransitionCount\": \"0\",\n"
    "\t\"totalTimeThemalMgmtTemp\": \"0\",\n\t\"errorCount\": \"2\",\n"
    "\t\"submissionQueID\": \"0\",\n\t\"commandID\": \"12\",\n\t\"PhaseTag\": "
    "\"1\",\n\t\"Status\": \"2\",\n\t\"ByteInCommand\": \"40\",\n"
    "\t\"BitInCommand\": \"0\",\n\t\"LBA\": \"0\",\n\t\"Namespace\": \"1\",\n"
    "\t\"vendorSpecificInfo\": \"0\",\n";

TEST(Driver, WorkedExampleByteForByte)
{
    const RunResult run =
        collect(R"({"sasSata": {"entries": [)" + ssdEntry +
                R"(]}, "nvme": {"entries": [)" + nvmeEntry +
                R"(]}, "objects": [)" + driveObject(0, "DRIVE-SSD-1", 16, 2) +
                "," + driveObject(1, "DRIVE-SATA-2", 16, 0) + "," +
                driveObject(2, "DRIVE-SAS-3", 32, 0) + R"(], "drives": {
        "DRIVE-SSD-1": {"rawData": {"data": "000102030405060708090a0b0c0d0e0f10111213"}},
        "DRIVE-SATA-2": {"sataHdd": {"protocol": 16, "pages": [
            {"code": 0, "data": "0001030405060708"},
            {"code": 1, "data": "010001000000000038000000000000c02a01"}]}},
        "DRIVE-SAS-3": {"sasHdd": {"protocol": 32, "pages": [
            {"code": 3, "data": "0300000c"}, {}, {}, {}, {}, {},
            {"code": 13, "data": "0d00000c000000020027"}]}}}})");
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.smartLogs, "{\n\"DRIVE-SSD-1\":\n{\n" + ssdMembers +
                                 "},\n\"DRIVE-NVME-5\":\n{\n" + nvmeMembers +
                                 "}\n}");
    EXPECT_EQ(
        run.rawData,
        "{\n\"DRIVE-SSD-1\":\n{\n" +
            row("000000", "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f ") +
            ",\n" + row("000010", "10 11 12 13 ") +
            "\n},\n\"DRIVE-SATA-2\":\n{\n\"suppLogPages(0)\": {\n" +
            row("000000", "00 01 03 04 05 06 07 08 ") +
            "\n},\n\"genStatistics(1)\": {\n" +
            row("000000", "01 00 01 00 00 00 00 00 38 00 00 00 00 00 00 c0 ") +
            ",\n" + row("000010", "2a 01 ") +
            "\n}\n},\n\"DRIVE-SAS-3\":\n{\n\"readErrCounter(3)\": {\n" +
            row("000000", "03 00 00 0c ") + "\n},\n\"temperature(d)\": {\n" +
            row("000000", "0d 00 00 0c 00 00 00 02 00 27 ") + "\n}\n}\n}");

    const std::string prefix = "9|qvDbusCollectSmartData.#.addSmartData: ";
    EXPECT_EQ(
        run.driverLines,
        (std::vector<std::string>{
            "5|qvDbusCollectSmartData.#: Entry addSmartData",
            prefix + "SSDObjCount = 1, nvmeObjCount=1, TotalDriveObjCount=3\n",
            prefix + "obj.protocol=16, obj.attributes=2, fqdd=DRIVE-SSD-1\n",
            prefix +
                "Drive type is SAS/SATA, adding smart data and raw data.\n",
            prefix + "FQDD:DRIVE-SSD-1 | Protocol:16 | Attributes:2\n",
            prefix + "FQDD:DRIVE-SATA-2 | Protocol:16 | Attributes:0\n",
            prefix + "Drive type is SATA HDD, adding only raw data\n",
            prefix + "FQDD:DRIVE-SAS-3 | Protocol:32 | Attributes:0\n",
            prefix + "Drive type is SAS HDD, adding only raw data\n",
            prefix + "nvmeobj=64, fqdd=DRIVE-NVME-5\n",
            prefix + "Drive type is PCIe/NVMe, adding only smart data\n",
            "5|qvDbusCollectSmartData.#: Exit addSmartData: rc:0x0"}));
}

std::string sasSata(const std::string& fqdd, int protocol, int attributes)
{
    return R"({"key": ")" + fqdd + R"(", "fqdd": ")" + fqdd +
           R"(", "protocol": )" + std::to_string(protocol) +
           R"(, "attributes": )" + std::to_string(attributes) + "}";
}

const std::string framingDrives = R"("drives": {
    "S1": {"rawData": {"data": "51"}},
    "S2": {"rawData": {"status": [0, 7]}},
    "": {"rawData": {"data": "e0"}},
    "H1": {"sataHdd": {"pages": [{}, {}, {}, {}, {"code": 21, "data": "a1"}]}},
    "H2": {"sasHdd": {"pages": [{"code": 21, "data": "a2"}]}},
    "FAIL": {"sasHdd": {"status": [0, 7]}},
    "ZERO": {"sataHdd": {}},
    "BIG": {"sataHdd": {"pages": [{"code": 1, "length": 300, "dataLength": 300}]}}})";

RunResult collectFraming(const std::string& sasSataEntries,
                         const std::string& nvmeEntries,
                         const std::vector<std::string>& objects)
{
    std::string objectList;
    for (const auto& object : objects)
    {
        objectList += (objectList.empty() ? "" : ",") + object;
    }
    return collect(R"({"sasSata": {"entries": [)" + sasSataEntries +
                   R"(]}, "nvme": {"entries": [)" + nvmeEntries +
                   R"(]}, "objects": [)" + objectList + "], " + framingDrives +
                   "}");
}

TEST(Driver, DocumentFraming)
{
    struct Case
    {
        std::string name;
        std::string sasSata;
        std::string nvme;
        std::vector<std::string> objects;
        std::optional<std::string> smartLogsFrame;
        std::optional<std::string> rawData;
    };
    const std::string nvme = R"({"key": "n1", "fqdd": "N1", "protocol": 256},
        {"key": "n2", "fqdd": "N2", "protocol": 64},
        {"key": "n3", "fqdd": "N3", "protocol": 16, "attributes": 2})";
    // Follows a SAS drive; without a protocol it is no hard drive.
    const std::string noProtocol =
        R"({"path": "/com/kest/omrix/storage/drive/3", "interfaces": {
        "com.kest.omrix.storage.drive.inventory": {"Fqdd": ["s", "NP"]}}})";
    const std::string h1 = "\"H1\":\n{\n\"tempStatistics(21)\": {\n" +
                           row("000000", "a1 ") + "\n}";
    const std::vector<Case> cases{
        {"nothing qualifies",
         sasSata("S1", 16, 0) + "," + sasSata("S2", 0x40, 2),
         R"({"key": "n3", "protocol": 16})",
         {driveObject(1, "NV", 0x140, 0), driveObject(2, "S1", 16, 2)},
         std::nullopt,
         std::nullopt},
        {"only NVMe; hard drives first: decimal code, then hexadecimal",
         "",
         nvme,
         {driveObject(1, "H1", 16, 0), driveObject(2, "H2", 0x30, 0),
          noProtocol},
         "{\n\"N1\":\n{\n},\n\"N2\":\n{\n}\n}",
         "{\n" + h1 + "\n},\n\"H2\":\n{\n\"readErrCounter(15)\": {\n" +
             row("000000", "a2 ") + "\n}\n}\n}"},
        {"failed and empty hard drives keep the document balanced",
         sasSata("S1", 32, 2) + "," + sasSata("S3", 16, 3),
         nvme,
         {driveObject(1, "FAIL", 32, 0), driveObject(2, "ZERO", 16, 0)},
         "{\n\"S1\":\n{\n},\n\"S3\":\n{\n},\n\"N1\":\n{\n},\n\"N2\":\n{\n}\n}",
         "{\n\"S1\":\n{\n" + row("000000", "51 ") +
             "\n},\n\"S3\":\n{\n\n},\n\"FAIL\":\n{\n\"\": {\n\n}\n},\n"
             "\"ZERO\":\n{\n\"\": {\n\n}\n}\n}"},
        {"failed raw data and unnamed solid-state drive",
         "{\"key\": \"0\", \"protocol\": 16, \"attributes\": 2}," +
             sasSata("S2", 16, 2),
         "",
         {driveObject(1, "S2", 16, 2)},
         "{\n\"\":\n{\n},\n\"S2\":\n{\n}\n}",
         "{\n\"\":\n{\n" + row("000000", "e0 ") + "\n},\n\"S2\":\n{\n\n}\n}"},
    };
    for (const auto& c : cases)
    {
        const RunResult run = collectFraming(c.sasSata, c.nvme, c.objects);
        EXPECT_EQ(run.result, 0) << c.name;
        EXPECT_EQ(run.smartLogs ? std::optional(frameOf(*run.smartLogs))
                                : std::nullopt,
                  c.smartLogsFrame)
            << c.name;
        EXPECT_EQ(run.rawData, c.rawData) << c.name;
        for (const auto& document : {run.smartLogs, run.rawData})
        {
            EXPECT_TRUE(!document || balanced(*document)) << c.name;
        }
    }
}

TEST(Driver, PageLongerThanItsSlotShowsTheSlot)
{
    const RunResult run =
        collectFraming("", "", {driveObject(1, "BIG", 16, 0)});
    ASSERT_TRUE(run.rawData);
    EXPECT_TRUE(run.rawData->ends_with(
        ",\n" +
        row("0000f0", "f0 f1 f2 f3 f4 f5 f6 f7 f8 f9 fa fb fc fd fe ff ") +
        "\n}\n}\n}"));
    EXPECT_EQ(run.rawData->find("\"000100\""), std::string::npos);
}

TEST(Driver, FailuresEndTheRun)
{
    const std::string prefix = "9|qvDbusCollectSmartData.#.addSmartData: ";
    const std::string openFailure =
        prefix + "Failed to add smart data: Failed to open file for writing";
    const std::string objects =
        R"("objects": [)" + driveObject(1, "D", 16, 2) + "]";
    struct Case
    {
        std::string scenario;
        bool withDirectory;
        int result;
        std::vector<std::string> lastLines;
    };
    const std::vector<Case> cases{
        {R"({"sasSata": {"entries": [)" + sasSata("S", 16, 2) + "]}," +
             objects + "}",
         false,
         21,
         {prefix + "Cant write to the file..\n", openFailure,
          "5|qvDbusCollectSmartData.#: Exit addSmartData: rc:0x15"}},
        {R"({"nvme": {"entries": [{"key": "n", "protocol": 64}]},)" + objects +
             "}",
         false,
         21,
         {prefix + "Can't write to the file..\n", openFailure,
          "5|qvDbusCollectSmartData.#: Exit addSmartData: rc:0x15"}},
        {R"({"sasSata": {"entries": [)" + sasSata("S", 16, 2) + "]}}",
         true,
         2,
         {prefix + "Failed to add smart data: Failed to get smart data "
                   "count\n",
          "5|qvDbusCollectSmartData.#: Exit addSmartData: rc:0x2"}},
    };
    for (const auto& c : cases)
    {
        const RunResult run = collect(c.scenario, c.withDirectory);
        EXPECT_EQ(run.result, c.result);
        EXPECT_FALSE(run.smartLogs || run.rawData);
        ASSERT_GE(run.driverLines.size(), c.lastLines.size());
        EXPECT_EQ(
            std::vector<std::string>(run.driverLines.end() - c.lastLines.size(),
                                     run.driverLines.end()),
            c.lastLines);
    }
}

TEST(Driver, UnwritableRawDocumentAfterSmartLogOpened)
{
    collectortest::Server server(R"({"sasSata": {"entries": [)" +
                                 sasSata("S", 16, 2) + R"(]}, "objects": [)" +
                                 driveObject(1, "S", 16, 2) + "]}");
    const ReportFiles files{server.scratch().file("SmartLogs.json"),
                            server.scratch().file("missing/Raw.json"), ""};
    dlog::Capture capture;
    EXPECT_EQ(addSmartData(0, files), 21);
    EXPECT_EQ(testsupport::readFile(files.smartLogs), "{\n");
    const auto lines = collectorLines(capture);
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        "9|qvDbusCollectSmartData.#.addSmartData: Can't "
                        "write to the file..\n"),
              lines.end());
}

TEST(Driver, DailyRunsAppendDatedDocuments)
{
    collectortest::Server server(
        R"({"sasSata": {"entries": [)" + sasSata("S", 16, 2) +
        R"(]}, "nvme": {"entries": [{"key": "n", "fqdd": "N", "protocol": 64}]},
        "drives": {"S": {"rawData": {"data": "51"}}}, "objects": [)" +
        driveObject(1, "N", 64, 0) + "]}");
    const std::string daily = server.scratch().file("daily") + "/";
    std::filesystem::create_directory(daily);
    const ReportFiles files{server.scratch().file("SmartLogs.json"),
                            server.scratch().file("SmartRawData.json"), daily};
    dlog::Capture capture;
    ASSERT_EQ(addSmartData(7, files), 0);
    ASSERT_EQ(addSmartData(1, files), 0);
    const std::string smartLogs = getCurrentDay(0, daily);
    const std::string rawData = getCurrentDay(1, daily);
    EXPECT_EQ(
        frameOf(testsupport::readFile(smartLogs)),
        "{\n\"S\":\n{\n},\n\"N\":\n{\n}\n}{\n\"S\":\n{\n},\n\"N\":\n{\n}\n}");
    const std::string rawDocument =
        "{\n\"S\":\n{\n" + row("000000", "51 ") + "\n}\n}";
    EXPECT_EQ(testsupport::readFile(rawData), rawDocument + rawDocument);
    EXPECT_FALSE(std::filesystem::exists(files.smartLogs) ||
                 std::filesystem::exists(files.smartRawData));
    const auto lines = collectorLines(capture);
    for (const auto& path : {smartLogs, rawData})
    {
        EXPECT_EQ(std::count(lines.begin(), lines.end(),
                             "9|qvDbusCollectSmartData.#.addSmartData: Curr "
                             "Day [" +
                                 path + "]\n"),
                  2);
    }
}

} // namespace
