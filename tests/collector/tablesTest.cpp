#include "collectorTest.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

namespace
{

using collectortest::collectorLines;

// The SMART tables alone, without a simulator; the caches start empty.
class Tables
{
public:
    explicit Tables(const std::string& json) :
        path(dir.write("tables.json", json))
    {
        setenv("PLATFORM_SMART_TABLES", path.c_str(), 1);
        sasSataMapLoaded = false;
        nvmeMapLoaded = false;
    }

    // New content for the same file; the caches are left alone.
    void rewrite(const std::string& json) const
    {
        dir.write("tables.json", json);
    }

private:
    testsupport::TempDir dir;
    std::string path;
};

using Reader = std::function<int(int, DriveSmartRecord*, std::string*)>;

TEST(Tables, SasSataEntriesInKeyOrderKeepTheirWidths)
{
    Tables tables(R"({"sasSata": {"entries": [
        {"key": "k3", "fqdd": "C", "protocol": 32},
        {"key": "k1", "fqdd": "A", "protocol": 4294967312, "attributes": 2,
         "powerOnHours": 18446744073709551615, "driveTemperature": 511,
         "percentDriveLifeRemaining": 98, "currentPendingSectorCount": 7},
        {"key": "k2", "fqdd": "B\u0000tail", "protocol": 16}]}})");
    DriveSmartRecord record{};
    std::string fqdd;
    ASSERT_EQ(qvdbusGetSmartDataSasSataSSD(0, &record, &fqdd), 0);
    EXPECT_EQ(fqdd, "A");
    EXPECT_EQ(collectortest::copyOf(record.protocol), 0x10u);
    EXPECT_EQ(collectortest::copyOf(record.attributes), 2u);
    EXPECT_EQ(collectortest::copyOf(record.sasSata.powerOnHours),
              18446744073709551615u);
    EXPECT_EQ(record.sasSata.driveTemperature, 0xff);
    EXPECT_EQ(record.sasSata.percentDriveLifeRemaining, 98);
    EXPECT_EQ(collectortest::copyOf(record.sasSata.currentPendingSectorCount),
              7u);

    const std::vector<std::pair<int, std::string>> order{{1, "B"}, {2, "C"}};
    for (const auto& [index, expected] : order)
    {
        ASSERT_EQ(qvdbusGetSmartDataSasSataSSD(index, &record, &fqdd), 0);
        EXPECT_EQ(fqdd, expected);
    }

    // Past the end or negative: success, nothing touched.
    const DriveSmartRecord before = record;
    for (int index : {3, -1, 1000})
    {
        fqdd = "kept";
        EXPECT_EQ(qvdbusGetSmartDataSasSataSSD(index, &record, &fqdd), 0);
        EXPECT_EQ(fqdd, "kept");
        EXPECT_EQ(std::memcmp(&before, &record, sizeof record), 0);
    }
}

TEST(Tables, NvmeBitFieldsKeepNeighbours)
{
    struct Case
    {
        const char* values;
        unsigned phaseTag, status, byteInCommand, bitInCommand;
    };
    const std::vector<Case> cases{
        {R"("errorInfoLogRecordStatusFieldPhaseTag": 3,
            "errorInfoLogRecordStatusFieldStatus": 32773,
            "errorInfoLogRecordParameterErrorLocationByteInCommand": 511,
            "errorInfoLogRecordParameterErrorLocationBitInCommand": 9)",
         1, 5, 0xff, 1},
        {R"("errorInfoLogRecordStatusFieldStatus": 32767,
            "errorInfoLogRecordParameterErrorLocationBitInCommand": 7)",
         0, 32767, 0, 7},
    };
    for (const auto& c : cases)
    {
        Tables tables(std::string(R"({"nvme": {"entries": [{"key": "n",
            "fqdd": "N", "protocol": 64, "compositeTemparature": 65845,
            "dataUnitsReadLower": 1, "dataUnitsReadUpper": 2, )") +
                      c.values + "}]}}");
        DriveSmartRecord record{};
        record.nvme.errorInfoLogRecordParameterErrorLocation = 0xf800;
        std::string fqdd;
        ASSERT_EQ(qvdbusGetSmartDataNvme(0, &record, &fqdd), 0);
        const uint16_t status = record.nvme.errorInfoLogRecordStatusField;
        const uint16_t location =
            record.nvme.errorInfoLogRecordParameterErrorLocation;
        EXPECT_EQ(statusFieldPhaseTag(status), c.phaseTag);
        EXPECT_EQ(statusFieldStatus(status), c.status);
        EXPECT_EQ(errorLocationByteInCommand(location), c.byteInCommand);
        EXPECT_EQ(errorLocationBitInCommand(location), c.bitInCommand);
        EXPECT_EQ(location & 0xf800, 0xf800);
        EXPECT_EQ(collectortest::copyOf(record.nvme.compositeTemparature),
                  0x135);
        EXPECT_EQ(collectortest::copyOf(record.nvme.dataUnitsReadLower), 1u);
        EXPECT_EQ(collectortest::copyOf(record.nvme.dataUnitsReadUpper), 2u);
    }
}

