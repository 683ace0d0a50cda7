#pragma once

#include "qvSmartReportNames.hpp"
#include "smartdata.hpp"

#include <ext/stdio_filebuf.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>

// Octets one log page slot can hold.
constexpr size_t smartLogPageSize = 256;
// Log page slots of a hard drive: SATA fills the first 5, SAS all 7.
constexpr size_t smartLogPageSlots = 7;
constexpr size_t sataLogPageCount = 5;
constexpr size_t sasLogPageCount = 7;

// The record is byte-packed because the platform lays its SMART records out
// this way. Never bind a pointer or reference to one of its multi-byte
// members: copy through a local (unaligned access faults on some targets).
#pragma pack(push, 1)

struct SmartLogPage
{
    std::array<uint8_t, smartLogPageSize> pageData;
    uint8_t pageCode;
    // Octets of pageData the raw-data report shows; 0 = page not delivered.
    uint16_t pageLength;
};

struct SasSataSmartValues
{
    uint64_t readErrorDate;
    uint64_t reallocatedBlockCount;
    uint64_t powerOnHours;
    uint64_t powerCycleCount;
    uint64_t ecceRate;
    uint64_t usedReservedBlockCount;
    uint64_t unusedReservedBlockCount;
    uint64_t programFailCount;
    uint64_t eraseFailCount;
    uint64_t commandTimeout;
    uint8_t driveTemperature;
    uint64_t uncorrectableErrorCount;
    uint64_t uncorrectableLBACount;
    uint64_t crcErrorCount;
    uint64_t volatileMemoryBackupSourceFailures;
    uint64_t exceptionModeStatus;
    uint64_t mediaWriteCount;
    uint8_t percentDriveLifeRemaining;
    uint64_t currentPendingSectorCount;
};

struct NvmeSmartValues
{
    uint8_t criticalWarning;
    uint16_t compositeTemparature;
    uint8_t availableSpare;
    uint8_t availableSpareThreshold;
    uint8_t percentageUsed;
    uint64_t dataUnitsReadLower;
    uint64_t dataUnitsReadUpper;
    uint64_t dataUnitsWrittenLower;
    uint64_t dataUnitsWrittenUpper;
    uint64_t hostReadCmdsLower;
    uint64_t hostReadCmdsUpper;
    uint64_t hostWriteCmdsLower;
    uint64_t hostWriteCmdsUpper;
    uint64_t controllerBusyTimeLower;
    uint64_t controllerBusyTimeUpper;
    uint64_t powerCyclesLower;
    uint64_t powerCyclesUpper;
    uint64_t powerOnHoursLower;
    uint64_t powerOnHoursUpper;
    uint64_t unsafeShutdownsLower;
    uint64_t unsafeShutdownsUpper;
    uint64_t mediaAndDataIntegrityErrsLower;
    uint64_t mediaAndDataIntegrityErrsUpper;
    uint64_t numOfErrorInfoLogEntriesLower;
    uint64_t numOfErrorInfoLogEntriesUpper;
    uint32_t warningCompositeTemperatureTime;
    uint32_t criticalCompositeTemperatureTime;
    uint16_t temperatureSensor1;
    uint16_t temperatureSensor2;
    uint16_t temperatureSensor3;
    uint16_t temperatureSensor4;
    uint16_t temperatureSensor5;
    uint16_t temperatureSensor6;
    uint16_t temperatureSensor7;
    uint16_t temperatureSensor8;
    uint32_t thermalMgmtTempTransitionCount;
    uint32_t totalTimeThemalMgmtTemp;
    uint64_t errorInfoLogRecordErrorCount;
    uint16_t errorInfoLogRecordSubmissionQueID;
    uint16_t errorInfoLogRecordCommandID;
    // Bit 0 phase tag, bits 15:1 status (see statusFieldPhaseTag/Status).
    uint16_t errorInfoLogRecordStatusField;
    // Bits 7:0 byte in command, bits 10:8 bit in command, 15:11 unused.
    uint16_t errorInfoLogRecordParameterErrorLocation;
    uint64_t errorInfoLogRecordLBA;
    uint32_t errorInfoLogRecordNamespace;
    uint8_t errorInfoLogRecordVendorSpecificInfo;
    uint64_t badFlashBlock;
    uint64_t uncorrectableError;
};

