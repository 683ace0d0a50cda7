#include "smartdata.hpp"

#include "stderrRedirect.hpp"
#include "tempDir.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>
#include <utility>
#include <vector>

namespace
{

using nlohmann::json;
using smartdata::LoadStatus;
using testsupport::readFile;
using testsupport::TempDir;

constexpr std::uint64_t maxValue = std::numeric_limits<std::uint64_t>::max();

template <typename Record>
using Accessor = std::uint64_t (Record::*)() const;

template <typename Record>
struct Named
{
    const char* name;
    Accessor<Record> get;
};

using Sas = smartdatasassata_gen;
using Nvme = smartdatanvme_gen;

// The accessor list the collector is written against, member name by member
// name, kept apart from the stand-in's own tables.
const std::vector<Named<Sas>> sasAccessors{
    {"objStatus", &Sas::objStatus},
    {"objExtFlags", &Sas::objExtFlags},
    {"protocol", &Sas::protocol},
    {"readErrorDate", &Sas::readErrorDate},
    {"reallocatedBlockCount", &Sas::reallocatedBlockCount},
    {"powerOnHours", &Sas::powerOnHours},
    {"powerCycleCount", &Sas::powerCycleCount},
    {"ecceRate", &Sas::ecceRate},
    {"usedReservedBlockCount", &Sas::usedReservedBlockCount},
    {"unusedReservedBlockCount", &Sas::unusedReservedBlockCount},
    {"programFailCount", &Sas::programFailCount},
    {"eraseFailCount", &Sas::eraseFailCount},
    {"commandTimeout", &Sas::commandTimeout},
    {"driveTemperature", &Sas::driveTemperature},
    {"uncorrectableErrorCount", &Sas::uncorrectableErrorCount},
    {"uncorrectableLBACount", &Sas::uncorrectableLBACount},
    {"crcErrorCount", &Sas::crcErrorCount},
    {"volatileMemoryBackupSourceFailures",
     &Sas::volatileMemoryBackupSourceFailures},
    {"exceptionModeStatus", &Sas::exceptionModeStatus},
    {"mediaWriteCount", &Sas::mediaWriteCount},
    {"percentDriveLifeRemaining", &Sas::percentDriveLifeRemaining},
    {"currentPendingSectorCount", &Sas::currentPendingSectorCount},
    {"lastUpdatedDateTime", &Sas::lastUpdatedDateTime},
    {"attributes", &Sas::attributes},
};

const std::vector<Named<Nvme>> nvmeAccessors{
    {"objStatus", &Nvme::objStatus},
    {"objExtFlags", &Nvme::objExtFlags},
    {"protocol", &Nvme::protocol},
    {"criticalWarning", &Nvme::criticalWarning},
    {"compositeTemparature", &Nvme::compositeTemparature},
    {"availableSpare", &Nvme::availableSpare},
    {"availableSpareThreshold", &Nvme::availableSpareThreshold},
    {"percentageUsed", &Nvme::percentageUsed},
    {"dataUnitsReadLower", &Nvme::dataUnitsReadLower},
    {"dataUnitsReadUpper", &Nvme::dataUnitsReadUpper},
    {"dataUnitsWrittenLower", &Nvme::dataUnitsWrittenLower},
    {"dataUnitsWrittenUpper", &Nvme::dataUnitsWrittenUpper},
    {"hostReadCmdsLower", &Nvme::hostReadCmdsLower},
    {"hostReadCmdsUpper", &Nvme::hostReadCmdsUpper},
    {"hostWriteCmdsLower", &Nvme::hostWriteCmdsLower},
    {"hostWriteCmdsUpper", &Nvme::hostWriteCmdsUpper},
    {"controllerBusyTimeLower", &Nvme::controllerBusyTimeLower},
    {"controllerBusyTimeUpper", &Nvme::controllerBusyTimeUpper},
    {"powerCyclesLower", &Nvme::powerCyclesLower},
    {"powerCyclesUpper", &Nvme::powerCyclesUpper},
    {"powerOnHoursLower", &Nvme::powerOnHoursLower},
    {"powerOnHoursUpper", &Nvme::powerOnHoursUpper},
    {"unsafeShutdownsLower", &Nvme::unsafeShutdownsLower},
    {"unsafeShutdownsUpper", &Nvme::unsafeShutdownsUpper},
    {"mediaAndDataIntegrityErrsLower", &Nvme::mediaAndDataIntegrityErrsLower},
    {"mediaAndDataIntegrityErrsUpper", &Nvme::mediaAndDataIntegrityErrsUpper},
    {"numOfErrorInfoLogEntriesLower", &Nvme::numOfErrorInfoLogEntriesLower},
    {"numOfErrorInfoLogEntriesUpper", &Nvme::numOfErrorInfoLogEntriesUpper},
    {"warningCompositeTemperatureTime", &Nvme::warningCompositeTemperatureTime},
    {"criticalCompositeTemperatureTime",
     &Nvme::criticalCompositeTemperatureTime},
    {"temperatureSensor1", &Nvme::temperatureSensor1},
    {"temperatureSensor2", &Nvme::temperatureSensor2},
    {"temperatureSensor3", &Nvme::temperatureSensor3},
    {"temperatureSensor4", &Nvme::temperatureSensor4},
    {"temperatureSensor5", &Nvme::temperatureSensor5},
    {"temperatureSensor6", &Nvme::temperatureSensor6},
    {"temperatureSensor7", &Nvme::temperatureSensor7},
    {"temperatureSensor8", &Nvme::temperatureSensor8},
    {"thermalMgmtTempTransitionCount", &Nvme::thermalMgmtTempTransitionCount},
    {"totalTimeThemalMgmtTemp", &Nvme::totalTimeThemalMgmtTemp},
    {"errorInfoLogRecordErrorCount", &Nvme::errorInfoLogRecordErrorCount},
    {"errorInfoLogRecordSubmissionQueID",
     &Nvme::errorInfoLogRecordSubmissionQueID},
    {"errorInfoLogRecordCommandID", &Nvme::errorInfoLogRecordCommandID},
    {"errorInfoLogRecordStatusFieldPhaseTag",
     &Nvme::errorInfoLogRecordStatusFieldPhaseTag},
    {"errorInfoLogRecordStatusFieldStatus",
     &Nvme::errorInfoLogRecordStatusFieldStatus},
    {"errorInfoLogRecordParameterErrorLocationByteInCommand",
     &Nvme::errorInfoLogRecordParameterErrorLocationByteInCommand},
    {"errorInfoLogRecordParameterErrorLocationBitInCommand",
     &Nvme::errorInfoLogRecordParameterErrorLocationBitInCommand},
    {"errorInfoLogRecordLBA", &Nvme::errorInfoLogRecordLBA},
    {"errorInfoLogRecordNamespace", &Nvme::errorInfoLogRecordNamespace},
    {"errorInfoLogRecordVendorSpecificInfo",
     &Nvme::errorInfoLogRecordVendorSpecificInfo},
    {"badFlashBlock", &Nvme::badFlashBlock},
    {"uncorrectableError", &Nvme::uncorrectableError},
    {"lastUpdatedDateTime", &Nvme::lastUpdatedDateTime},
    {"attributes", &Nvme::attributes},
};

std::uint64_t getMap(std::map<std::string, Sas>& map)
{
    return DataAbstraction::smartdatasassata::get_map(map);
}

std::uint64_t getMap(std::map<std::string, Nvme>& map)
{
    return DataAbstraction::smartdatanvme::get_map(map);
}

template <typename Record>
struct Loaded
{
    std::uint64_t status = 0;
    std::map<std::string, Record> map;
    std::string errors; // what the stand-in wrote to standard error
};

class SmartTablesTest : public testing::Test
{
protected:
    void TearDown() override
    {
        ::unsetenv("PLATFORM_SMART_TABLES");
    }

