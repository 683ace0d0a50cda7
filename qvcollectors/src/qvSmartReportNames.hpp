#pragma once

#include <array>
#include <cstdint>

// Drive classification bits of a drive's protocol and attributes values.
constexpr uint32_t PROTOCOL_SATA = 0x10;
constexpr uint32_t PROTOCOL_SAS = 0x20;
constexpr uint32_t PROTOCOL_PCIE_NVME = 0x140;
constexpr uint32_t ATTRIBUTE_SOLID_STATE = 0x2;

// The names of the members and page groups in the collector's reports, as
// the collector writes them and as qv-smart-report looks for them: one list,
// so that the writer and the reader cannot drift apart.
namespace reportNames
{

inline constexpr const char* protocol = "Protocol";

// Members of a SAS/SATA solid-state drive's record.
namespace ssd
{
inline constexpr const char* reallocated = "Reallocated block count";
inline constexpr const char* powerOnHours = "Power On hours";
inline constexpr const char* commandTimeout = "commandTimeout";
inline constexpr const char* temperature = "Drive Temp";
inline constexpr const char* uncorrectable = "uncorrectableErrorCount";
inline constexpr const char* crcErrors = "CRCErrorCount";
inline constexpr const char* lifeRemaining = "percentDriveLifeRemaining";
inline constexpr const char* pending = "currentPendingSectorCount";
inline constexpr const char* powerCycles = "Power Cycle Count";
inline constexpr const char* mediaWrites = "mediaWriteCount";
} // namespace ssd

// Members of an NVMe drive's record; a 128-bit counter is two members,
// "<name> Lower" and "<name> Upper".
namespace nvme
{
inline constexpr const char* criticalWarning = "Critical Warning";
inline constexpr const char* temperature = "Composite Temperature";
inline constexpr const char* availableSpare = "Available Spare";
inline constexpr const char* spareThreshold = "Available Spare Threshold";
inline constexpr const char* percentageUsed = "Percentage used";
inline constexpr const char* powerOnHoursLower = "PowerOnHours Lower";
inline constexpr const char* powerOnHoursUpper = "PowerOnHours Upper";
inline constexpr const char* mediaErrorsLower =
    "MediaAndDataIntegrityErrs Lower";
inline constexpr const char* mediaErrorsUpper =
    "MediaAndDataIntegrityErrs Upper";
inline constexpr const char* dataUnitsReadLower = "Data Units Read Lower";
inline constexpr const char* dataUnitsReadUpper = "Data Units Read Upper";
inline constexpr const char* dataUnitsWrittenLower = "Data Units Written Lower";
inline constexpr const char* dataUnitsWrittenUpper = "Data Units Written Upper";
inline constexpr const char* powerCyclesLower = "PowerCycles Lower";
inline constexpr const char* powerCyclesUpper = "PowerCycles Upper";
inline constexpr const char* unsafeShutdownsLower = "UnsafeShutdowns Lower";
inline constexpr const char* unsafeShutdownsUpper = "UnsafeShutdowns Upper";
} // namespace nvme

// A hard drive's page groups, "<name>(<page code>)".
namespace sataPage
{
inline constexpr const char* supported = "suppLogPages";
inline constexpr const char* general = "genStatistics";
inline constexpr const char* rotatingMedia = "rotaStatistics";
inline constexpr const char* generalErrors = "genErrStatistics";
inline constexpr const char* temperature = "tempStatistics";
} // namespace sataPage

namespace sasPage
{
inline constexpr const char* readErrors = "readErrCounter";
inline constexpr const char* writeErrors = "writeErrCounter";
inline constexpr const char* verifyErrors = "verifyErrCounter";
inline constexpr const char* nonMediumErrors = "nonMediumErrCounter";
inline constexpr const char* startStopCycles = "startStopCycleCounter";
inline constexpr const char* backgroundScan = "backGrndScanResult";
inline constexpr const char* temperature = "temperature";
} // namespace sasPage

// The page groups in the order of the storage service's reply.
inline constexpr std::array<const char*, 5> sataPages = {
    sataPage::supported, sataPage::general, sataPage::rotatingMedia,
    sataPage::generalErrors, sataPage::temperature};
inline constexpr std::array<const char*, 7> sasPages = {
    sasPage::readErrors,      sasPage::writeErrors,     sasPage::verifyErrors,
    sasPage::nonMediumErrors, sasPage::startStopCycles, sasPage::backgroundScan,
    sasPage::temperature};

} // namespace reportNames
