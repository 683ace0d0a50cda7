#include "textOutput.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

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

bool replaceFile(const std::string& path, const std::string& text,
                 std::ostream& err)
{
    std::string temporary = path + ".tmp." + std::to_string(::getpid());
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                    0644);
    bool written = fd >= 0;
    for (size_t done = 0; written && done < text.size();)
    {
        auto count = ::write(fd, text.data() + done, text.size() - done);
        written = count > 0 || (count < 0 && errno == EINTR);
        done += count > 0 ? size_t(count) : 0;
    }
    written = written && ::fsync(fd) == 0;
    int error = errno;
    if (fd >= 0 && ::close(fd) != 0 && written)
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
