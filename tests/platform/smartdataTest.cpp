#include "smartdata.hpp"

#include "tempDir.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <limits>
#include <ranges>
#include <source_location>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace
{

using nlohmann::json;
using smartdata::LoadStatus;
using S = smartdatasassata_gen;
using N = smartdatanvme_gen;
template <typename Record>
using GetMap = std::uint64_t (*)(std::map<std::string, Record>&);
constexpr GetMap<S> sasMap = DataAbstraction::smartdatasassata::get_map;
constexpr GetMap<N> nvmeMap = DataAbstraction::smartdatanvme::get_map;
constexpr std::uint64_t maxValue = std::numeric_limits<std::uint64_t>::max();

// Points the variable at a file holding `content`, or at a missing file.
void useTables(const char* content)
{
    static const testsupport::TempDir dir;
    const std::string path = content == nullptr
                                 ? dir.file("missing.json")
                                 : dir.write("tables.json", content);
    ::setenv("PLATFORM_SMART_TABLES", path.c_str(), 1);
}

// The accessor's name as the compiler spells it ("[with auto getter =
// &smartdatanvme_gen::attributes; ...]"), not the stand-in's own table.
template <auto getter>
std::string accessorName()
{
    const std::string_view where =
        std::source_location::current().function_name();
    const auto start = where.find("::", where.find("getter = ")) + 2;
    return std::string(where.substr(start, where.find(';', start) - start));
}

// A full entry reaches every accessor through the member of the same name; a
// sparse one reads 0 where it has no member. Values differ per field and go
// beyond 32 bits, so one read from the wrong field or cut short shows.
template <typename Record, auto... getters>
void checkAccessors(const char* table, GetMap<Record> getMap)
{
    static_assert(sizeof...(getters) == Record::fieldCount);
    const std::array all{getters...};
    const std::array names{accessorName<getters>()...};
    const auto valueFor = [](auto i) { return maxValue - i * 0x100000001; };
    json full{{"key", "full"}, {"fqdd", std::string("Bay.7\0x", 7)}};
    for (std::size_t i = 0; i < all.size(); ++i)
    {
        full[names[i]] = valueFor(i);
    }
    const json sparse{{"key", "sparse"}, {"attributes", 2}};
    useTables(json{{table, {{"entries", {full, sparse}}}}}.dump().c_str());
    std::map<std::string, Record> map;
    ASSERT_EQ(getMap(map), 0U);
    const Record copy = map.at("full"); // as the collector caches them
    EXPECT_EQ(copy.fqdd(), full["fqdd"]);
    EXPECT_EQ(map.at("sparse").fqdd(), "");
    for (std::size_t i = 0; i < all.size(); ++i)
    {
        SCOPED_TRACE(names[i]);
        EXPECT_EQ((copy.*all[i])(), valueFor(i));
        EXPECT_EQ((map.at("sparse").*all[i])(),
                  all[i] == &Record::attributes ? 2U : 0U);
    }
}

TEST(SmartTables, EveryAccessorReadsItsOwnMember)
{
    checkAccessors<
        S, &S::objStatus, &S::objExtFlags, &S::protocol, &S::readErrorDate,
        &S::reallocatedBlockCount, &S::powerOnHours, &S::powerCycleCount,
        &S::ecceRate, &S::usedReservedBlockCount, &S::unusedReservedBlockCount,
        &S::programFailCount, &S::eraseFailCount, &S::commandTimeout,
        &S::driveTemperature, &S::uncorrectableErrorCount,
        &S::uncorrectableLBACount, &S::crcErrorCount,
        &S::volatileMemoryBackupSourceFailures, &S::exceptionModeStatus,
        &S::mediaWriteCount, &S::percentDriveLifeRemaining,
        &S::currentPendingSectorCount, &S::lastUpdatedDateTime, &S::attributes>(
        "sasSata", sasMap);
    checkAccessors<
        N, &N::objStatus, &N::objExtFlags, &N::protocol, &N::criticalWarning,
        &N::compositeTemparature, &N::availableSpare,
        &N::availableSpareThreshold, &N::percentageUsed, &N::dataUnitsReadLower,
        &N::dataUnitsReadUpper, &N::dataUnitsWrittenLower,
        &N::dataUnitsWrittenUpper, &N::hostReadCmdsLower, &N::hostReadCmdsUpper,
        &N::hostWriteCmdsLower, &N::hostWriteCmdsUpper,
        &N::controllerBusyTimeLower, &N::controllerBusyTimeUpper,
        &N::powerCyclesLower, &N::powerCyclesUpper, &N::powerOnHoursLower,
        &N::powerOnHoursUpper, &N::unsafeShutdownsLower,
        &N::unsafeShutdownsUpper, &N::mediaAndDataIntegrityErrsLower,
        &N::mediaAndDataIntegrityErrsUpper, &N::numOfErrorInfoLogEntriesLower,
        &N::numOfErrorInfoLogEntriesUpper, &N::warningCompositeTemperatureTime,
        &N::criticalCompositeTemperatureTime, &N::temperatureSensor1,
        &N::temperatureSensor2, &N::temperatureSensor3, &N::temperatureSensor4,
        &N::temperatureSensor5, &N::temperatureSensor6, &N::temperatureSensor7,
        &N::temperatureSensor8, &N::thermalMgmtTempTransitionCount,
        &N::totalTimeThemalMgmtTemp, &N::errorInfoLogRecordErrorCount,
        &N::errorInfoLogRecordSubmissionQueID, &N::errorInfoLogRecordCommandID,
        &N::errorInfoLogRecordStatusFieldPhaseTag,
        &N::errorInfoLogRecordStatusFieldStatus,
        &N::errorInfoLogRecordParameterErrorLocationByteInCommand,
        &N::errorInfoLogRecordParameterErrorLocationBitInCommand,
        &N::errorInfoLogRecordLBA, &N::errorInfoLogRecordNamespace,
        &N::errorInfoLogRecordVendorSpecificInfo, &N::badFlashBlock,
        &N::uncorrectableError, &N::lastUpdatedDateTime, &N::attributes>(
        "nvme", nvmeMap);
}

// A table's own status comes back with its entries, ordered by the bytes of
// their keys; an absent table is an empty one with status 0.
TEST(SmartTables, StatusComesBackWithOrderedEntries)
{
    using Keys = std::vector<std::string>;
    const std::vector<std::tuple<const char*, std::uint64_t, Keys>> cases{
        {R"({"nvme": {"status": 3, "entries": [{"key": "k2"}, {"key": "k10"},
            {"key": "K1"}, {"key": ""}, {"key": "k1"}]}})",
         3, Keys{"", "K1", "k1", "k10", "k2"}},
        {R"({"nvme": {"status": 18446744073709551615}})", maxValue, Keys{}},
        {R"({"sasSata": {"status": 5}, "objects": [1, null]})", 0, Keys{}},
        // Containers anywhere else are passed over whole.
        {R"({"x": [[{"nvme": 1}], {"entries": [1]}],
             "nvme": {"entries": [{"key": "a"}], "status": 6}, "y": {}})",
         6, Keys{"a"}},
        // A repeated table replaces the earlier one, entries and all.
        {R"({"nvme": {"status": 1, "entries": [{"key": "old"}]},
             "nvme": {"status": 2, "entries": [{"key": "new"}]}})",
         2, Keys{"new"}},
    };
    for (const auto& [tables, status, keys] : cases)
    {
        SCOPED_TRACE(tables);
        useTables(tables);
        std::map<std::string, N> map;
        EXPECT_EQ(nvmeMap(map), status);
        EXPECT_TRUE(std::ranges::equal(map | std::views::keys, keys));
    }
}

