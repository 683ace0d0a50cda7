#include "qvDbusCollectSmartData.hpp"

#include "dlog.hpp"
#include "qvDbusCollectCommon.hpp"
#include "qvSmartReportNames.hpp"
#include "utl.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <sdbusplus/bus.hpp>
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <span>
#include <stdexcept>
#include <string_view>
#include <tuple>
#include <vector>

std::atomic<int32_t> cancelRequested{0};
static_assert(std::atomic<int32_t>::is_always_lock_free,
              "the cancel flag is stored from a signal handler");

std::map<std::string, smartdatasassata_gen> sasSataSmartMap;
std::map<std::string, smartdatanvme_gen> nvmeSmartMap;
bool sasSataMapLoaded = false;
bool nvmeMapLoaded = false;

namespace
{

constexpr int traceLevel = 5;
constexpr int logLevel = 9;
constexpr int logModule = 171;

// Every line the driver logs, from whichever helper, carries its name.
constexpr const char* driverName = "addSmartData";

// The storage service's SMART methods.
constexpr const char* storageService = "com.kest.omrix.storage";
constexpr const char* driveServiceInterface =
    "com.kest.omrix.storage.drive.service";
constexpr const char* driveServicePath = "/com/kest/omrix/storage/drive";

// The storage service knows a drive by its bare FQDD: a name handed to the
// raw-data request with this prefix goes out without it.
constexpr std::string_view rawDataFqddPrefix = "SMARTData:";

constexpr const char* dailyDirectory = "/mmc2/mas032/smartlogs/";
constexpr const char* smartLogsFile =
    "/mmc2/qvcollection/vok/storagelog/SmartLogs.json";
constexpr const char* smartRawDataFile =
    "/mmc2/qvcollection/vok/storagelog/SmartRawData.json";

using StatusPair = std::tuple<uint64_t, uint64_t>;

// The log prefix names this source file without directory or extension.
std::string baseNameOf(std::string_view path)
{
    const auto slash = path.find_last_of('/');
    if (slash != std::string_view::npos)
    {
        path.remove_prefix(slash + 1);
    }
    return std::string(path.substr(0, path.find('.')));
}

const char* fileName()
{
    static const std::string name = baseNameOf(__FILE__);
    return name.c_str();
}

bool hasBits(uint32_t value, uint32_t mask)
{
    return (value & mask) != 0;
}

uint16_t withBits(uint16_t word, uint16_t mask, unsigned shift, uint64_t value)
{
    const auto field = static_cast<uint16_t>(mask << shift);
    const auto inserted = static_cast<uint16_t>((value & mask) << shift);
    return static_cast<uint16_t>((word & ~field) | inserted);
}

} // namespace

uint16_t statusFieldPhaseTag(uint16_t statusField)
{
    return static_cast<uint16_t>(statusField & 0x1);
}

uint16_t statusFieldStatus(uint16_t statusField)
{
    return static_cast<uint16_t>(statusField >> 1);
}

uint16_t errorLocationByteInCommand(uint16_t errorLocation)
{
    return static_cast<uint16_t>(errorLocation & 0xff);
}

uint16_t errorLocationBitInCommand(uint16_t errorLocation)
{
    return static_cast<uint16_t>((errorLocation >> 8) & 0x7);
}

// ---------------------------------------------------------------------------
// Cancellation

void onCancelSignal(int signo)
{
    if (signo == SIGUSR1)
    {
        cancelRequested.store(1);
    }
}

void installCancelHandler() noexcept
{
    struct sigaction action
    {};
    action.sa_handler = onCancelSignal;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: a cancel must not be hidden inside a restarted call.
    action.sa_flags = 0;
    sigaction(SIGUSR1, &action, nullptr);
}

// ---------------------------------------------------------------------------
// Report fragments

void ReportStream::attach(int fd)
{
    file.emplace(fd, std::ios::out | std::ios::app);
    rdbuf(&*file);
    clear();
}

void ReportStream::close()
{
    if (file && file->close() == nullptr)
    {
        setstate(std::ios::failbit);
    }
}

void jsonAddStartDataGroup(ReportStream& stream, const std::string& name)
{
    if (!stream.isOpen())
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: File pointer is NULL..returning.\n", fileName(),
                    __LINE__, __func__);
        return;
    }
    if (name.empty())
    {
        return;
    }
    stream << '"' << name << "\":\n{\n";
}

void jsonAddTagAndValueInt64(ReportStream& stream, const std::string& tag,
                             uint64_t value)
{
    if (!stream.isOpen())
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: File pointer is NULL..returning.\n", fileName(),
                    __LINE__, __func__);
        return;
    }
    if (tag.empty())
    {
        return;
    }
    stream << "\t\"" << tag << "\": \"" << value << "\",\n";
}

namespace
{

constexpr int64_t hexRowOctets = 16;

// One row of a dump, built in a buffer: a 16 MiB dump has a million rows.
void writeHexRow(ReportStream& stream, const uint8_t* buffer, int64_t offset,
                 int64_t length)
{
    constexpr std::string_view digits = "0123456789abcdef";
    constexpr size_t offsetWidth = 6;
    std::array<char, 96> row{};
    size_t used = 0;
    row[used++] = '"';

    std::array<char, 16> offsetText{};
    const auto converted = std::to_chars(
        offsetText.data(), offsetText.data() + offsetText.size(), offset, 16);
    const auto offsetDigits =
        static_cast<size_t>(converted.ptr - offsetText.data());
    for (size_t pad = offsetDigits; pad < offsetWidth; ++pad)
    {
        row[used++] = '0';
    }
    std::copy_n(offsetText.data(), offsetDigits, row.data() + used);
    used += offsetDigits;

    for (char c : std::string_view("\": \""))
    {
        row[used++] = c;
    }
    for (int64_t position = offset; position < offset + hexRowOctets;
         ++position)
    {
        const bool present = position < length;
        const uint8_t octet = present ? buffer[position] : 0;
        row[used++] = present ? digits[octet >> 4] : ' ';
        row[used++] = present ? digits[octet & 0xf] : ' ';
        row[used++] = ' ';
    }
    row[used++] = '"';
    stream.write(row.data(), static_cast<std::streamsize>(used));
}

} // namespace

void hexdump(const uint8_t* buffer, int length, ReportStream& stream)
{
    if (buffer == nullptr || !stream.isOpen())
    {
        return;
    }
    // One write per line: standard error is unbuffered.
    const std::string lengthLine = "Buf len is [" + std::to_string(length) +
                                   "]\n";
    std::cerr.write(lengthLine.data(),
                    static_cast<std::streamsize>(lengthLine.size()));
    std::cerr.flush();

    // Once something is dumped the stream stays in lowercase hexadecimal
    // with fill '0'; numbers written to it later (log page codes) depend on
    // that. An empty dump writes nothing and leaves the stream alone.
    if (length > 0)
    {
        stream << std::hex << std::setfill('0');
    }
    for (int64_t offset = 0; offset < length; offset += hexRowOctets)
    {
        writeHexRow(stream, buffer, offset, length);
        if (offset + hexRowOctets < length)
        {
            stream << ",\n";
        }
    }
    dlog_printf(traceLevel, logModule, "%s.%d: Exit %s", fileName(), __LINE__,
                __func__);
}

