#include "scenario.hpp"
#include "server.hpp"

#include <csignal>
#include <iostream>
#include <string>
#include <string_view>

namespace
{

constexpr int exitBusFailure = 1;
constexpr int exitBadInput = 2;

const char* usage = "usage: storage-sim --scenario FILE\n";

// The scenario file named on the command line; empty when the command line
// is not usable.
std::string scenarioArgument(int argc, char** argv)
{
    if (argc == 3 && std::string_view(argv[1]) == "--scenario")
    {
        return argv[2];
    }
    constexpr std::string_view joined = "--scenario=";
    if (argc == 2 && std::string_view(argv[1]).starts_with(joined))
    {
        return {argv[1] + joined.size()};
    }
    return {};
}

// sd-event takes the signals through a signalfd, which only sees blocked
// signals.
void blockStopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

int serve(storagesim::Scenario scenario)
{
    storagesim::Server server(std::move(scenario));
    server.checkScenario();
    server.start();
    std::cout << "ready" << std::endl;
    int code = server.run();
    if (code != 0)
    {
        std::cerr << "storage-sim: lost the bus connection" << std::endl;
    }
    return code;
}

} // namespace

int main(int argc, char** argv)
{
    std::string file = scenarioArgument(argc, argv);
    if (file.empty())
    {
        std::cerr << usage;
        return exitBadInput;
    }
    try
    {
        blockStopSignals();
        return serve(storagesim::loadScenario(file));
    }
    catch (const storagesim::ScenarioError& e)
    {
        std::cerr << "storage-sim: bad scenario " << file << ": " << e.what()
                  << std::endl;
        return exitBadInput;
    }
    catch (const std::exception& e)
    {
        std::cerr << "storage-sim: " << e.what() << std::endl;
        return exitBusFailure;
    }
}
