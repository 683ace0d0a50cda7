#include "operatorFile.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <variant>

namespace qvreport
{
namespace fs = std::filesystem;

namespace
{

using Json = nlohmann::ordered_json;

// Closes the descriptor however the write ends.
class Descriptor
{
  public:
    explicit Descriptor(int fd) : fd(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (fd >= 0)
        {
            ::close(fd);
        }
    }
    int get() const
    {
        return fd;
    }
    // The close's own result: a write a full disk refuses may show only here.
    bool close()
    {
        int closing = fd;
        fd = -1;
        return ::close(closing) == 0;
    }

  private:
    int fd;
};

// One line of the file, or why it is not an operator's word.
std::variant<OperatorWord, std::string> wordOf(const std::string& line)
{
    auto entry = Json::parse(line, nullptr, false);
    if (entry.is_discarded() || !entry.is_object())
    {
        return std::string("not a JSON object");
    }
    auto text = [&entry](const char* key) {
        auto member = entry.find(key);
        return member != entry.end() && member->is_string()
                   ? member->get<std::string>()
                   : std::string();
    };
    OperatorWord word;
    auto action = text("action");
    if (action != "retire" && action != "ack")
    {
        return "unknown action \"" + action + '"';
    }
    word.action = action == "retire" ? OperatorWord::Action::retire
                                     : OperatorWord::Action::acknowledge;
    auto day = parseDay(text("day"));
    if (text("fqdd").empty() || !day)
    {
        return action + " needs an fqdd and a day";
    }
    word.fqdd = text("fqdd");
    word.day = *day;
    word.note = text("note");
    if (word.action == OperatorWord::Action::acknowledge)
    {
        word.until = parseDay(text("until"));
        if (!word.until || *word.until < word.day || word.note.empty())
        {
            return std::string(
                "ack needs a note and an until no earlier than its day");
        }
    }
    return word;
}

void readFile(const fs::path& path, std::vector<OperatorWord>& found,
              std::ostream& err, bool& intact)
{
    std::ifstream in(path);
    int number = 0;
    for (std::string line; std::getline(in, line);)
    {
        ++number;
        if (line.empty())
        {
            continue;
        }
        auto entry = wordOf(line);
        if (const auto* why = std::get_if<std::string>(&entry))
        {
            err << path.string() << ':' << number << ": set aside: " << *why
                << '\n';
            intact = false;
            continue;
        }
        found.push_back(std::get<OperatorWord>(std::move(entry)));
    }
    if (in.bad())
    {
        err << path.string() << ": cannot be read\n";
        intact = false;
    }
}

} // namespace

bool recordWord(const std::string& directory, const OperatorWord& word,
                std::ostream& err)
{
    const auto path = fs::path(directory) / operatorFileName;
    bool retire = word.action == OperatorWord::Action::retire;
    Json entry{{"action", retire ? "retire" : "ack"},
               {"fqdd", word.fqdd},
               {"day", dayText(word.day)}};
    if (word.until)
    {
        entry["until"] = dayText(*word.until);
    }
    entry["note"] = word.note;
    const auto line =
        entry.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
    // Appended to only, as the reports are; never through a link.
    Descriptor file(
        ::open(path.c_str(),
               O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    int failure = file.get() < 0 ? errno : 0;
    errno = 0;
    if (failure == 0 &&
        ::write(file.get(), line.data(), line.size()) != ssize_t(line.size()))
    {
        failure = errno != 0 ? errno : EIO;
    }
    if (failure == 0 && ::fsync(file.get()) != 0)
    {
        failure = errno;
    }
    if (file.get() >= 0 && !file.close() && failure == 0)
    {
        failure = errno;
    }
    bool written = failure == 0;
    if (!written)
    {
        err << path.string()
            << ": cannot be written: " << std::strerror(failure) << '\n';
    }
    return written;
}

std::vector<OperatorWord>
    readOperatorWords(const std::vector<std::string>& paths, std::ostream& err,
                      bool& intact)
{
    std::vector<OperatorWord> found;
    for (const auto& path : paths)
    {
        std::error_code error;
        auto file = fs::path(path) / operatorFileName;
        if (fs::is_directory(path, error) && fs::exists(file, error))
        {
            readFile(file, found, err, intact);
        }
    }
    return found;
}

} // namespace qvreport