    // Writes `content` as the tables file and points the variable at it.
    std::string useTables(const std::string& content)
    {
        const std::string path =
            dir.write("tables" + std::to_string(++files) + ".json", content);
        ::setenv("PLATFORM_SMART_TABLES", path.c_str(), 1);
        return path;
    }

    template <typename Record>
    Loaded<Record> load()
    {
        Loaded<Record> result;
        const std::string errFile = dir.file("stderr.txt");
        {
            platformtest::StderrRedirect redirect(errFile);
            result.status = getMap(result.map);
        }
        result.errors = readFile(errFile);
        return result;
    }

    template <typename Record>
    Loaded<Record> load(const json& document)
    {
        useTables(document.dump());
        return load<Record>();
    }

    TempDir dir;
    int files = 0;
};

// Distinct for every field and beyond 32 bits, so a value read from the
// wrong field or cut short shows.
std::uint64_t valueFor(std::size_t index)
{
    return 0x1234'5678'9000ULL + index * 0x1'0000'0001ULL;
}

template <typename Record>
void checkEveryAccessor(const std::vector<Named<Record>>& accessors,
                        const Loaded<Record>& loaded)
{
    ASSERT_EQ(loaded.status, 0U) << loaded.errors;
    ASSERT_EQ(loaded.map.size(), 1U);
    const Record& entry = loaded.map.at("only");
    EXPECT_EQ(entry.fqdd(), "Disk.Bay.7:Enclosure.Internal.0-1");
    for (std::size_t i = 0; i < accessors.size(); ++i)
    {
        EXPECT_EQ((entry.*accessors[i].get)(), valueFor(i))
            << accessors[i].name;
    }
    // A copy, as the collector's caches make, keeps every value.
    const Record copy = entry;
    EXPECT_EQ((copy.*accessors.back().get)(), valueFor(accessors.size() - 1));
    EXPECT_EQ(copy.fqdd(), entry.fqdd());
}

template <typename Record>
json entryWithEveryMember(const std::vector<Named<Record>>& accessors)
{
    json entry{{"key", "only"}, {"fqdd", "Disk.Bay.7:Enclosure.Internal.0-1"}};
    for (std::size_t i = 0; i < accessors.size(); ++i)
    {
        entry[accessors[i].name] = valueFor(i);
    }
    return entry;
}

TEST_F(SmartTablesTest, EveryMemberReachesItsAccessor)
{
    const json document{
        {"sasSata", {{"entries", {entryWithEveryMember(sasAccessors)}}}},
        {"nvme", {{"entries", {entryWithEveryMember(nvmeAccessors)}}}},
    };
    checkEveryAccessor(sasAccessors, load<Sas>(document));
    checkEveryAccessor(nvmeAccessors, load<Nvme>(document));
}

TEST_F(SmartTablesTest, MissingMembersReadZero)
{
    const json document{
        {"sasSata", {{"entries", {{{"key", "s"}}}}}},
        {"nvme", {{"entries", {{{"key", "n"}, {"protocol", 64}}}}}},
    };
    const auto sas = load<Sas>(document);
    ASSERT_EQ(sas.status, 0U) << sas.errors;
    const Sas& s = sas.map.at("s");
    EXPECT_EQ(s.fqdd(), "");
    for (const auto& a : sasAccessors)
    {
        EXPECT_EQ((s.*a.get)(), 0U) << a.name;
    }
    const auto nvme = load<Nvme>(document);
    ASSERT_EQ(nvme.status, 0U) << nvme.errors;
    const Nvme& n = nvme.map.at("n");
    for (const auto& a : nvmeAccessors)
    {
        EXPECT_EQ((n.*a.get)(), std::string(a.name) == "protocol" ? 64U : 0U)
            << a.name;
    }
}

TEST_F(SmartTablesTest, AcceptsFullRangeAndKeepsTextAsGiven)
{
    useTables(R"({"sasSata": {"status": 0, "entries": [
        {"key": "big", "fqdd": "A\u0000B", "powerOnHours": 18446744073709551615,
         "protocol": 0}]}})");
    const auto loaded = load<Sas>();
    ASSERT_EQ(loaded.status, 0U) << loaded.errors;
    const Sas& entry = loaded.map.at("big");
    EXPECT_EQ(entry.powerOnHours(), maxValue);
    EXPECT_EQ(entry.fqdd(), std::string("A\0B", 3));
}