// ---------------------------------------------------------------------------
// Dated daily files

std::string getCurrentDay(int kind)
{
    const std::time_t now = std::time(nullptr);
    std::array<char, 10> date{};
    std::size_t dateLength = 0;
    if (const std::tm* local = std::localtime(&now))
    {
        dateLength = std::strftime(date.data(), date.size(), "%Y%m%d", local);
    }
    std::string path = std::string(dailyDirectory) + (kind == 0 ? "SL" : "RD") +
                       std::string(date.data(), dateLength) + ".json";
    dlog_printf(logLevel, logModule, "%s.%d.%s: file : [%s]\n", fileName(),
                __LINE__, __func__, path.c_str());
    return path;
}

// ---------------------------------------------------------------------------
// Shared SMART tables

namespace
{

void fillRecord(DriveSmartRecord& record, const smartdatasassata_gen& entry)
{
    record.objStatus = static_cast<uint8_t>(entry.objStatus());
    record.objExtFlags = static_cast<uint32_t>(entry.objExtFlags());
    record.protocol = static_cast<uint32_t>(entry.protocol());
    auto& values = record.sasSata;
    values.readErrorDate = entry.readErrorDate();
    values.reallocatedBlockCount = entry.reallocatedBlockCount();
    values.powerOnHours = entry.powerOnHours();
    values.powerCycleCount = entry.powerCycleCount();
    values.ecceRate = entry.ecceRate();
    values.usedReservedBlockCount = entry.usedReservedBlockCount();
    values.unusedReservedBlockCount = entry.unusedReservedBlockCount();
    values.programFailCount = entry.programFailCount();
    values.eraseFailCount = entry.eraseFailCount();
    values.commandTimeout = entry.commandTimeout();
    values.driveTemperature = static_cast<uint8_t>(entry.driveTemperature());
    values.uncorrectableErrorCount = entry.uncorrectableErrorCount();
    values.uncorrectableLBACount = entry.uncorrectableLBACount();
    values.crcErrorCount = entry.crcErrorCount();
    values.volatileMemoryBackupSourceFailures =
        entry.volatileMemoryBackupSourceFailures();
    values.exceptionModeStatus = entry.exceptionModeStatus();
    values.mediaWriteCount = entry.mediaWriteCount();
    values.percentDriveLifeRemaining =
        static_cast<uint8_t>(entry.percentDriveLifeRemaining());
    values.currentPendingSectorCount = entry.currentPendingSectorCount();
    record.lastUpdatedDateTime = entry.lastUpdatedDateTime();
    record.attributes = static_cast<uint32_t>(entry.attributes());
}

void fillNvmeCounters(NvmeSmartValues& values, const smartdatanvme_gen& entry)
{
    values.dataUnitsReadLower = entry.dataUnitsReadLower();
    values.dataUnitsReadUpper = entry.dataUnitsReadUpper();
    values.dataUnitsWrittenLower = entry.dataUnitsWrittenLower();
    values.dataUnitsWrittenUpper = entry.dataUnitsWrittenUpper();
    values.hostReadCmdsLower = entry.hostReadCmdsLower();
    values.hostReadCmdsUpper = entry.hostReadCmdsUpper();
    values.hostWriteCmdsLower = entry.hostWriteCmdsLower();
    values.hostWriteCmdsUpper = entry.hostWriteCmdsUpper();
    values.controllerBusyTimeLower = entry.controllerBusyTimeLower();
    values.controllerBusyTimeUpper = entry.controllerBusyTimeUpper();
    values.powerCyclesLower = entry.powerCyclesLower();
    values.powerCyclesUpper = entry.powerCyclesUpper();
    values.powerOnHoursLower = entry.powerOnHoursLower();
    values.powerOnHoursUpper = entry.powerOnHoursUpper();
    values.unsafeShutdownsLower = entry.unsafeShutdownsLower();
    values.unsafeShutdownsUpper = entry.unsafeShutdownsUpper();
    values.mediaAndDataIntegrityErrsLower =
        entry.mediaAndDataIntegrityErrsLower();
    values.mediaAndDataIntegrityErrsUpper =
        entry.mediaAndDataIntegrityErrsUpper();
    values.numOfErrorInfoLogEntriesLower =
        entry.numOfErrorInfoLogEntriesLower();
    values.numOfErrorInfoLogEntriesUpper =
        entry.numOfErrorInfoLogEntriesUpper();
}

void fillNvmeTemperatures(NvmeSmartValues& values,
                          const smartdatanvme_gen& entry)
{
    values.warningCompositeTemperatureTime =
        static_cast<uint32_t>(entry.warningCompositeTemperatureTime());
    values.criticalCompositeTemperatureTime =
        static_cast<uint32_t>(entry.criticalCompositeTemperatureTime());
    values.temperatureSensor1 =
        static_cast<uint16_t>(entry.temperatureSensor1());
    values.temperatureSensor2 =
        static_cast<uint16_t>(entry.temperatureSensor2());
    values.temperatureSensor3 =
        static_cast<uint16_t>(entry.temperatureSensor3());
    values.temperatureSensor4 =
        static_cast<uint16_t>(entry.temperatureSensor4());
    values.temperatureSensor5 =
        static_cast<uint16_t>(entry.temperatureSensor5());
    values.temperatureSensor6 =
        static_cast<uint16_t>(entry.temperatureSensor6());
    values.temperatureSensor7 =
        static_cast<uint16_t>(entry.temperatureSensor7());
    values.temperatureSensor8 =
        static_cast<uint16_t>(entry.temperatureSensor8());
    values.thermalMgmtTempTransitionCount =
        static_cast<uint32_t>(entry.thermalMgmtTempTransitionCount());
    values.totalTimeThemalMgmtTemp =
        static_cast<uint32_t>(entry.totalTimeThemalMgmtTemp());
}

// The two bit-field words are updated through locals so that the bits the
// table does not supply keep their values.
void fillNvmeErrorLog(NvmeSmartValues& values, const smartdatanvme_gen& entry)
{
    values.errorInfoLogRecordErrorCount = entry.errorInfoLogRecordErrorCount();
    values.errorInfoLogRecordSubmissionQueID =
        static_cast<uint16_t>(entry.errorInfoLogRecordSubmissionQueID());
    values.errorInfoLogRecordCommandID =
        static_cast<uint16_t>(entry.errorInfoLogRecordCommandID());

    uint16_t statusField = values.errorInfoLogRecordStatusField;
    statusField = withBits(statusField, 0x1, 0,
                           entry.errorInfoLogRecordStatusFieldPhaseTag());
    statusField = withBits(statusField, 0x7fff, 1,
                           entry.errorInfoLogRecordStatusFieldStatus());
    values.errorInfoLogRecordStatusField = statusField;

    uint16_t location = values.errorInfoLogRecordParameterErrorLocation;
    location =
        withBits(location, 0xff, 0,
                 entry.errorInfoLogRecordParameterErrorLocationByteInCommand());
    location =
        withBits(location, 0x7, 8,
                 entry.errorInfoLogRecordParameterErrorLocationBitInCommand());
    values.errorInfoLogRecordParameterErrorLocation = location;

    values.errorInfoLogRecordLBA = entry.errorInfoLogRecordLBA();
    values.errorInfoLogRecordNamespace =
        static_cast<uint32_t>(entry.errorInfoLogRecordNamespace());
    values.errorInfoLogRecordVendorSpecificInfo =
        static_cast<uint8_t>(entry.errorInfoLogRecordVendorSpecificInfo());
}

void fillRecord(DriveSmartRecord& record, const smartdatanvme_gen& entry)
{
    record.objStatus = static_cast<uint8_t>(entry.objStatus());
    record.objExtFlags = static_cast<uint32_t>(entry.objExtFlags());
    record.protocol = static_cast<uint32_t>(entry.protocol());
    auto& values = record.nvme;
    values.criticalWarning = static_cast<uint8_t>(entry.criticalWarning());
    values.compositeTemparature =
        static_cast<uint16_t>(entry.compositeTemparature());
    values.availableSpare = static_cast<uint8_t>(entry.availableSpare());
    values.availableSpareThreshold =
        static_cast<uint8_t>(entry.availableSpareThreshold());
    values.percentageUsed = static_cast<uint8_t>(entry.percentageUsed());
    fillNvmeCounters(values, entry);
    fillNvmeTemperatures(values, entry);
    fillNvmeErrorLog(values, entry);
    values.badFlashBlock = entry.badFlashBlock();
    values.uncorrectableError = entry.uncorrectableError();
    record.lastUpdatedDateTime = entry.lastUpdatedDateTime();
    record.attributes = static_cast<uint32_t>(entry.attributes());
}

// The two tables differ only in their cache, their platform call and the
// wording of their load failure.
struct SasSataTable
{
    static auto& cache()
    {
        return sasSataSmartMap;
    }
    static bool& loaded()
    {
        return sasSataMapLoaded;
    }
    static uint64_t load()
    {
        return DataAbstraction::smartdatasassata::get_map(sasSataSmartMap);
    }
    static void logLoadFailure(const char* function)
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s:  %s Failed client_get_objects call for sas "
                    "sata\n",
                    fileName(), __LINE__, function, function);
    }
};

