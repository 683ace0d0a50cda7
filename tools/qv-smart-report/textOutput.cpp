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
#include <streambuf>

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

namespace
{

bool isControl(char c)
{
    return static_cast<unsigned char>(c) < 0x20 || c == '\x7f';
}

// The length of the valid UTF-8 sequence at the start of `text`; 0 when
// none starts there.
size_t sequenceLength(std::string_view text)
{
    auto octet = [&text](size_t i) {
        return static_cast<unsigned char>(text[i]);
    };
    unsigned first = octet(0);
    if (first < 0x80)
    {
        return 1;
    }
    size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < length)
    {
        return 0;
    }
    for (size_t i = 1; i < length; ++i)
    {
        if ((octet(i) & 0xc0) != 0x80)
        {
            return 0;
        }
    }
    // Overlong forms, surrogates and code points past U+10FFFF.
    unsigned second = octet(1);
    bool bad = (first == 0xe0 && second < 0xa0) ||
               (first == 0xed && second >= 0xa0) ||
               (first == 0xf0 && second < 0x90) ||
               (first == 0xf4 && second >= 0x90);
    return bad ? 0 : length;
}

constexpr size_t widestCell = 64;

// Characters, not octets: what a terminal gives a cell.
size_t characters(const std::string& text)
{
    return size_t(std::ranges::count_if(text, [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

// What a padded table cell shows: control characters as \xNN, and at most
// `widestCell` characters.
std::string tableCell(const std::string& text, bool padded)
{
    std::string shown;
    size_t characters = 0;
    for (size_t at = 0; at < text.size(); ++characters)
    {
        if (padded && characters == widestCell)
        {
            return shown + "…";
        }
        size_t length = sequenceLength(std::string_view(text).substr(at));
        if (length == 1 && isControl(text[at]))
        {
            std::array<char, 5> hex{};
            static_cast<void>(
                std::snprintf(hex.data(), hex.size(), "\\x%02x",
                              static_cast<unsigned char>(text[at])));
            shown += hex.data();
        }
        else
        {
            shown.append(text, at, std::max<size_t>(length, 1));
        }
        at += std::max<size_t>(length, 1);
    }
    return shown;
}

} // namespace

std::string validUtf8(std::string_view text)
{
    std::string valid;
    for (size_t at = 0; at < text.size();)
    {
        size_t length = sequenceLength(text.substr(at));
        valid += length == 0 ? std::string_view("\xef\xbf\xbd")
                             : text.substr(at, length);
        at += std::max<size_t>(length, 1);
    }
    return valid;
}

std::string csvCell(const std::string& text)
{
    if (text.find_first_of(",\"\n") == std::string::npos &&
        std::ranges::none_of(text, isControl))
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
    for (size_t i = 0; i < row.size(); ++i)
    {
        row[i] = tableCell(row[i], i + 1 < row.size());
    }
    rows.push_back(std::move(row));
}

void TextTable::print(std::ostream& out) const
{
    std::vector<size_t> widths(rows.front().size(), 0);
    for (const auto& row : rows)
    {
        for (size_t i = 0; i < row.size(); ++i)
        {
            widths[i] = std::max(widths[i], characters(row[i]));
        }
    }
    for (const auto& row : rows)
    {
        std::string line;
        for (size_t i = 0; i + 1 < row.size(); ++i)
        {
            line += row[i] +
                    std::string(widths[i] - characters(row[i]) + 1, ' ');
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

bool writeAll(int fd, std::string_view text)
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
    return true;
}

// An output stream's buffer that writes a block at a time to a file
// descriptor; the first error is kept and nothing is written after it.
class DescriptorBuffer final : public std::streambuf
{
  public:
    explicit DescriptorBuffer(int fd) : fd(fd), block(blockSize)
    {
        setp(block.data(), block.data() + block.size());
    }

    // The errno of the first failed write; 0 when none failed.
    int failure() const
    {
        return error;
    }

  protected:
    int_type overflow(int_type c) override
    {
        if (!drain())
        {
            return traits_type::eof();
        }
        if (!traits_type::eq_int_type(c, traits_type::eof()))
        {
            *pptr() = traits_type::to_char_type(c);
            pbump(1);
        }
        return traits_type::not_eof(c);
    }

    int sync() override
    {
        return drain() ? 0 : -1;
    }

  private:
    static constexpr size_t blockSize = size_t{8} * 1024;
    int fd;
    std::vector<char> block;
    int error = 0;

    bool drain()
    {
        if (error == 0 &&
            !writeAll(fd, std::string_view(pbase(), size_t(pptr() - pbase()))))
        {
            error = errno;
        }
        setp(block.data(), block.data() + block.size());
        return error == 0;
    }
};

// Writes the text into the descriptor and onto the disk; the errno of what
// failed, 0 when nothing did.
int writeThrough(int fd, const std::function<void(std::ostream&)>& write)
{
    DescriptorBuffer buffer(fd);
    std::ostream out(&buffer);
    write(out);
    out.flush();
    if (buffer.failure() != 0)
    {
        return buffer.failure();
    }
    return ::fsync(fd) == 0 ? 0 : errno;
}

} // namespace

bool replaceFile(const std::string& path, std::ostream& err,
                 const std::function<void(std::ostream&)>& write)
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
    int error = writeThrough(fd, write);
    if (::close(fd) != 0 && error == 0)
    {
        error = errno;
    }
    if (error == 0 && std::rename(temporary.c_str(), path.c_str()) == 0)
    {
        return true;
    }
    error = error == 0 ? errno : error;
    ::unlink(temporary.c_str());
    err << path << ": cannot be written: " << std::strerror(error) << '\n';
    return false;
}

} // namespace qvreport