TEST_F(SmartTablesTest, MapIsOrderedByKeyBytes)
{
    json entries = json::array();
    for (const char* key : {"k2", "k10", "K1", "k1", "", "k1 "})
    {
        entries.push_back({{"key", key}, {"fqdd", std::string("F-") + key}});
    }
    const auto loaded = load<Nvme>(json{{"nvme", {{"entries", entries}}}});
    ASSERT_EQ(loaded.status, 0U) << loaded.errors;
    std::vector<std::string> keys;
    for (const auto& [key, entry] : loaded.map)
    {
        keys.push_back(key);
        EXPECT_EQ(entry.fqdd(), "F-" + key);
    }
    EXPECT_EQ(keys,
              (std::vector<std::string>{"", "K1", "k1", "k1 ", "k10", "k2"}));
}

TEST_F(SmartTablesTest, TableStatusIsReturnedWithItsEntries)
{
    for (const std::uint64_t status :
         {std::uint64_t{0}, std::uint64_t{3}, std::uint64_t{1} << 40, maxValue})
    {
        SCOPED_TRACE(status);
        const json document{
            {"sasSata",
             {{"status", status},
              {"entries", {{{"key", "a"}, {"attributes", 2}}}}}},
        };
        const auto loaded = load<Sas>(document);
        EXPECT_EQ(loaded.status, status);
        ASSERT_EQ(loaded.map.size(), 1U);
        EXPECT_EQ(loaded.map.at("a").attributes(), 2U);
        EXPECT_EQ(loaded.errors, "");
    }
}

