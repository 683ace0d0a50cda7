#include "simulator.hpp"

#include <stdexcept>

namespace testsupport
{

Simulator::Simulator(const std::string& scenarioFile, const PrivateBus& bus) :
    process(command(scenarioFile), bus.environment())
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

std::vector<std::string> Simulator::command(const std::string& scenarioFile)
{
    return targetCommand({STORAGE_SIM_PATH, "--scenario", scenarioFile});
}

std::string Simulator::writeScenario(const TempDir& dir,
                                     const std::string& json,
                                     const std::string& name)
{
    return dir.write(name, json);
}

} // namespace testsupport
