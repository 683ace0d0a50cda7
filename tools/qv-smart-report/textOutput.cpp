#include "textOutput.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>

namespace qvreport
{

std::string joined(const std::vector<std::string>& names, char separator)
{
    std::string text;
    for (const auto& name : names)
    {
        text += (text.empty() ? "" : std::string(1, separator)) + name;
    }
    return text;
}

std::string csvCell(const std::string& text)
{
    if (text.find_first_of(",\"\n") == std::string::npos)
    {
        return text;
    }
    std::string quoted = "\"";
    for (char c : text)
    {
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    }
    return quoted + '"';
}

TextTable::TextTable(std::vector<std::string> heading) :
    rows{std::move(heading)}
{}

void TextTable::add(std::vector<std::string> row)
{
    rows.push_back(std::move(row));
}

void TextTable::print(std::ostream& out) const
{
    std::vector<size_t> widths(rows.front().size(), 0);
    for (const auto& row : rows)
    {
        for (size_t i = 0; i < row.size(); ++i)
        {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (const auto& row : rows)
    {
        std::string line;
        for (size_t i = 0; i + 1 < row.size(); ++i)
        {
            line += row[i] + std::string(widths[i] - row[i].size() + 1, ' ');
        }
        line += row.back();
        // An empty last cell leaves no trailing blanks behind.
        line.erase(line.find_last_not_of(' ') + 1);
        out << line << '\n';
    }
}

void writeCsvRow(std::ostream& out, const std::vector<std::string>& cells)
{
    for (size_t i = 0; i < cells.size(); ++i)
    {
        out << (i == 0 ? "" : ",") << csvCell(cells[i]);
    }
    out << '\n';
}

namespace
{

// The temporary file being written, for the signal handler to remove: a
// fixed buffer, since a handler may touch nothing else.
std::array<char, 4096> pendingTemporary{};
volatile std::sig_atomic_t temporaryPending = 0;

extern "C" void removeTemporaryAndStop(int signal)
{
    if (temporaryPending != 0)
    {
        ::unlink(pendingTemporary.data());
    }
    static_cast<void>(std::signal(signal, SIG_DFL));
    static_cast<void>(std::raise(signal));
}

// Removes the temporary file when the reader is stopped while writing it.
class TemporaryGuard
{
  public:
    explicit TemporaryGuard(const std::string& path)
    {
        if (path.size() >= pendingTemporary.size())
        {
            return;
        }
        std::ranges::copy(path, pendingTemporary.begin());
        pendingTemporary.at(path.size()) = '\0';
        temporaryPending = 1;
        previousTerm = std::signal(SIGTERM, removeTemporaryAndStop);
        previousInt = std::signal(SIGINT, removeTemporaryAndStop);
    }
    ~TemporaryGuard()
    {
        if (temporaryPending != 0)
        {
            static_cast<void>(std::signal(SIGTERM, previousTerm));
            static_cast<void>(std::signal(SIGINT, previousInt));
            temporaryPending = 0;
        }
    }
    TemporaryGuard(const TemporaryGuard&) = delete;
    TemporaryGuard& operator=(const TemporaryGuard&) = delete;

  private:
    void (*previousTerm)(int) = SIG_DFL;
    void (*previousInt)(int) = SIG_DFL;
};

// A new file beside `path` under a random name, created by this call and by
// no one else: never an existing file, never through a symlink.
int createTemporary(const std::filesystem::path& path, std::string& name)
{
    std::random_device random;
    constexpr int attempts = 16;
    for (int i = 0; i < attempts; ++i)
    {
        std::array<char, 17> suffix{};
        static_cast<void>(std::snprintf(suffix.data(), suffix.size(),
                                        "%08x%08x", random(), random()));
        name = (path.parent_path() /
                ("." + path.filename().string() + "." + suffix.data()))
                   .string();
        int fd = ::open(name.c_str(),
                        O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                        0644);
        if (fd >= 0 || errno != EEXIST)
        {
            return fd;
        }
    }
    return -1;
}

bool writeAll(int fd, const std::string& text)
{
    for (size_t done = 0; done < text.size();)
    {
        auto count = ::write(fd, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR)
        {
            return false;
        }
        done += count > 0 ? size_t(count) : 0;
    }
    return ::fsync(fd) == 0;
}

} // namespace

bool replaceFile(const std::string& path, const std::string& text,
                 std::ostream& err)
{
    // Only a regular file is replaced: a device, a directory or a symlink
    // named as the output stays what it is.
    struct stat status
    {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
    {
        err << path << ": not a regular file, not replaced\n";
        return false;
    }
    std::string temporary;
    int fd = createTemporary(path, temporary);
    if (fd < 0)
    {
        err << path << ": cannot be written: " << std::strerror(errno) << '\n';
        return false;
    }
    TemporaryGuard guard(temporary);
    bool written = writeAll(fd, text);
    int error = errno;
    if (::close(fd) != 0 && written)
    {
        written = false;
        error = errno;
    }
    if (written && std::rename(temporary.c_str(), path.c_str()) == 0)
    {
        return true;
    }
    error = written ? errno : error;
    ::unlink(temporary.c_str());
    err << path << ": cannot be written: " << std::strerror(error) << '\n';
    return false;
}

} // namespace qvreport
