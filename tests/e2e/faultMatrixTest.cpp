#include "collectorFixture.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <utility>

// What the collector does when its suppliers or its disk misbehave. Every
// case starts from report files that already hold an earlier run's
// document: the collector only ever appends, so those bytes must survive
// whatever happens.
namespace e2e
{
namespace
{

const std::string earlierLogs = "{\n\"EARLIER-LOGS\":\n{\n}\n}";
const std::string earlierRaw = "{\n\"EARLIER-RAW\":\n{\n}\n}";

std::string collectorLine(const std::string& function, const std::string& text)
{
    return "9|171|qvDbusCollectSmartData.L." + function + ": " + text;
}

std::string inventoryLine(const std::string& function, const std::string& text)
{
    return "9|172|qvDbusCollectCommon.L." + function + ": " + text;
}

std::string driverLine(const std::string& text)
{
    return collectorLine("addSmartData", text);
}

std::string hexRow(const std::string& offset, const std::string& cells)
{
    std::string padded = cells;
    padded.resize(48, ' ');
    return "\"" + offset + "\": \"" + padded + "\"";
}

// The cells of octets first, first + 1, ... as a raw report row shows them.
std::string countingCells(unsigned first, unsigned count)
{
    std::string cells;
    for (unsigned i = 0; i < count; ++i)
    {
        cells += countingHex(first + i, 1) + " ";
    }
    return cells;
}

// The rows of octets 0, 1, 2, ... as the raw report shows them.
std::string countingRows(unsigned count)
{
    std::string rows;
    for (unsigned at = 0; at < count; at += 16)
    {
        char offset[16];
        std::snprintf(offset, sizeof(offset), "%06x", at);
        rows += (at == 0 ? "" : ",\n") +
                hexRow(offset, countingCells(at, std::min(16u, count - at)));
    }
    return rows;
}

// A solid-state drive from the table, a SATA and a SAS hard drive from the
// inventory, each with a little data.
Server baseServer()
{
    json sataPage = {{"code", 1}, {"data", "01"}};
    json sasPage = {{"code", 3}, {"data", "03"}};
    Server server;
    server.tableEntry("a", "SSD", sata, solidState)
        .inventoryDrive("0", "SSD", sata, solidState)
        .inventoryDrive("1", "SATA", sata, 0)
        .inventoryDrive("2", "SAS", sas, 0)
        .rawData("SSD", {{"data", "0a0b"}})
        .sataPages("SATA", {{"protocol", sata}, {"pages", {sataPage}}})
        .sasPages("SAS", {{"protocol", sas}, {"pages", {sasPage}}});
    return server;
}

const std::string ssdRows = hexRow("000000", "0a 0b ");
const std::string sataGroups =
    "\"suppLogPages(1)\": {\n" + hexRow("000000", "01 ") + "\n}";
const std::string sasGroups =
    "\"readErrCounter(3)\": {\n" + hexRow("000000", "03 ") + "\n}";
const std::string failedGroups = "\"\": {\n\n}";

// The raw document of the base server: the solid-state drive's rows, then
// each hard drive that made it into the report with its page groups.
std::string rawDocument(
    const std::string& rows,
    const std::vector<std::pair<std::string, std::string>>& hardDrives = {
        {"SATA", sataGroups}, {"SAS", sasGroups}})
{
    std::string document = "{\n\"SSD\":\n{\n" + rows + "\n}";
    for (const auto& [fqdd, groups] : hardDrives)
    {
        document += ",\n\"" + fqdd + "\":\n{\n" + groups + "\n}";
    }
    return document + "\n}";
}

json error(const std::string& name)
{
    return {{"error", {{"name", name}, {"message", "refused"}}}};
}

json reply(const std::string& signature, const json& values)
{
    return {{"reply", {{"signature", signature}, {"values", values}}}};
}

// A hard-drive reply body with `pages` pages of one octet each.
json hardDriveBody(uint32_t protocol, int pages)
{
    json values = {{0, 0}, 0, 0, protocol, 0, 0, "", ""};
    std::string signature = "(tt)yuutuss";
    for (int page = 0; page < pages; ++page)
    {
        signature += "ayyq";
        values.insert(values.end(), {"01", 1, 1});
    }
    return reply(signature, values);
}

class FaultMatrix : public CollectorTest
{
protected:
    struct Outcome
    {
        RunResult result;
        std::string logs; // what the run appended to each report
        std::string raw;
    };

