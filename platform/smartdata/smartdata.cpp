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
#include <variant>
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
    explicit FileDescriptor(int fd) : fd(fd) {}
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

// Which file, by name and content: a rewritten file never matches, even one
// rewritten within the file system's timestamp granularity.
struct FileIdentity
{
    std::string path;
    std::uint64_t size = 0;
    std::uint64_t hash = 14695981039346656037ULL; // FNV-1a over the bytes

    bool operator==(const FileIdentity&) const = default;
};

// Feeds the parser straight from the file with plain read(2), so the text
// is never held whole and a directory or an I/O error is reported as
// unreadable instead of looking like a short file. It identifies the bytes
// as they pass, so a parse tells which file it read without a second read.
class FileBuffer : public std::streambuf
{
  public:
    explicit FileBuffer(const std::string& path) :
        file(::open(path.c_str(), O_RDONLY | O_CLOEXEC)), seen{path}
    {
        if (file.get() < 0)
        {
            failUnreadable(errno);
        }
    }

    // Reads whatever the reader left, so identity() covers the whole file.
    void drain()
    {
        while (underflow() != traits_type::eof())
        {
            setg(eback(), egptr(), egptr());
        }
    }

    // The bytes read so far.
    const FileIdentity& identity() const
    {
        return seen;
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
        for (const char c :
             std::string_view(chunk.data(), static_cast<std::size_t>(n)))
        {
            seen.hash = (seen.hash ^ static_cast<unsigned char>(c)) *
                        1099511628211ULL;
        }
        seen.size += static_cast<std::uint64_t>(n);
        setg(chunk.data(), chunk.data(), chunk.data() + n);
        return traits_type::to_int_type(chunk.front());
    }

  private:
    FileDescriptor file;
    FileIdentity seen;
    std::array<char, 16384> chunk{};
    int readError = 0;
};

FileIdentity identify(const std::string& path)
{
    FileBuffer buffer(path);
    buffer.drain();
    buffer.checkRead();
    return buffer.identity();
}

// A member value of an entry or table as far as loading cares: an integer
// in 0..2^64-1, a string, or anything else. JSON integers above 2^64-1 come
// from the parser as floating point and so are "anything else" as well.
using MemberValue = std::variant<std::monostate, std::uint64_t, std::string>;

bool isUnsigned(const MemberValue& value)
{
    return std::holds_alternative<std::uint64_t>(value);
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

// An entry's members by name. Checked in name order, as a JSON document
// would hold them, so the first problem reported does not depend on the
// member order in the file; a repeated member keeps its last value.
using EntryMembers = std::map<std::string, MemberValue, std::less<>>;

template <typename Record>
class EntryParser
{
  public:
    explicit EntryParser(std::string where) : where(std::move(where)) {}

    std::pair<std::string, Record> parse(EntryMembers& members)
    {
        for (auto& [name, value] : members)
        {
            take(name, value);
        }
        if (!key)
        {
            throw LoadError(LoadStatus::badKey, where + " has no \"key\"");
        }
        return {std::move(*key), Record(std::move(fqdd), values)};
    }

  private:
    void take(const std::string& name, MemberValue& value)
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
        if (!isUnsigned(value))
        {
            throw LoadError(LoadStatus::badEntry,
                            where + ": \"" + name +
                                "\" is not an integer in 0..2^64-1");
        }
        values[field->second] = std::get<std::uint64_t>(value);
    }

    void takeText(const std::string& name, MemberValue& value)
    {
        const bool isKey = name == "key";
        auto* text = std::get_if<std::string>(&value);
        if (text == nullptr)
        {
            throw LoadError(isKey ? LoadStatus::badKey : LoadStatus::badEntry,
                            where + ": \"" + name + "\" is not a string");
        }
        (isKey ? key.emplace() : fqdd) = std::move(*text);
    }

    std::string where;
    std::optional<std::string> key;
    std::string fqdd;
    typename Record::Values values{};
};

// What loading one table gave: its status and records, or why it failed.
template <typename Record>
struct TableOutcome
{
    std::uint64_t status = 0;
    std::optional<LoadError> error;
    std::map<std::string, Record> records;
};

// One table as the file streams past. Each entry becomes a record as soon
// as it is complete, so memory holds records and a single entry, never the
// document. The table's shape is judged once the whole file has parsed.
template <typename Record>
class TableCollector
{
  public:
    explicit TableCollector(const char* name) : tableName(name) {}

    const std::string& name() const
    {
        return tableName;
    }

    // A table (or its "entries") given again replaces the earlier one, as
    // in a JSON document.
    void restart(bool isObject)
    {
        present = true;
        notObject = !isObject;
        statusBad = false;
        status = 0;
        firstUnknown.reset();
        restartEntries(true);
    }
    void restartEntries(bool isArray)
    {
        loaded.clear();
        firstBadEntry.reset();
        entryCount = 0;
        entriesNotArray = !isArray;
    }
    void takeStatus(const MemberValue& value)
    {
        statusBad = !isUnsigned(value);
        status = statusBad ? 0 : std::get<std::uint64_t>(value);
    }
    void unknownMember(const std::string& member)
    {
        if (!firstUnknown || member < *firstUnknown)
        {
            firstUnknown = member;
        }
    }

