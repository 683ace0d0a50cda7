#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace smartdata
{

// Member names of a table's entries in the tables file: the accessor names
// of the platform's record classes, misspellings included.
inline constexpr std::array<std::string_view, 24> sasSataFields{
    "objStatus",
    "objExtFlags",
    "protocol",
    "readErrorDate",
    "reallocatedBlockCount",
    "powerOnHours",
    "powerCycleCount",
    "ecceRate",
    "usedReservedBlockCount",
    "unusedReservedBlockCount",
    "programFailCount",
    "eraseFailCount",
    "commandTimeout",
    "driveTemperature",
    "uncorrectableErrorCount",
    "uncorrectableLBACount",
    "crcErrorCount",
    "volatileMemoryBackupSourceFailures",
    "exceptionModeStatus",
    "mediaWriteCount",
    "percentDriveLifeRemaining",
    "currentPendingSectorCount",
    "lastUpdatedDateTime",
    "attributes"};

inline constexpr std::array<std::string_view, 54> nvmeFields{
    "objStatus",
    "objExtFlags",
    "protocol",
    "criticalWarning",
    "compositeTemparature",
    "availableSpare",
    "availableSpareThreshold",
    "percentageUsed",
    "dataUnitsReadLower",
    "dataUnitsReadUpper",
    "dataUnitsWrittenLower",
    "dataUnitsWrittenUpper",
    "hostReadCmdsLower",
    "hostReadCmdsUpper",
    "hostWriteCmdsLower",
    "hostWriteCmdsUpper",
    "controllerBusyTimeLower",
    "controllerBusyTimeUpper",
    "powerCyclesLower",
    "powerCyclesUpper",
    "powerOnHoursLower",
    "powerOnHoursUpper",
    "unsafeShutdownsLower",
    "unsafeShutdownsUpper",
    "mediaAndDataIntegrityErrsLower",
    "mediaAndDataIntegrityErrsUpper",
    "numOfErrorInfoLogEntriesLower",
    "numOfErrorInfoLogEntriesUpper",
    "warningCompositeTemperatureTime",
    "criticalCompositeTemperatureTime",
    "temperatureSensor1",
    "temperatureSensor2",
    "temperatureSensor3",
    "temperatureSensor4",
    "temperatureSensor5",
    "temperatureSensor6",
    "temperatureSensor7",
    "temperatureSensor8",
    "thermalMgmtTempTransitionCount",
    "totalTimeThemalMgmtTemp",
    "errorInfoLogRecordErrorCount",
    "errorInfoLogRecordSubmissionQueID",
    "errorInfoLogRecordCommandID",
    "errorInfoLogRecordStatusFieldPhaseTag",
    "errorInfoLogRecordStatusFieldStatus",
    "errorInfoLogRecordParameterErrorLocationByteInCommand",
    "errorInfoLogRecordParameterErrorLocationBitInCommand",
    "errorInfoLogRecordLBA",
    "errorInfoLogRecordNamespace",
    "errorInfoLogRecordVendorSpecificInfo",
    "badFlashBlock",
    "uncorrectableError",
    "lastUpdatedDateTime",
    "attributes"};

// A drive of one table: its FQDD and one 64-bit value per name in `names`.
// The names list is the only place that orders the fields, so a value read
// from the file cannot land behind another field's accessor.
template <const auto& names>
class TableRecord
{
  public:
    static constexpr const auto& fieldNames = names;
    using Values = std::array<std::uint64_t, names.size()>;

    TableRecord() = default;
    TableRecord(std::string fqdd, const Values& values) :
        fqddText(std::move(fqdd)), values(values)
    {}

    std::string fqdd() const
    {
        return fqddText;
    }

  protected:
    // Evaluated while compiling: an accessor naming no field does not build.
    static consteval std::size_t field(std::string_view name)
    {
        const auto* found = std::ranges::find(names, name);
        if (found == names.end())
        {
            throw std::invalid_argument("not a field of this table");
        }
        return static_cast<std::size_t>(found - names.begin());
    }

    std::uint64_t get(std::size_t index) const
    {
        return values[index];
    }

  private:
    std::string fqddText;
    Values values{};
};

} // namespace smartdata

