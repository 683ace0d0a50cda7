#include "smartdata.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

namespace
{

using Json = nlohmann::json;
using Object = Json::object_t;
using Array = Json::array_t;

constexpr const char* tablesVariable = "PLATFORM_SMART_TABLES";

// What get_map returns when the file itself is unusable. A scenario's own
// "status" may hold any value, these included.
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

struct LoadError : std::runtime_error
{
    LoadError(LoadStatus status, const std::string& reason) :
        std::runtime_error(reason), status(status)
    {}

    LoadStatus status;
};

[[noreturn]] void fail(LoadStatus status, const std::string& reason)
{
    throw LoadError(status, reason);
}

std::string quoted(const std::string& text)
{
    return '"' + text + '"';
}

std::string tablesPath()
{
    const char* path = std::getenv(tablesVariable);
    if (path == nullptr || *path == '\0')
    {
        fail(LoadStatus::unset, std::string(tablesVariable) + " is not set");
    }
    return path;
}

[[noreturn]] void failUnreadable(int error)
{
    fail(LoadStatus::unreadable,
         std::string("cannot read: ") + std::strerror(error));
}

// A directory opens fine and fails on the first read.
std::string readFile(const std::string& path)
{
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
        std::fopen(path.c_str(), "rbe"), &std::fclose);
    if (!file)
    {
        failUnreadable(errno);
    }
    std::string text;
    std::array<char, 65536> chunk{};
    std::size_t n = 0;
    do
    {
        n = std::fread(chunk.data(), 1, chunk.size(), file.get());
        if (std::ferror(file.get()) != 0)
        {
            failUnreadable(errno);
        }
        text.append(chunk.data(), n);
    } while (n == chunk.size());
    return text;
}

Object parseFile(const std::string& path)
{
    Json document;
    try
    {
        document = Json::parse(readFile(path));
    }
    catch (const Json::parse_error& e)
    {
        fail(LoadStatus::malformed, e.what());
    }
    auto* object = document.get_ptr<Object*>();
    if (object == nullptr)
    {
        fail(LoadStatus::malformed, "top level is not an object");
    }
    return std::move(*object);
}

const Json* memberOf(const Object& object, const std::string& name)
{
    const auto found = object.find(name);
    return found == object.end() ? nullptr : &found->second;
}

// Checked before any entry, so a bad shape outranks a bad entry wherever
// each stands in the file.
const Object& tableOf(const Json& value, const std::string& name)
{
    const auto* table = value.get_ptr<const Object*>();
    if (table == nullptr)
    {
        fail(LoadStatus::badTable, quoted(name) + " is not an object");
    }
    for (const auto& [member, value] : *table)
    {
        if (member != "status" && member != "entries")
        {
            fail(LoadStatus::badTable,
                 quoted(name) + " has unknown member " + quoted(member));
        }
    }
    const Json* entries = memberOf(*table, "entries");
    if (entries != nullptr && !entries->is_array())
    {
        fail(LoadStatus::badTable, name + ".entries is not an array");
    }
    const Json* status = memberOf(*table, "status");
    if (status != nullptr && !status->is_number_unsigned())
    {
        fail(LoadStatus::badTable,
             name + ".status is not an integer in 0..2^64-1");
    }
    return *table;
}

template <typename Record>
std::size_t fieldIndex(const std::string& member, const std::string& where)
{
    const auto& names = Record::fieldNames;
    const auto* found = std::ranges::find(names, member);
    if (found == names.end())
    {
        fail(LoadStatus::badEntry,
             where + ": unknown member " + quoted(member));
    }
    return static_cast<std::size_t>(found - names.begin());
}

std::string stringMember(const Json& value, const std::string& member,
                         const std::string& where)
{
    const auto* text = value.get_ptr<const Json::string_t*>();
    if (text == nullptr)
    {
        fail(member == "key" ? LoadStatus::badKey : LoadStatus::badEntry,
             where + ": " + quoted(member) + " is not a string");
    }
    return *text;
}

