#pragma once

#include "collectorRoot.hpp"
#include "privateBus.hpp"
#include "simulator.hpp"
#include "tempDir.hpp"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <memory>
#include <string>
#include <vector>

namespace e2e
{

using nlohmann::json;
using testsupport::EnvChanges;
using testsupport::RunResult;

// Drive classification values as the platform reports them.
inline constexpr uint32_t sata = 0x10;
inline constexpr uint32_t sas = 0x20;
inline constexpr uint32_t nvmeProtocol = 0x40;
inline constexpr uint32_t solidState = 0x2;

inline constexpr const char* driveInventory =
    "com.kest.omrix.storage.drive.inventory";

// A whole server as the collector meets it: SMART tables, inventory and
// storage service, kept as one scenario document.
class Server
{
public:
    Server();

    // An entry of the SAS/SATA table; `values` adds accessor members.
    Server& tableEntry(const std::string& key, const std::string& fqdd,
                       uint32_t protocol, uint32_t attributes,
                       const json& values = json::object());
    Server& nvmeEntry(const std::string& key, const std::string& fqdd,
                      uint32_t protocol, const json& values = json::object());
    // A drive object of the inventory (listed in call order).
    Server& inventoryDrive(const std::string& name, const std::string& fqdd,
                           uint32_t protocol, uint32_t attributes);
    // Storage-service answers for a drive, as the simulator reads them.
    Server& rawData(const std::string& fqdd, const json& answer);
    Server& sasPages(const std::string& fqdd, const json& answer);
    Server& sataPages(const std::string& fqdd, const json& answer);

    json doc;
};

// One test = one private bus, one simulator, one private file-system root.
class CollectorTest : public ::testing::Test
{
protected:
    // Serves `server` and runs the shipped collector with `args`. After a
    // successful run every report file must be well formed.
    RunResult run(const Server& server, const std::vector<std::string>& args,
                  const EnvChanges& env = {});

    // The log, one entry per record, line numbers replaced by "L".
    std::vector<std::string> logLines() const;
    // Whether some log record equals `line` (after normalising).
    bool logged(const std::string& line) const;

    // Report files of the collection and daily modes, inside the root.
    std::string smartLogs() const;
    std::string rawData() const;
    std::vector<std::string> dailyFiles() const;

    // Cleared by the few tests whose described output is unbalanced.
    bool expectWellFormed = true;

    testsupport::PrivateBus bus;
    testsupport::TempDir dir;
    std::unique_ptr<testsupport::CollectorRoot> root =
        std::make_unique<testsupport::CollectorRoot>();
    std::unique_ptr<testsupport::Simulator> sim;
};

// qv-smart-report --format json over a report file of the host.
RunResult readWithReportTool(const std::string& file);

// Why `text` is not a sequence of report documents (objects of quoted
// names whose values are quoted texts or further objects, a comma allowed
// after every member); empty when it is one.
std::string malformation(const std::string& text);

// Hex text of `count` octets counting up from `first`.
std::string countingHex(unsigned first, unsigned count);

} // namespace e2e