    // An entry that is not an object comes with no members.
    void takeEntry(EntryMembers* members)
    {
        const std::string where = tableName + " entry " +
                                  std::to_string(entryCount++);
        if (firstBadEntry)
        {
            return;
        }
        try
        {
            if (members == nullptr)
            {
                throw LoadError(LoadStatus::badEntry,
                                where + " is not an object");
            }
            auto [key, record] = EntryParser<Record>(where).parse(*members);
            const auto [slot, added] = loaded.try_emplace(std::move(key),
                                                          std::move(record));
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

    // A bad shape outranks a bad entry. An absent table is an empty one
    // that loaded fine, so a file lists only the tables it needs.
    TableOutcome<Record> finish()
    {
        TableOutcome<Record> outcome;
        if (!present)
        {
            return outcome;
        }
        auto shapeError = [](const std::string& reason) {
            return TableOutcome<Record>{
                0, LoadError(LoadStatus::badTable, reason), {}};
        };
        if (notObject)
        {
            return shapeError("\"" + tableName + "\" is not an object");
        }
        if (firstUnknown)
        {
            return shapeError("\"" + tableName + "\" has unknown member \"" +
                              *firstUnknown + "\"");
        }
        if (entriesNotArray)
        {
            return shapeError(tableName + ".entries is not an array");
        }
        if (statusBad)
        {
            return shapeError(tableName +
                              ".status is not an integer in 0..2^64-1");
        }
        if (firstBadEntry)
        {
            return {0, firstBadEntry, {}};
        }
        outcome.status = status;
        outcome.records = std::move(loaded);
        return outcome;
    }

  private:
    std::string tableName;
    bool present = false;
    bool notObject = false;
    bool entriesNotArray = false;
    bool statusBad = false;
    std::uint64_t status = 0;
    std::optional<std::string> firstUnknown;
    std::size_t entryCount = 0;
    std::map<std::string, Record> loaded;
    std::optional<LoadError> firstBadEntry;
};

struct BothTables
{
    TableOutcome<smartdatasassata_gen> sasSata;
    TableOutcome<smartdatanvme_gen> nvme;
    std::optional<FileIdentity> file; // when every byte was read
};

// Reads both tables in one pass over the file, straight from the parser's
// events: no document is built. Containers that do not matter are skipped
// whole. A syntax error anywhere outranks everything else.
//
// Levels of open containers: 1 the top-level object, 2 a table, 3 its
// "entries" array, 4 an entry.
class TablesReader : public nlohmann::json_sax<Json>
{
  public:
    BothTables read(const std::string& path)
    {
        try
        {
            parse(path);
            return {sasSata.finish(), nvme.finish(), file};
        }
        catch (const LoadError& e)
        {
            return {{0, e, {}}, {0, e, {}}, file};
        }
    }

    // The parser's events; false would stop it.
    bool null() override
    {
        return scalar(MemberValue{});
    }
    bool boolean(bool /*value*/) override
    {
        return scalar(MemberValue{});
    }
    bool number_integer(Json::number_integer_t /*value*/) override
    {
        return scalar(MemberValue{});
    }
    bool number_unsigned(Json::number_unsigned_t value) override
    {
        return scalar(MemberValue{value});
    }
    bool number_float(Json::number_float_t /*value*/,
                      const Json::string_t& /*text*/) override
    {
        return scalar(MemberValue{});
    }
    bool string(Json::string_t& value) override
    {
        return scalar(MemberValue{std::move(value)});
    }
    bool binary(Json::binary_t& /*value*/) override
    {
        return scalar(MemberValue{});
    }
    bool start_object(std::size_t /*elements*/) override
    {
        return open(true);
    }
    bool start_array(std::size_t /*elements*/) override
    {
        return open(false);
    }
    bool end_object() override
    {
        return close();
    }
    bool end_array() override
    {
        return close();
    }
    bool key(Json::string_t& name) override
    {
        if (skipping == 0)
        {
            takeKey(name);
        }
        return true;
    }
    bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                     const nlohmann::detail::exception& error) override
    {
        syntaxError = error.what();
        return false;
    }

  private:
    enum class Table
    {
        none,
        sasSata,
        nvme
    };

    void parse(const std::string& path)
    {
        FileBuffer buffer(path);
        std::istream in(&buffer);
        const bool parsed = Json::sax_parse(in, this);
        buffer.drain();
        buffer.checkRead();
        file = buffer.identity();
        if (!parsed)
        {
            throw LoadError(LoadStatus::malformed, syntaxError);
        }
        if (!rootIsObject)
        {
            throw LoadError(LoadStatus::malformed,
                            "top level is not an object");
        }
    }

    void takeKey(Json::string_t& name)
    {
        if (level == 1)
        {
            table = name == sasSata.name() ? Table::sasSata
                    : name == nvme.name()  ? Table::nvme
                                           : Table::none;
        }
        else if (level == 2)
        {
            tableMember = std::move(name);
            if (tableMember != "status" && tableMember != "entries")
            {
                inTable([this](auto& t) { t.unknownMember(tableMember); });
            }
        }
        else if (level == 4)
        {
            member = std::move(name);
        }
    }

    // A value that is not a container, or a container about to be skipped.
    bool scalar(MemberValue value)
    {
        if (skipping > 0)
        {
            return true;
        }
        if (level == 0)
        {
            rootIsObject = false;
        }
        else if (level == 1)
        {
            inTable([](auto& t) { t.restart(false); });
        }
        else if (level == 2)
        {
            if (tableMember == "status")
            {
                inTable([&value](auto& t) { t.takeStatus(value); });
            }
            else if (tableMember == "entries")
            {
                inTable([](auto& t) { t.restartEntries(false); });
            }
        }
        else if (level == 3)
        {
            inTable([](auto& t) { t.takeEntry(nullptr); });
        }
        else if (level == 4)
        {
            members.insert_or_assign(member, std::move(value));
        }
        return true;
    }

    bool open(bool isObject)
    {
        if (skipping > 0)
        {
            ++skipping;
            return true;
        }
        if (descends(isObject))
        {
            ++level;
            return true;
        }
        scalar(MemberValue{});
        skipping = 1;
        return true;
    }

    // Whether a container opening at this level is one that is read.
    bool descends(bool isObject)
    {
        switch (level)
        {
            case 0:
                rootIsObject = isObject;
                return isObject;
            case 1:
                if (table == Table::none || !isObject)
                {
                    return false;
                }
                inTable([](auto& t) { t.restart(true); });
                return true;
            case 2:
                if (tableMember != "entries" || isObject)
                {
                    return false;
                }
                inTable([](auto& t) { t.restartEntries(true); });
                return true;
            case 3:
                members.clear();
                return isObject;
            default:
                return false;
        }
    }

    bool close()
    {
        if (skipping > 0)
        {
            --skipping;
            return true;
        }
        if (level == 4)
        {
            inTable([this](auto& t) { t.takeEntry(&members); });
        }
        --level;
        return true;
    }

    template <typename Action>
    void inTable(Action action)
    {
        if (table == Table::sasSata)
        {
            action(sasSata);
        }
        else if (table == Table::nvme)
        {
            action(nvme);
        }
    }

    TableCollector<smartdatasassata_gen> sasSata{"sasSata"};
    TableCollector<smartdatanvme_gen> nvme{"nvme"};
    int level = 0;
    int skipping = 0; // depth inside a container that is skipped whole
    bool rootIsObject = false;
    Table table = Table::none;
    std::string tableMember;
    std::string member;
    EntryMembers members;
    std::string syntaxError;
    std::optional<FileIdentity> file;
};

// The collector asks for both tables, one right after the other. One parse
// answers both: the table not asked for waits here for its call, as long as
// the file has not changed.
struct PendingTables
{
    std::optional<FileIdentity> file;
    std::optional<TableOutcome<smartdatasassata_gen>> sasSata;
    std::optional<TableOutcome<smartdatanvme_gen>> nvme;
};

PendingTables pending;

std::optional<TableOutcome<smartdatasassata_gen>>&
    pendingSlot(const smartdatasassata_gen* /*tag*/)
{
    return pending.sasSata;
}

std::optional<TableOutcome<smartdatanvme_gen>>&
    pendingSlot(const smartdatanvme_gen* /*tag*/)
{
    return pending.nvme;
}

template <typename Record>
TableOutcome<Record> outcomeFor(const std::string& path)
{
    auto& mine = pendingSlot(static_cast<const Record*>(nullptr));
    if (mine && pending.file && identify(path) == *pending.file)
    {
        TableOutcome<Record> outcome = std::move(*mine);
        mine.reset();
        return outcome;
    }
    BothTables both = TablesReader().read(path);
    pending = {std::move(both.file), std::move(both.sasSata),
               std::move(both.nvme)};
    TableOutcome<Record> outcome = std::move(*mine);
    mine.reset();
    return outcome;
}

void report(const std::string& path, const char* reason) noexcept
{
    if (path.empty())
    {
        // Nowhere else to turn when standard error fails.
        static_cast<void>(std::fprintf(stderr, "smartdata: %s\n", reason));
    }
    else
    {
        static_cast<void>(
            std::fprintf(stderr, "smartdata: %s: %s\n", path.c_str(), reason));
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
            throw LoadError(*outcome.error);
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
