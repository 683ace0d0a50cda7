#include "childProcess.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <thread>

namespace testsupport
{
namespace
{

using Clock = std::chrono::steady_clock;

struct Pipe
{
    int readEnd = -1;
    int writeEnd = -1;

    Pipe()
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0)
        {
            throw std::runtime_error(std::string("pipe2: ") +
                                     std::strerror(errno));
        }
        readEnd = fds[0];
        writeEnd = fds[1];
    }
    ~Pipe()
    {
        closeRead();
        closeWrite();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int releaseRead()
    {
        int fd = readEnd;
        readEnd = -1;
        return fd;
    }
    void closeRead()
    {
        if (readEnd >= 0)
        {
            close(readEnd);
            readEnd = -1;
        }
    }
    void closeWrite()
    {
        if (writeEnd >= 0)
        {
            close(writeEnd);
            writeEnd = -1;
        }
    }
};

// The environment the child gets: ours with `changes` applied.
std::vector<std::string> makeEnvironment(const EnvChanges& changes)
{
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry)
    {
        std::string item(*entry);
        std::string name = item.substr(0, item.find('='));
        if (!changes.contains(name))
        {
            result.push_back(std::move(item));
        }
    }
    for (const auto& [name, value] : changes)
    {
        if (value)
        {
            result.push_back(name + "=" + *value);
        }
    }
    return result;
}

std::vector<char*> pointersTo(const std::vector<std::string>& strings)
{
    std::vector<char*> result;
    for (const auto& item : strings)
    {
        result.push_back(const_cast<char*>(item.c_str()));
    }
    result.push_back(nullptr);
    return result;
}

// Only async-signal-safe calls between fork and exec: the argument and
// environment arrays are prepared before forking.
// Enters the jail; false when any step fails.
bool enterJail(const Jail& jail)
{
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    {
        return false;
    }
    for (const auto& [source, target] : jail.binds)
    {
        if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC,
                  nullptr) != 0)
        {
            return false;
        }
    }
    for (const auto& path : jail.readOnly)
    {
        if (mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
            mount(nullptr, path.c_str(), nullptr,
                  MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0)
        {
            return false;
        }
    }
    return chroot(jail.root.c_str()) == 0 && chdir("/") == 0;
}

// `startFd`, when given, receives the CLOCK_MONOTONIC time just before the
// program is executed.
[[noreturn]] void execChild(char* const* argv, char* const* envp, int outFd,
                            int errFd, const Jail* jail, int startFd)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (jail != nullptr && !enterJail(*jail))
    {
        _exit(126);
    }
    if (outFd >= 0)
    {
        dup2(outFd, STDOUT_FILENO);
    }
    if (errFd >= 0)
    {
        dup2(errFd, STDERR_FILENO);
    }
    if (startFd >= 0)
    {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (write(startFd, &now, sizeof(now)) != sizeof(now))
        {
            _exit(126);
        }
    }
    execve(argv[0], argv, envp);
    _exit(127);
}

pid_t spawn(const std::vector<std::string>& argv, const EnvChanges& env,
            int outFd, int errFd, const Jail* jail = nullptr, int startFd = -1)
{
    if (argv.empty())
    {
        throw std::invalid_argument("empty command line");
    }
    auto args = pointersTo(argv);
    auto environment = makeEnvironment(env);
    auto envp = pointersTo(environment);
    pid_t pid = fork();
    if (pid < 0)
    {
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    }
    if (pid == 0)
    {
        execChild(args.data(), envp.data(), outFd, errFd, jail, startFd);
    }
    return pid;
}

bool waitUntil(pid_t pid, int& status, Clock::time_point deadline)
{
    while (true)
    {
        pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid || (done < 0 && errno != EINTR))
        {
            return true;
        }
        if (Clock::now() >= deadline)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

int remainingMs(Clock::time_point deadline)
{
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - Clock::now());
    return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

} // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const EnvChanges& env, bool discardErrors)
{
    Pipe out;
    int errFd = discardErrors ? open("/dev/null", O_WRONLY | O_CLOEXEC) : -1;
    childPid = spawn(argv, env, out.writeEnd, errFd);
    if (errFd >= 0)
    {
        close(errFd);
    }
    out.closeWrite();
    outFd = out.releaseRead();
}

ChildProcess::~ChildProcess()
{
    stop();
    if (outFd >= 0)
    {
        close(outFd);
    }
}