struct NvmeTable
{
    static auto& cache()
    {
        return nvmeSmartMap;
    }
    static bool& loaded()
    {
        return nvmeMapLoaded;
    }
    static uint64_t load()
    {
        return DataAbstraction::smartdatanvme::get_map(nvmeSmartMap);
    }
    static void logLoadFailure(const char* function)
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s:  %s Failed client_get_objects call for nvme\n",
                    fileName(), __LINE__, function, function);
    }
};

// Replaces the cached snapshot with a fresh one from the platform.
template <typename Table>
bool loadTable(const char* function)
{
    Table::cache().clear();
    if (Table::load() != 0)
    {
        Table::logLoadFailure(function);
        Table::loaded() = false;
        return false;
    }
    Table::loaded() = true;
    return true;
}

void logException(const char* function, const std::exception& error)
{
    dlog_printf(logLevel, logModule, "%s.%d.%s: %s EXIT on exception %s \n",
                fileName(), __LINE__, function, function, error.what());
}

template <typename Table>
int readTableEntry(const char* function, int index, DriveSmartRecord* record,
                   std::string* fqdd)
{
    try
    {
        if (!Table::loaded() && !loadTable<Table>(function))
        {
            return -1;
        }
        const auto& cache = Table::cache();
        if (index < 0 || static_cast<size_t>(index) >= cache.size())
        {
            return 0;
        }
        const auto& entry = std::next(cache.begin(), index)->second;
        fillRecord(*record, entry);
        // The platform's text may hold a NUL; the FQDD ends there.
        const std::string text = entry.fqdd();
        *fqdd = text.substr(0, text.find('\0'));
        return 0;
    }
    catch (const std::exception& error)
    {
        logException(function, error);
        return -1;
    }
}

} // namespace

int qvdbusGetSmartDataCount(int* SSDObjCount, int* nvmeObjCount,
                            int* TotalDriveObjCount)
{
    dlog_printf(traceLevel, logModule, "%s.%d: Entry %s", fileName(), __LINE__,
                __func__);
    int status = 0;
    try
    {
        if (!loadTable<SasSataTable>(__func__))
        {
            throw std::runtime_error("Failed to get sas/sata ssd count");
        }
        *SSDObjCount = static_cast<int>(sasSataSmartMap.size());
        dlog_printf(logLevel, logModule, "%s.%d.%s: SSD objcount : %d",
                    fileName(), __LINE__, __func__, *SSDObjCount);

        if (!loadTable<NvmeTable>(__func__))
        {
            throw std::runtime_error("Failed to get nvme count");
        }
        *nvmeObjCount = static_cast<int>(nvmeSmartMap.size());
        dlog_printf(logLevel, logModule, "%s.%d.%s: NVMe objcount : %d",
                    fileName(), __LINE__, __func__, *nvmeObjCount);

        *TotalDriveObjCount = getStorageObjCount(STORAGE_OBJ_DRIVE);
        if (*TotalDriveObjCount == 0)
        {
            dlog_printf(logLevel, logModule, "%s.%d.%s: No storage objects",
                        fileName(), __LINE__, __func__);
            throw std::runtime_error("Failed to get total drive count");
        }
        dlog_printf(logLevel, logModule, "%s.%d.%s: Total Drive obj Count : %d",
                    fileName(), __LINE__, __func__, *TotalDriveObjCount);
    }
    catch (const std::exception& error)
    {
        logException(__func__, error);
        status = -1;
    }
    dlog_printf(traceLevel, logModule, "%s.%d: Exit %s", fileName(), __LINE__,
                __func__);
    return status;
}

int qvdbusGetSmartDataSasSataSSD(int index, DriveSmartRecord* record,
                                 std::string* fqdd)
{
    return readTableEntry<SasSataTable>(__func__, index, record, fqdd);
}

