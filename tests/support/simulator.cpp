#include "simulator.hpp"

#include <cstdlib>
#include <stdexcept>

namespace testsupport
{

Simulator::Simulator(const std::string& scenarioFile, const PrivateBus& bus) :
    process({executablePath(), "--scenario", scenarioFile}, bus.environment())
{
    std::string line;
    try
    {
        line = process.readLine(std::chrono::seconds(10));
    }
    catch (const std::runtime_error& e)
    {
        throw std::runtime_error("storage-sim did not become ready for " +
                                 scenarioFile + " (" + e.what() +
                                 "; its messages are on standard error)");
    }
    if (line != "ready")
    {
        throw std::runtime_error("storage-sim printed \"" + line +
                                 "\" instead of \"ready\"");
    }
}

Simulator::~Simulator() = default;

int Simulator::stop()
{
    return process.stop();
}

const std::string& Simulator::executablePath()
{
    // A cross build's own simulator cannot run here; STORAGE_SIM names a
    // native one to serve its tests instead.
    static const std::string path = [] {
        const char* chosen = std::getenv("STORAGE_SIM");
        return std::string(
            chosen != nullptr && *chosen != '\0' ? chosen : STORAGE_SIM_PATH);
    }();
    return path;
}

std::string Simulator::writeScenario(const TempDir& dir,
                                     const std::string& json,
                                     const std::string& name)
{
    return dir.write(name, json);
}

} // namespace testsupport
