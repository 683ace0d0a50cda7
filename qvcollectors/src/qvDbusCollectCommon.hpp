#pragma once

#include <sdbusplus/bus.hpp>
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <tuple>
#include <variant>
#include <vector>

// Storage object kinds of the storage service's inventory.
constexpr uint32_t STORAGE_OBJ_CONTROLLER = 769;
constexpr uint32_t STORAGE_OBJ_DRIVE = 772;

// Object path -> service name -> interfaces, as the object mapper answers.
using DbusSubTree =
    std::map<std::string, std::map<std::string, std::list<std::string>>>;

// Every property value the inventory can publish. A value of any other type
// reads as an empty string (alternative 0). The order is fixed: callers test
// alternative indexes.
using DbusBasicVariant = std::variant<
    std::string, bool, uint8_t, int16_t, uint16_t, int32_t, uint32_t, int64_t,
    uint64_t, double, std::vector<std::string>, std::vector<uint8_t>,
    std::vector<int16_t>, std::vector<uint16_t>, std::vector<int32_t>,
    std::vector<uint32_t>, std::vector<int64_t>, std::vector<uint64_t>,
    std::vector<double>, std::tuple<uint8_t, std::string>,
    std::vector<std::tuple<std::string, std::string>>,
    std::vector<std::tuple<std::string, std::string, uint32_t>>,
    std::vector<std::tuple<std::string, uint32_t>>,
    std::vector<
        std::tuple<std::string, uint32_t, uint32_t, uint32_t, uint32_t>>,
    std::tuple<uint8_t, uint8_t, uint8_t, uint8_t>>;

using DbusPropertyMap = std::map<std::string, DbusBasicVariant>;

// Drive objects of the inventory, listed once per process.
extern std::list<std::string> driveObjPaths;
extern bool driveObjPathsLoaded;

// The one connection shared by every inventory query, kept for the process.
// A failure to make it is not kept: the next query tries again.
sdbusplus::bus_t& getDefaultBus();

// The calling thread's default system-bus connection, for one storage call.
// Making a handle waits for the bus's greeting, which a cancel signal would
// cut short (the handle then fails to be made), so the signal is held back
// as it is for a call.
sdbusplus::bus_t newDefaultSystemBus();

// Sends `call` once and waits for its own reply, or for the call's own
// timeout. The cancel signal's handler has no SA_RESTART: a signal landing
// while sd-bus waits would end the wait with EINTR, and the reply that comes
// later would stay queued on the connection for the rest of the run. The
// signal is therefore held back for the length of the call and reaches its
// handler as soon as the call is over; a storm of them is one pending signal.
sdbusplus::message_t callOnce(sdbusplus::bus_t& bus,
                              sdbusplus::message_t& call);

// Object paths below `path` implementing one of `interfaces`, in byte order.
// Empty on every D-Bus failure.
std::list<std::string>
    GetObjectsSubTree(const std::string& path, int32_t depth,
                      const std::list<std::string>& interfaces);

// Number of inventory objects of a kind; 0 when none or the query failed.
int getStorageObjCount(uint32_t objType);

// Properties of one interface of one object. 0 on success, 1 when the
// binding raised an error.
int GetAll_DbusPropertyBasicVariant(const std::string& service,
                                    const std::string& objectPath,
                                    const std::string& interface,
                                    DbusPropertyMap& properties);

// FQDD, protocol and attributes of the index-th object of a kind. -1 when
// the kind has no object, else 0 (outputs written only where present).
int getStorageObjInfo(uint32_t objType, std::string* fqdd, uint32_t* protocol,
                      uint32_t* attributes, int index);