// Negative numbers and those beyond 2^64-1 are held as other types.
std::uint64_t unsignedMember(const Json& value, const std::string& member,
                             const std::string& where)
{
    const auto* number = value.get_ptr<const Json::number_unsigned_t*>();
    if (number == nullptr)
    {
        fail(LoadStatus::badEntry,
             where + ": " + quoted(member) + " is not an integer in 0..2^64-1");
    }
    return *number;
}

// Members are judged in name order (a JSON object's order), so the problem
// reported does not depend on how the file orders them.
template <typename Record>
std::pair<std::string, Record> readEntry(const Json& entry,
                                         const std::string& where)
{
    const auto* members = entry.get_ptr<const Object*>();
    if (members == nullptr)
    {
        fail(LoadStatus::badEntry, where + " is not an object");
    }
    std::optional<std::string> key;
    std::string fqdd;
    typename Record::Values values{};
    for (const auto& [member, value] : *members)
    {
        if (member == "key")
        {
            key = stringMember(value, member, where);
        }
        else if (member == "fqdd")
        {
            fqdd = stringMember(value, member, where);
        }
        else
        {
            const std::size_t index = fieldIndex<Record>(member, where);
            values[index] = unsignedMember(value, member, where);
        }
    }
    if (!key)
    {
        fail(LoadStatus::badKey, where + " has no \"key\"");
    }
    return {std::move(*key), Record(std::move(fqdd), values)};
}

template <typename Record>
std::map<std::string, Record> readEntries(const Array& entries,
                                          const std::string& name)
{
    std::map<std::string, Record> records;
    for (std::size_t i = 0; i < entries.size(); ++i)
    {
        const std::string where = name + " entry " + std::to_string(i);
        auto [key, record] = readEntry<Record>(entries[i], where);
        const auto [slot, added] = records.try_emplace(std::move(key),
                                                       std::move(record));
        if (!added)
        {
            fail(LoadStatus::badKey,
                 where + ": duplicate key " + quoted(slot->first));
        }
    }
    return records;
}

void report(const std::string& path, const char* reason) noexcept
{
    // Nowhere else to turn when standard error fails.
    static_cast<void>(std::fprintf(stderr, "smartdata: %s%s%s\n", path.c_str(),
                                   path.empty() ? "" : ": ", reason));
}

// A table left out of the file is an empty one that loaded fine, so a file
// lists only the tables it needs.
template <typename Record>
std::uint64_t readTable(const Object& document, const std::string& name,
                        std::map<std::string, Record>& map)
{
    const Json* value = memberOf(document, name);
    if (value == nullptr)
    {
        return 0;
    }
    const Object& table = tableOf(*value, name);
    if (const Json* entries = memberOf(table, "entries"); entries != nullptr)
    {
        auto records = readEntries<Record>(*entries->get_ptr<const Array*>(),
                                           name);
        map.merge(records);
    }
    const Json* status = memberOf(table, "status");
    return status == nullptr
               ? 0
               : *status->get_ptr<const Json::number_unsigned_t*>();
}

// Each call reads the file afresh, so a table always comes from the file as
// it is now. Nothing reaches the caller's map unless the whole table is
// good; every failure becomes a status and one line on standard error.
template <typename Record>
std::uint64_t loadTable(std::map<std::string, Record>& map,
                        const char* name) noexcept
{
    std::string path;
    try
    {
        path = tablesPath();
        return readTable(parseFile(path), name, map);
    }
    catch (const LoadError& e)
    {
        report(path, e.what());
        return static_cast<std::uint64_t>(e.status);
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

namespace DataAbstraction
{

std::uint64_t
    smartdatasassata::get_map(std::map<std::string, smartdatasassata_gen>& map)
{
    return loadTable(map, "sasSata");
}

std::uint64_t
    smartdatanvme::get_map(std::map<std::string, smartdatanvme_gen>& map)
{
    return loadTable(map, "nvme");
}

} // namespace DataAbstraction
