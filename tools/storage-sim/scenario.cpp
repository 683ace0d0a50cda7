#include "scenario.hpp"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <set>
#include <string_view>
#include <utility>

namespace storagesim
{
namespace
{

// Largest byte array D-Bus carries.
constexpr uint64_t maxArrayLength = uint64_t{64} * 1024 * 1024;

const std::initializer_list<std::string_view> faultMembers = {
    "error",        "delayMs",     "noReply",       "reply",   "extra",
    "signalCaller", "signalCount", "signalEveryMs", "fromCall"};

// A JSON value together with where it sits in the file, so every complaint
// can name the member at fault.
class Node
{
  public:
    Node(const Json& value, std::string where) :
        value(value), where(std::move(where))
    {}

    [[noreturn]] void fail(const std::string& what) const
    {
        throw ScenarioError(where + ": " + what);
    }

    const Json& json() const
    {
        return value;
    }

    bool has(const char* key) const
    {
        return value.contains(key);
    }

    Node member(const std::string& key) const
    {
        return {value.at(key), where + "." + key};
    }

    Node element(std::size_t index) const
    {
        return {value.at(index), where + "[" + std::to_string(index) + "]"};
    }

    const Node& requireObject() const
    {
        if (!value.is_object())
        {
            fail("expected a JSON object");
        }
        return *this;
    }

    const Node& requireArray() const
    {
        if (!value.is_array())
        {
            fail("expected a JSON array");
        }
        return *this;
    }

    // Object with no members beyond `allowed` (and "comment"); the lists
    // are joined so a fault may sit beside the data it disturbs.
    const Node& allowOnly(
        std::initializer_list<std::initializer_list<std::string_view>> allowed)
        const
    {
        requireObject();
        for (const auto& [key, item] : value.items())
        {
            bool known = key == "comment";
            for (const auto& list : allowed)
            {
                known = known ||
                        std::find(list.begin(), list.end(), key) != list.end();
            }
            if (!known)
            {
                fail("unknown member \"" + key + "\"");
            }
        }
        return *this;
    }

    std::string text() const
    {
        if (!value.is_string())
        {
            fail("expected a string");
        }
        return value.get<std::string>();
    }

    bool flag() const
    {
        if (!value.is_boolean())
        {
            fail("expected true or false");
        }
        return value.get<bool>();
    }

    template <typename T>
    T integer() const
    {
        bool fits = value.is_number_unsigned()
                        ? std::in_range<T>(value.get<uint64_t>())
                        : value.is_number_integer() &&
                              std::in_range<T>(value.get<int64_t>());
        if (!fits)
        {
            fail("expected an integer from " +
                 std::to_string(std::numeric_limits<T>::min()) + " to " +
                 std::to_string(std::numeric_limits<T>::max()));
        }
        return value.is_number_unsigned()
                   ? static_cast<T>(value.get<uint64_t>())
                   : static_cast<T>(value.get<int64_t>());
    }

    template <typename T>
    T integerOr(const char* key, T fallback) const
    {
        return has(key) ? member(key).integer<T>() : fallback;
    }

    std::string textOr(const char* key, const std::string& fallback) const
    {
        return has(key) ? member(key).text() : fallback;
    }