    // Runs over report files seeded with earlier documents and returns
    // what was added to them.
    Outcome runSeeded(const Server& server,
                      const std::vector<std::string>& args = {"0"},
                      const EnvChanges& env = {})
    {
        root->write(testsupport::smartLogsPath, earlierLogs);
        root->write(testsupport::smartRawDataPath, earlierRaw);
        Outcome outcome{run(server, args, env), "", ""};
        outcome.logs = added(smartLogs(), earlierLogs);
        outcome.raw = added(rawData(), earlierRaw);
        return outcome;
    }

    static std::string added(const std::string& text,
                             const std::string& earlier)
    {
        EXPECT_EQ(text.substr(0, earlier.size()), earlier)
            << "earlier bytes lost";
        return text.substr(std::min(text.size(), earlier.size()));
    }

    // The log, for failure messages.
    std::string logText() const
    {
        std::string text;
        for (const auto& line : logLines())
        {
            text += line + "\n";
        }
        return text;
    }

    // The log report of the base server, from a run without faults.
    std::string baseLogs()
    {
        if (cleanLogs.empty())
        {
            auto outcome = runSeeded(baseServer());
            cleanLogs = outcome.logs;
            EXPECT_EQ(outcome.result.exitCode, 0) << outcome.result.err;
            const std::string head = "{\n\"SSD\":\n{\n";
            EXPECT_EQ(cleanLogs.substr(0, head.size()), head);
            EXPECT_EQ(outcome.raw, rawDocument(ssdRows));
            root = std::make_unique<testsupport::CollectorRoot>();
        }
        return cleanLogs;
    }

private:
    std::string cleanLogs;
};

// Where a fault is put, and what the run makes of a fault there.
enum class Target
{
    storageName,
    mapper,
    getAll,
    sataProperties,
    rawData,
    sataPages,
    sasPages,
};

struct Effect
{
    const char* pointer; // where the scenario takes the fault
    int exitCode;
    std::string logLine;
    std::string raw; // appended to the raw report
    bool logsWritten = true;
};

std::map<Target, Effect> effects()
{
    const std::string noProperty = inventoryLine(
        "getStorageObjInfo", "[getStorageObjInfo]: failed to get property");
    return {
        {Target::storageName, {"/names", 0, noProperty, rawDocument("", {})}},
        {Target::mapper,
         {"/mapper", 2,
          collectorLine("qvdbusGetSmartDataCount", "No storage objects"), "",
          false}},
        {Target::getAll,
         {"/objects/*/getAll", 0, noProperty, rawDocument(ssdRows, {})}},
        {Target::sataProperties,
         {"/objects/1/getAll", 0,
          driverLine("FQDD:SATA | Protocol:0 | Attributes:0"),
          rawDocument(ssdRows, {{"SAS", sasGroups}})}},
        {Target::rawData,
         {"/drives/SSD/rawData", 0,
          driverLine("Failed to get SAS/SATA raw data for FQDD: SSD"),
          rawDocument("")}},
        {Target::sataPages,
         {"/drives/SATA/sataHdd", 0,
          driverLine("Failed to get smartdata of sata HDD"),
          rawDocument(ssdRows, {{"SATA", failedGroups}, {"SAS", sasGroups}})}},
        {Target::sasPages,
         {"/drives/SAS/sasHdd", 0,
          driverLine("Failed to get smartdata of sas/sata HDD"),
          rawDocument(ssdRows, {{"SATA", sataGroups}, {"SAS", failedGroups}})}},
    };
}

// `fault` put where `pointer` says; a '*' stands for every inventory object.
void place(json& doc, const std::string& pointer, const json& fault)
{
    auto star = pointer.find('*');
    if (star == std::string::npos)
    {
        doc[json::json_pointer(pointer)] = fault;
        return;
    }
    for (size_t i = 0; i < doc["objects"].size(); ++i)
    {
        std::string one = pointer;
        one.replace(star, 1, std::to_string(i));
        doc[json::json_pointer(one)] = fault;
    }
}

TEST_F(FaultMatrix, SupplierFaults)
{
    struct Case
    {
        const char* name;
        Target target;
        json fault; // replaces the target's entry
    };
    const json hang = {{"noReply", true}};
    const json busy = error("x.Error.Busy");
    const Case cases[] = {
        {"storage service absent", Target::storageName, {{"storage", false}}},
        {"mapper absent", Target::mapper, nullptr},
        {"mapper error", Target::mapper, busy},
        {"mapper hangs", Target::mapper, hang},
        {"mapper reply a{ss}", Target::mapper, reply("a{ss}", {{{"x", "y"}}})},
        {"mapper reply empty", Target::mapper, reply("", json::array())},
        {"GetAll error", Target::getAll, busy},
        {"GetAll reply a{ss}", Target::getAll,
         reply("a{ss}", {{{"Fqdd", "SATA"}}})},
        {"GetAll reply empty", Target::getAll, reply("", json::array())},
        {"GetAll without Protocol", Target::sataProperties,
         reply("a{sv}", {{{"Fqdd", {"s", "SATA"}}}})},
        {"raw data error", Target::rawData, busy},
        {"raw data hangs", Target::rawData, hang},
        {"raw data reply s", Target::rawData, reply("s", {"x"})},
        {"raw data reply (tt)", Target::rawData, reply("(tt)", {{0, 0}})},
        {"raw data status (7, 0)",
         Target::rawData,
         {{"data", "01"}, {"status", {7, 0}}}},
        {"raw data status (0, 7)",
         Target::rawData,
         {{"data", "01"}, {"status", {0, 7}}}},
        {"SATA pages error", Target::sataPages, busy},
        {"SATA reply (tt)s", Target::sataPages, reply("(tt)s", {{0, 0}, "x"})},
        {"SATA reply of 4 pages", Target::sataPages, hardDriveBody(sata, 4)},
        {"SATA status (0, 5)", Target::sataPages, {{"status", {0, 5}}}},
        {"SATA status (5, 0)", Target::sataPages, {{"status", {5, 0}}}},
        {"SAS pages error", Target::sasPages, busy},
        {"SAS pages hang", Target::sasPages, hang},
        {"SAS reply (tt)s", Target::sasPages, reply("(tt)s", {{0, 0}, "x"})},
        {"SAS reply of 6 pages", Target::sasPages, hardDriveBody(sas, 6)},
        {"SAS status (1, 0)", Target::sasPages, {{"status", {1, 0}}}},
        {"SAS status (0, 2^64-1)",
         Target::sasPages,
         {{"status", {0, UINT64_MAX}}}},
    };
    const auto effectOf = effects();
    const std::string logs = baseLogs();
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        root = std::make_unique<testsupport::CollectorRoot>();
        const Effect& effect = effectOf.at(c.target);
        Server server = baseServer();
        if (c.fault.is_null())
        {
            server.doc["names"] = {{"mapper", false}};
        }
        else
        {
            place(server.doc, effect.pointer, c.fault);
        }
        EnvChanges env;
        if (c.fault.contains("noReply"))
        {
            env["SYSTEMD_BUS_TIMEOUT"] = "1";
        }
        auto outcome = runSeeded(server, {"0"}, env);
        EXPECT_EQ(outcome.result.exitCode, effect.exitCode)
            << outcome.result.err;
        EXPECT_TRUE(logged(effect.logLine)) << logText();
        EXPECT_EQ(outcome.raw, effect.raw);
        EXPECT_EQ(outcome.logs, effect.logsWritten ? logs : "");
    }
}

TEST_F(FaultMatrix, RawDataOfSixteenMebibytes)
{
    // Past 16 MiB the offsets need seven digits.
    const unsigned size = (16u << 20) + 32;
    Server server;
    server.tableEntry("a", "SSD", sata, solidState)
        .inventoryDrive("0", "SSD", sata, solidState)
        .rawData("SSD", {{"dataLength", size}});
    auto outcome = runSeeded(server);
    ASSERT_EQ(outcome.result.exitCode, 0) << outcome.result.err;
    EXPECT_TRUE(logged(collectorLine("qvdbusGetSmartPDSASSATARawData",
                                     "Raw data size: " + std::to_string(size) +
                                         " for FQDD: SSD")));
    size_t rows = 0;
    for (size_t at = outcome.raw.find("\": \""); at != std::string::npos;
         at = outcome.raw.find("\": \"", at + 1))
    {
        ++rows;
    }
    EXPECT_EQ(rows, size / 16);
    const std::string head = "{\n\"SSD\":\n{\n" + countingRows(32);
    EXPECT_EQ(outcome.raw.substr(0, head.size()), head);
    const std::string tail =
        ",\n" + hexRow("1000010", countingCells(0x10, 16)) + "\n}\n}";
    ASSERT_GE(outcome.raw.size(), tail.size());
    EXPECT_EQ(outcome.raw.substr(outcome.raw.size() - tail.size()), tail);
}

TEST_F(FaultMatrix, PageLengthsBeyondTheSlot)
{
    json sataPages = {{{"code", 1}, {"dataLength", 300}, {"length", 1000}},
                      {{"code", 2}, {"dataLength", 100}, {"length", 300}},
                      {{"code", 3}, {"dataLength", 256}, {"length", 257}}};
    json sasPages = {{{"code", 4}, {"dataLength", 400}}};
    Server server;
    server.inventoryDrive("1", "SATA", sata, 0)
        .inventoryDrive("2", "SAS", sas, 0)
        .sataPages("SATA", {{"protocol", sata}, {"pages", sataPages}})
        .sasPages("SAS", {{"protocol", sas}, {"pages", sasPages}});
    auto outcome = runSeeded(server);
    ASSERT_EQ(outcome.result.exitCode, 0) << outcome.result.err;
    const std::string all = countingRows(256);
    EXPECT_EQ(outcome.raw,
              "{\n\"SATA\":\n{\n\"suppLogPages(1)\": {\n" + all +
                  "\n},\n\"genStatistics(2)\": {\n" + countingRows(100) +
                  "\n},\n\"rotaStatistics(3)\": {\n" + all +
                  "\n}\n},\n\"SAS\":\n{\n\"readErrCounter(4)\": {\n" + all +
                  "\n}\n}\n}");
    for (const char* line :
         {"qvdbusGetSmartPDSATAHDDData: Log page 1 of FQDD SATA: length "
          "1000, 300 octets delivered, 256 kept",
          "qvdbusGetSmartPDSATAHDDData: Log page 2 of FQDD SATA: length 300, "
          "100 octets delivered, 100 kept",
          "qvdbusGetSmartPDSATAHDDData: Log page 3 of FQDD SATA: length 257, "
          "256 octets delivered, 256 kept",
          "qvdbusGetSmartPDSASHDDData: Log page 1 of FQDD SAS: length 400, "
          "400 octets delivered, 256 kept"})
    {
        EXPECT_TRUE(
            logged("9|171|qvDbusCollectSmartData.L." + std::string(line)))
            << line << "\n"
            << logText();
    }
}

TEST_F(FaultMatrix, PropertiesOfUnexpectedTypes)
{
    struct Case
    {
        const char* name;
        std::string property;
        json value;
        int exitCode;
        std::string logLine;
        std::string raw;
    };
    const std::string badVariant =
        driverLine("Failed to add smart data: std::get: wrong index for "
                   "variant");
    // The run stops in the middle of the hard drives: the document stays
    // open, and the earlier bytes in front of it are kept.
    const std::string cutShort = "{\n\"SSD\":\n{\n" + ssdRows;
    const Case cases[] = {
        {"Protocol as q", "Protocol", {"q", sata}, 2, badVariant, cutShort},
        {"Attributes as t", "Attributes", {"t", 0}, 2, badVariant, cutShort},
        {"Fqdd as o",
         "Fqdd",
         {"o", "/x"},
         0,
         driverLine("FQDD: | Protocol:16 | Attributes:0"),
         "{\n\"SSD\":\n{\n" + ssdRows + "\n},\n" + failedGroups +
             "\n},\n\"SAS\":\n{\n" + sasGroups + "\n}\n}"},
    };
    const std::string logs = baseLogs();
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        root = std::make_unique<testsupport::CollectorRoot>();
        expectWellFormed = false;
        Server server = baseServer();
        server.doc["objects"][1]["interfaces"][driveInventory][c.property] =
            c.value;
        auto outcome = runSeeded(server);
        EXPECT_EQ(outcome.result.exitCode, c.exitCode) << outcome.result.err;
        EXPECT_TRUE(logged(c.logLine)) << logText();
        EXPECT_EQ(outcome.raw, c.raw);
        // A stopped run leaves the log report without its closing text too.
        const std::string closing = "}\n}";
        EXPECT_EQ(outcome.logs,
                  c.exitCode == 0
                      ? logs
                      : logs.substr(0, logs.size() - closing.size()));
    }
}

