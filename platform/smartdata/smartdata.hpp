#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace smartdata
{

// Storage shared by both record classes: every numeric field of an entry in
// one array, indexed by the class's field enumeration.
template <typename Field>
class Entry
{
  public:
    static constexpr std::size_t fieldCount =
        static_cast<std::size_t>(Field::count);
    using Values = std::array<std::uint64_t, fieldCount>;

    Entry() = default;
    Entry(std::string fqdd, const Values& values) :
        fqddText(std::move(fqdd)), fieldValues(values)
    {}
    Entry(const Entry&) = default;
    Entry(Entry&&) noexcept = default;
    Entry& operator=(const Entry&) = default;
    Entry& operator=(Entry&&) noexcept = default;
    virtual ~Entry() = default;

    std::string fqdd() const
    {
        return fqddText;
    }

  protected:
    std::uint64_t get(Field field) const
    {
        return fieldValues[static_cast<std::size_t>(field)];
    }

  private:
    std::string fqddText;
    Values fieldValues{};
};

// Field order follows the platform's accessor order.
enum class SasSataField : std::size_t
{
    objStatus,
    objExtFlags,
    protocol,
    readErrorDate,
    reallocatedBlockCount,
    powerOnHours,
    powerCycleCount,
    ecceRate,
    usedReservedBlockCount,
    unusedReservedBlockCount,
    programFailCount,
    eraseFailCount,
    commandTimeout,
    driveTemperature,
    uncorrectableErrorCount,
    uncorrectableLBACount,
    crcErrorCount,
    volatileMemoryBackupSourceFailures,
    exceptionModeStatus,
    mediaWriteCount,
    percentDriveLifeRemaining,
    currentPendingSectorCount,
    lastUpdatedDateTime,
    attributes,
    count
};

enum class NvmeField : std::size_t
{
    objStatus,
    objExtFlags,
    protocol,
    criticalWarning,
    compositeTemparature,
    availableSpare,
    availableSpareThreshold,
    percentageUsed,
    dataUnitsReadLower,
    dataUnitsReadUpper,
    dataUnitsWrittenLower,
    dataUnitsWrittenUpper,
    hostReadCmdsLower,
    hostReadCmdsUpper,
    hostWriteCmdsLower,
    hostWriteCmdsUpper,
    controllerBusyTimeLower,
    controllerBusyTimeUpper,
    powerCyclesLower,
    powerCyclesUpper,
    powerOnHoursLower,
    powerOnHoursUpper,
    unsafeShutdownsLower,
    unsafeShutdownsUpper,
    mediaAndDataIntegrityErrsLower,
    mediaAndDataIntegrityErrsUpper,
    numOfErrorInfoLogEntriesLower,
    numOfErrorInfoLogEntriesUpper,
    warningCompositeTemperatureTime,
    criticalCompositeTemperatureTime,
    temperatureSensor1,
    temperatureSensor2,
    temperatureSensor3,
    temperatureSensor4,
    temperatureSensor5,
    temperatureSensor6,
    temperatureSensor7,
    temperatureSensor8,
    thermalMgmtTempTransitionCount,
    totalTimeThemalMgmtTemp,
    errorInfoLogRecordErrorCount,
    errorInfoLogRecordSubmissionQueID,
    errorInfoLogRecordCommandID,
    errorInfoLogRecordStatusFieldPhaseTag,
    errorInfoLogRecordStatusFieldStatus,
    errorInfoLogRecordParameterErrorLocationByteInCommand,
    errorInfoLogRecordParameterErrorLocationBitInCommand,
    errorInfoLogRecordLBA,
    errorInfoLogRecordNamespace,
    errorInfoLogRecordVendorSpecificInfo,
    badFlashBlock,
    uncorrectableError,
    lastUpdatedDateTime,
    attributes,
    count
};

// Statuses of get_map that come from the tables file itself rather than from
// its "status" members.
enum class LoadStatus : std::uint64_t
{
    unset = 1,
    unreadable = 2,
    malformed = 3,
    badTable = 4,
    badEntry = 5,
    badKey = 6,
    internal = 7
};

} // namespace smartdata

// One SAS/SATA drive of the shared table.
class smartdatasassata_gen : public smartdata::Entry<smartdata::SasSataField>
{
  public:
    using Field = smartdata::SasSataField;
    using Entry::Entry;
    ~smartdatasassata_gen() override;

    // Member names of the tables file, in field order.
    static std::span<const std::string_view, fieldCount> fieldNames();