  private:
    const Json& value;
    std::string where;
};

std::string busName(const Node& node, int (*valid)(const char*),
                    const char* kind)
{
    std::string name = node.text();
    if (valid(name.c_str()) <= 0)
    {
        node.fail("\"" + name + "\" is not a valid " + kind);
    }
    return name;
}

Body parseBody(const Node& node)
{
    node.allowOnly({{"signature", "values"}});
    Body body{node.member("signature").text(),
              node.has("values") ? node.member("values").json()
                                 : Json::array()};
    try
    {
        if (splitSignature(body.signature).size() != body.values.size())
        {
            node.fail("\"values\" must hold one value per complete type of "
                      "the signature");
        }
    }
    catch (const EncodeError& e)
    {
        node.fail(e.what());
    }
    return body;
}

DbusError parseError(const Node& node)
{
    node.allowOnly({{"name", "message"}});
    return {busName(node.member("name"), sd_bus_interface_name_is_valid,
                    "D-Bus error name"),
            node.textOr("message", "")};
}

// Reads the fault members of `node`; the caller has checked the rest.
Fault parseFault(const Node& node)
{
    Fault fault;
    if (node.has("error"))
    {
        fault.error = parseError(node.member("error"));
    }
    fault.delay =
        std::chrono::milliseconds(node.integerOr<uint32_t>("delayMs", 0));
    fault.noReply = node.has("noReply") && node.member("noReply").flag();
    fault.signalCaller = node.integerOr<uint8_t>("signalCaller", 0);
    if (fault.signalCaller >= NSIG)
    {
        node.member("signalCaller").fail("not a signal number");
    }
    fault.signalCount = node.integerOr<uint32_t>("signalCount", 1);
    fault.signalEvery =
        std::chrono::milliseconds(node.integerOr<uint32_t>("signalEveryMs", 2));
    fault.fromCall = node.integerOr<uint32_t>("fromCall", 1);
    if (node.has("reply"))
    {
        fault.reply = parseBody(node.member("reply"));
    }
    if (node.has("extra"))
    {
        fault.extra = parseBody(node.member("extra"));
    }
    if (fault.error && (fault.reply || fault.extra))
    {
        node.fail(R"("error" cannot be combined with "reply" or "extra")");
    }
    if (fault.reply && fault.extra)
    {
        node.fail(R"("reply" already is the whole body; drop "extra")");
    }
    if (fault.noReply &&
        (fault.error || fault.reply || fault.extra || fault.delay.count() > 0))
    {
        node.fail(R"("noReply" cannot be combined with other fault members)");
    }
    return fault;
}

Fault parseStandaloneFault(const Node& node)
{
    node.allowOnly({faultMembers});
    return parseFault(node);
}

std::vector<uint8_t> generatedBytes(uint64_t length)
{
    std::vector<uint8_t> bytes(length);
    for (uint64_t i = 0; i < length; ++i)
    {
        bytes[i] = static_cast<uint8_t>(i & 0xff);
    }
    return bytes;
}

// "data" (hex text or an array of octets) or "dataLength" (octets counting
// up from 0 and wrapping at 256); neither gives no octets.
std::vector<uint8_t> parseBytes(const Node& node)
{
    if (node.has("data") && node.has("dataLength"))
    {
        node.fail(R"(give "data" or "dataLength", not both)");
    }
    if (node.has("dataLength"))
    {
        auto length = node.member("dataLength").integer<uint64_t>();
        if (length > maxArrayLength)
        {
            node.member("dataLength").fail("larger than a D-Bus array");
        }
        return generatedBytes(length);
    }
    if (!node.has("data"))
    {
        return {};
    }
    Node data = node.member("data");
    if (data.json().is_string())
    {
        try
        {
            return decodeHex(data.text());
        }
        catch (const EncodeError& e)
        {
            data.fail(e.what());
        }
    }
    data.requireArray();
    std::vector<uint8_t> bytes;
    for (std::size_t i = 0; i < data.json().size(); ++i)
    {
        bytes.push_back(data.element(i).integer<uint8_t>());
    }
    return bytes;
}

StatusPair parseStatus(const Node& node)
{
    if (!node.has("status"))
    {
        return {};
    }
    Node status = node.member("status");
    if (!status.json().is_array() || status.json().size() != 2)
    {
        status.fail("expected [primaryErr, secondaryErr]");
    }
    return {status.element(0).integer<uint64_t>(),
            status.element(1).integer<uint64_t>()};
}

RawDataEntry parseRawData(const Node& node)
{
    node.allowOnly({{"status", "data", "dataLength"}, faultMembers});
    return {parseStatus(node), parseBytes(node), parseFault(node)};
}

LogPage parsePage(const Node& node)
{
    node.allowOnly({{"code", "length", "data", "dataLength"}});
    LogPage page;
    page.code = node.integerOr<uint8_t>("code", 0);
    page.data = parseBytes(node);
    if (node.has("length"))
    {
        page.length = node.member("length").integer<uint16_t>();
    }
    else if (page.data.size() > UINT16_MAX)
    {
        node.fail("data longer than 65535 octets needs an explicit "
                  "\"length\"");
    }
    else
    {
        page.length = static_cast<uint16_t>(page.data.size());
    }
    return page;
}

std::vector<LogPage> parsePages(const Node& node, std::size_t count)
{
    std::vector<LogPage> pages;
    if (node.has("pages"))
    {
        Node list = node.member("pages");
        list.requireArray();
        if (list.json().size() > count)
        {
            list.fail("at most " + std::to_string(count) +
                      " pages; use \"extra\" for more reply fields");
        }
        for (std::size_t i = 0; i < list.json().size(); ++i)
        {
            pages.push_back(parsePage(list.element(i)));
        }
    }
    pages.resize(count);
    return pages;
}

HardDriveEntry parseHardDrive(const Node& node, std::size_t pageCount)
{
    node.allowOnly({{"status", "field1", "field2", "protocol", "field4",
                     "attributes", "field6", "field7", "pages"},
                    faultMembers});
    HardDriveEntry entry;
    entry.status = parseStatus(node);
    entry.field1 = node.integerOr<uint8_t>("field1", 0);
    entry.field2 = node.integerOr<uint32_t>("field2", 0);
    entry.protocol = node.integerOr<uint32_t>("protocol", 0);
    entry.field4 = node.integerOr<uint64_t>("field4", 0);
    entry.attributes = node.integerOr<uint32_t>("attributes", 0);
    entry.field6 = node.textOr("field6", "");
    entry.field7 = node.textOr("field7", "");
    entry.pages = parsePages(node, pageCount);
    entry.fault = parseFault(node);
    return entry;
}

DriveEntry parseDrive(const Node& node)
{
    node.allowOnly({{"rawData", "sataHdd", "sasHdd"}});
    DriveEntry drive;
    if (node.has("rawData"))
    {
        drive.rawData = parseRawData(node.member("rawData"));
    }
    if (node.has("sataHdd"))
    {
        drive.sataHdd = parseHardDrive(node.member("sataHdd"), sataPageCount);
    }
    if (node.has("sasHdd"))
    {
        drive.sasHdd = parseHardDrive(node.member("sasHdd"), sasPageCount);
    }
    return drive;
}

std::map<std::string, DriveEntry> parseDrives(const Node& node)
{
    node.requireObject();
    std::map<std::string, DriveEntry> drives;
    for (const auto& [fqdd, item] : node.json().items())
    {
        drives[fqdd] = parseDrive(node.member(fqdd));
    }
    return drives;
}

Property parseProperty(const Node& node, const std::string& name)
{
    if (!node.json().is_array() || node.json().size() != 2 ||
        !node.json()[0].is_string())
    {
        node.fail("expected [signature, value]");
    }
    Property property{name, node.element(0).text(), node.json()[1]};
    try
    {
        if (splitSignature(property.signature).size() != 1)
        {
            node.fail("the signature must be one complete type");
        }
    }
    catch (const EncodeError& e)
    {
        node.fail(e.what());
    }
    return property;
}

Interface parseInterface(const Node& node, const std::string& name)
{
    node.requireObject();
    Interface interface {
        name, {}
    };
    for (const auto& [property, item] : node.json().items())
    {
        if (sd_bus_member_name_is_valid(property.c_str()) <= 0)
        {
            node.fail("\"" + property + "\" is not a valid property name");
        }
        interface.properties.push_back(
            parseProperty(node.member(property), property));
    }
    return interface;
}

InventoryObject parseObject(const Node& node)
{
    node.allowOnly({{"path", "service", "interfaces", "getAll"}});
    InventoryObject object;
    object.path = busName(node.member("path"), sd_bus_object_path_is_valid,
                          "object path");
    object.service = node.has("service")
                         ? busName(node.member("service"),
                                   sd_bus_service_name_is_valid, "bus name")
                         : storageName;
    if (node.has("interfaces"))
    {
        Node interfaces = node.member("interfaces");
        interfaces.requireObject();
        for (const auto& [name, item] : interfaces.json().items())
        {
            if (sd_bus_interface_name_is_valid(name.c_str()) <= 0)
            {
                interfaces.fail("\"" + name +
                                "\" is not a valid interface name");
            }
            object.interfaces.push_back(
                parseInterface(interfaces.member(name), name));
        }
    }
    if (node.has("getAll"))
    {
        object.getAll = parseStandaloneFault(node.member("getAll"));
    }
    return object;
}

std::vector<InventoryObject> parseObjects(const Node& node)
{
    node.requireArray();
    std::vector<InventoryObject> objects;
    std::set<std::pair<std::string, std::string>> seen;
    for (std::size_t i = 0; i < node.json().size(); ++i)
    {
        objects.push_back(parseObject(node.element(i)));
        if (!seen.emplace(objects.back().path, objects.back().service).second)
        {
            node.element(i).fail("path and service are listed twice");
        }
    }
    return objects;
}

void parseNames(const Node& node, Scenario& scenario)
{
    node.allowOnly({{"mapper", "storage"}});
    if (node.has("mapper"))
    {
        scenario.ownMapper = node.member("mapper").flag();
    }
    if (node.has("storage"))
    {
        scenario.ownStorage = node.member("storage").flag();
    }
}

// The mapper's fault members and how it builds its answers.
void parseMapper(const Node& node, Scenario& scenario)
{
    node.allowOnly({faultMembers, {"mode", "discoveryMs"}});
    scenario.mapper = parseFault(node);
    if (node.has("mode"))
    {
        std::string mode = node.member("mode").text();
        if (mode == "real-like")
        {
            scenario.mapperMode = MapperMode::realLike;
        }
        else if (mode != "plain")
        {
            node.member("mode").fail(R"(expected "plain" or "real-like")");
        }
    }
    if (node.has("discoveryMs"))
    {
        if (scenario.mapperMode != MapperMode::realLike)
        {
            node.member("discoveryMs").fail(R"(needs "mode": "real-like")");
        }
        scenario.discovery = std::chrono::milliseconds(
            node.member("discoveryMs").integer<uint32_t>());
    }
}

} // namespace

const Interface* InventoryObject::findInterface(const std::string& name) const
{
    auto found = std::find_if(interfaces.begin(), interfaces.end(),
                              [&name](const Interface& interface) {
        return interface.name == name;
    });
    return found == interfaces.end() ? nullptr : &*found;
}

Scenario parseScenario(const std::string& text)
{
    Json document;
    try
    {
        document = Json::parse(text);
    }
    catch (const Json::parse_error& e)
    {
        throw ScenarioError(std::string("not valid JSON: ") + e.what());
    }
    // Members the simulator does not know belong to other readers of the
    // same file (the SMART table stand-in reads "sasSata" and "nvme").
    Node root(document, "scenario");
    root.requireObject();
    Scenario scenario;
    if (root.has("names"))
    {
        parseNames(root.member("names"), scenario);
    }
    if (root.has("objects"))
    {
        scenario.objects = parseObjects(root.member("objects"));
    }
    if (root.has("mapper"))
    {
        parseMapper(root.member("mapper"), scenario);
    }
    if (root.has("drives"))
    {
        scenario.drives = parseDrives(root.member("drives"));
    }
    if (root.has("callLog"))
    {
        scenario.callLog = root.member("callLog").text();
    }
    return scenario;
}

Scenario loadScenario(const std::string& fileName)
{
    std::ifstream in(fileName, std::ios::binary);
    if (!in)
    {
        throw ScenarioError("cannot open " + fileName);
    }
    std::string text(std::istreambuf_iterator<char>(in), {});
    return parseScenario(text);
}

} // namespace storagesim