TEST_F(FaultMatrix, FqddsAreWrittenAsTheyCome)
{
    // Names are not escaped: a quote in an FQDD ends the name early.
    expectWellFormed = false;
    const std::string quoted = "Disk \"7\"";
    const std::string blanks = " Bay 3  Slot 1 ";
    const std::string utf8 =
        "Laufwerk-\xc3\xa4\xc3\x9f-\xe2\x82\xac-\xf0\x9f\x92\xbe";
    Server server;
    server.tableEntry("a", quoted, sata, solidState)
        .inventoryDrive("0", quoted, sata, solidState)
        .inventoryDrive("1", blanks, sata, 0)
        .inventoryDrive("2", utf8, sas, 0)
        .rawData(quoted, {{"data", "0a0b"}})
        .sataPages(blanks, {{"protocol", sata},
                            {"pages", {{{"code", 1}, {"data", "01"}}}}})
        .sasPages(utf8, {{"protocol", sas},
                         {"pages", {{{"code", 3}, {"data", "03"}}}}});
    auto outcome = runSeeded(server);
    ASSERT_EQ(outcome.result.exitCode, 0) << outcome.result.err;
    EXPECT_EQ(outcome.raw, "{\n\"" + quoted + "\":\n{\n" + ssdRows +
                               "\n},\n\"" + blanks + "\":\n{\n" + sataGroups +
                               "\n},\n\"" + utf8 + "\":\n{\n" + sasGroups +
                               "\n}\n}");
    const std::string head =
        "{\n\"" + quoted + "\":\n{\n\t\"Protocol\": \"16\",\n";
    EXPECT_EQ(outcome.logs.substr(0, head.size()), head);
}

