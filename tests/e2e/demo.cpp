// Runs the shipped collector once, in collection mode, over a simulated
// server: a private dbus-daemon, the storage simulator serving the scenario
// and a private file-system root for the report paths. Prints both reports,
// the diagnostic log's size and the exit code; everything it started is
// stopped on the way out.

#include "collectorRoot.hpp"
#include "privateBus.hpp"
#include "simulator.hpp"

#include <algorithm>
#include <iostream>

namespace
{

void printReport(const testsupport::CollectorRoot& root, const char* path)
{
    std::cout << "==== " << path << " ====\n";
    if (!root.exists(path))
    {
        std::cout << "(not written)\n";
        return;
    }
    std::cout << root.read(path) << "\n";
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 2)
    {
        std::cerr << "usage: " << argv[0] << " SCENARIO.json\n";
        return 64;
    }
    try
    {
        testsupport::PrivateBus bus;
        testsupport::Simulator simulator(argv[1], bus);
        testsupport::CollectorRoot root;
        auto result = root.run({"0"}, bus, argv[1]);

        printReport(root, testsupport::smartLogsPath);
        printReport(root, testsupport::smartRawDataPath);
        std::cerr << result.err;
        std::string log = root.log();
        std::cout << "==== diagnostic log: "
                  << std::count(log.begin(), log.end(), '\n')
                  << " records ====\n";
        std::cout << "exit code: " << result.exitCode << "\n";
        return result.exitCode == 0 ? 0 : 1;
    }
    catch (const std::exception& e)
    {
        std::cerr << "demo failed: " << e.what() << "\n";
        return 1;
    }
}