int qvdbusGetSmartDataNvme(int index, DriveSmartRecord* record,
                           std::string* fqdd)
{
    return readTableEntry<NvmeTable>(__func__, index, record, fqdd);
}

// ---------------------------------------------------------------------------
// Storage-service SMART methods

namespace
{

// A page as the storage service delivered it.
struct DeliveredPage
{
    std::vector<uint8_t> data;
    uint8_t code = 0;
    uint16_t length = 0;
};

struct HardDriveReply
{
    StatusPair status{};
    uint32_t protocol = 0;
    uint32_t attributes = 0;
    std::array<DeliveredPage, smartLogPageSlots> pages;
};

void logCallFailure(const char* function,
                    const sdbusplus::exception::exception& error)
{
    dlog_printf(logLevel, logModule, "%s.%d.%s: Failed to call method: %s",
                fileName(), __LINE__, function, error.what());
}

sdbusplus::message_t newStorageCall(sdbusplus::bus_t& bus, const char* member,
                                    const std::string& fqdd)
{
    auto call = bus.new_method_call(storageService, driveServicePath,
                                    driveServiceInterface, member);
    call.append(fqdd);
    return call;
}

// The bus handle, the call and the reply are all released before this
// returns: no connection is held between requests.
bool callHardDriveMethod(const char* function, const char* member,
                         const std::string& fqdd, size_t pageCount,
                         HardDriveReply& reply)
{
    try
    {
        auto bus = newDefaultSystemBus();
        auto call = newStorageCall(bus, member, fqdd);
        auto message = callOnce(bus, call);
        uint8_t ignoredOctet = 0;
        uint32_t ignoredWord = 0;
        uint64_t ignoredLong = 0;
        std::string ignoredFirst;
        std::string ignoredSecond;
        message.read(reply.status, ignoredOctet, ignoredWord, reply.protocol,
                     ignoredLong, reply.attributes, ignoredFirst,
                     ignoredSecond);
        for (size_t slot = 0; slot < pageCount; ++slot)
        {
            auto& page = reply.pages[slot];
            message.read(page.data, page.code, page.length);
        }
        return true;
    }
    catch (const sdbusplus::exception::exception& error)
    {
        logCallFailure(function, error);
        return false;
    }
}

// A slot keeps at most 256 octets, zero-filled behind a shorter array, and
// its length never claims more octets than it holds: the report can then
// show pageLength octets without reading past what was delivered.
void storePages(DriveSmartRecord& record, const HardDriveReply& reply,
                size_t pageCount, const char* function, const std::string& fqdd)
{
    for (size_t slot = 0; slot < pageCount; ++slot)
    {
        const DeliveredPage& delivered = reply.pages[slot];
        SmartLogPage page{};
        const size_t kept = std::min(delivered.data.size(), smartLogPageSize);
        std::copy_n(delivered.data.begin(), kept, page.pageData.begin());
        page.pageCode = delivered.code;
        page.pageLength =
            static_cast<uint16_t>(std::min<size_t>(delivered.length, kept));
        if (delivered.length > kept)
        {
            dlog_printf(logLevel, logModule,
                        "%s.%d.%s: Log page %zu of FQDD %s: length %d, "
                        "%zu octets delivered, %zu kept\n",
                        fileName(), __LINE__, function, slot + 1, fqdd.c_str(),
                        static_cast<int>(delivered.length),
                        delivered.data.size(), kept);
        }
        record.logPages[slot] = page;
    }
}

std::string withoutRawDataPrefix(const std::string& fqdd)
{
    if (fqdd.starts_with(rawDataFqddPrefix))
    {
        return fqdd.substr(rawDataFqddPrefix.size());
    }
    return fqdd;
}

} // namespace

int qvdbusGetSmartPDSASSATARawData(const std::string& fqdd,
                                   ReportStream& rawStream)
{
    const std::string argument = withoutRawDataPrefix(fqdd);
    StatusPair status{};
    std::vector<uint8_t> data;
    try
    {
        auto bus = newDefaultSystemBus();
        auto call = newStorageCall(bus, "GetSmartPDSASSATARawData", argument);
        auto reply = callOnce(bus, call);
        reply.read(status, data);
    }
    catch (const sdbusplus::exception::exception& error)
    {
        logCallFailure(__func__, error);
        return -1;
    }

    const auto [primaryErr, secondaryErr] = status;
    dlog_printf(logLevel, logModule,
                "%s.%d.%s: qvdbusGetSmartPDSASSATARawData call method: %ld "
                "%ld",
                fileName(), __LINE__, __func__, static_cast<long>(primaryErr),
                static_cast<long>(secondaryErr));
    if (primaryErr != 0 || secondaryErr != 0)
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: Failed qvdbusGetSmartPDSASSATARawData: "
                    "primaryErr=%ld secondaryErr=%ld",
                    fileName(), __LINE__, __func__,
                    static_cast<long>(primaryErr),
                    static_cast<long>(secondaryErr));
        return -1;
    }
    dlog_printf(logLevel, logModule,
                "%s.%d.%s: Raw data size: %zu for FQDD: %s\n", fileName(),
                __LINE__, __func__, data.size(), fqdd.c_str());
    if (data.empty())
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: Empty raw data received for FQDD: %s\n",
                    fileName(), __LINE__, __func__, fqdd.c_str());
        return 0;
    }
    hexdump(data.data(), static_cast<int>(data.size()), rawStream);
    return 0;
}

namespace
{

// The two hard-drive requests differ only in their member, their number of
// pages and the wording of their log lines.
struct HardDriveRequest
{
    const char* function;
    const char* member;
    size_t pageCount;
    const char* calledLine; // logged once the reply is read, if not null
    const char* statusLine;
    const char* failureLine;
};

constexpr HardDriveRequest sataRequest{
    "qvdbusGetSmartPDSATAHDDData",
    "GetSmartPDSATAHDDData",
    sataLogPageCount,
    "%s.%d.%s: success to call method:",
    "%s.%d.%s: success to qvdbusGetSmartPDSATAHDDData call method: %ld %ld",
    "%s.%d.%s: Failed to qvdbusGetSmartPDSATAHDDData call method"};

constexpr HardDriveRequest sasRequest{
    "qvdbusGetSmartPDSASHDDData",
    "GetSmartPDSASHDDData",
    sasLogPageCount,
    nullptr,
    "%s.%d.%s: success to qvdbusGetSmartPDSASHDDData call method: %ld %ld",
    "%s.%d.%s: Failed to qvdbusGetSmartPDSASHDDData call method"};

int fetchHardDrivePages(const HardDriveRequest& request,
                        DriveSmartRecord* record, const std::string& fqdd)
{
    HardDriveReply reply;
    if (!callHardDriveMethod(request.function, request.member, fqdd,
                             request.pageCount, reply))
    {
        return -1;
    }
    const auto [primaryErr, secondaryErr] = reply.status;
    if (request.calledLine != nullptr)
    {
        dlog_printf(logLevel, logModule, request.calledLine, fileName(),
                    __LINE__, request.function);
    }
    dlog_printf(logLevel, logModule, request.statusLine, fileName(), __LINE__,
                request.function, static_cast<long>(primaryErr),
                static_cast<long>(secondaryErr));
    if (primaryErr != 0 || secondaryErr != 0)
    {
        dlog_printf(logLevel, logModule, request.failureLine, fileName(),
                    __LINE__, request.function);
        return -1;
    }
    dlog_printf(logLevel, logModule, "%s.%d.%s: Protocol:%d, Attributes:%d\n",
                fileName(), __LINE__, request.function,
                static_cast<int>(reply.protocol),
                static_cast<int>(reply.attributes));
    record->protocol = reply.protocol;
    record->attributes = reply.attributes;
    storePages(*record, reply, request.pageCount, request.function, fqdd);
    return 0;
}

} // namespace