// One SAS/SATA drive of the shared table.
class smartdatasassata_gen :
    public smartdata::TableRecord<smartdata::sasSataFields>
{
  public:
    using TableRecord::TableRecord;

    std::uint64_t objStatus() const
    {
        return get(field("objStatus"));
    }
    std::uint64_t objExtFlags() const
    {
        return get(field("objExtFlags"));
    }
    std::uint64_t protocol() const
    {
        return get(field("protocol"));
    }
    std::uint64_t readErrorDate() const
    {
        return get(field("readErrorDate"));
    }
    std::uint64_t reallocatedBlockCount() const
    {
        return get(field("reallocatedBlockCount"));
    }
    std::uint64_t powerOnHours() const
    {
        return get(field("powerOnHours"));
    }
    std::uint64_t powerCycleCount() const
    {
        return get(field("powerCycleCount"));
    }
    std::uint64_t ecceRate() const
    {
        return get(field("ecceRate"));
    }
    std::uint64_t usedReservedBlockCount() const
    {
        return get(field("usedReservedBlockCount"));
    }
    std::uint64_t unusedReservedBlockCount() const
    {
        return get(field("unusedReservedBlockCount"));
    }
    std::uint64_t programFailCount() const
    {
        return get(field("programFailCount"));
    }
    std::uint64_t eraseFailCount() const
    {
        return get(field("eraseFailCount"));
    }
    std::uint64_t commandTimeout() const
    {
        return get(field("commandTimeout"));
    }
    std::uint64_t driveTemperature() const
    {
        return get(field("driveTemperature"));
    }
    std::uint64_t uncorrectableErrorCount() const
    {
        return get(field("uncorrectableErrorCount"));
    }
    std::uint64_t uncorrectableLBACount() const
    {
        return get(field("uncorrectableLBACount"));
    }
    std::uint64_t crcErrorCount() const
    {
        return get(field("crcErrorCount"));
    }
    std::uint64_t volatileMemoryBackupSourceFailures() const
    {
        return get(field("volatileMemoryBackupSourceFailures"));
    }
    std::uint64_t exceptionModeStatus() const
    {
        return get(field("exceptionModeStatus"));
    }
    std::uint64_t mediaWriteCount() const
    {
        return get(field("mediaWriteCount"));
    }
    std::uint64_t percentDriveLifeRemaining() const
    {
        return get(field("percentDriveLifeRemaining"));
    }
    std::uint64_t currentPendingSectorCount() const
    {
        return get(field("currentPendingSectorCount"));
    }
    std::uint64_t lastUpdatedDateTime() const
    {
        return get(field("lastUpdatedDateTime"));
    }
    std::uint64_t attributes() const
    {
        return get(field("attributes"));
    }
};

// One NVMe drive of the shared table. The 128-bit health counters come as
// two 64-bit halves.
class smartdatanvme_gen : public smartdata::TableRecord<smartdata::nvmeFields>
{
  public:
    using TableRecord::TableRecord;