// One drive's SMART values, whatever its class. One record serves a whole
// run and is never cleared: every source changes only what it fills.
struct DriveSmartRecord
{
    uint8_t objStatus;
    uint32_t objExtFlags;
    uint32_t protocol;
    union
    {
        SasSataSmartValues sasSata;
        NvmeSmartValues nvme;
        // Slot n of the hard-drive log pages lives at index n - 1.
        std::array<SmartLogPage, smartLogPageSlots> logPages;
    };
    uint64_t lastUpdatedDateTime;
    uint32_t attributes;
};

#pragma pack(pop)

static_assert(sizeof(SmartLogPage) == smartLogPageSize + 3);
static_assert(sizeof(DriveSmartRecord) ==
              9 + smartLogPageSlots * sizeof(SmartLogPage) + 12);

// The parts of the two NVMe bit-field words.
uint16_t statusFieldPhaseTag(uint16_t statusField);
uint16_t statusFieldStatus(uint16_t statusField);
uint16_t errorLocationByteInCommand(uint16_t errorLocation);
uint16_t errorLocationBitInCommand(uint16_t errorLocation);

// Set by SIGUSR1; read only by the entry, before the collection starts.
extern std::atomic<int32_t> cancelRequested;
void onCancelSignal(int signo);
// Installs onCancelSignal for SIGUSR1 (no SA_RESTART, empty mask).
void installCancelHandler() noexcept;

// Caches of the platform's SMART tables, kept for the process.
extern std::map<std::string, smartdatasassata_gen> sasSataSmartMap;
extern std::map<std::string, smartdatanvme_gen> nvmeSmartMap;
extern bool sasSataMapLoaded;
extern bool nvmeMapLoaded;

// One collection run. mode 0 writes the collection files, any other value
// the dated files. Returns 0, 21 (a report file could not be opened) or 2.
int addSmartData(int mode);

// Path of today's dated file: kind 0 the SMART log ("SL"), any other kind
// the raw data ("RD").
std::string getCurrentDay(int kind);

// A report file open for appending, written through the descriptor its
// checks were made on: the name is looked up once, so nothing put in its
// place afterwards (a symlink, a FIFO) is ever written to or waited on.
// Buffered and closed as a std::ofstream is; a failed write or close leaves
// failbit set.
class ReportStream : public std::ostream
{
  public:
    ReportStream() : std::ostream(nullptr) {}
    ReportStream(const ReportStream&) = delete;
    ReportStream& operator=(const ReportStream&) = delete;
    ~ReportStream() override = default;

    // Takes `fd`, open for writing, over; the stream is open from then on.
    void attach(int fd);
    bool isOpen() const
    {
        return file && file->is_open();
    }
    // Writes out the buffer and closes the descriptor.
    void close();

  private:
    std::optional<__gnu_cxx::stdio_filebuf<char>> file;
};

// Report fragments. None opens, closes or flushes the stream.
void jsonAddStartDataGroup(ReportStream& stream, const std::string& name);
void jsonAddTagAndValueInt64(ReportStream& stream, const std::string& tag,
                             uint64_t value);
void hexdump(const uint8_t* buffer, int length, ReportStream& stream);

// Shared SMART tables. 0 on success, -1 on failure.
int qvdbusGetSmartDataCount(int* SSDObjCount, int* nvmeObjCount,
                            int* TotalDriveObjCount);
int qvdbusGetSmartDataSasSataSSD(int index, DriveSmartRecord* record,
                                 std::string* fqdd);
int qvdbusGetSmartDataNvme(int index, DriveSmartRecord* record,
                           std::string* fqdd);

// Storage-service SMART methods. 0 on success, -1 on failure.
int qvdbusGetSmartPDSASSATARawData(const std::string& fqdd,
                                   ReportStream& rawStream);
int qvdbusGetSmartPDSATAHDDData(DriveSmartRecord* record,
                                const std::string& fqdd);
int qvdbusGetSmartPDSASHDDData(DriveSmartRecord* record,
                               const std::string& fqdd);