TEST_F(FaultMatrix, ReportDirectoryReadOnly)
{
    root->readOnly("/mmc2/qvcollection/vok/storagelog");
    auto outcome = runSeeded(baseServer());
    EXPECT_EQ(outcome.result.exitCode, 21);
    EXPECT_TRUE(logged(driverLine("Cant write to the file.."))) << logText();
    EXPECT_EQ(outcome.logs, "");
    EXPECT_EQ(outcome.raw, "");
}

TEST_F(FaultMatrix, DiskFullWhileWriting)
{
    // Two pages of tmpfs: each seeded report holds one, so the raw report
    // runs out while the small log report still fits in its page.
    expectWellFormed = false;
    const std::string logs = baseLogs();
    root->smallDisk("/mmc2/qvcollection/vok/storagelog", 8192);
    Server server = baseServer();
    server.rawData("SSD", {{"dataLength", 4096}});
    auto outcome = runSeeded(server);
    // Write errors leave the run's result alone, but the log says which
    // report is incomplete.
    EXPECT_EQ(outcome.result.exitCode, 0) << outcome.result.err;
    EXPECT_TRUE(
        logged("5|171|qvDbusCollectSmartData.L: Exit addSmartData: rc:0x0"))
        << logText();
    EXPECT_TRUE(logged(driverLine(
        "Writing the raw data report failed, the file is incomplete")))
        << logText();
    EXPECT_FALSE(logged(driverLine(
        "Writing the SMART log report failed, the file is incomplete")));
    const std::string full = rawDocument(countingRows(4096));
    EXPECT_EQ(earlierRaw.size() + outcome.raw.size(), 4096u);
    EXPECT_EQ(outcome.raw, full.substr(0, outcome.raw.size()));
    EXPECT_EQ(outcome.logs, logs);
}