int qvdbusGetSmartPDSATAHDDData(DriveSmartRecord* record,
                                const std::string& fqdd)
{
    return fetchHardDrivePages(sataRequest, record, fqdd);
}

int qvdbusGetSmartPDSASHDDData(DriveSmartRecord* record,
                               const std::string& fqdd)
{
    return fetchHardDrivePages(sasRequest, record, fqdd);
}

// ---------------------------------------------------------------------------
// Collection driver

namespace
{

struct Member
{
    const char* key;
    uint64_t value;
};

void writeMembers(ReportStream& stream, std::span<const Member> members)
{
    for (const Member& member : members)
    {
        jsonAddTagAndValueInt64(stream, member.key, member.value);
    }
}

void writeSasSataMembers(ReportStream& stream, const DriveSmartRecord& record)
{
    const auto& values = record.sasSata;
    const std::array<Member, 20> members{{
        {reportNames::protocol, record.protocol},
        {"Read Error Rate", values.readErrorDate},
        {reportNames::ssd::reallocated, values.reallocatedBlockCount},
        {reportNames::ssd::powerOnHours, values.powerOnHours},
        {reportNames::ssd::powerCycles, values.powerCycleCount},
        {"ECCERate", values.ecceRate},
        {"usedReservedBlockCount", values.usedReservedBlockCount},
        {"unusedReservedBlockCount", values.unusedReservedBlockCount},
        {"programFailCount", values.programFailCount},
        {"eraseFailCount", values.eraseFailCount},
        {reportNames::ssd::commandTimeout, values.commandTimeout},
        {reportNames::ssd::temperature, values.driveTemperature},
        {reportNames::ssd::uncorrectable, values.uncorrectableErrorCount},
        {"uncorrectableLBACount", values.uncorrectableLBACount},
        {reportNames::ssd::crcErrors, values.crcErrorCount},
        {"volatileMemoryBackupSourceFailures",
         values.volatileMemoryBackupSourceFailures},
        {"exceptionModeStatus", values.exceptionModeStatus},
        {reportNames::ssd::mediaWrites, values.mediaWriteCount},
        {reportNames::ssd::lifeRemaining, values.percentDriveLifeRemaining},
        {reportNames::ssd::pending, values.currentPendingSectorCount},
    }};
    writeMembers(stream, members);
}

void writeNvmeMembers(ReportStream& stream, const DriveSmartRecord& record)
{
    const auto& values = record.nvme;
    const uint16_t statusField = values.errorInfoLogRecordStatusField;
    const uint16_t location = values.errorInfoLogRecordParameterErrorLocation;
    const std::array<Member, 48> members{{
        {reportNames::protocol, record.protocol},
        {reportNames::nvme::criticalWarning, values.criticalWarning},
        {reportNames::nvme::temperature, values.compositeTemparature},
        {reportNames::nvme::availableSpare, values.availableSpare},
        {reportNames::nvme::spareThreshold, values.availableSpareThreshold},
        {reportNames::nvme::percentageUsed, values.percentageUsed},
        {reportNames::nvme::dataUnitsReadLower, values.dataUnitsReadLower},
        {reportNames::nvme::dataUnitsReadUpper, values.dataUnitsReadUpper},
        {reportNames::nvme::dataUnitsWrittenLower,
         values.dataUnitsWrittenLower},
        {reportNames::nvme::dataUnitsWrittenUpper,
         values.dataUnitsWrittenUpper},
        {"Host Read Cmds Lower", values.hostReadCmdsLower},
        {"Host Read Cmds Upper", values.hostReadCmdsUpper},
        {"Host Write Cmds Lower", values.hostWriteCmdsLower},
        {"Host Write Cmds Upper", values.hostWriteCmdsUpper},
        {"ControllerBusyTime Lower", values.controllerBusyTimeLower},
        {"ControllerBusyTime Upper", values.controllerBusyTimeUpper},
        {reportNames::nvme::powerCyclesLower, values.powerCyclesLower},
        {reportNames::nvme::powerCyclesUpper, values.powerCyclesUpper},
        {reportNames::nvme::powerOnHoursLower, values.powerOnHoursLower},
        {reportNames::nvme::powerOnHoursUpper, values.powerOnHoursUpper},
        {reportNames::nvme::unsafeShutdownsLower, values.unsafeShutdownsLower},
        {reportNames::nvme::unsafeShutdownsUpper, values.unsafeShutdownsUpper},
        {reportNames::nvme::mediaErrorsLower,
         values.mediaAndDataIntegrityErrsLower},
        {reportNames::nvme::mediaErrorsUpper,
         values.mediaAndDataIntegrityErrsUpper},
        {"NumOfErrorInfoLogEntries Lower",
         values.numOfErrorInfoLogEntriesLower},
        {"NumOfErrorInfoLogEntries Upper",
         values.numOfErrorInfoLogEntriesUpper},
        {"warningCompositeTemperatureTime",
         values.warningCompositeTemperatureTime},
        {"criticalCompositeTemperatureTime",
         values.criticalCompositeTemperatureTime},
        {"temperatureSensor1", values.temperatureSensor1},
        {"temperatureSensor2", values.temperatureSensor2},
        {"temperatureSensor3", values.temperatureSensor3},
        {"temperatureSensor4", values.temperatureSensor4},
        {"temperatureSensor5", values.temperatureSensor5},
        {"temperatureSensor6", values.temperatureSensor6},
        {"temperatureSensor7", values.temperatureSensor7},
        {"temperatureSensor8", values.temperatureSensor8},
        {"thermalMgmtTempTransitionCount",
         values.thermalMgmtTempTransitionCount},
        {"totalTimeThemalMgmtTemp", values.totalTimeThemalMgmtTemp},
        {"errorCount", values.errorInfoLogRecordErrorCount},
        {"submissionQueID", values.errorInfoLogRecordSubmissionQueID},
        {"commandID", values.errorInfoLogRecordCommandID},
        {"PhaseTag", statusFieldPhaseTag(statusField)},
        {"Status", statusFieldStatus(statusField)},
        {"ByteInCommand", errorLocationByteInCommand(location)},
        {"BitInCommand", errorLocationBitInCommand(location)},
        {"LBA", values.errorInfoLogRecordLBA},
        {"Namespace", values.errorInfoLogRecordNamespace},
        {"vendorSpecificInfo", values.errorInfoLogRecordVendorSpecificInfo},
    }};
    writeMembers(stream, members);
}

// One page group a page of the storage service's reply.
static_assert(reportNames::sataPages.size() == sataLogPageCount);
static_assert(reportNames::sasPages.size() == sasLogPageCount);

// The separators and closing text of the raw-data report assume that every
// hard-drive record leaves one page group open. A record with nothing to
// show (its log-page request failed, or every page has length 0) opens this
// empty-named group instead, so the document stays balanced.
constexpr const char* emptyPageGroup = "\"\": {\n";

// A drive group with an empty name, written for an SMART table entry that
// has no FQDD: without it the entry's members would land in the enclosing
// object and its closing brace would close the whole document early.
constexpr const char* unnamedDriveGroup = "\"\":\n{\n";

enum class HardDriveKind
{
    none,
    sas,
    sata
};

enum class CannotWriteText
{
    cant,  // "Cant", the SMART log in the solid-state pass
    canNot // "Can't", everywhere else
};

// How long a run waits for another run that holds the reports: four
// method calls that time out (100 s with sd-bus's default of 25 s; the
// bus's own SYSTEMD_BUS_TIMEOUT scales it). A normal run lets go well
// before; one that holds on longer is stuck (stopped, or waiting on a hung
// service), and the reports it is writing carry the same drives anyway.
// Never longer than the service gives a run to start (its
// TimeoutStartSec=): an infinite call timeout waits that long, not 0 s.
std::chrono::steady_clock::duration reportLockPatience()
{
    constexpr std::chrono::microseconds startTimeout = std::chrono::minutes(30);
    constexpr uint64_t callsToWait = 4;
    uint64_t callTimeoutUs = 25'000'000;
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) >= 0)
    {
        sd_bus_get_method_call_timeout(bus, &callTimeoutUs);
        sd_bus_unref(bus);
    }
    if (callTimeoutUs > uint64_t(startTimeout.count()) / callsToWait)
    {
        return startTimeout;
    }
    return std::chrono::microseconds(callsToWait * callTimeoutUs);
}

