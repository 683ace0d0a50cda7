#include "qvDbusCollectCommon.hpp"

#include "dlog.hpp"

#include <pthread.h>
#include <systemd/sd-bus.h>

#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>

#include <cerrno>
#include <csignal>
#include <set>
#include <string_view>

std::list<std::string> driveObjPaths;
bool driveObjPathsLoaded = false;

namespace
{

constexpr int logLevel = 9;
constexpr int logModule = 172;

constexpr const char* storageService = "com.kest.omrix.storage";
constexpr const char* storageRoot = "/com/kest/omrix/storage";

constexpr const char* mapperService = "xyz.openbmc_project.ObjectMapper";
constexpr const char* mapperPath = "/xyz/openbmc_project/object_mapper";
constexpr const char* mapperInterface = "xyz.openbmc_project.ObjectMapper";

constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";

// Index of the alternatives the inventory's properties must hold.
constexpr size_t stringAlternative = 0;
constexpr size_t uint32Alternative = 6;

// Every message of this file is prefixed with its base name.
std::string baseNameOf(std::string_view path)
{
    auto slash = path.find_last_of('/');
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

// Interface name, subtree root and interface filter of a storage object
// kind. Unknown kinds query the whole storage tree without a filter.
struct KindAddress
{
    std::string interface = storageService;
    std::string root = storageRoot;
    std::list<std::string> filter;
};

KindAddress addressOf(uint32_t objType)
{
    KindAddress address;
    if (objType == STORAGE_OBJ_CONTROLLER)
    {
        address.interface += ".controller.inventory";
        address.filter.push_back(address.interface);
        address.root += "/controller";
    }
    else if (objType == STORAGE_OBJ_DRIVE)
    {
        address.interface += ".drive.inventory";
        address.filter.push_back(address.interface);
        address.root += "/drive";
    }
    return address;
}

// The object list of a kind. Drives are listed once per process, also
// when that first listing came back empty; other kinds are listed anew.
const std::list<std::string>& objectsOf(uint32_t objType,
                                        const KindAddress& address)
{
    if (objType == STORAGE_OBJ_DRIVE)
    {
        if (!driveObjPathsLoaded)
        {
            driveObjPaths = GetObjectsSubTree(address.root, 0, address.filter);
            driveObjPathsLoaded = true;
        }
        return driveObjPaths;
    }
    static std::list<std::string> otherObjPaths;
    otherObjPaths = GetObjectsSubTree(address.root, 0, address.filter);
    return otherObjPaths;
}

void takeProperties(const DbusPropertyMap& properties, std::string* fqdd,
                    uint32_t* protocol, uint32_t* attributes)
{
    for (const auto& [name, value] : properties)
    {
        if (name == "Fqdd")
        {
            *fqdd = std::get<stringAlternative>(value);
        }
        else if (name == "Protocol")
        {
            *protocol = std::get<uint32Alternative>(value);
        }
        else if (name == "Attributes")
        {
            *attributes = std::get<uint32Alternative>(value);
        }
    }
}

} // namespace

namespace
{

// SIGUSR1 blocked from construction to destruction.
class CancelSignalHeld
{
  public:
    CancelSignalHeld()
    {
        sigset_t held;
        sigemptyset(&held);
        sigaddset(&held, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &held, &before);
    }
    ~CancelSignalHeld()
    {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    CancelSignalHeld(const CancelSignalHeld&) = delete;
    CancelSignalHeld& operator=(const CancelSignalHeld&) = delete;

  private:
    sigset_t before{};
};

} // namespace

sdbusplus::bus_t& getDefaultBus()
{
    static auto bus = [] {
        const CancelSignalHeld held;
        return sdbusplus::bus::new_default();
    }();
    return bus;
}

sdbusplus::bus_t newDefaultSystemBus()
{
    const CancelSignalHeld held;
    return sdbusplus::bus::new_default_system();
}

sdbusplus::message_t callOnce(sdbusplus::bus_t& bus, sdbusplus::message_t& call)
{
    const CancelSignalHeld held;
    return bus.call(call, uint64_t{0});
}

namespace
{

void check(int r, const char* function)
{
    if (r < 0)
    {
        throw sdbusplus::exception::SdBusError(-r, function);
    }
}

// sd-bus answers 0 for a typed read that does not match; that is an error
// here, as it is for the binding's own readers.
void checkRead(int r, const char* function)
{
    check(r, function);
    if (r == 0)
    {
        throw sdbusplus::exception::SdBusError(ENXIO, function);
    }
}

// Steps over the `a{sas}` of one object. Reading the strings is several
// times cheaper than sd_bus_message_skip on such nested arrays.
void skipServices(sd_bus_message* m)
{
    checkRead(sd_bus_message_enter_container(m, 'a', "{sas}"),
              "sd_bus_message_enter_container");
    const char* text = nullptr;
    int entry = 0;
    while ((entry = sd_bus_message_enter_container(m, 'e', "sas")) > 0)
    {
        checkRead(sd_bus_message_read_basic(m, 's', &text),
                  "sd_bus_message_read_basic");
        checkRead(sd_bus_message_enter_container(m, 'a', "s"),
                  "sd_bus_message_enter_container");
        int r = 0;
        while ((r = sd_bus_message_read_basic(m, 's', &text)) > 0)
        {}
        check(r, "sd_bus_message_read_basic");
        check(sd_bus_message_exit_container(m),
              "sd_bus_message_exit_container");
        check(sd_bus_message_exit_container(m),
              "sd_bus_message_exit_container");
    }
    check(entry, "sd_bus_message_enter_container");
    check(sd_bus_message_exit_container(m), "sd_bus_message_exit_container");
}

// The object paths of a whole GetSubTree reply, in the order and with the
// duplicates resolved as a DbusSubTree holds them. Only the paths are kept:
// the services and interfaces that the caller drops would cost a large
// inventory several hundred KiB. A reply of another signature fails at the
// first step, as reading it into a DbusSubTree does.
std::set<std::string> readSubTreePaths(sdbusplus::message_t& reply)
{
    sd_bus_message* m = reply.get();
    std::set<std::string> paths;
    checkRead(sd_bus_message_enter_container(m, 'a', "{sa{sas}}"),
              "sd_bus_message_enter_container");
    for (;;)
    {
        const int atEnd = sd_bus_message_at_end(m, 0);
        check(atEnd, "sd_bus_message_at_end");
        if (atEnd > 0)
        {
            break;
        }
        checkRead(sd_bus_message_enter_container(m, 'e', "sa{sas}"),
                  "sd_bus_message_enter_container");
        const char* path = nullptr;
        checkRead(sd_bus_message_read_basic(m, 's', &path),
                  "sd_bus_message_read_basic");
        skipServices(m);
        check(sd_bus_message_exit_container(m),
              "sd_bus_message_exit_container");
        paths.emplace(path);
    }
    check(sd_bus_message_exit_container(m), "sd_bus_message_exit_container");
    return paths;
}

// Asks the mapper; the call and reply messages are released on return.
std::set<std::string>
    querySubTreePaths(const std::string& path, int32_t depth,
                      const std::list<std::string>& interfaces)
{
    auto& bus = getDefaultBus();
    auto method = bus.new_method_call(mapperService, mapperPath,
                                      mapperInterface, "GetSubTree");
    method.append(path, depth, interfaces);
    auto reply = callOnce(bus, method);
    return readSubTreePaths(reply);
}

} // namespace

std::list<std::string>
    GetObjectsSubTree(const std::string& path, int32_t depth,
                      const std::list<std::string>& interfaces)
{
    std::list<std::string> objectPaths;
    try
    {
        auto subTree = querySubTreePaths(path, depth, interfaces);
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: %s: No. of objects found = %d\n", fileName(),
                    __LINE__, __func__, __func__,
                    static_cast<int>(subTree.size()));
        while (!subTree.empty())
        {
            objectPaths.push_back(
                std::move(subTree.extract(subTree.begin()).value()));
            dlog_printf(logLevel, logModule, "%s.%d.%s: [%s] %s\n", fileName(),
                        __LINE__, __func__, __func__,
                        objectPaths.back().c_str());
        }
    }
    catch (const std::exception& e)
    {
        dlog_printf(logLevel, logModule, "%s.%d.%s: ERROR:%s\n", fileName(),
                    __LINE__, __func__, e.what());
    }
    return objectPaths;
}

int getStorageObjCount(uint32_t objType)
{
    KindAddress address = addressOf(objType);
    auto objects = GetObjectsSubTree(address.root, 0, address.filter);
    int count = static_cast<int>(objects.size());
    dlog_printf(logLevel, logModule, "%s.%d.%s: objCount:%d\n", fileName(),
                __LINE__, __func__, count);
    return count;
}

int GetAll_DbusPropertyBasicVariant(const std::string& service,
                                    const std::string& objectPath,
                                    const std::string& interface,
                                    DbusPropertyMap& properties)
{
    try
    {
        auto& bus = getDefaultBus();
        auto method = bus.new_method_call(service.c_str(), objectPath.c_str(),
                                          propertiesInterface, "GetAll");
        method.append(interface);
        auto reply = callOnce(bus, method);
        reply.read(properties);
    }
    catch (const sdbusplus::exception::exception& e)
    {
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: [%s]:  failed to set Dbus property error =%s",
                    fileName(), __LINE__, __func__, __func__, e.what());
        return 1;
    }
    return 0;
}

int getStorageObjInfo(uint32_t objType, std::string* fqdd, uint32_t* protocol,
                      uint32_t* attributes, int index)
{
    KindAddress address = addressOf(objType);
    const auto& objects = objectsOf(objType, address);
    if (objects.empty())
    {
        dlog_printf(logLevel, logModule, "%s.%d.%s: No storage objects found\n",
                    fileName(), __LINE__, __func__);
        return -1;
    }

    // A 16-bit position: indexes below 0 or above 65535 never match. An
    // object whose properties cannot be read hands its position on to the
    // next one.
    uint16_t position = 0;
    DbusPropertyMap properties;
    for (const auto& path : objects)
    {
        if (position != index)
        {
            ++position;
            continue;
        }
        properties.clear();
        if (GetAll_DbusPropertyBasicVariant(storageService, path,
                                            address.interface, properties) == 0)
        {
            takeProperties(properties, fqdd, protocol, attributes);
            return 0;
        }
        dlog_printf(logLevel, logModule,
                    "%s.%d.%s: [%s]: failed to get property", fileName(),
                    __LINE__, __func__, __func__);
    }
    return 0;
}