// SIGUSR1 while the collector waits for each kind of reply in turn: the
// handler has no SA_RESTART, so the wait is interrupted, and the run must
// come out as if the signal had not come.
TEST_F(FaultMatrix, CancelSignalWhileACallWaits)
{
    const json signalThenAnswer = {{"delayMs", 100}, {"signalCaller", SIGUSR1}};
    const std::string logs = baseLogs();
    for (const char* pointer :
         {"/mapper", "/objects/1/getAll", "/drives/SSD/rawData",
          "/drives/SATA/sataHdd", "/drives/SAS/sasHdd"})
    {
        SCOPED_TRACE(pointer);
        root = std::make_unique<testsupport::CollectorRoot>();
        Server server = baseServer();
        server.doc[json::json_pointer(pointer)].update(signalThenAnswer);
        auto outcome = runSeeded(server);
        EXPECT_EQ(outcome.result.exitCode, 0) << outcome.result.err;
        EXPECT_EQ(outcome.raw, rawDocument(ssdRows)) << logText();
        EXPECT_EQ(outcome.logs, logs);
    }
}

// A support-data collection started twice: the second run waits for the
// first to close its reports, then appends its own whole documents. The raw
// data is larger than a stream's buffer, so unserialized runs would
// interleave their flushes.
TEST_F(FaultMatrix, RunsStartedTogetherTakeTurns)
{
    Server server = baseServer();
    server.rawData("SSD", {{"dataLength", 65536}, {"delayMs", 300}});
    root->write(testsupport::smartLogsPath, earlierLogs);
    root->write(testsupport::smartRawDataPath, earlierRaw);
    const std::string scenario = dir.write("scenario.json", server.doc.dump());
    sim = std::make_unique<testsupport::Simulator>(scenario, bus);
    auto first = std::async(std::launch::async,
                            [&] { return root->run({"0"}, bus, scenario); });
    auto second = root->run({"0"}, bus, scenario);
    EXPECT_EQ(first.get().exitCode, 0);
    EXPECT_EQ(second.exitCode, 0) << second.err;
    EXPECT_TRUE(
        logged(driverLine("Another run is writing the reports, waiting")))
        << logText();
    const std::string raw = rawDocument(countingRows(65536));
    EXPECT_EQ(added(rawData(), earlierRaw), raw + raw);
    const std::string logs = added(smartLogs(), earlierLogs);
    EXPECT_EQ(logs.substr(0, logs.size() / 2), logs.substr(logs.size() / 2));
    EXPECT_EQ(malformation(logs), "");
}