// An exclusive lock on the directory of the reports, held while a run has a
// report open: runs started together (a support-data collection started
// twice, a manual run beside the timer's) append one whole document after
// the other instead of interleaving their buffered writes. The directory
// itself is locked, so no lock file is left behind.
class ReportDirectoryLock
{
  public:
    ReportDirectoryLock() = default;
    ReportDirectoryLock(const ReportDirectoryLock&) = delete;
    ReportDirectoryLock& operator=(const ReportDirectoryLock&) = delete;
    ~ReportDirectoryLock()
    {
        release();
    }

    // Waits for another run to let go, at most reportLockPatience(); false
    // when that ran out. A directory that cannot be opened is left unlocked
    // (opening the report in it fails and says so), and so is one whose
    // file system has no locks: the run goes on without, as it would have.
    bool acquire(const std::string& reportPath)
    {
        if (tried)
        {
            return true;
        }
        tried = true;
        const std::string directory =
            reportPath.substr(0, reportPath.rfind('/') + 1);
        fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0 || flock(fd, LOCK_EX | LOCK_NB) == 0)
        {
            return true;
        }
        if (errno != EWOULDBLOCK)
        {
            dlog_printf(logLevel, logModule,
                        "%s.%d.%s: Cannot lock the report directory %s: %s, "
                        "writing without the lock\n",
                        fileName(), __LINE__, driverName, directory.c_str(),
                        std::strerror(errno));
            return true;
        }
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: Another run is writing the reports, waiting\n",
                    fileName(), __LINE__, driverName);
        const auto patience = reportLockPatience();
        if (waitForLock(patience))
        {
            return true;
        }
        dlog_printf(
            logLevel, logModule,
            "%s.%d.%s: The other run kept the reports for %lld s, "
            "giving up\n",
            fileName(), __LINE__, driverName,
            static_cast<long long>(
                std::chrono::ceil<std::chrono::seconds>(patience).count()));
        return false;
    }

    void release()
    {
        if (fd >= 0)
        {
            close(fd);
            fd = -1;
        }
    }

  private:
    int fd = -1;
    bool tried = false;

    // flock itself cannot time out: it is tried again every 50 ms. The
    // cancel signal only shortens one of the pauses.
    bool waitForLock(std::chrono::steady_clock::duration patience) const
    {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        constexpr timespec pause{0, 50'000'000};
        while (std::chrono::steady_clock::now() < deadline)
        {
            nanosleep(&pause, nullptr);
            if (flock(fd, LOCK_EX | LOCK_NB) == 0)
            {
                return true;
            }
        }
        return false;
    }
};

// The report at `path` opened for appending, created when it is missing;
// -1 unless it is a regular file. A symlink is not followed (as root the
// collector would append to whatever it names) and a FIFO does not block.
// The stream writes through this same descriptor: nothing swapped in under
// the name after the check is reached.
int openReportFile(const std::string& path)
{
    const int fd = open(path.c_str(),
                        O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW |
                            O_NONBLOCK | O_CLOEXEC,
                        0666);
    if (fd < 0)
    {
        return -1;
    }
    struct stat status
    {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode))
    {
        close(fd);
        return -1;
    }
    return fd;
}

// The state of one run: its two documents, the shared record and the counts
// that decide every separator.
class CollectionRun
{
  public:
    explicit CollectionRun(int mode) : mode(mode) {}

    void collect()
    {
        countDrives();
        solidStatePass();
        hardDrivePass();
        nvmePass();
        closeDocuments();
    }

    bool openFailed() const
    {
        return openFailure;
    }

  private:
    int mode;
    // Declared before the streams: released only after both are closed.
    ReportDirectoryLock reportLock;
    ReportStream logStream;
    ReportStream rawStream;
    DriveSmartRecord record{};
    std::string fqdd;
    int ssdObjCount = 0;
    int nvmeObjCount = 0;
    int totalDriveObjCount = 0;
    int ssdRecords = 0;
    int nvmeRecords = 0;
    int hardDriveRecords = 0;
    bool lastRawRecordWasSolidState = false;
    bool openFailure = false;

