#include "measure.hpp"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace bench
{
namespace
{

std::chrono::microseconds toMicroseconds(const timeval& time)
{
    return std::chrono::seconds(time.tv_sec) +
           std::chrono::microseconds(time.tv_usec);
}

// Truncated; /dev/null stays what it is.
int openForWriting(const std::string& path)
{
    return open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
}

} // namespace

Measurement measureProgram(const std::vector<std::string>& argv,
                           const testsupport::EnvChanges& env,
                           const std::string& errorFile,
                           const std::string& outputFile)
{
    int outFd = openForWriting(outputFile);
    int errFd = openForWriting(errorFile);
    if (outFd < 0 || errFd < 0)
    {
        int error = errno;
        close(outFd);
        close(errFd);
        throw std::runtime_error("cannot open " + outputFile + " or " +
                                 errorFile + ": " + std::strerror(error));
    }
    auto started = std::chrono::steady_clock::now();
    pid_t pid = testsupport::spawn(argv, env, outFd, errFd);
    close(outFd);
    close(errFd);
    int status = 0;
    rusage usage{};
    while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR)
    {}
    Measurement result;
    result.wallTime = std::chrono::steady_clock::now() - started;
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.termSignal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.systemTime = toMicroseconds(usage.ru_stime);
    result.cpuTime = toMicroseconds(usage.ru_utime) + result.systemTime;
    result.peakRssKiB = usage.ru_maxrss;
    return result;
}

} // namespace bench
