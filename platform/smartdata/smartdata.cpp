#include "smartdata.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <optional>
#include <stdexcept>
#include <streambuf>
#include <unordered_map>
#include <vector>

namespace
{

using Json = nlohmann::json;
using smartdata::LoadStatus;

constexpr const char* tablesVariable = "PLATFORM_SMART_TABLES";

constexpr std::array<std::string_view, smartdatasassata_gen::fieldCount>
    sasSataNames{
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
        "attributes",
    };

constexpr std::array<std::string_view, smartdatanvme_gen::fieldCount> nvmeNames{
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
    "attributes",
};

class LoadError : public std::runtime_error
{
public:
    LoadError(LoadStatus status, const std::string& reason) :
        std::runtime_error(reason), code(status)
    {}

    std::uint64_t status() const
    {
        return static_cast<std::uint64_t>(code);
    }

private:
    LoadStatus code;
};

class FileDescriptor
{
public:
    explicit FileDescriptor(int fd) : fd(fd)
    {}
    ~FileDescriptor()
    {
        if (fd >= 0)
        {
            ::close(fd);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const
    {
        return fd;
    }

private:
    int fd;
};

[[noreturn]] void failUnreadable(int error)
{
    throw LoadError(LoadStatus::unreadable,
                    std::string("cannot read: ") + std::strerror(error));
}

// Feeds the parser straight from the file with plain read(2), so the text
// is never held whole and a directory or an I/O error is reported as
// unreadable instead of looking like a short file.
class FileBuffer : public std::streambuf
{
public:
    explicit FileBuffer(const std::string& path) :
        file(::open(path.c_str(), O_RDONLY | O_CLOEXEC))
    {
        if (file.get() < 0)
        {
            failUnreadable(errno);
        }
    }

    // Throws when a read failed: the parser then only saw a short text.
    void checkRead() const
    {
        if (readError != 0)
        {
            failUnreadable(readError);
        }
    }

protected:
    int_type underflow() override
    {
        ssize_t n = 0;
        do
        {
            n = ::read(file.get(), chunk.data(), chunk.size());
        } while (n < 0 && errno == EINTR);
        if (n <= 0)
        {
            readError = n < 0 ? errno : 0;
            return traits_type::eof();
        }
        setg(chunk.data(), chunk.data(), chunk.data() + n);
        return traits_type::to_int_type(chunk.front());
    }

private:
    FileDescriptor file;
    std::array<char, 16384> chunk{};
    int readError = 0;
};

// Values must be JSON integers in 0..2^64-1; the parser stores larger ones
// as floating point, so they fail here as well.
std::uint64_t unsignedValue(const Json& value, LoadStatus onError,
                            const std::string& what)
{
    if (!value.is_number_unsigned())
    {
        throw LoadError(onError, what + " is not an integer in 0..2^64-1");
    }
    return value.get<std::uint64_t>();
}

template <typename Record>
const std::unordered_map<std::string_view, std::size_t>& fieldIndex()
{
    static const auto index = [] {
        std::unordered_map<std::string_view, std::size_t> byName;
        const auto names = Record::fieldNames();
        for (std::size_t i = 0; i < names.size(); ++i)
        {
            byName.emplace(names[i], i);
        }
        return byName;
    }();
    return index;
}

template <typename Record>
class EntryParser
{
public:
    explicit EntryParser(std::string where) : where(std::move(where))
    {}

    std::pair<std::string, Record> parse(const Json& entry)
    {
        if (!entry.is_object())
        {
            throw LoadError(LoadStatus::badEntry, where + " is not an object");
        }
        for (auto member = entry.begin(); member != entry.end(); ++member)
        {
            take(member.key(), member.value());
        }
        if (!key)
        {
            throw LoadError(LoadStatus::badKey, where + " has no \"key\"");
        }
        return {std::move(*key), Record(std::move(fqdd), values)};
    }

private:
    void take(const std::string& name, const Json& value)
    {
        if (name == "key" || name == "fqdd")
        {
            takeText(name, value);
            return;
        }
        const auto& index = fieldIndex<Record>();
        const auto field = index.find(name);
        if (field == index.end())
        {
            throw LoadError(LoadStatus::badEntry,
                            where + ": unknown member \"" + name + "\"");
        }
        values[field->second] = unsignedValue(value, LoadStatus::badEntry,
                                              where + ": \"" + name + "\"");
    }

    void takeText(const std::string& name, const Json& value)
    {
        const bool isKey = name == "key";
        if (!value.is_string())
        {
            throw LoadError(isKey ? LoadStatus::badKey : LoadStatus::badEntry,
                            where + ": \"" + name + "\" is not a string");
        }
        if (isKey)
        {
            key = value.get<std::string>();
        }
        else
        {
            fqdd = value.get<std::string>();
        }
    }

    std::string where;
    std::optional<std::string> key;
    std::string fqdd;
    typename Record::Values values{};
};

const Json& entriesOf(const Json& table, const std::string& tableName)
{
    static const Json noEntries = Json::array();
    if (!table.is_object())
    {
        throw LoadError(LoadStatus::badTable,
                        "\"" + tableName + "\" is not an object");
    }
    for (auto member = table.begin(); member != table.end(); ++member)
    {
        if (member.key() != "status" && member.key() != "entries")
        {
            throw LoadError(LoadStatus::badTable,
                            "\"" + tableName + "\" has unknown member \"" +
                                member.key() + "\"");
        }
    }
    const auto entries = table.find("entries");
    if (entries == table.end())
    {
        return noEntries;
    }
    if (!entries->is_array())
    {
        throw LoadError(LoadStatus::badTable,
                        tableName + ".entries is not an array");
    }
    return *entries;
}

std::uint64_t statusOf(const Json& table, const std::string& tableName)
{
    const auto status = table.find("status");
    if (status == table.end())
    {
        return 0;
    }
    return unsignedValue(*status, LoadStatus::badTable, tableName + ".status");
}

// What loading one table gave: its status and records, or why it failed.
template <typename Record>
struct TableOutcome
{
    std::uint64_t status = 0;
    std::optional<LoadError> error;
    std::map<std::string, Record> records;
};

// One table's entries as the file streams past: each entry becomes a record
// as soon as it is complete and is then dropped, so memory holds records
// and a single entry, never the document.
template <typename Record>
class TableCollector
{
public:
    explicit TableCollector(const char* name) : name(name)
    {}

    const std::string name;

    // A repeated member replaces the earlier one, as in a DOM.
    void restart()
    {
        loaded.clear();
        firstBadEntry.reset();
        entryCount = 0;
    }

    void take(const Json& entry)
    {
        const std::string where =
            name + " entry " + std::to_string(entryCount++);
        if (firstBadEntry)
        {
            return;
        }
        try
        {
            auto [key, record] = EntryParser<Record>(where).parse(entry);
            const auto [slot, added] =
                loaded.try_emplace(std::move(key), std::move(record));
            if (!added)
            {
                throw LoadError(LoadStatus::badKey, where +
                                                        ": duplicate key \"" +
                                                        slot->first + "\"");
            }
        }
        catch (const LoadError& e)
        {
            firstBadEntry = e;
        }
    }

    // The table's shape is checked before its entries: a bad shape outranks
    // a bad entry. An absent table is an empty one that loaded fine, so a
    // file lists only the tables it needs.
    TableOutcome<Record> finish(const Json& skeleton)
    {
        TableOutcome<Record> outcome;
        const auto table = skeleton.find(name);
        if (table == skeleton.end())
        {
            return outcome;
        }
        try
        {
            entriesOf(*table, name);
            outcome.status = statusOf(*table, name);
            if (firstBadEntry)
            {
                throw *firstBadEntry;
            }
            outcome.records = std::move(loaded);
        }
        catch (const LoadError& e)
        {
            outcome = {0, e, {}};
        }
        return outcome;
    }

private:
    std::size_t entryCount = 0;
    std::map<std::string, Record> loaded;
    std::optional<LoadError> firstBadEntry;
};

struct BothTables
{
    TableOutcome<smartdatasassata_gen> sasSata;
    TableOutcome<smartdatanvme_gen> nvme;
};

// Reads both tables in one pass over the file. Only the tables' own members
// stay in a small skeleton, checked once the whole file has parsed, so a
// syntax error anywhere outranks everything else.
class TablesReader
{
public:
    BothTables read(const std::string& path)
    {
        try
        {
            const Json skeleton = parse(path);
            return {sasSata.finish(skeleton), nvme.finish(skeleton)};
        }
        catch (const LoadError& e)
        {
            return {{0, e, {}}, {0, e, {}}};
        }
    }

private:
    using Event = Json::parse_event_t;
    enum class Table
    {
        none,
        sasSata,
        nvme
    };

    Json parse(const std::string& path)
    {
        FileBuffer buffer(path);
        std::istream in(&buffer);
        Json skeleton;
        try
        {
            skeleton =
                Json::parse(in, [this](int depth, Event event, Json& parsed) {
                    return keep(depth, event, parsed);
                });
        }
        catch (const Json::parse_error& e)
        {
            buffer.checkRead();
            throw LoadError(LoadStatus::malformed, e.what());
        }
        buffer.checkRead();
        if (!skeleton.is_object())
        {
            throw LoadError(LoadStatus::malformed,
                            "top level is not an object");
        }
        return skeleton;
    }

    // The parser's callback: false drops what was just parsed.
    bool keep(int depth, Event event, Json& parsed)
    {
        if (event == Event::object_start || event == Event::array_start)
        {
            arrayAt.resize(static_cast<std::size_t>(depth) + 1);
            arrayAt.back() = event == Event::array_start;
        }
        if (depth == 1 && event == Event::key)
        {
            return enterTable(parsed);
        }
        if (depth == 2 && event == Event::key)
        {
            inEntries = parsed == "entries";
        }
        const bool entryDone = event == Event::object_end ||
                               event == Event::array_end ||
                               event == Event::value;
        if (depth == 3 && entryDone && inEntries && arrayAt[2] &&
            current != Table::none)
        {
            if (current == Table::sasSata)
            {
                sasSata.take(parsed);
            }
            else
            {
                nvme.take(parsed);
            }
            return false;
        }
        return true;
    }

    bool enterTable(const Json& key)
    {
        current = Table::none;
        if (key == sasSata.name)
        {
            current = Table::sasSata;
            sasSata.restart();
        }
        else if (key == nvme.name)
        {
            current = Table::nvme;
            nvme.restart();
        }
        return current != Table::none;
    }

    TableCollector<smartdatasassata_gen> sasSata{"sasSata"};
    TableCollector<smartdatanvme_gen> nvme{"nvme"};
    Table current = Table::none;
    std::vector<bool> arrayAt; // per depth: the open container is an array
    bool inEntries = false;
};

// Which file, by name and content: a rewritten file never matches, even one
// rewritten within the file system's timestamp granularity.
struct FileIdentity
{
    std::string path;
    std::uint64_t size = 0;
    std::uint64_t hash = 0; // FNV-1a over the bytes

    bool operator==(const FileIdentity&) const = default;
};

FileIdentity identify(const std::string& path)
{
    FileIdentity identity{path, 0, 14695981039346656037ULL};
    FileBuffer buffer(path);
    for (int c = buffer.sbumpc(); c != std::char_traits<char>::eof();
         c = buffer.sbumpc())
    {
        identity.hash =
            (identity.hash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
        ++identity.size;
    }
    buffer.checkRead();
    return identity;
}

// The collector asks for both tables, one right after the other. One parse
// answers both: the table not asked for waits here for its call, as long as
// the file has not changed.
struct PendingTables
{
    FileIdentity file;
    std::optional<TableOutcome<smartdatasassata_gen>> sasSata;
    std::optional<TableOutcome<smartdatanvme_gen>> nvme;
};

PendingTables pending;

std::optional<TableOutcome<smartdatasassata_gen>>&
pendingSlot(const smartdatasassata_gen*)
{
    return pending.sasSata;
}

std::optional<TableOutcome<smartdatanvme_gen>>&
pendingSlot(const smartdatanvme_gen*)
{
    return pending.nvme;
}

template <typename Record>
TableOutcome<Record> outcomeFor(const std::string& path)
{
    FileIdentity file = identify(path);
    auto& mine = pendingSlot(static_cast<const Record*>(nullptr));
    if (mine && pending.file == file)
    {
        TableOutcome<Record> outcome = std::move(*mine);
        mine.reset();
        return outcome;
    }
    BothTables both = TablesReader().read(path);
    pending = {std::move(file), std::move(both.sasSata), std::move(both.nvme)};
    TableOutcome<Record> outcome = std::move(*mine);
    mine.reset();
    return outcome;
}

void report(const std::string& path, const char* reason) noexcept
{
    if (path.empty())
    {
        std::fprintf(stderr, "smartdata: %s\n", reason);
    }
    else
    {
        std::fprintf(stderr, "smartdata: %s: %s\n", path.c_str(), reason);
    }
}

// Never throws: every failure becomes a non-zero status and one line on
// standard error. Nothing reaches the caller's map unless the whole table
// parsed.
template <typename Record>
std::uint64_t loadTable(std::map<std::string, Record>& map) noexcept
{
    std::string path;
    try
    {
        const char* env = std::getenv(tablesVariable);
        if (env == nullptr || *env == '\0')
        {
            throw LoadError(LoadStatus::unset,
                            std::string(tablesVariable) + " is not set");
        }
        path = env;
        TableOutcome<Record> outcome = outcomeFor<Record>(path);
        if (outcome.error)
        {
            throw *outcome.error;
        }
        map.merge(outcome.records);
        return outcome.status;
    }
    catch (const LoadError& e)
    {
        report(path, e.what());
        return e.status();
    }
    catch (const std::exception& e)
    {
        report(path, e.what());
    }
    catch (...)
    {
        report(path, "unexpected failure");
    }
    return static_cast<std::uint64_t>(LoadStatus::internal);
}

} // namespace

smartdatasassata_gen::~smartdatasassata_gen() = default;

std::span<const std::string_view, smartdatasassata_gen::fieldCount>
smartdatasassata_gen::fieldNames()
{
    return sasSataNames;
}

smartdatanvme_gen::~smartdatanvme_gen() = default;

std::span<const std::string_view, smartdatanvme_gen::fieldCount>
smartdatanvme_gen::fieldNames()
{
    return nvmeNames;
}

namespace DataAbstraction
{

std::uint64_t
smartdatasassata::get_map(std::map<std::string, smartdatasassata_gen>& map)
{
    return loadTable(map);
}

std::uint64_t
smartdatanvme::get_map(std::map<std::string, smartdatanvme_gen>& map)
{
    return loadTable(map);
}

} // namespace DataAbstraction