// The simulator keeps its inventory in the same file; a file may also list
// only one of the two tables, or a table without entries.
TEST_F(SmartTablesTest, UnrelatedAndAbsentMembersAreFine)
{
    useTables(R"({
        "services": {"storage": true}, "objects": [1, "two", null],
        "sasSata": {"entries": [{"key": "k", "fqdd": "D"}]},
        "nvmeExtra": 12
    })");
    const auto sas = load<Sas>();
    EXPECT_EQ(sas.status, 0U) << sas.errors;
    EXPECT_EQ(sas.map.size(), 1U);
    const auto nvme = load<Nvme>();
    EXPECT_EQ(nvme.status, 0U) << nvme.errors;
    EXPECT_TRUE(nvme.map.empty());
    EXPECT_EQ(nvme.errors, "");

    useTables(R"({"nvme": {"status": 9}})");
    const auto noEntries = load<Nvme>();
    EXPECT_EQ(noEntries.status, 9U);
    EXPECT_TRUE(noEntries.map.empty());
}

// One table's faults do not spill into the other.
TEST_F(SmartTablesTest, TablesAreJudgedSeparately)
{
    useTables(R"({"sasSata": {"entries": [{"key": "s", "bogus": 1}]},
                  "nvme": {"entries": [{"key": "n"}]}})");
    EXPECT_EQ(load<Sas>().status,
              static_cast<std::uint64_t>(LoadStatus::badEntry));
    const auto nvme = load<Nvme>();
    EXPECT_EQ(nvme.status, 0U) << nvme.errors;
    EXPECT_EQ(nvme.map.size(), 1U);
}

struct BadFileCase
{
    const char* name;
    bool nvme; // which table the case loads
    std::string content;
    LoadStatus expected;
};