// One parse serves both tables, but a table is never served from a file
// that has changed since, even to the same size within one timestamp tick.
TEST(SmartTables, EachCallSeesTheCurrentFile)
{
    std::map<std::string, S> sas;
    std::map<std::string, N> nvme;
    useTables(R"({"sasSata": {"status": 1}, "nvme": {"status": 2}})");
    EXPECT_EQ(sasMap(sas), 1u);
    useTables(R"({"sasSata": {"status": 3}, "nvme": {"status": 4}})");
    EXPECT_EQ(nvmeMap(nvme), 4u);
    EXPECT_EQ(nvmeMap(nvme), 4u);
    useTables(R"({"sasSata": {"entries": [{"key": "a"}]}, "nvme": {}})");
    EXPECT_EQ(nvmeMap(nvme), 0u);
    EXPECT_EQ(sasMap(sas), 0u);
    EXPECT_EQ(sas.size(), 1u);
}

// Each case spoils both tables, next to good entries where there are any.
TEST(SmartTables, BadFilesLeaveTheMapEmpty)
{
    const auto expectRejected = [](LoadStatus expected) {
        std::map<std::string, S> sas;
        std::map<std::string, N> nvme;
        EXPECT_EQ(sasMap(sas), static_cast<std::uint64_t>(expected));
        EXPECT_EQ(nvmeMap(nvme), static_cast<std::uint64_t>(expected));
        EXPECT_TRUE(sas.empty() && nvme.empty());
    };
    const std::vector<std::pair<const char*, LoadStatus>> cases{
        {nullptr, LoadStatus::unreadable},
        {R"({"sasSata": )", LoadStatus::malformed},
        // A syntax error outranks an earlier bad entry or table shape.
        {R"({"sasSata": {"entries": [{"key": 1}]}, "nvme": {"x": 1}, [})",
         LoadStatus::malformed},
        {"[]", LoadStatus::malformed},
        {R"({"sasSata": [], "nvme": {"entrys": []}})", LoadStatus::badTable},
        {R"({"sasSata": {"status": -1}, "nvme": {"entries": {}}})",
         LoadStatus::badTable},
        {R"({"sasSata": {"entries": [{"key": "k", "criticalWarning": 1}]},
             "nvme": {"entries": [{"key": "k", "powerOnHours": 1}]}})",
         LoadStatus::badEntry},
        {R"({"sasSata": {"entries": [{"key": "a"}, {"key": "b", "fqdd": 5}]},
             "nvme": {"entries": [{"key": "a"},
                 {"key": "b", "protocol": 18446744073709551616}]}})",
         LoadStatus::badEntry},
        {R"({"sasSata": {"entries": [{"fqdd": "D"}]},
             "nvme": {"entries": [{"key": "k"}, {"key": "k"}]}})",
         LoadStatus::badKey},
        // Members are judged in name order, whatever their order in the file.
        {R"({"sasSata": {"entries": [{"zzz": 1, "key": 5}]},
             "nvme": {"entries": [{"protocol": -1, "key": null}]}})",
         LoadStatus::badKey},
        {R"({"sasSata": {"entries": [{"key": 5, "aaa": 1}]},
             "nvme": {"entries": [{"key": [], "fqdd": {}}]}})",
         LoadStatus::badEntry},
        {R"({"sasSata": {"entries": [[{"key": "a"}]]},
             "nvme": {"entries": [{"key": "a", "protocol": [1]}]}})",
         LoadStatus::badEntry},
        {R"({"sasSata": {"status": {"x": 1}, "entries": [{"key": 1}]},
             "nvme": {"entries": [{"key": 1}], "zz": 0, "aa": 0}})",
         LoadStatus::badTable},
    };
    for (const auto& [content, status] : cases)
    {
        SCOPED_TRACE(content == nullptr ? "missing file" : content);
        useTables(content);
        expectRejected(status);
    }
    // A directory opens fine but cannot be read.
    ::setenv("PLATFORM_SMART_TABLES", "/", 1);
    expectRejected(LoadStatus::unreadable);
    ::unsetenv("PLATFORM_SMART_TABLES");
    expectRejected(LoadStatus::unset);
}

} // namespace
