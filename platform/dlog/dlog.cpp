#include "dlog.hpp"

#include "dlogCapture.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace dlog
{
namespace
{

// Where records go when no capture is active. The file named by DLOG_FILE is
// opened once and kept; it is reopened only when the variable changes.
class Sink
{
  public:
    Sink() = default;
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    ~Sink()
    {
        closeFile();
    }

    int descriptor()
    {
        const char* env = std::getenv("DLOG_FILE");
        const std::string wanted = env == nullptr ? "" : env;
        if (!opened || wanted != path)
        {
            reopen(wanted);
        }
        return fd;
    }

    // Only a pipe or socket can raise SIGPIPE. Standard error may be
    // redirected behind our back, so it always counts as one.
    bool mayRaiseSigpipe() const
    {
        return canRaiseSigpipe;
    }

  private:
    void reopen(const std::string& wanted)
    {
        closeFile();
        path = wanted;
        opened = true;
        if (!path.empty())
        {
            fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC,
                        0644);
        }
        // An unopenable log file must not lose the messages: they go to
        // standard error instead.
        if (fd < 0)
        {
            fd = STDERR_FILENO;
        }
        struct stat status
        {};
        canRaiseSigpipe = fd == STDERR_FILENO || ::fstat(fd, &status) != 0 ||
                          S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode);
    }

    void closeFile()
    {
        if (fd > STDERR_FILENO)
        {
            ::close(fd);
        }
        fd = -1;
    }

    std::string path;
    bool opened = false;
    int fd = -1;
    bool canRaiseSigpipe = true;
};

std::mutex& lock()
{
    static std::mutex mutex;
    return mutex;
}

Sink& sink()
{
    static Sink instance;
    return instance;
}

Capture* activeCapture = nullptr;

std::string formatMessage(const char* format, va_list args)
{
    if (format == nullptr)
    {
        return {};
    }
    // Most records fit the first buffer; only longer ones are formatted
    // a second time.
    va_list retry;
    va_copy(retry, args);
    std::string text(256, '\0');
    const int length = std::vsnprintf(text.data(), text.size(), format, args);
    if (length <= 0)
    {
        va_end(retry);
        return {};
    }
    if (static_cast<std::size_t>(length) >= text.size())
    {
        text.resize(static_cast<std::size_t>(length) + 1);
        if (std::vsnprintf(text.data(), text.size(), format, retry) != length)
        {
            va_end(retry);
            return {};
        }
    }
    va_end(retry);
    text.resize(static_cast<std::size_t>(length));
    return text;
}

std::string recordLine(const Record& record)
{
    std::string_view message = record.text;
    if (message.ends_with('\n'))
    {
        message.remove_suffix(1);
    }
    std::string line = std::to_string(record.level);
    line += '|';
    line += std::to_string(record.module);
    line += '|';
    line += message;
    line += '\n';
    return line;
}

// A reader that went away must not kill the process through SIGPIPE, so the
// signal is held back for the write and any instance it raised is consumed.
class SigpipeGuard
{
  public:
    SigpipeGuard()
    {
        sigemptyset(&pipeOnly);
        sigaddset(&pipeOnly, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        wasPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipeOnly, &saved);
    }

    ~SigpipeGuard()
    {
        if (!wasPending)
        {
            const timespec noWait{};
            const int savedErrno = errno;
            while (sigtimedwait(&pipeOnly, nullptr, &noWait) == SIGPIPE)
            {}
            errno = savedErrno;
        }
        pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    }

    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

  private:
    sigset_t pipeOnly{};
    sigset_t saved{};
    bool wasPending = false;
};

// One write() per record keeps records of concurrent writers whole; only a
// short write (disk full, interrupted pipe) sends the rest in a second call.
// Regular files skip the SIGPIPE guard and its four system calls a record.
void writeOut(int fd, const std::string& line, bool guardSigpipe)
{
    std::optional<SigpipeGuard> guard;
    if (guardSigpipe)
    {
        guard.emplace();
    }
    std::size_t done = 0;
    while (done < line.size())
    {
        const ssize_t n = ::write(fd, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR)
        {
            continue;
        }
        if (n <= 0)
        {
            return;
        }
        done += static_cast<std::size_t>(n);
    }
}

} // namespace

void deliver(Record record)
{
    std::lock_guard guard(lock());
    if (activeCapture != nullptr)
    {
        activeCapture->captured.push_back(std::move(record));
        return;
    }
    const int fd = sink().descriptor();
    writeOut(fd, recordLine(record), sink().mayRaiseSigpipe());
}

Capture::Capture()
{
    std::lock_guard guard(lock());
    previous = activeCapture;
    activeCapture = this;
}

Capture::~Capture()
{
    std::lock_guard guard(lock());
    activeCapture = previous;
}

const std::vector<Record>& Capture::records() const
{
    return captured;
}

void Capture::clear()
{
    captured.clear();
}

} // namespace dlog

namespace dlog
{
namespace
{

// A number from the environment; `fallback` when unset, nullopt when not a
// number.
std::optional<int> numberFromEnvironment(const char* name, int fallback)
{
    const char* text = std::getenv(name);
    const std::string_view number = text != nullptr ? text : "";
    int value = fallback;
    if (!number.empty() &&
        std::from_chars(number.data(), number.data() + number.size(), value)
                .ec != std::errc())
    {
        return std::nullopt;
    }
    return value;
}

// The signal reaches the process `delayMs` from now, wherever it then waits.
void raiseLater(int signal, int delayMs)
{
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = signal;
    timer_t timer{};
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0)
    {
        return;
    }
    itimerspec when{};
    when.it_value.tv_sec = delayMs / 1000;
    when.it_value.tv_nsec = static_cast<long>(delayMs % 1000) * 1'000'000;
    static_cast<void>(timer_settime(timer, 0, &when, nullptr));
}

// Test hook: DLOG_RAISE_AT=<text> raises SIGUSR1 (or the signal number in
// DLOG_RAISE_SIGNAL) in the calling process right after the first record
// containing <text> is written, so tests can deliver a cancel signal, or
// kill the run, at an exact point. With DLOG_RAISE_AFTER_MS the signal
// comes that much later instead, while the caller waits somewhere further
// on (for a bus, say).
void raiseAtMarker(const std::string& text)
{
    static bool raised = false;
    const char* marker = std::getenv("DLOG_RAISE_AT");
    if (raised || marker == nullptr || *marker == '\0' ||
        text.find(marker) == std::string::npos)
    {
        return;
    }
    raised = true;
    const auto signal = numberFromEnvironment("DLOG_RAISE_SIGNAL", SIGUSR1);
    const auto delayMs = numberFromEnvironment("DLOG_RAISE_AFTER_MS", 0);
    if (!signal || !delayMs)
    {
        return;
    }
    if (*delayMs > 0)
    {
        raiseLater(*signal, *delayMs);
        return;
    }
    // A hook of the tests: a signal it cannot raise shows there.
    static_cast<void>(::raise(*signal));
}

} // namespace
} // namespace dlog

extern "C" void dlog_printf(int level, int module, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    try
    {
        std::string text = dlog::formatMessage(format, args);
        dlog::deliver({level, module, text});
        dlog::raiseAtMarker(text);
    }
    catch (...)
    {
        // Logging never takes the caller down, not even when out of memory.
    }
    va_end(args);
}
