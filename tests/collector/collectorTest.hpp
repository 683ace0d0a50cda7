#pragma once

#include "dlogCapture.hpp"
#include "privateBus.hpp"
#include "qvDbusCollectCommon.hpp"
#include "qvDbusCollectSmartData.hpp"
#include "simulator.hpp"
#include "tempDir.hpp"

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace collectortest
{

constexpr int collectorModule = 171;

// Multi-byte fields of the packed record must not bind to the references
// that assertions take (they may be misaligned); compare copies.
template <typename T>
T copyOf(T value)
{
    return value;
}

// The collector's own log lines as "level|text", with the source line
// number replaced by '#' so the expectations survive edits of the file.
inline std::vector<std::string> collectorLines(const dlog::Capture& capture)
{
    const std::string file = "qvDbusCollectSmartData.";
    std::vector<std::string> lines;
    for (const auto& record : capture.records())
    {
        if (record.module != collectorModule)
        {
            continue;
        }
        std::string text = record.text;
        if (text.starts_with(file))
        {
            const auto digits =
                text.find_first_not_of("0123456789", file.size());
            text.replace(file.size(), digits - file.size(), "#");
        }
        lines.push_back(std::to_string(record.level) + "|" + text);
    }
    return lines;
}

// One bus per test process: the default connections of sd-bus stay bound
// to the first bus they met.
inline const testsupport::PrivateBus& sharedBus()
{
    static const testsupport::PrivateBus bus;
    static const bool exported = (bus.exportToEnvironment(), true);
    (void)exported;
    return bus;
}

// One scenario file serving both the simulator and the SMART table
// stand-in. Every process-wide cache starts empty again.
class Server
{
public:
    explicit Server(const std::string& json) :
        file(testsupport::Simulator::writeScenario(dir, json)),
        simulator(useTables(file), sharedBus())
    {}

    const testsupport::TempDir& scratch() const
    {
        return dir;
    }

private:
    testsupport::TempDir dir;
    std::string file;
    testsupport::Simulator simulator;

    static const std::string& useTables(const std::string& path)
    {
        setenv("PLATFORM_SMART_TABLES", path.c_str(), 1);
        sasSataMapLoaded = false;
        nvmeMapLoaded = false;
        driveObjPathsLoaded = false;
        driveObjPaths.clear();
        return path;
    }
};

// A drive object of the inventory, as scenario JSON.
inline std::string driveObject(int number, const std::string& fqdd,
                               int protocol, int attributes)
{
    return R"({"path": "/com/kest/omrix/storage/drive/)" +
           std::to_string(number) +
           R"(", "interfaces": {"com.kest.omrix.storage.drive.inventory": )"
           R"({"Fqdd": ["s", ")" +
           fqdd + R"("], "Protocol": ["u", )" + std::to_string(protocol) +
           R"(], "Attributes": ["u", )" + std::to_string(attributes) + "]}}}";
}

// Everything written to std::cerr while alive.
class CerrCapture
{
public:
    CerrCapture() : previous(std::cerr.rdbuf(captured.rdbuf()))
    {}
    ~CerrCapture()
    {
        std::cerr.rdbuf(previous);
    }
    CerrCapture(const CerrCapture&) = delete;
    CerrCapture& operator=(const CerrCapture&) = delete;

    std::string text() const
    {
        return captured.str();
    }

private:
    std::ostringstream captured;
    std::streambuf* previous;
};

} // namespace collectortest
