#pragma once

#include "childProcess.hpp"
#include "privateBus.hpp"
#include "tempDir.hpp"

#include <sys/types.h>

#include <string>

namespace testsupport
{

// The storage service and object mapper simulator (tools/storage-sim),
// serving one scenario file on a private bus. The constructor returns once
// the simulator owns its names; the destructor stops it.
class Simulator
{
public:
    Simulator(const std::string& scenarioFile, const PrivateBus& bus);
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    pid_t pid() const
    {
        return process.pid();
    }

    // Stops the simulator (SIGTERM, SIGKILL after 5 s) and returns its wait
    // status; later calls return the same status.
    int stop();

    // The command line that starts the simulator on `scenarioFile`.
    static std::vector<std::string> command(const std::string& scenarioFile);

    // Writes `json` to `name` inside `dir`; returns the file's path.
    static std::string writeScenario(const TempDir& dir,
                                     const std::string& json,
                                     const std::string& name = "scenario.json");

private:
    ChildProcess process;
};

} // namespace testsupport