    std::uint64_t objStatus() const
    {
        return get(Field::objStatus);
    }
    std::uint64_t objExtFlags() const
    {
        return get(Field::objExtFlags);
    }
    std::uint64_t protocol() const
    {
        return get(Field::protocol);
    }
    std::uint64_t readErrorDate() const
    {
        return get(Field::readErrorDate);
    }
    std::uint64_t reallocatedBlockCount() const
    {
        return get(Field::reallocatedBlockCount);
    }
    std::uint64_t powerOnHours() const
    {
        return get(Field::powerOnHours);
    }
    std::uint64_t powerCycleCount() const
    {
        return get(Field::powerCycleCount);
    }
    std::uint64_t ecceRate() const
    {
        return get(Field::ecceRate);
    }
    std::uint64_t usedReservedBlockCount() const
    {
        return get(Field::usedReservedBlockCount);
    }
    std::uint64_t unusedReservedBlockCount() const
    {
        return get(Field::unusedReservedBlockCount);
    }
    std::uint64_t programFailCount() const
    {
        return get(Field::programFailCount);
    }
    std::uint64_t eraseFailCount() const
    {
        return get(Field::eraseFailCount);
    }
    std::uint64_t commandTimeout() const
    {
        return get(Field::commandTimeout);
    }
    std::uint64_t driveTemperature() const
    {
        return get(Field::driveTemperature);
    }
    std::uint64_t uncorrectableErrorCount() const
    {
        return get(Field::uncorrectableErrorCount);
    }
    std::uint64_t uncorrectableLBACount() const
    {
        return get(Field::uncorrectableLBACount);
    }
    std::uint64_t crcErrorCount() const
    {
        return get(Field::crcErrorCount);
    }
    std::uint64_t volatileMemoryBackupSourceFailures() const
    {
        return get(Field::volatileMemoryBackupSourceFailures);
    }
    std::uint64_t exceptionModeStatus() const
    {
        return get(Field::exceptionModeStatus);
    }
    std::uint64_t mediaWriteCount() const
    {
        return get(Field::mediaWriteCount);
    }
    std::uint64_t percentDriveLifeRemaining() const
    {
        return get(Field::percentDriveLifeRemaining);
    }
    std::uint64_t currentPendingSectorCount() const
    {
        return get(Field::currentPendingSectorCount);
    }
    std::uint64_t lastUpdatedDateTime() const
    {
        return get(Field::lastUpdatedDateTime);
    }
    std::uint64_t attributes() const
    {
        return get(Field::attributes);
    }
};

// One NVMe drive of the shared table. The 128-bit health counters come as
// two 64-bit halves.
class smartdatanvme_gen : public smartdata::Entry<smartdata::NvmeField>
{
  public:
    using Field = smartdata::NvmeField;
    using Entry::Entry;
    ~smartdatanvme_gen() override;

    // Member names of the tables file, in field order.
    static std::span<const std::string_view, fieldCount> fieldNames();