    std::uint64_t objStatus() const
    {
        return get(field("objStatus"));
    }
    std::uint64_t objExtFlags() const
    {
        return get(field("objExtFlags"));
    }
    std::uint64_t protocol() const
    {
        return get(field("protocol"));
    }
    std::uint64_t criticalWarning() const
    {
        return get(field("criticalWarning"));
    }
    std::uint64_t compositeTemparature() const
    {
        return get(field("compositeTemparature"));
    }
    std::uint64_t availableSpare() const
    {
        return get(field("availableSpare"));
    }
    std::uint64_t availableSpareThreshold() const
    {
        return get(field("availableSpareThreshold"));
    }
    std::uint64_t percentageUsed() const
    {
        return get(field("percentageUsed"));
    }
    std::uint64_t dataUnitsReadLower() const
    {
        return get(field("dataUnitsReadLower"));
    }
    std::uint64_t dataUnitsReadUpper() const
    {
        return get(field("dataUnitsReadUpper"));
    }
    std::uint64_t dataUnitsWrittenLower() const
    {
        return get(field("dataUnitsWrittenLower"));
    }
    std::uint64_t dataUnitsWrittenUpper() const
    {
        return get(field("dataUnitsWrittenUpper"));
    }
    std::uint64_t hostReadCmdsLower() const
    {
        return get(field("hostReadCmdsLower"));
    }
    std::uint64_t hostReadCmdsUpper() const
    {
        return get(field("hostReadCmdsUpper"));
    }
    std::uint64_t hostWriteCmdsLower() const
    {
        return get(field("hostWriteCmdsLower"));
    }
    std::uint64_t hostWriteCmdsUpper() const
    {
        return get(field("hostWriteCmdsUpper"));
    }
    std::uint64_t controllerBusyTimeLower() const
    {
        return get(field("controllerBusyTimeLower"));
    }
    std::uint64_t controllerBusyTimeUpper() const
    {
        return get(field("controllerBusyTimeUpper"));
    }
    std::uint64_t powerCyclesLower() const
    {
        return get(field("powerCyclesLower"));
    }
    std::uint64_t powerCyclesUpper() const
    {
        return get(field("powerCyclesUpper"));
    }
    std::uint64_t powerOnHoursLower() const
    {
        return get(field("powerOnHoursLower"));
    }
    std::uint64_t powerOnHoursUpper() const
    {
        return get(field("powerOnHoursUpper"));
    }
    std::uint64_t unsafeShutdownsLower() const
    {
        return get(field("unsafeShutdownsLower"));
    }
    std::uint64_t unsafeShutdownsUpper() const
    {
        return get(field("unsafeShutdownsUpper"));
    }
    std::uint64_t mediaAndDataIntegrityErrsLower() const
    {
        return get(field("mediaAndDataIntegrityErrsLower"));
    }
    std::uint64_t mediaAndDataIntegrityErrsUpper() const
    {
        return get(field("mediaAndDataIntegrityErrsUpper"));
    }
    std::uint64_t numOfErrorInfoLogEntriesLower() const
    {
        return get(field("numOfErrorInfoLogEntriesLower"));
    }
    std::uint64_t numOfErrorInfoLogEntriesUpper() const
    {
        return get(field("numOfErrorInfoLogEntriesUpper"));
    }
    std::uint64_t warningCompositeTemperatureTime() const
    {
        return get(field("warningCompositeTemperatureTime"));
    }
    std::uint64_t criticalCompositeTemperatureTime() const
    {
        return get(field("criticalCompositeTemperatureTime"));
    }
    std::uint64_t temperatureSensor1() const
    {
        return get(field("temperatureSensor1"));
    }
    std::uint64_t temperatureSensor2() const
    {
        return get(field("temperatureSensor2"));
    }
    std::uint64_t temperatureSensor3() const
    {
        return get(field("temperatureSensor3"));
    }
    std::uint64_t temperatureSensor4() const
    {
        return get(field("temperatureSensor4"));
    }
    std::uint64_t temperatureSensor5() const
    {
        return get(field("temperatureSensor5"));
    }
    std::uint64_t temperatureSensor6() const
    {
        return get(field("temperatureSensor6"));
    }
    std::uint64_t temperatureSensor7() const
    {
        return get(field("temperatureSensor7"));
    }
    std::uint64_t temperatureSensor8() const
    {
        return get(field("temperatureSensor8"));
    }
    std::uint64_t thermalMgmtTempTransitionCount() const
    {
        return get(field("thermalMgmtTempTransitionCount"));
    }
    std::uint64_t totalTimeThemalMgmtTemp() const
    {
        return get(field("totalTimeThemalMgmtTemp"));
    }
    std::uint64_t errorInfoLogRecordErrorCount() const
    {
        return get(field("errorInfoLogRecordErrorCount"));
    }
    std::uint64_t errorInfoLogRecordSubmissionQueID() const
    {
        return get(field("errorInfoLogRecordSubmissionQueID"));
    }
    std::uint64_t errorInfoLogRecordCommandID() const
    {
        return get(field("errorInfoLogRecordCommandID"));
    }
    std::uint64_t errorInfoLogRecordStatusFieldPhaseTag() const
    {
        return get(field("errorInfoLogRecordStatusFieldPhaseTag"));
    }
    std::uint64_t errorInfoLogRecordStatusFieldStatus() const
    {
        return get(field("errorInfoLogRecordStatusFieldStatus"));
    }
    std::uint64_t errorInfoLogRecordParameterErrorLocationByteInCommand() const
    {
        return get(
            field("errorInfoLogRecordParameterErrorLocationByteInCommand"));
    }
    std::uint64_t errorInfoLogRecordParameterErrorLocationBitInCommand() const
    {
        return get(
            field("errorInfoLogRecordParameterErrorLocationBitInCommand"));
    }
    std::uint64_t errorInfoLogRecordLBA() const
    {
        return get(field("errorInfoLogRecordLBA"));
    }
    std::uint64_t errorInfoLogRecordNamespace() const
    {
        return get(field("errorInfoLogRecordNamespace"));
    }
    std::uint64_t errorInfoLogRecordVendorSpecificInfo() const
    {
        return get(field("errorInfoLogRecordVendorSpecificInfo"));
    }
    std::uint64_t badFlashBlock() const
    {
        return get(field("badFlashBlock"));
    }
    std::uint64_t uncorrectableError() const
    {
        return get(field("uncorrectableError"));
    }
    std::uint64_t lastUpdatedDateTime() const
    {
        return get(field("lastUpdatedDateTime"));
    }
    std::uint64_t attributes() const
    {
        return get(field("attributes"));
    }
};

namespace DataAbstraction
{
namespace smartdatasassata
{
// Fills `map` from the shared SAS/SATA table; zero is success.
std::uint64_t get_map(std::map<std::string, smartdatasassata_gen>& map);
} // namespace smartdatasassata

namespace smartdatanvme
{
// Fills `map` from the shared NVMe table; zero is success.
std::uint64_t get_map(std::map<std::string, smartdatanvme_gen>& map);
} // namespace smartdatanvme
} // namespace DataAbstraction
