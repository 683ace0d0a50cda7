#pragma once

#include "childProcess.hpp"
#include "privateBus.hpp"
#include "tempDir.hpp"

#include <cstddef>
#include <string>
#include <vector>

namespace testsupport
{

// A private file-system root for runs of the shipped collector. Inside it
// the program sees the host's /usr, /etc, /dev and /proc, its own build
// directory, and a fresh /mmc2 of its own, so the fixed report paths land
// in a temporary directory. The log goes to /dlog.log inside the root.
class CollectorRoot
{
public:
    // The directory of the two collection files exists unless told not to.
    explicit CollectorRoot(bool withCollectionDir = true);
    ~CollectorRoot();
    CollectorRoot(const CollectorRoot&) = delete;
    CollectorRoot& operator=(const CollectorRoot&) = delete;

    // The collector sees the directory `inside` read-only.
    void readOnly(const std::string& inside);
    // Puts a tmpfs of `bytes` over the directory `inside`, for this root's
    // lifetime. The mount lives in a mount namespace private to the test
    // process (entered on first use), so the test can fill and read it and
    // nothing of it reaches the host.
    void smallDisk(const std::string& inside, size_t bytes);

    // Host path of a path inside the root.
    std::string hostPath(const std::string& inside) const;
    std::string read(const std::string& inside) const;
    bool exists(const std::string& inside) const;
    void write(const std::string& inside, const std::string& content) const;

    // Runs the collector with `args` against `bus`, the SMART tables taken
    // from the host file `tablesFile`. QV_COLLECTOR names another build of
    // the collector to run (an AArch64 one, say) and QV_COLLECTOR_WRAPPER a
    // command line to run it under (valgrind, qemu-aarch64), words
    // separated by blanks.
    RunResult run(const std::vector<std::string>& args, const PrivateBus& bus,
                  const std::string& tablesFile,
                  const EnvChanges& extra = {}) const;

    // How `run` starts the collector, for callers that start it themselves
    // (benchmarks): the command line, its environment and the jail.
    struct Command
    {
        std::vector<std::string> argv;
        EnvChanges env;
    };
    Command prepare(const std::vector<std::string>& args, const PrivateBus& bus,
                    const std::string& tablesFile,
                    const EnvChanges& extra = {}) const;
    const Jail& confinement() const
    {
        return jail;
    }
    // Makes a host directory visible at the same path inside the root.
    void expose(const std::string& hostDir)
    {
        addBind(hostDir);
    }

    // The diagnostic log written so far.
    std::string log() const
    {
        return read("/dlog.log");
    }

    // The collector this test run exercises.
    static const std::string& collectorPath();

private:
    TempDir root;
    Jail jail;
    std::vector<std::string> mounts;

    void addBind(const std::string& hostDir);
};

// Paths of the reports inside the root.
inline constexpr const char* smartLogsPath =
    "/mmc2/qvcollection/vok/storagelog/SmartLogs.json";
inline constexpr const char* smartRawDataPath =
    "/mmc2/qvcollection/vok/storagelog/SmartRawData.json";
inline constexpr const char* dailyDir = "/mmc2/mas032/smartlogs/";

} // namespace testsupport