std::string ChildProcess::readLine(std::chrono::milliseconds timeout)
{
    auto deadline = Clock::now() + timeout;
    while (true)
    {
        auto newline = pending.find('\n');
        if (newline != std::string::npos)
        {
            std::string line = pending.substr(0, newline);
            pending.erase(0, newline + 1);
            return line;
        }
        pollfd pfd{outFd, POLLIN, 0};
        int ready = poll(&pfd, 1, remainingMs(deadline));
        if (ready < 0 && errno == EINTR)
        {
            continue;
        }
        if (ready <= 0)
        {
            throw std::runtime_error("no output line from child in time");
        }
        char buffer[4096];
        ssize_t got = read(outFd, buffer, sizeof(buffer));
        if (got <= 0)
        {
            throw std::runtime_error("child closed its output");
        }
        pending.append(buffer, static_cast<size_t>(got));
    }
}

int ChildProcess::stop(std::chrono::milliseconds grace)
{
    if (waitStatus || childPid <= 0)
    {
        return waitStatus.value_or(0);
    }
    int status = 0;
    kill(childPid, SIGTERM);
    if (!waitUntil(childPid, status, Clock::now() + grace))
    {
        kill(childPid, SIGKILL);
        waitpid(childPid, &status, 0);
    }
    waitStatus = status;
    return status;
}

namespace
{

// Drains both pipes until the child closes them or the deadline passes.
bool collectOutput(int outFd, int errFd, RunResult& result,
                   Clock::time_point deadline)
{
    pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open = 2;
    while (open > 0)
    {
        int ready = poll(fds, 2, remainingMs(deadline));
        if (ready < 0 && errno == EINTR)
        {
            continue;
        }
        if (ready <= 0)
        {
            return false;
        }
        for (int i = 0; i < 2; ++i)
        {
            if (fds[i].fd < 0 || fds[i].revents == 0)
            {
                continue;
            }
            char buffer[65536];
            ssize_t got = read(fds[i].fd, buffer, sizeof(buffer));
            if (got > 0)
            {
                sinks[i]->append(buffer, static_cast<size_t>(got));
            }
            else
            {
                fds[i].fd = -1;
                --open;
            }
        }
    }
    return true;
}

} // namespace

std::vector<std::string> targetCommand(const std::vector<std::string>& argv)
{
    std::vector<std::string> command;
    if (*TARGET_WRAPPER != '\0')
    {
        command.emplace_back(TARGET_WRAPPER);
    }
    command.insert(command.end(), argv.begin(), argv.end());
    return command;
}

RunResult runProgram(const std::vector<std::string>& argv,
                     const EnvChanges& env, std::chrono::milliseconds timeout,
                     const Jail* jail)
{
    Pipe out;
    Pipe err;
    pid_t pid = spawn(argv, env, out.writeEnd, err.writeEnd, jail);
    out.closeWrite();
    err.closeWrite();

    RunResult result;
    auto deadline = Clock::now() + timeout;
    bool finished = collectOutput(out.readEnd, err.readEnd, result, deadline);
    int status = 0;
    if (!finished || !waitUntil(pid, status, deadline))
    {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        throw std::runtime_error("timed out: " + argv.front());
    }
    if (WIFEXITED(status))
    {
        result.exitCode = WEXITSTATUS(status);
    }
    else if (WIFSIGNALED(status))
    {
        result.termSignal = WTERMSIG(status);
    }
    return result;
}

namespace
{

std::chrono::nanoseconds sinceEpoch(const timespec& time)
{
    return std::chrono::seconds(time.tv_sec) +
           std::chrono::nanoseconds(time.tv_nsec);
}

std::chrono::microseconds toMicroseconds(const timeval& time)
{
    return std::chrono::seconds(time.tv_sec) +
           std::chrono::microseconds(time.tv_usec);
}

} // namespace

Measurement measureProgram(const std::vector<std::string>& argv,
                           const EnvChanges& env, const std::string& errorFile,
                           const Jail* jail)
{
    Pipe start;
    int outFd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    int errFd =
        open(errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (outFd < 0 || errFd < 0)
    {
        throw std::runtime_error("cannot open " + errorFile + ": " +
                                 std::strerror(errno));
    }
    pid_t pid = spawn(argv, env, outFd, errFd, jail, start.writeEnd);
    close(outFd);
    close(errFd);
    start.closeWrite();

    timespec started{};
    ssize_t got = 0;
    do
    {
        got = read(start.readEnd, &started, sizeof(started));
    } while (got < 0 && errno == EINTR);
    int status = 0;
    rusage usage{};
    while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR)
    {}
    timespec ended{};
    clock_gettime(CLOCK_MONOTONIC, &ended);

    Measurement result;
    if (got == sizeof(started))
    {
        result.wallTime = sinceEpoch(ended) - sinceEpoch(started);
    }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.termSignal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.systemTime = toMicroseconds(usage.ru_stime);
    result.cpuTime = toMicroseconds(usage.ru_utime) + result.systemTime;
    result.peakRssKiB = usage.ru_maxrss;
    return result;
}

} // namespace testsupport
