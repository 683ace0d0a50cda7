#include "collectorFixture.hpp"
#include "reportTool.hpp"

#include <sys/stat.h>

#include <cstdio>
#include <sstream>

namespace e2e
{
namespace
{

using qvreport::runReportTool;

struct Output
{
    int status;
    std::string out;
    std::string err;
};

Output report(std::vector<std::string> args)
{
    std::ostringstream out;
    std::ostringstream err;
    int status = runReportTool(args, out, err);
    return {status, out.str(), err.str()};
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
    {
        result.push_back(line);
    }
    return result;
}

std::string expectedFile(const std::string& name)
{
    return std::string(EXPECTED_DIR) + "/" + name;
}

// Device statistics entry: little-endian value, supported and valid flags.
std::string statistic(uint64_t value)
{
    std::string hex;
    char cell[3];
    for (int i = 0; i < 7; ++i, value >>= 8)
    {
        std::snprintf(cell, sizeof cell, "%02x", unsigned(value & 0xff));
        hex += cell;
    }
    return hex + "c0";
}

json page(unsigned code, const std::string& hex)
{
    return {{"code", code}, {"data", hex}};
}

json pagesOf(uint32_t protocol, std::vector<json> pages, size_t slots)
{
    pages.resize(slots, page(0, ""));
    return {{"protocol", protocol},
            {"attributes", 0},
            {"pages", pages},
            {"status", {0, 0}}};
}

// A server whose every drive is past some threshold, one of each class.
Server failingServer()
{
    std::string header = statistic(0x0001'0000'0000'0001);
    Server server;
    server
        .tableEntry("k1", "SSD-WORN", sas, solidState,
                    {{"driveTemperature", 75},
                     {"percentDriveLifeRemaining", 10},
                     {"currentPendingSectorCount", 3},
                     {"crcErrorCount", 2},
                     {"powerOnHours", 40000}})
        .nvmeEntry("k2", "NVME-HOT", nvmeProtocol,
                   {{"criticalWarning", 0x25},
                    {"compositeTemparature", 350},
                    {"availableSpare", 5},
                    {"availableSpareThreshold", 10},
                    {"percentageUsed", 95},
                    {"mediaAndDataIntegrityErrsLower", 4},
                    {"powerOnHoursLower", 777},
                    {"dataUnitsReadLower", UINT64_MAX}})
        .inventoryDrive("0", "SSD-WORN", sas, solidState)
        .inventoryDrive("1", "SATA-HDD", sata, 0)
        .inventoryDrive("2", "SAS-HDD", sas, 0)
        .rawData("SSD-WORN", {{"status", {0, 0}}, {"data", "0102"}})
        .sataPages(
            "SATA-HDD",
            pagesOf(sata,
                    {page(0, "00010304050607"),
                     page(1, header + statistic(9) + statistic(31000)),
                     page(3, header + statistic(0) + statistic(0) +
                                 statistic(0) + statistic(6) + statistic(0) +
                                 statistic(0) + statistic(2)),
                     page(4, header + statistic(1)),
                     page(5, header + statistic(45))},
                    5))
        .sasPages("SAS-HDD",
                  pagesOf(sas,
                          {page(3, "03000008000600040000000700"), page(0, ""),
                           page(0, ""), page(0, ""), page(0, ""),
                           page(0x15, "15000010000003080001d4c000000000"),
                           page(13, "0d00000c000000020041")},
                          7));
    return server;
}

TEST_F(CollectorTest, HealthOfAppendedRunsMarksEveryThreshold)
{
    for (int runs = 0; runs < 2; ++runs)
    {
        ASSERT_EQ(run(failingServer(), {"0"}).exitCode, 0);
    }
    std::string logs = dir.write("SmartLogs.json", smartLogs());
    std::string raw = dir.write("SmartRawData.json", rawData());
    auto csv = report({"--format=csv", logs, raw});
    ASSERT_EQ(csv.status, 0) << csv.err;
    auto rows = lines(csv.out);
    const std::vector<std::string> drives = {
        "SSD-WORN,SAS SSD,75,10,,40000,0,2,0,3,,,"
        "temp_c;life_remaining;crc_errors;pending",
        "NVME-HOT,NVMe,77,,95,777,4,,,,5,"
        "spare-below-threshold;reliability-degraded;pmr-read-only,"
        "temp_c;percent_used;media_errors;available_spare;critical_warning",
        "SATA-HDD,SATA HDD,45,,,31000,1,,6,2,,,"
        "media_errors;reallocated;pending",
        "SAS-HDD,SAS HDD,65,,,2000,7,,,,,,temp_c;media_errors",
    };
    ASSERT_EQ(rows.size(), 1 + 2 * drives.size()) << csv.out;
    EXPECT_EQ(rows[0], "file,fqdd,class,temp_c,life_remaining,percent_used,"
                       "power_on_hours,media_errors,crc_errors,reallocated,"
                       "pending,available_spare,critical_warning,alerts");
    const std::vector<std::string> files = {logs, logs, logs, logs,
                                            raw,  raw,  raw,  raw};
    const std::vector<size_t> order = {0, 1, 0, 1, 2, 3, 2, 3};
    for (size_t i = 0; i < order.size(); ++i)
    {
        EXPECT_EQ(rows[i + 1], files[i] + "," + drives[order[i]]);
    }

    auto table = lines(report({logs}).out);
    ASSERT_EQ(table.size(), 5u);
    EXPECT_NE(table[2].find("77!"), std::string::npos) << table[2];
    EXPECT_NE(table[2].find("reliability-degraded,pmr-read-only!"),
              std::string::npos);
    EXPECT_EQ(table[1].find("40000!"), std::string::npos) << table[1];

    auto jsonLines = lines(report({"--format", "json", logs, raw}).out);
    ASSERT_EQ(jsonLines.size(), 4u);
    for (const auto& line : jsonLines)
    {
        ASSERT_NO_THROW(std::ignore = json::parse(line)) << line;
    }
    auto nvme = json::parse(jsonLines[1])["report"]["NVME-HOT"];
    EXPECT_EQ(nvme["Data Units Read Lower"].get<uint64_t>(), UINT64_MAX);
    EXPECT_EQ(nvme["Critical Warning"], 0x25);
    auto hdd = json::parse(jsonLines[3])["report"];
    EXPECT_EQ(hdd["SSD-WORN"], json({1, 2}));
    EXPECT_EQ(hdd["SAS-HDD"]["temperature(d)"],
              json({13, 0, 0, 12, 0, 0, 0, 2, 0, 0x41}));
}

// The collector's irregular texts: a quote inside an FQDD, a hard drive
// without FQDD (its document closes a brace early) and one whose pages
// cannot be read.
TEST_F(CollectorTest, IrregularCollectorTextIsReadWithNotes)
{
    expectWellFormed = false;
    const std::string quoted = "Disk \"7\"";
    Server server;
    server.tableEntry("a", quoted, sata, solidState)
        .inventoryDrive("0", quoted, sata, solidState)
        .inventoryDrive("1", "", sata, 0)
        .inventoryDrive("2", "SAS-9", sas, 0)
        .inventoryDrive("3", "SAS-DOWN", sas, 0)
        .rawData(quoted, {{"status", {0, 0}}, {"data", "0a0b"}})
        .sataPages("", pagesOf(sata, {page(0, ""), page(1, "01")}, 5))
        .sasPages("SAS-9", pagesOf(sas, {page(3, "03")}, 7))
        .sasPages("SAS-DOWN", pagesOf(sas, {}, 7));
    for (int runs = 0; runs < 2; ++runs)
    {
        ASSERT_EQ(run(server, {"0"}).exitCode, 0);
    }
    std::string raw = dir.write("SmartRawData.json", rawData());
    auto result = report({"--format=json", raw});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.err.find(": note: unbalanced closing brace"),
              std::string::npos)
        << result.err;
    auto documents = lines(result.out);
    ASSERT_EQ(documents.size(), 2u) << rawData();
    for (const auto& line : documents)
    {
        auto drives = json::parse(line)["report"];
        EXPECT_EQ(drives[quoted], json({10, 11}));
        EXPECT_EQ(drives["genStatistics(1)"], json({1}));
        EXPECT_EQ(drives["SAS-9"], json({{"readErrCounter(3)", {3}}}));
        EXPECT_EQ(drives["SAS-DOWN"], json({{"", json::object()}}));
    }
}

// A document of `depth` groups, each inside the one before.
std::string nested(int depth)
{
    std::string text = "{\n";
    for (int level = 0; level < depth; ++level)
    {
        text += "\"g\":\n{\n";
    }
    for (int level = 0; level <= depth; ++level)
    {
        text += "}\n";
    }
    return text;
}

// A raw data document of one drive with `rows` hex rows.
std::string dump(int rows)
{
    std::string text = "{\n\"SSD\":\n{\n";
    for (int row = 0; row < rows; ++row)
    {
        char line[96];
        std::snprintf(line, sizeof(line), "%s\"%06x\": \"%-48s\"",
                      row == 0 ? "" : ",\n", row * 16, "00 01 02 03");
        text += line;
    }
    return text + "\n}\n}";
}

TEST(ReportReader, DamageIsNamedAndEarlierDocumentsStillPrinted)
{
    testsupport::TempDir dir;
    std::string logs =
        testsupport::readFile(expectedFile("logs-ssd-nvme.json"));
    std::string raw =
        testsupport::readFile(expectedFile("raw-ssd-sata-sas.json"));
    struct Case
    {
        std::string text;
        int documents;
        std::string where;
    };
    const std::vector<Case> cases = {
        {logs + logs, 2, ""},
        {raw + raw + raw, 3, ""},
        {logs + logs.substr(0, 300), 1, ":89: unterminated quoted text"},
        {logs + logs.substr(0, logs.find("\t\"commandTimeout")), 1,
         ":89: file ends inside a group"},
        {raw + raw.substr(0, 100), 1, ":30: unterminated quoted text"},
        {logs + "\n{\n\"X\":\n{\n\t\"A\": \"1\"\n\t\"B\": \"2\",\n}\n}", 1,
         ":81: expected ',' or '}' but found '\"' in a group"},
        {raw + "]", 1,
         ":26: expected '{' but found ']' in the text between documents"},
        // The reader goes on at the next document after the damage: a run
        // cut short, then a complete one.
        {logs + logs.substr(0, 300) + logs, 2, ":89: unterminated quoted text"},
        {raw + raw.substr(0, 100) + raw, 2, ":30: unterminated quoted text"},
        {raw.substr(0, raw.rfind("},")) + raw, 1,
         ":21: expected ',' or '}' but found '{' in a group"},
        {logs + "{\n\"BAY\n1\":\n{\n\"A\": \"1\",\n}\n}" + logs, 2,
         ":77: unterminated quoted text"},
        {nested(30000) + logs, 1, ":33: groups nested deeper than 16"},
        // Documents larger than the reader's reads, damage between them.
        {dump(20000) + raw.substr(0, 100) + dump(20000), 2,
         ":20009: unterminated quoted text"},
    };
    for (const auto& c : cases)
    {
        std::string file = dir.write("report.json", c.text);
        auto result = report({"--format=json", file});
        EXPECT_EQ(lines(result.out).size(), size_t(c.documents)) << c.text;
        EXPECT_EQ(result.status, c.where.empty() ? 0 : 1) << c.text;
        EXPECT_EQ(result.err, c.where.empty() ? "" : file + c.where + "\n");
    }
}

TEST(ReportReader, UsageErrorsExitTwo)
{
    for (const std::vector<std::string>& args : {std::vector<std::string>{},
                                                 {"--format=xml", "f"},
                                                 {"--verbose", "f"}})
    {
        auto result = report(args);
        EXPECT_EQ(result.status, 2);
        EXPECT_NE(result.err.find("usage:"), std::string::npos);
    }
    EXPECT_EQ(report({"/nonexistent/report.json"}).status, 1);
}

// Reading anything but a regular file could block (a FIFO) or never end (a
// device); a directory holds no report.
TEST(ReportReader, OnlyRegularFilesAreRead)
{
    testsupport::TempDir dir;
    const std::string fifo = dir.path() + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {dir.path(), fifo, std::string("/dev/zero")})
    {
        auto result = report({path});
        EXPECT_EQ(result.status, 1) << path;
        EXPECT_EQ(result.err, path + ": not a regular file\n");
    }
}

// Only unsigned 64-bit decimals become JSON numbers; every other text stays
// a string, so a reader of the JSON never sees a value out of range.
TEST(ReportReader, NumbersOnlyInTheUnsigned64BitRange)
{
    testsupport::TempDir dir;
    const std::string file = dir.write(
        "report.json", "{\n\"D\":\n{\n\"max\": \"18446744073709551615\",\n"
                       "\"over\": \"18446744073709551616\",\n\"minus\": "
                       "\"-1\",\n\"padded\": \"007\",\n\"zero\": \"0\",\n}\n}");
    auto result = report({"--format=json", file});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_NE(result.out.find("{\"max\":18446744073709551615,\"over\":"
                              "\"18446744073709551616\",\"minus\":\"-1\","
                              "\"padded\":\"007\",\"zero\":0}"),
              std::string::npos)
        << result.out;
}

} // namespace
} // namespace e2e
