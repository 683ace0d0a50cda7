#include "simulator.hpp"

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
    static const std::string path = STORAGE_SIM_PATH;
    return path;
}

std::string Simulator::writeScenario(const TempDir& dir,
                                     const std::string& json,
                                     const std::string& name)
{
    return dir.write(name, json);
}

} // namespace testsupport
