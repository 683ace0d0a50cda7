#pragma once

#include "encoder.hpp"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace storagesim
{

inline constexpr const char* mapperName = "xyz.openbmc_project.ObjectMapper";
inline constexpr const char* mapperPath = "/xyz/openbmc_project/object_mapper";
inline constexpr const char* mapperInterface =
    "xyz.openbmc_project.ObjectMapper";
inline constexpr const char* storageName = "com.kest.omrix.storage";
inline constexpr const char* drivePath = "/com/kest/omrix/storage/drive";
inline constexpr const char* driveInterface =
    "com.kest.omrix.storage.drive.service";
inline constexpr const char* notFoundError =
    "com.kest.omrix.storage.Error.NotFound";

// Number of log pages in a SATA and in a SAS hard-drive reply.
inline constexpr std::size_t sataPageCount = 5;
inline constexpr std::size_t sasPageCount = 7;

// A scenario file that cannot be served; the text names the member.
class ScenarioError : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

struct DbusError
{
    std::string name;
    std::string message;
};

// A reply body written as a signature and one JSON value per complete type.
struct Body
{
    std::string signature;
    Json values;
};

// How a handler departs from its normal answer.
struct Fault
{
    std::optional<DbusError> error;
    std::chrono::milliseconds delay{0};
    bool noReply = false;
    int signalCaller = 0;     // sent to the caller when its call arrives
    uint32_t signalCount = 1; // a storm: this many, one every signalEvery
    std::chrono::milliseconds signalEvery{2};
    uint32_t fromCall = 1; // earlier calls of the handler are answered normally
    std::optional<Body> reply;
    std::optional<Body> extra;
};

struct Property
{
    std::string name;
    std::string signature;
    Json value;
};

struct Interface
{
    std::string name;
    std::vector<Property> properties;
};

struct InventoryObject
{
    std::string path;
    std::string service;
    std::vector<Interface> interfaces;
    Fault getAll;

    const Interface* findInterface(const std::string& name) const;
};

struct StatusPair
{
    uint64_t primary = 0;
    uint64_t secondary = 0;
};

struct RawDataEntry
{
    StatusPair status;
    std::vector<uint8_t> data;
    Fault fault;
};

struct LogPage
{
    uint8_t code = 0;
    uint16_t length = 0;
    std::vector<uint8_t> data;
};

// A hard-drive reply. The fields named by position are read past by the
// collector; they are here so a test can still vary them.
struct HardDriveEntry
{
    StatusPair status;
    uint8_t field1 = 0;
    uint32_t field2 = 0;
    uint32_t protocol = 0;
    uint64_t field4 = 0;
    uint32_t attributes = 0;
    std::string field6;
    std::string field7;
    std::vector<LogPage> pages; // padded to the method's page count
    Fault fault;
};

struct DriveEntry
{
    std::optional<RawDataEntry> rawData;
    std::optional<HardDriveEntry> sataHdd;
    std::optional<HardDriveEntry> sasHdd;
};

// How GetSubTree builds its answer.
enum class MapperMode
{
    plain,    // the listed objects as they stand, in scenario order
    realLike, // the way the OpenBMC object mapper answers
};

struct Scenario
{
    bool ownMapper = true;
    bool ownStorage = true;
    std::vector<InventoryObject> objects;
    Fault mapper;
    MapperMode mapperMode = MapperMode::plain;
    // Real-like only: how long after start-up the mapper is still
    // discovering the services' objects.
    std::chrono::milliseconds discovery{0};
    std::map<std::string, DriveEntry> drives;
    std::optional<std::string> callLog;
};

Scenario parseScenario(const std::string& text);

// Reads and parses a file; every failure is a ScenarioError.
Scenario loadScenario(const std::string& fileName);

} // namespace storagesim
