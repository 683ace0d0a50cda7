#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace testsupport
{

// Environment changes for a child: a value sets the variable, std::nullopt
// removes it. Everything else is inherited.
using EnvChanges = std::map<std::string, std::optional<std::string>>;

// A program started in the background with its standard output on a pipe.
// It dies with the test process (parent-death signal) and is stopped, then
// reaped, when the object goes away.
class ChildProcess
{
public:
    // `discardErrors` sends the child's standard error to /dev/null.
    explicit ChildProcess(const std::vector<std::string>& argv,
                          const EnvChanges& env = {},
                          bool discardErrors = false);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const
    {
        return childPid;
    }

    // Next line of standard output without its newline; throws when the
    // child closes its output or the timeout passes first.
    std::string readLine(std::chrono::milliseconds timeout);

    // SIGTERM, then SIGKILL after `grace`; returns the wait status.
    int stop(std::chrono::milliseconds grace = std::chrono::seconds(5));

private:
    pid_t childPid = -1;
    int outFd = -1;
    std::string pending;
    std::optional<int> waitStatus;
};

// A private file-system root for a child: in a mount namespace of its own
// the child sees `binds` (host path -> path under `root`), then the host
// paths `readOnly` are made read-only for it, and it is confined to `root`.
// Read-only mounts stop writes that permissions would not stop for root.
struct Jail
{
    std::string root;
    std::vector<std::pair<std::string, std::string>> binds;
    std::vector<std::string> readOnly;
};

struct RunResult
{
    int exitCode = -1; // -1 when the program was killed by a signal
    int termSignal = 0;
    std::string out;
    std::string err;
};

// The command line that starts `argv`, whose first word is a program of this
// build. A cross build's programs run here only through the cross file's
// wrapper (qemu-user), so its tests start them through it too.
std::vector<std::string> targetCommand(const std::vector<std::string>& argv);

// Runs a program to its end, capturing both output streams. Kills it and
// throws when it has not finished within `timeout`.
RunResult
runProgram(const std::vector<std::string>& argv, const EnvChanges& env = {},
           std::chrono::milliseconds timeout = std::chrono::seconds(60),
           const Jail* jail = nullptr);

// What one finished run cost, for benchmarks.
struct Measurement
{
    int exitCode = -1; // -1 when the program was killed by a signal
    int termSignal = 0;
    // From the moment the program is executed (after any jail is set up)
    // until it has been reaped.
    std::chrono::nanoseconds wallTime{0};
    std::chrono::microseconds cpuTime{0}; // user and system, its children's too
    std::chrono::microseconds systemTime{0}; // the system part of cpuTime
    long peakRssKiB = 0; // the largest of the program and its children
};

// Runs a program to its end with its output streams sent to `errorFile`
// (standard error) and /dev/null (standard output) and measures it. Waits
// without a timeout: a benchmark that hangs is to be seen, not hidden.
// The child is forked from this process, whose anonymous memory it shares
// until it executes the program: keep the caller small, or its size shows
// up in `peakRssKiB`.
Measurement measureProgram(const std::vector<std::string>& argv,
                           const EnvChanges& env, const std::string& errorFile,
                           const Jail* jail = nullptr);

} // namespace testsupport
