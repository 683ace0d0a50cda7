#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace testsupport
{

inline constexpr const char* smartLogsPath =
    "/mmc2/qvcollection/vok/storagelog/SmartLogs.json";
inline constexpr const char* smartRawDataPath =
    "/mmc2/qvcollection/vok/storagelog/SmartRawData.json";
inline constexpr const char* dailyDir = "/mmc2/mas032/smartlogs/";

// A fresh directory under $TMPDIR (or /tmp), removed with its content.
class TempDir
{
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const
    {
        return dirPath;
    }
    // Writes `content` to `name` inside the directory; returns its path.
    std::string write(const std::string& name,
                      const std::string& content) const;

  private:
    std::string dirPath;
};

// Whole content of a file; empty when it cannot be read.
std::string readFile(const std::string& path);

// Environment changes for a child: a value sets the variable, std::nullopt
// removes it. Everything else is inherited.
using EnvChanges = std::map<std::string, std::optional<std::string>>;

// Forks and executes `argv` (its first word looked up in PATH) with `env`
// applied and standard output and error on `outFd` and `errFd`; the child
// dies with this process. Returns its process id.
pid_t spawn(std::vector<std::string> argv, const EnvChanges& env, int outFd,
            int errFd);

struct RunResult
{
    int exitCode = -1; // -1 when the program was killed by a signal
    int termSignal = 0;
    std::string out;
    std::string err;
};

// The command line that starts `argv`, whose first word is a program of this
// build: a cross build's programs run here through the cross file's wrapper.
std::vector<std::string> targetCommand(const std::vector<std::string>& argv);

// Runs a program to its end, capturing both output streams. Kills it and
// throws when it has not finished within `timeout`, times the test setup's
// QV_TEST_TIME_SCALE (valgrind and the sanitizers make programs slower).
RunResult runProgram(const std::vector<std::string>& argv,
                     const EnvChanges& env = {},
                     std::chrono::seconds timeout = std::chrono::seconds(120));

// A program in the background with its standard output on a pipe. It dies
// with the test process and is stopped (SIGTERM, then SIGKILL) and reaped
// when the object goes away.
class ChildProcess
{
  public:
    explicit ChildProcess(const std::vector<std::string>& argv,
                          const EnvChanges& env = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The first line of standard output; throws when there is none.
    std::string firstLine() const;
    pid_t id() const
    {
        return pid;
    }
    // Waits up to `timeout` for the program to end by itself; true when it
    // did (it is reaped then).
    bool awaitExit(std::chrono::milliseconds timeout);

  private:
    pid_t pid = -1;
    int outFd = -1;
    bool reaped = false;
};

// The two message buses the suite runs on: dbus-daemon, and dbus-broker as
// the controller runs it.
enum class BusKind
{
    daemon,
    broker
};

// QV_TEST_BUS=broker picks dbus-broker; unset or anything else dbus-daemon.
BusKind busKindFromEnvironment();

// Datagrams sent to a socket file, read and dropped: the journal socket
// dbus-broker's launcher insists on logging to.
class JournalSink
{
  public:
    explicit JournalSink(const std::string& socketPath);
    ~JournalSink();
    JournalSink(const JournalSink&) = delete;
    JournalSink& operator=(const JournalSink&) = delete;

  private:
    int fd = -1;
    std::atomic<bool> stopping{false};
    std::thread reader;
};

// A bus of our own on an abstract socket, configured like a controller's
// system bus (its limits included) on which anyone may own any name and
// call anything. The broker runs in a mount namespace of its own, whose
// /run holds the journal socket it logs to: nothing of the host's /run is
// touched.
class PrivateBus
{
  public:
    PrivateBus() : PrivateBus(busKindFromEnvironment()) {}
    explicit PrivateBus(BusKind kind);
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    const std::string& address() const
    {
        return busAddress;
    }
    // Makes libsystemd's default and system buses this one, for children.
    EnvChanges environment() const;
    // Stops (SIGSTOP) or resumes the bus's processes: while it is stopped
    // a client waits for every answer, the greeting of a new connection
    // included.
    void pause() const;
    void resume() const;

  private:
    BusKind busKind;
    TempDir dir;
    std::optional<JournalSink> journal;
    std::optional<ChildProcess> daemon;
    std::string busAddress;
};

// The storage service and object mapper simulator serving one scenario; the
// constructor returns once it owns its names.
class Simulator
{
  public:
    Simulator(const std::string& scenarioFile, const PrivateBus& bus);

  private:
    ChildProcess process;
};

// A private /mmc2 for runs of the shipped collector: bubblewrap shows the
// program the host's /usr and /etc, this sandbox's directory at its host
// path, and the sandbox's own mmc2/ at /mmc2, so the fixed report paths land
// in a temporary directory. The log goes to dlog.log in the directory.
class Sandbox
{
  public:
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    // Host path of a path the collector sees.
    std::string hostPath(const std::string& inside) const;
    const std::string& dir() const
    {
        return scratch.path();
    }
    // The collector sees `inside` read-only.
    void readOnly(const std::string& inside);
    // A directory of the host shown read-only at its own path.
    void show(const std::string& hostDir);
    // flock(2) fails with ENOLCK inside the sandbox, as on a file system
    // without locks (a seccomp filter that bubblewrap loads).
    void refuseLocks();
    // A tmpfs of `bytes` over `inside`, mounted in a mount namespace of the
    // test process (entered on first use): nothing of it reaches the host.
    void smallDisk(const std::string& inside, size_t bytes);

    // `argv` confined to the sandbox, `programDir` shown read-only.
    std::vector<std::string> confine(const std::vector<std::string>& argv,
                                     const std::string& programDir) const;
    // The collector's command line, under QV_COLLECTOR_WRAPPER when set, and
    // its environment: `bus`, the tables file, the log file.
    std::vector<std::string>
        collectorCommand(const std::vector<std::string>& args) const;
    EnvChanges collectorEnvironment(const PrivateBus& bus,
                                    const std::string& tablesFile) const;
    RunResult run(const std::vector<std::string>& args, const PrivateBus& bus,
                  const std::string& tablesFile,
                  const EnvChanges& extra = {}) const;

  private:
    TempDir scratch;
    std::vector<std::string> readOnlyDirs;
    std::vector<std::string> shownDirs;
    std::vector<std::string> mounts;
    std::string seccompFilter;
};

} // namespace testsupport