TEST(Tables, FailedLoadIsRetriedByTheReader)
{
    struct Case
    {
        Reader read;
        const char* name;
        const char* table;
        const char* wording;
    };
    const std::vector<Case> cases{
        {qvdbusGetSmartDataSasSataSSD, "qvdbusGetSmartDataSasSataSSD",
         "sasSata", "sas sata"},
        {qvdbusGetSmartDataNvme, "qvdbusGetSmartDataNvme", "nvme", "nvme"},
    };
    for (const auto& c : cases)
    {
        Tables broken(std::string(R"({")") + c.table + R"(": {"status": 9}})");
        DriveSmartRecord record{};
        record.protocol = 77;
        std::string fqdd = "kept";
        dlog::Capture capture;
        EXPECT_EQ(c.read(0, &record, &fqdd), -1);
        EXPECT_EQ(fqdd, "kept");
        EXPECT_EQ(collectortest::copyOf(record.protocol), 77u);
        EXPECT_EQ(collectorLines(capture),
                  std::vector<std::string>{
                      std::string("9|qvDbusCollectSmartData.#.") + c.name +
                      ":  " + c.name + " Failed client_get_objects call for " +
                      c.wording + "\n"});

        EXPECT_FALSE(sasSataMapLoaded || nvmeMapLoaded);
        broken.rewrite(std::string(R"({")") + c.table +
                       R"(": {"entries": [{"key": "k", "fqdd": "F"}]}})");
        EXPECT_EQ(c.read(0, &record, &fqdd), 0);
        EXPECT_EQ(fqdd, "F");
    }
}

TEST(Tables, ReadersKeepTheLoadedSnapshot)
{
    Tables first(R"({"sasSata": {"entries": [{"key": "k", "fqdd": "OLD"}]}})");
    DriveSmartRecord record{};
    std::string fqdd;
    ASSERT_EQ(qvdbusGetSmartDataSasSataSSD(0, &record, &fqdd), 0);
    first.rewrite(R"({"sasSata": {"entries": [{"key": "k", "fqdd": "NEW"}]}})");
    ASSERT_EQ(qvdbusGetSmartDataSasSataSSD(0, &record, &fqdd), 0);
    EXPECT_EQ(fqdd, "OLD");
}

TEST(Count, CountsTablesAndInventory)
{
    const std::string inventory =
        R"("objects": [)" + collectortest::driveObject(1, "D1", 32, 0) + "," +
        collectortest::driveObject(2, "D2", 16, 0) + "," +
        collectortest::driveObject(3, "D3", 16, 2) + "]";
    const std::string tables =
        R"("sasSata": {"entries": [{"key": "a"}, {"key": "b"}]},
           "nvme": {"entries": [{"key": "c"}]})";
    const std::string entry = "5|qvDbusCollectSmartData.#: Entry "
                              "qvdbusGetSmartDataCount";
    const std::string exit = "5|qvDbusCollectSmartData.#: Exit "
                             "qvdbusGetSmartDataCount";
    const std::string prefix =
        "9|qvDbusCollectSmartData.#.qvdbusGetSmartDataCount: ";
    const std::string failure = prefix + " qvdbusGetSmartDataCount Failed "
                                         "client_get_objects call for ";
    const std::string exception =
        prefix + "qvdbusGetSmartDataCount EXIT on exception ";
    struct Case
    {
        std::string scenario;
        int status;
        std::vector<int> counts;
        std::vector<std::string> lines;
    };
    const std::vector<Case> cases{
        {"{" + tables + "," + inventory + "}",
         0,
         {2, 1, 3},
         {entry, prefix + "SSD objcount : 2", prefix + "NVMe objcount : 1",
          prefix + "Total Drive obj Count : 3", exit}},
        {"{" + tables + "}",
         -1,
         {2, 1, 0},
         {entry, prefix + "SSD objcount : 2", prefix + "NVMe objcount : 1",
          prefix + "No storage objects",
          exception + "Failed to get total drive count \n", exit}},
        {R"({"sasSata": {"status": 1}, "nvme": {"entries": []}})",
         -1,
         {-7, -7, -7},
         {entry, failure + "sas sata\n",
          exception + "Failed to get sas/sata ssd count \n", exit}},
        {R"({"sasSata": {"entries": []}, "nvme": {"status": 1}})",
         -1,
         {0, -7, -7},
         {entry, prefix + "SSD objcount : 0", failure + "nvme\n",
          exception + "Failed to get nvme count \n", exit}},
    };
    for (const auto& c : cases)
    {
        collectortest::Server server(c.scenario);
        std::vector<int> counts{-7, -7, -7};
        dlog::Capture capture;
        EXPECT_EQ(qvdbusGetSmartDataCount(&counts[0], &counts[1], &counts[2]),
                  c.status);
        EXPECT_EQ(counts, c.counts) << c.scenario;
        EXPECT_EQ(collectorLines(capture), c.lines) << c.scenario;
    }
}

TEST(Count, ReloadsTablesEveryTime)
{
    DriveSmartRecord record{};
    std::string fqdd;
    {
        Tables stale(R"({"sasSata": {"entries": [{"key": "s", "fqdd": "S"},
                                                  {"key": "t"}]}})");
        ASSERT_EQ(qvdbusGetSmartDataSasSataSSD(0, &record, &fqdd), 0);
    }
    collectortest::Server server(
        R"({"sasSata": {"entries": [{"key": "a", "fqdd": "FRESH"}]},
            "objects": [)" +
        collectortest::driveObject(1, "D1", 32, 0) + "]}");
    sasSataMapLoaded = true; // the stale snapshot is still cached
    int ssd = 0, nvme = 0, total = 0;
    ASSERT_EQ(qvdbusGetSmartDataCount(&ssd, &nvme, &total), 0);
    EXPECT_EQ(ssd, 1);
    ASSERT_EQ(qvdbusGetSmartDataSasSataSSD(0, &record, &fqdd), 0);
    EXPECT_EQ(fqdd, "FRESH");
}

} // namespace