    std::uint64_t objStatus() const
    {
        return get(Field::objStatus);
    }
    std::uint64_t objExtFlags() const
    {
        return get(Field::objExtFlags);
    }
    std::uint64_t protocol() const
    {
        return get(Field::protocol);
    }
    std::uint64_t criticalWarning() const
    {
        return get(Field::criticalWarning);
    }
    std::uint64_t compositeTemparature() const
    {
        return get(Field::compositeTemparature);
    }
    std::uint64_t availableSpare() const
    {
        return get(Field::availableSpare);
    }
    std::uint64_t availableSpareThreshold() const
    {
        return get(Field::availableSpareThreshold);
    }
    std::uint64_t percentageUsed() const
    {
        return get(Field::percentageUsed);
    }
    std::uint64_t dataUnitsReadLower() const
    {
        return get(Field::dataUnitsReadLower);
    }
    std::uint64_t dataUnitsReadUpper() const
    {
        return get(Field::dataUnitsReadUpper);
    }
    std::uint64_t dataUnitsWrittenLower() const
    {
        return get(Field::dataUnitsWrittenLower);
    }
    std::uint64_t dataUnitsWrittenUpper() const
    {
        return get(Field::dataUnitsWrittenUpper);
    }
    std::uint64_t hostReadCmdsLower() const
    {
        return get(Field::hostReadCmdsLower);
    }
    std::uint64_t hostReadCmdsUpper() const
    {
        return get(Field::hostReadCmdsUpper);
    }
    std::uint64_t hostWriteCmdsLower() const
    {
        return get(Field::hostWriteCmdsLower);
    }
    std::uint64_t hostWriteCmdsUpper() const
    {
        return get(Field::hostWriteCmdsUpper);
    }
    std::uint64_t controllerBusyTimeLower() const
    {
        return get(Field::controllerBusyTimeLower);
    }
    std::uint64_t controllerBusyTimeUpper() const
    {
        return get(Field::controllerBusyTimeUpper);
    }
    std::uint64_t powerCyclesLower() const
    {
        return get(Field::powerCyclesLower);
    }
    std::uint64_t powerCyclesUpper() const
    {
        return get(Field::powerCyclesUpper);
    }
    std::uint64_t powerOnHoursLower() const
    {
        return get(Field::powerOnHoursLower);
    }
    std::uint64_t powerOnHoursUpper() const
    {
        return get(Field::powerOnHoursUpper);
    }
    std::uint64_t unsafeShutdownsLower() const
    {
        return get(Field::unsafeShutdownsLower);
    }
    std::uint64_t unsafeShutdownsUpper() const
    {
        return get(Field::unsafeShutdownsUpper);
    }
    std::uint64_t mediaAndDataIntegrityErrsLower() const
    {
        return get(Field::mediaAndDataIntegrityErrsLower);
    }
    std::uint64_t mediaAndDataIntegrityErrsUpper() const
    {
        return get(Field::mediaAndDataIntegrityErrsUpper);
    }
    std::uint64_t numOfErrorInfoLogEntriesLower() const
    {
        return get(Field::numOfErrorInfoLogEntriesLower);
    }
    std::uint64_t numOfErrorInfoLogEntriesUpper() const
    {
        return get(Field::numOfErrorInfoLogEntriesUpper);
    }
    std::uint64_t warningCompositeTemperatureTime() const
    {
        return get(Field::warningCompositeTemperatureTime);
    }
    std::uint64_t criticalCompositeTemperatureTime() const
    {
        return get(Field::criticalCompositeTemperatureTime);
    }
    std::uint64_t temperatureSensor1() const
    {
        return get(Field::temperatureSensor1);
    }
    std::uint64_t temperatureSensor2() const
    {
        return get(Field::temperatureSensor2);
    }
    std::uint64_t temperatureSensor3() const
    {
        return get(Field::temperatureSensor3);
    }
    std::uint64_t temperatureSensor4() const
    {
        return get(Field::temperatureSensor4);
    }
    std::uint64_t temperatureSensor5() const
    {
        return get(Field::temperatureSensor5);
    }
    std::uint64_t temperatureSensor6() const
    {
        return get(Field::temperatureSensor6);
    }
    std::uint64_t temperatureSensor7() const
    {
        return get(Field::temperatureSensor7);
    }
    std::uint64_t temperatureSensor8() const
    {
        return get(Field::temperatureSensor8);
    }
    std::uint64_t thermalMgmtTempTransitionCount() const
    {
        return get(Field::thermalMgmtTempTransitionCount);
    }
    std::uint64_t totalTimeThemalMgmtTemp() const
    {
        return get(Field::totalTimeThemalMgmtTemp);
    }
    std::uint64_t errorInfoLogRecordErrorCount() const
    {
        return get(Field::errorInfoLogRecordErrorCount);
    }
    std::uint64_t errorInfoLogRecordSubmissionQueID() const
    {
        return get(Field::errorInfoLogRecordSubmissionQueID);
    }
    std::uint64_t errorInfoLogRecordCommandID() const
    {
        return get(Field::errorInfoLogRecordCommandID);
    }
    std::uint64_t errorInfoLogRecordStatusFieldPhaseTag() const
    {
        return get(Field::errorInfoLogRecordStatusFieldPhaseTag);
    }
    std::uint64_t errorInfoLogRecordStatusFieldStatus() const
    {
        return get(Field::errorInfoLogRecordStatusFieldStatus);
    }
    std::uint64_t errorInfoLogRecordParameterErrorLocationByteInCommand() const
    {
        return get(
            Field::errorInfoLogRecordParameterErrorLocationByteInCommand);
    }
    std::uint64_t errorInfoLogRecordParameterErrorLocationBitInCommand() const
    {
        return get(Field::errorInfoLogRecordParameterErrorLocationBitInCommand);
    }
    std::uint64_t errorInfoLogRecordLBA() const
    {
        return get(Field::errorInfoLogRecordLBA);
    }
    std::uint64_t errorInfoLogRecordNamespace() const
    {
        return get(Field::errorInfoLogRecordNamespace);
    }
    std::uint64_t errorInfoLogRecordVendorSpecificInfo() const
    {
        return get(Field::errorInfoLogRecordVendorSpecificInfo);
    }
    std::uint64_t badFlashBlock() const
    {
        return get(Field::badFlashBlock);
    }
    std::uint64_t uncorrectableError() const
    {
        return get(Field::uncorrectableError);
    }
    std::uint64_t lastUpdatedDateTime() const
    {
        return get(Field::lastUpdatedDateTime);
    }
    std::uint64_t attributes() const
    {
        return get(Field::attributes);
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