    void ensureOpen(ReportStream& stream, int kind, CannotWriteText text);
    void writeDriveGroup(ReportStream& stream);
    void countDrives();
    void solidStatePass();
    void addSolidStateDrive();
    void hardDrivePass();
    void addHardDrive(int index);
    static HardDriveKind classifyHardDrive(uint32_t protocol,
                                           uint32_t attributes);
    bool fetchLogPages(HardDriveKind kind);
    const char* hardDriveSeparator() const;
    void writePageGroups(HardDriveKind kind);
    void nvmePass();
    void addNvmeDrive();
    void closeDocuments();
};

void CollectionRun::ensureOpen(ReportStream& stream, int kind,
                               CannotWriteText text)
{
    if (stream.isOpen())
    {
        return;
    }
    std::string path;
    if (mode == 0)
    {
        path = kind == 0 ? smartLogsFile : smartRawDataFile;
    }
    else
    {
        path = getCurrentDay(kind);
        dlog_printf(logLevel, logModule, "%s.%d.%s: Curr Day [%s]\n",
                    fileName(), __LINE__, driverName, path.c_str());
    }
    if (reportLock.acquire(path))
    {
        const int fd = openReportFile(path);
        if (fd >= 0)
        {
            stream.attach(fd);
            return;
        }
    }
    if (text == CannotWriteText::cant)
    {
        dlog_printf(logLevel, logModule, "%s.%d.%s: Cant write to the file..\n",
                    fileName(), __LINE__, driverName);
    }
    else
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: Can't write to the file..\n", fileName(),
                    __LINE__, driverName);
    }
    openFailure = true;
    throw std::runtime_error("Failed to open file for writing");
}

void CollectionRun::writeDriveGroup(ReportStream& stream)
{
    if (fqdd.empty())
    {
        stream << unnamedDriveGroup;
        return;
    }
    jsonAddStartDataGroup(stream, fqdd);
}

void CollectionRun::countDrives()
{
    if (qvdbusGetSmartDataCount(&ssdObjCount, &nvmeObjCount,
                                &totalDriveObjCount) == -1)
    {
        throw std::runtime_error("Failed to get smart data count\n");
    }
    dlog_printf(logLevel, logModule,
                "%s.%d.%s: SSDObjCount = %d, nvmeObjCount=%d, "
                "TotalDriveObjCount=%d\n",
                fileName(), __LINE__, driverName, ssdObjCount, nvmeObjCount,
                totalDriveObjCount);
}

void CollectionRun::solidStatePass()
{
    for (int index = 0; index < ssdObjCount; ++index)
    {
        fqdd.clear();
        if (qvdbusGetSmartDataSasSataSSD(index, &record, &fqdd) == -1)
        {
            throw std::runtime_error("Failed to get smart data of SAS/SATA");
        }
        const uint32_t protocol = record.protocol;
        const uint32_t attributes = record.attributes;
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: obj.protocol=%d, obj.attributes=%d, "
                    "fqdd=%s\n",
                    fileName(), __LINE__, driverName,
                    static_cast<int>(protocol), static_cast<int>(attributes),
                    fqdd.c_str());
        if (hasBits(protocol, PROTOCOL_SATA | PROTOCOL_SAS) &&
            hasBits(attributes, ATTRIBUTE_SOLID_STATE))
        {
            addSolidStateDrive();
        }
    }
}

void CollectionRun::addSolidStateDrive()
{
    dlog_printf(logLevel, logModule,
                "%s.%d.%s: Drive type is SAS/SATA, adding smart data and raw "
                "data.\n",
                fileName(), __LINE__, driverName);
    ensureOpen(logStream, 0, CannotWriteText::cant);
    logStream << (ssdRecords == 0 ? "{\n" : "},\n");
    ensureOpen(rawStream, 1, CannotWriteText::canNot);
    rawStream << (ssdRecords == 0 ? "{\n" : "\n},\n");

    writeDriveGroup(logStream);
    writeSasSataMembers(logStream, record);

    writeDriveGroup(rawStream);
    if (qvdbusGetSmartPDSASSATARawData(fqdd, rawStream) != 0)
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: Failed to get SAS/SATA raw data for FQDD: "
                    "%s\n",
                    fileName(), __LINE__, driverName, fqdd.c_str());
    }
    ++ssdRecords;
    lastRawRecordWasSolidState = true;
}

void CollectionRun::hardDrivePass()
{
    for (int index = 0; index < totalDriveObjCount; ++index)
    {
        addHardDrive(index);
    }
}

HardDriveKind CollectionRun::classifyHardDrive(uint32_t protocol,
                                               uint32_t attributes)
{
    const bool solidState = hasBits(attributes, ATTRIBUTE_SOLID_STATE);
    if (hasBits(protocol, PROTOCOL_SAS))
    {
        if (solidState)
        {
            return HardDriveKind::none;
        }
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: Drive type is SAS HDD, adding only raw data\n",
                    fileName(), __LINE__, driverName);
        return HardDriveKind::sas;
    }
    if (hasBits(protocol, PROTOCOL_SATA))
    {
        if (solidState)
        {
            return HardDriveKind::none;
        }
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: Drive type is SATA HDD, adding only raw data\n",
                    fileName(), __LINE__, driverName);
        return HardDriveKind::sata;
    }
    return HardDriveKind::none;
}

void CollectionRun::addHardDrive(int index)
{
    fqdd.clear();
    // Reset per drive as well: an inventory object that lacks one of these
    // properties must not inherit the previous drive's classification.
    uint32_t protocol = 0;
    uint32_t attributes = 0;
    if (getStorageObjInfo(STORAGE_OBJ_DRIVE, &fqdd, &protocol, &attributes,
                          index) == -1)
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: Failed to get storage object info for HDD\n",
                    fileName(), __LINE__, driverName);
        return;
    }
    dlog_printf(logLevel, logModule,
                "%s.%d.%s: FQDD:%s | Protocol:%d | Attributes:%d\n", fileName(),
                __LINE__, driverName, fqdd.c_str(), static_cast<int>(protocol),
                static_cast<int>(attributes));
    const HardDriveKind kind = classifyHardDrive(protocol, attributes);
    if (kind == HardDriveKind::none)
    {
        return;
    }

    ensureOpen(rawStream, 1, CannotWriteText::canNot);
    rawStream << hardDriveSeparator();
    ++hardDriveRecords;
    lastRawRecordWasSolidState = false;

    if (!fetchLogPages(kind))
    {
        jsonAddStartDataGroup(rawStream, fqdd);
        rawStream << emptyPageGroup;
        return;
    }
    jsonAddStartDataGroup(rawStream, fqdd);
    writePageGroups(kind);
}

const char* CollectionRun::hardDriveSeparator() const
{
    if (hardDriveRecords == 0 && ssdRecords == 0)
    {
        return "{\n";
    }
    return lastRawRecordWasSolidState ? "\n},\n" : "\n}\n},\n";
}