// A run killed mid-document (SIGKILL, a service stop, the OOM killer) leaves
// its text cut short; the next run appends a whole document after it, and
// the reader prints every complete document around the damage.
TEST_F(FaultMatrix, KilledRunThenACompleteOne)
{
    expectWellFormed = false;
    Server server = baseServer();
    server.rawData("SSD", {{"dataLength", 65536}});
    auto killed = runSeeded(
        server, {"0"},
        {{"DLOG_RAISE_AT", "Exit hexdump"}, {"DLOG_RAISE_SIGNAL", "9"}});
    EXPECT_EQ(killed.result.termSignal, SIGKILL);
    const std::string full = rawDocument(countingRows(65536));
    ASSERT_LT(killed.raw.size(), full.size());
    EXPECT_EQ(killed.raw, full.substr(0, killed.raw.size()));
    auto complete = run(server, {"0"});
    ASSERT_EQ(complete.exitCode, 0) << complete.err;
    EXPECT_EQ(added(rawData(), earlierRaw), killed.raw + full);
    const std::string file = root->hostPath(testsupport::smartRawDataPath);
    auto reader = readWithReportTool(file);
    // Where the cut lies depends on the stream's buffer: only that the
    // damage is named, once.
    EXPECT_EQ(reader.exitCode, 1);
    EXPECT_EQ(reader.err.rfind(file + ":", 0), 0u) << reader.err;
    EXPECT_EQ(std::count(reader.err.begin(), reader.err.end(), '\n'), 1)
        << reader.err;
    ASSERT_EQ(std::count(reader.out.begin(), reader.out.end(), '\n'), 2)
        << reader.out.substr(0, 300);
    EXPECT_NE(reader.out.find("EARLIER-RAW"), std::string::npos);
}

