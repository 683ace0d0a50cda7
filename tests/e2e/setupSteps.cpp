#include "setupSteps.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include <gtest/gtest.h>

namespace e2e
{

namespace fs = std::filesystem;

// Opens of one file held back by fanotify until `onOpen` (given the number
// of the open, from 1) has done what it does meanwhile.
class HeldOpens
{
  public:
    HeldOpens(const std::string& file, std::function<void(int)> onOpen) :
        onOpen(std::move(onOpen)),
        group(fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY))
    {
        if (group < 0 && errno == ENOSYS)
        {
            throw Unsupported("fanotify");
        }
        if (group < 0 || fanotify_mark(group, FAN_MARK_ADD, FAN_OPEN_PERM,
                                       AT_FDCWD, file.c_str()) != 0)
        {
            throw std::runtime_error("fanotify on " + file + ": " +
                                     std::strerror(errno));
        }
        listener =
            std::jthread([this](const std::stop_token& stop) { answer(stop); });
    }
    ~HeldOpens()
    {
        listener.request_stop();
        listener.join();
        close(group); // any open still held back is let through
    }
    HeldOpens(const HeldOpens&) = delete;
    HeldOpens& operator=(const HeldOpens&) = delete;

  private:
    std::function<void(int)> onOpen;
    int group;
    int opens = 0;
    std::jthread listener;

    void answer(const std::stop_token& stop)
    {
        std::array<char, 4096> buffer{};
        while (!stop.stop_requested())
        {
            pollfd ready{group, POLLIN, 0};
            if (poll(&ready, 1, 20) <= 0)
            {
                continue;
            }
            const ssize_t length = read(group, buffer.data(), buffer.size());
            for (ssize_t at = 0;
                 at + static_cast<ssize_t>(sizeof(fanotify_event_metadata)) <=
                 length;)
            {
                fanotify_event_metadata event{};
                std::memcpy(&event, buffer.data() + at, sizeof(event));
                at += event.event_len;
                onOpen(++opens);
                const fanotify_response allow{event.fd, FAN_ALLOW};
                [[maybe_unused]] const ssize_t sent = write(group, &allow,
                                                            sizeof(allow));
                close(event.fd);
            }
        }
    }
};

namespace
{

// Someone who puts a symlink in place of a report the moment the collector
// first opens it: the file moves to <name>.checked and a symlink to
// `target` takes its name. A collector that looked the name up again after
// its checks would write wherever the link points.
std::function<void(int)> swapForSymlink(const std::string& file,
                                        const std::string& target)
{
    return [file, target](int open) {
        if (open == 1)
        {
            fs::rename(file, file + ".checked");
            fs::create_symlink(target, file);
        }
    };
}

// Someone who rewrites a file in place as it is opened the n-th time,
// through a descriptor taken before the opens are held.
std::function<void(int)> rewriteAt(const std::string& file, int nth,
                                   const std::string& text)
{
    auto fd = std::make_shared<int>(open(file.c_str(), O_RDWR | O_CLOEXEC));
    return [fd, nth, text](int open) {
        if (open == nth && ftruncate(*fd, 0) == 0)
        {
            [[maybe_unused]] const ssize_t written = pwrite(*fd, text.data(),
                                                            text.size(), 0);
        }
        if (open >= nth)
        {
            close(*fd);
            *fd = -1;
        }
    };
}

// The opens a swapOnOpen or rewriteOnOpen step holds back.
std::shared_ptr<HeldOpens> holdOpens(const std::string& what,
                                     const std::string& host, const json& step)
{
    return std::make_shared<HeldOpens>(
        host, what == "swapOnOpen"
                  ? swapForSymlink(host, step.at(2).get<std::string>())
                  : rewriteAt(host, step.at(2).get<int>(), textOf(step.at(3))));
}

// The file steps start from nothing at the path, and nothing seeded there.
void replaceFile(CaseWorkspace& workspace, const std::string& what,
                 const std::string& inside, const json& step)
{
    auto host = workspace.sandbox.hostPath(inside);
    fs::remove_all(host);
    workspace.seeded.erase(inside);
    if (what == "write" || what == "touch")
    {
        workspace.seed(inside, textOf(step.at(2)));
    }
    if (what == "touch")
    {
        // A file written at another time: seconds since the epoch.
        const timespec when{step.at(3).get<time_t>(), 0};
        const std::array<timespec, 2> times{when, when};
        ASSERT_EQ(utimensat(AT_FDCWD, host.c_str(), times.data(), 0), 0);
    }
    else if (what == "directory")
    {
        fs::create_directory(host);
    }
    else if (what == "fifo")
    {
        ASSERT_EQ(mkfifo(host.c_str(), 0644), 0);
    }
    else if (what == "symlink")
    {
        fs::create_symlink(step.at(2).get<std::string>(), host);
    }
    else if (what != "remove" && what != "write")
    {
        FAIL() << "unknown setup step " << what;
    }
}

// The tmpfs hides what was seeded below it: it is seeded again.
void mountSmallDisk(CaseWorkspace& workspace, const std::string& inside,
                    size_t bytes)
{
    workspace.sandbox.smallDisk(inside, bytes);
    for (const auto& [path, text] : workspace.seeded)
    {
        workspace.seed(path, text);
    }
}

std::shared_ptr<HeldOpens> takeStep(CaseWorkspace& workspace, const json& step)
{
    auto what = step.at(0).get<std::string>();
    if (what == "noLocks")
    {
        workspace.sandbox.refuseLocks();
        return nullptr;
    }
    auto inside = step.at(1).get<std::string>();
    auto host = workspace.sandbox.hostPath(inside);
    if (what == "swapOnOpen" || what == "rewriteOnOpen")
    {
        return holdOpens(what, host, step);
    }
    fs::create_directories(fs::path(host).parent_path());
    if (what == "readOnly")
    {
        workspace.sandbox.readOnly(inside);
    }
    else if (what == "smallDisk")
    {
        mountSmallDisk(workspace, inside, step.at(2).get<size_t>());
    }
    else
    {
        replaceFile(workspace, what, inside, step);
    }
    return nullptr;
}

} // namespace

std::shared_ptr<HeldOpens> takeSetupSteps(CaseWorkspace& workspace,
                                          const json& steps)
{
    workspace.seed(testsupport::smartLogsPath, "{\n\"EARLIER-LOGS\":\n{\n}\n}");
    workspace.seed(testsupport::smartRawDataPath,
                   "{\n\"EARLIER-RAW\":\n{\n}\n}");
    std::shared_ptr<HeldOpens> heldOpens;
    for (const auto& step : steps)
    {
        if (auto held = takeStep(workspace, step))
        {
            heldOpens = std::move(held);
        }
    }
    return heldOpens;
}

void fillDisk(const CaseWorkspace& workspace, const std::string& inside)
{
    std::ofstream filler(workspace.sandbox.hostPath(inside), std::ios::binary);
    const std::string block(4096, '\0');
    while (filler.write(block.data(), std::streamsize(block.size())) &&
           filler.flush())
    {}
}

} // namespace e2e