const std::vector<BadFileCase> badFileCases{
    {"notJson", false, "{\"sasSata\": ", LoadStatus::malformed},
    {"emptyFile", false, "", LoadStatus::malformed},
    {"trailingGarbage", true, "{} x", LoadStatus::malformed},
    {"topLevelArray", false, "[]", LoadStatus::malformed},
    {"tableIsArray", false, R"({"sasSata": []})", LoadStatus::badTable},
    {"tableIsNull", true, R"({"nvme": null})", LoadStatus::badTable},
    {"entriesNotArray", true, R"({"nvme": {"entries": {}}})",
     LoadStatus::badTable},
    {"misspeltEntries", false, R"({"sasSata": {"entrys": []}})",
     LoadStatus::badTable},
    {"negativeStatus", true, R"({"nvme": {"status": -1}})",
     LoadStatus::badTable},
    {"textStatus", false, R"({"sasSata": {"status": "0"}})",
     LoadStatus::badTable},
    {"fractionalStatus", false, R"({"sasSata": {"status": 0.5}})",
     LoadStatus::badTable},
    {"entryNotObject", false, R"({"sasSata": {"entries": [1]}})",
     LoadStatus::badEntry},
    {"misspeltMember", false,
     R"({"sasSata": {"entries": [{"key": "k", "powerOnHour": 1}]}})",
     LoadStatus::badEntry},
    {"memberOfOtherTable", false,
     R"({"sasSata": {"entries": [{"key": "k", "criticalWarning": 1}]}})",
     LoadStatus::badEntry},
    {"memberOfOtherTableNvme", true,
     R"({"nvme": {"entries": [{"key": "k", "powerOnHours": 1}]}})",
     LoadStatus::badEntry},
    {"numberAsText", true,
     R"({"nvme": {"entries": [{"key": "k", "protocol": "64"}]}})",
     LoadStatus::badEntry},
    {"negative", true,
     R"({"nvme": {"entries": [{"key": "k", "temperatureSensor3": -2}]}})",
     LoadStatus::badEntry},
    {"float", false,
     R"({"sasSata": {"entries": [{"key": "k", "protocol": 16.0}]}})",
     LoadStatus::badEntry},
    {"beyond64Bits", false,
     R"({"sasSata": {"entries": [{"key": "k",
         "powerOnHours": 18446744073709551616}]}})",
     LoadStatus::badEntry},
    {"boolean", true,
     R"({"nvme": {"entries": [{"key": "k", "attributes": true}]}})",
     LoadStatus::badEntry},
    {"null", true,
     R"({"nvme": {"entries": [{"key": "k", "attributes": null}]}})",
     LoadStatus::badEntry},
    {"fqddNotText", false,
     R"({"sasSata": {"entries": [{"key": "k", "fqdd": 5}]}})",
     LoadStatus::badEntry},
    {"missingKey", true, R"({"nvme": {"entries": [{"fqdd": "D"}]}})",
     LoadStatus::badKey},
    {"keyNotText", false, R"({"sasSata": {"entries": [{"key": 1}]}})",
     LoadStatus::badKey},
    {"duplicateKey", true,
     R"({"nvme": {"entries": [{"key": "k"}, {"key": "j"}, {"key": "k"}]}})",
     LoadStatus::badKey},
    {"goodThenBad", false,
     R"({"sasSata": {"entries": [{"key": "a", "protocol": 16},
                                 {"key": "b", "protocol": -16}]}})",
     LoadStatus::badEntry},
};

TEST_F(SmartTablesTest, BadFilesFailWithTheirStatus)
{
    for (const auto& c : badFileCases)
    {
        SCOPED_TRACE(c.name);
        const std::string path = useTables(c.content);
        std::uint64_t status = 0;
        std::string errors;
        bool filled = false;
        if (c.nvme)
        {
            const auto loaded = load<Nvme>();
            status = loaded.status;
            errors = loaded.errors;
            filled = !loaded.map.empty();
        }
        else
        {
            const auto loaded = load<Sas>();
            status = loaded.status;
            errors = loaded.errors;
            filled = !loaded.map.empty();
        }
        EXPECT_EQ(status, static_cast<std::uint64_t>(c.expected));
        EXPECT_FALSE(filled);
        EXPECT_NE(errors.find(path), std::string::npos) << errors;
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
    }
}

TEST_F(SmartTablesTest, MissingFileFailsWithItsStatus)
{
    const std::string directory = dir.file("aDirectory");
    ASSERT_EQ(::mkdir(directory.c_str(), 0755), 0);
    struct Case
    {
        const char* name;
        const char* value;
        LoadStatus expected;
    };
    const std::string absent = dir.file("absent.json");
    for (const Case c :
         {Case{"unset", nullptr, LoadStatus::unset},
          Case{"empty", "", LoadStatus::unset},
          Case{"absent", absent.c_str(), LoadStatus::unreadable},
          Case{"directory", directory.c_str(), LoadStatus::unreadable}})
    {
        SCOPED_TRACE(c.name);
        if (c.value == nullptr)
        {
            ::unsetenv("PLATFORM_SMART_TABLES");
        }
        else
        {
            ::setenv("PLATFORM_SMART_TABLES", c.value, 1);
        }
        const auto sas = load<Sas>();
        const auto nvme = load<Nvme>();
        EXPECT_EQ(sas.status, static_cast<std::uint64_t>(c.expected));
        EXPECT_EQ(nvme.status, static_cast<std::uint64_t>(c.expected));
        EXPECT_TRUE(sas.map.empty() && nvme.map.empty());
        EXPECT_NE(sas.errors.find(c.value == nullptr || *c.value == '\0'
                                      ? "PLATFORM_SMART_TABLES"
                                      : c.value),
                  std::string::npos)
            << sas.errors;
    }
}

} // namespace