// A report path that is not a regular file is refused as an unopenable one
// is: a symlink is not followed, a FIFO does not block the run.
TEST_F(FaultMatrix, ReportPathsThatAreNotRegularFiles)
{
    struct Case
    {
        const char* name;
        const char* report;
        std::function<void(const std::string&)> make; // host path
        std::string logLine;
    };
    const std::string cant = driverLine("Cant write to the file..");
    const std::string canNot = driverLine("Can't write to the file..");
    auto symlink = [](const std::string& at) {
        std::filesystem::create_symlink("/elsewhere.json", at);
    };
    auto fifo = [](const std::string& at) {
        ASSERT_EQ(mkfifo(at.c_str(), 0644), 0);
    };
    auto directory = [](const std::string& at) {
        std::filesystem::create_directory(at);
    };
    const Case cases[] = {
        {"log report a symlink", testsupport::smartLogsPath, symlink, cant},
        {"raw report a symlink", testsupport::smartRawDataPath, symlink,
         canNot},
        {"log report a FIFO", testsupport::smartLogsPath, fifo, cant},
        {"raw report a FIFO", testsupport::smartRawDataPath, fifo, canNot},
        {"log report a directory", testsupport::smartLogsPath, directory, cant},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        root = std::make_unique<testsupport::CollectorRoot>();
        root->write("/elsewhere.json", "untouched");
        c.make(root->hostPath(c.report));
        auto result = run(baseServer(), {"0"});
        EXPECT_EQ(result.exitCode, 21) << result.err;
        EXPECT_TRUE(logged(c.logLine)) << logText();
        EXPECT_EQ(root->read("/elsewhere.json"), "untouched");
        EXPECT_NE(
            std::filesystem::symlink_status(root->hostPath(c.report)).type(),
            std::filesystem::file_type::regular);
    }
}

// SIGUSR1 once the handler is in place: only the check before the driver
// turns it into exit code 10, and no other outcome changes.
TEST_F(FaultMatrix, CancelSignalAtFurtherSteps)
{
    struct Case
    {
        const char* raiseAt; // log text; null: while the directory is made
        const char* argument;
        bool failingCount; // the mapper is missing
        int exitCode;
        std::string logLine;
    };
    const std::string lastDrive =
        driverLine("FQDD:SAS | Protocol:32 | Attributes:0");
    const Case cases[] = {
        {"Invalid Aguments", "abc", false, 5,
         collectorLine("main", "Invalid Aguments passed: stoi")},
        {nullptr, "0", false, 21,
         collectorLine(
             "main", "Failed to Collect Smart Data: Error creating directory")},
        {"Entry addSmartData", "0", false, 0, lastDrive},
        {"Raw data size", "0", false, 0, lastDrive},
        {"No storage objects", "0", true, 2,
         driverLine(
             "Failed to add smart data: Failed to get smart data count")},
        {"Exit main", "0", false, 0,
         "5|171|qvDbusCollectSmartData.L: Exit main"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.raiseAt != nullptr ? c.raiseAt : "directory");
        root = std::make_unique<testsupport::CollectorRoot>();
        EnvChanges env;
        if (c.raiseAt != nullptr)
        {
            env["DLOG_RAISE_AT"] = c.raiseAt;
        }
        else
        {
            env["UTL_MAKE_PATH_RAISE"] = std::to_string(SIGUSR1);
            root->write("/mmc2/mas032", "a file where a directory belongs");
        }
        Server server = baseServer();
        if (c.failingCount)
        {
            server.doc["names"] = {{"mapper", false}};
        }
        auto outcome = runSeeded(server, {c.argument}, env);
        EXPECT_EQ(outcome.result.exitCode, c.exitCode) << outcome.result.err;
        EXPECT_TRUE(logged(c.logLine)) << logText();
        EXPECT_FALSE(logged(collectorLine(
            "main", "Failed to Collect Smart Data: Collection cancelled")));
        EXPECT_EQ(outcome.raw, c.exitCode == 0 ? rawDocument(ssdRows) : "");
    }
}

} // namespace
} // namespace e2e