bool CollectionRun::fetchLogPages(HardDriveKind kind)
{
    if (kind == HardDriveKind::sas)
    {
        if (qvdbusGetSmartPDSASHDDData(&record, fqdd) == -1)
        {
            dlog_printf(logLevel, logModule,
                        "%s.%d.%s: Failed to get smartdata of sas/sata HDD\n",
                        fileName(), __LINE__, driverName);
            return false;
        }
        return true;
    }
    if (qvdbusGetSmartPDSATAHDDData(&record, fqdd) == -1)
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: Failed to get smartdata of sata HDD\n",
                    fileName(), __LINE__, driverName);
        return false;
    }
    return true;
}

void CollectionRun::writePageGroups(HardDriveKind kind)
{
    const std::span<const char* const> heads =
        kind == HardDriveKind::sas
            ? std::span<const char* const>(reportNames::sasPages)
            : std::span<const char* const>(reportNames::sataPages);
    int written = 0;
    for (size_t slot = 0; slot < heads.size(); ++slot)
    {
        const SmartLogPage page = record.logPages[slot];
        const size_t shown = std::min<size_t>(page.pageLength,
                                              smartLogPageSize);
        if (shown == 0)
        {
            continue;
        }
        if (written > 0)
        {
            rawStream << "\n},\n";
        }
        // The code follows the stream's current base: decimal before the
        // first dump of the run, hexadecimal after it.
        rawStream << '"' << heads[slot] << '('
                  << static_cast<int>(page.pageCode) << ")\": {\n";
        hexdump(page.pageData.data(), static_cast<int>(shown), rawStream);
        ++written;
    }
    if (written == 0)
    {
        rawStream << emptyPageGroup;
    }
}

void CollectionRun::nvmePass()
{
    for (int index = 0; index < nvmeObjCount; ++index)
    {
        fqdd.clear();
        // The table was loaded by the count, so this fails only on an
        // internal error; the record then still holds the previous drive,
        // which must not be reported under this entry.
        if (qvdbusGetSmartDataNvme(index, &record, &fqdd) == -1)
        {
            dlog_printf(logLevel, logModule,
                        "%s.%d.%s: Failed to get smart data of NVMe entry "
                        "%d, skipped\n",
                        fileName(), __LINE__, driverName, index);
            continue;
        }
        const uint32_t protocol = record.protocol;
        dlog_printf(logLevel, logModule, "%s.%d.%s: nvmeobj=%d, fqdd=%s\n",
                    fileName(), __LINE__, driverName,
                    static_cast<int>(protocol), fqdd.c_str());
        if (hasBits(protocol, PROTOCOL_PCIE_NVME))
        {
            addNvmeDrive();
        }
    }
}

void CollectionRun::addNvmeDrive()
{
    dlog_printf(logLevel, logModule,
                "%s.%d.%s: Drive type is PCIe/NVMe, adding only smart data\n",
                fileName(), __LINE__, driverName);
    ensureOpen(logStream, 0, CannotWriteText::canNot);
    logStream << (nvmeRecords == 0 && ssdRecords == 0 ? "{\n" : "},\n");
    writeDriveGroup(logStream);
    writeNvmeMembers(logStream, record);
    ++nvmeRecords;
}

// A failed write does not change the run's result, but a report cut short
// (a full disk) must not go unexplained.
void logIfIncomplete(const ReportStream& stream, const char* report)
{
    if (stream.fail())
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: Writing the %s report failed, the file is "
                    "incomplete\n",
                    fileName(), __LINE__, driverName, report);
    }
}

void CollectionRun::closeDocuments()
{
    if (rawStream.isOpen())
    {
        if (hardDriveRecords > 0)
        {
            rawStream << "\n}";
        }
        rawStream << "\n}\n}";
        rawStream.close();
        logIfIncomplete(rawStream, "raw data");
    }
    if (logStream.isOpen())
    {
        logStream << "}\n}";
        logStream.close();
        logIfIncomplete(logStream, "SMART log");
    }
    reportLock.release();
}

} // namespace

int addSmartData(int mode)
{
    dlog_printf(traceLevel, logModule, "%s.%d: Entry %s", fileName(), __LINE__,
                __func__);
    int result = 0;
    CollectionRun run(mode);
    try
    {
        run.collect();
    }
    catch (const std::exception& error)
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: Failed to add smart data: %s", fileName(),
                    __LINE__, __func__, error.what());
        result = run.openFailed() ? 21 : 2;
    }
    dlog_printf(traceLevel, logModule, "%s.%d: Exit %s: rc:0x%lX", fileName(),
                __LINE__, __func__, static_cast<long>(result));
    return result;
}

// ---------------------------------------------------------------------------
// Entry

#ifndef QVCOLLECTOR_WITHOUT_MAIN
// The handler is in place while the process starts, before main logs its
// entry: a SIGUSR1 sent the moment the collector was started must be
// caught (main then exits with 10) rather than end the process with the
// signal's default action. main installs it again, in its own order.
namespace
{
bool installCancelHandlerAtStart() noexcept
{
    installCancelHandler();
    return true;
}
[[maybe_unused]] const bool cancelHandlerAtStart =
    installCancelHandlerAtStart();
} // namespace

int main(int argc, char* argv[])
{
    dlog_printf(traceLevel, logModule, "%s.%d: Entry %s", fileName(), __LINE__,
                __func__);
    int pendingCode = 0;
    int exitCode = 0;
    try
    {
        installCancelHandler();
        if (cancelRequested.load() != 0)
        {
            pendingCode = 10;
            throw std::runtime_error("Error 1");
        }
        if (argc <= 1 || argv[1] == nullptr)
        {
            throw std::invalid_argument("Invalid argument");
        }
        const int mode = std::stoi(argv[1]);
        if (utl_make_path(dailyDirectory) != 0)
        {
            pendingCode = 21;
            throw std::runtime_error("Error creating directory");
        }
        if (cancelRequested.load() != 0)
        {
            pendingCode = 10;
            throw std::runtime_error("Collection cancelled");
        }
        exitCode = addSmartData(mode);
    }
    catch (const std::runtime_error& error)
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: Failed to Collect Smart Data: %s", fileName(),
                    __LINE__, __func__, error.what());
        exitCode = pendingCode != 0 ? pendingCode : 2;
    }
    catch (const std::invalid_argument& error)
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: Invalid Aguments passed: %s", fileName(),
                    __LINE__, __func__, error.what());
        exitCode = 5;
    }
    catch (const std::exception& error)
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: Failed to Add Smart Data: %s", fileName(),
                    __LINE__, __func__, error.what());
        exitCode = pendingCode != 0 ? pendingCode : 2;
    }
    dlog_printf(traceLevel, logModule, "%s.%d: Exit %s", fileName(), __LINE__,
                __func__);
    return exitCode;
}
#endif
