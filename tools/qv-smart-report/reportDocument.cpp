#include "reportDocument.hpp"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <string>

namespace qvreport
{

const Node* Node::find(std::string_view key) const
{
    auto it = std::ranges::find_if(
        members, [key](const Node& member) { return member.name == key; });
    return it == members.end() ? nullptr : &*it;
}

namespace
{

struct Damage
{
    int line;
    std::string reason;
};

// The text read so far ends inside the document.
struct NeedMore
{};

// Reads one document from the front of `text`, which holds what has been
// read of the file so far; `complete` says nothing more follows.
class DocumentParser
{
  public:
    DocumentParser(std::string_view text, int line, bool complete) :
        text(text), line(line), complete(complete)
    {}

    Document document(std::vector<ReadProblem>& notes)
    {
        Document document;
        document.line = line;
        document.root.isObject = true;
        document.root.line = line;
        expect('{', "the text between documents");
        readMembers(document.root, 1);
        // A hard drive reported without an FQDD has no group head, so the
        // document closes one brace early: the rest of the run follows as
        // ",<members>}" or a lone "}".
        while (moreFollows() && (text[pos] == ',' || text[pos] == '}'))
        {
            notes.push_back({line,
                             "unbalanced closing brace (hard drive without "
                             "FQDD), read on",
                             false});
            if (text[pos++] == ',')
            {
                readMembers(document.root, 1);
            }
        }
        return document;
    }

    size_t consumed() const
    {
        return pos;
    }

    int lineReached() const
    {
        return line;
    }

  private:
    std::string_view text;
    size_t pos = 0;
    int line;
    bool complete;

    [[noreturn]] void fail(const std::string& reason) const
    {
        throw Damage{line, reason};
    }

    // The text ran out: more of the file may settle what it holds.
    void askForMore() const
    {
        if (!complete)
        {
            throw NeedMore{};
        }
    }

    [[noreturn]] void endOfText(const char* inside) const
    {
        askForMore();
        fail(std::string("file ends inside ") + inside);
    }

    bool skipBlanks()
    {
        while (pos < text.size() &&
               std::isspace(static_cast<unsigned char>(text[pos])) != 0)
        {
            line += text[pos] == '\n' ? 1 : 0;
            ++pos;
        }
        return pos < text.size();
    }

    // Whether anything but blanks follows; asks for more text until it
    // knows.
    bool moreFollows()
    {
        if (skipBlanks())
        {
            return true;
        }
        askForMore();
        return false;
    }

    char peek(const char* inside)
    {
        if (!skipBlanks())
        {
            endOfText(inside);
        }
        return text[pos];
    }

    void expect(char wanted, const char* inside)
    {
        char found = peek(inside);
        if (found != wanted)
        {
            fail(std::string("expected '") + wanted + "' but found '" + found +
                 "' in " + inside);
        }
        ++pos;
    }

    // Names are written unescaped, so a quote inside an FQDD does not end
    // it: a name ends at the first quote followed by a colon on its line,
    // a value at its first quote. Neither spans lines.
    std::string readString(bool isName)
    {
        expect('"', "a group");
        for (size_t end = pos; end < text.size(); ++end)
        {
            if (text[end] == '\n')
            {
                fail("unterminated quoted text");
            }
            if (text[end] != '"')
            {
                continue;
            }
            if (isName && end + 1 == text.size())
            {
                break; // the colon may follow in text not read yet
            }
            if (!isName || text[end + 1] == ':')
            {
                std::string value(text.substr(pos, end - pos));
                pos = end + 1;
                return value;
            }
        }
        askForMore();
        fail("unterminated quoted text");
    }

    // Members up to and including the closing brace; the opening brace has
    // been consumed.
    void readMembers(Node& group, int depth)
    {
        if (depth > maxGroupDepth)
        {
            fail("groups nested deeper than " + std::to_string(maxGroupDepth));
        }
        while (peek("a group") != '}')
        {
            Node member;
            member.line = line;
            member.name = readString(true);
            expect(':', "a member");
            if (peek("a member") == '{')
            {
                ++pos;
                member.isObject = true;
                readMembers(member, depth + 1);
            }
            else
            {
                member.text = readString(false);
            }
            group.members.push_back(std::move(member));
            if (peek("a group") == ',')
            {
                ++pos;
            }
            else if (text[pos] != '}')
            {
                fail(std::string("expected ',' or '}' but found '") +
                     text[pos] + "' in a group");
            }
        }
        ++pos;
    }
};

constexpr size_t minimumRead = size_t{64} * 1024;

} // namespace

std::optional<Document> ReportReader::next()
{
    found.clear();
    while (skipBlanks())
    {
        DocumentParser parser(std::string_view(buffer).substr(start), line,
                              atEnd);
        try
        {
            std::vector<ReadProblem> notes;
            Document document = parser.document(notes);
            found.insert(found.end(), notes.begin(), notes.end());
            start += parser.consumed();
            line = parser.lineReached();
            return document;
        }
        catch (const NeedMore&)
        {
            fill();
        }
        catch (const Damage& damage)
        {
            found.push_back({damage.line, damage.reason, true});
            skipToNextDocument();
        }
    }
    return std::nullopt;
}

// Drops what has been read and appends at least as much again as is held, so
// a document re-read after each fill costs no more than twice its size.
bool ReportReader::fill()
{
    buffer.erase(0, start);
    start = 0;
    if (atEnd)
    {
        return false;
    }
    const size_t held = buffer.size();
    const size_t wanted = std::max(minimumRead, held);
    buffer.resize(held + wanted);
    in.read(buffer.data() + held, static_cast<std::streamsize>(wanted));
    const auto got = static_cast<size_t>(in.gcount());
    buffer.resize(held + got);
    atEnd = got < wanted;
    return got > 0;
}

bool ReportReader::skipBlanks()
{
    for (;;)
    {
        while (start < buffer.size() &&
               std::isspace(static_cast<unsigned char>(buffer[start])) != 0)
        {
            consume(1);
        }
        if (start < buffer.size())
        {
            return true;
        }
        if (!fill())
        {
            return false;
        }
    }
}

void ReportReader::consume(size_t count)
{
    line += static_cast<int>(std::count(
        buffer.begin() + static_cast<std::ptrdiff_t>(start),
        buffer.begin() + static_cast<std::ptrdiff_t>(start + count), '\n'));
    start += count;
}

// A document opens with a brace alone on its line. So does a drive's group,
// but its name's colon precedes it ("\"FQDD\":\n{"), as it precedes a log
// page's brace ("\"name\": {").
bool ReportReader::opensDocument(size_t at) const
{
    if (buffer[at] != '{' || buffer[at + 1] != '\n')
    {
        return false;
    }
    return at < 2 || buffer[at - 2] != ':' ||
           (buffer[at - 1] != '\n' && buffer[at - 1] != ' ');
}

// Skips the damaged document: on to the next brace after its start that
// opens a document, or to the end of the input.
void ReportReader::skipToNextDocument()
{
    size_t searched = 1; // octets after `start` ruled out
    for (;;)
    {
        size_t at = buffer.find('{', start + searched);
        for (; at != std::string::npos && at + 1 < buffer.size();
             at = buffer.find('{', at + 1))
        {
            if (opensDocument(at))
            {
                consume(at - start);
                return;
            }
        }
        // Up to `end` nothing opens a document; two octets before it stay,
        // to judge a brace there once more text has come.
        const size_t end = at == std::string::npos ? buffer.size() : at;
        if (end > start + 2)
        {
            consume(end - 2 - start);
        }
        searched = end - start;
        if (!fill())
        {
            consume(buffer.size() - start);
            return;
        }
    }
}

namespace
{

bool isHexRowName(const std::string& name)
{
    return name.size() >= 6 && std::ranges::all_of(name, [](char c) {
               return std::isxdigit(static_cast<unsigned char>(c)) != 0;
           });
}

std::optional<unsigned> hexOctet(std::string_view cell)
{
    if (cell.size() != 2 ||
        std::isxdigit(static_cast<unsigned char>(cell[0])) == 0 ||
        std::isxdigit(static_cast<unsigned char>(cell[1])) == 0)
    {
        return std::nullopt;
    }
    return static_cast<unsigned>(std::stoul(std::string(cell), nullptr, 16));
}

} // namespace

std::optional<std::vector<unsigned>> decodeHexRows(const Node& group)
{
    if (!group.isObject || group.members.empty())
    {
        return std::nullopt;
    }
    std::vector<unsigned> octets;
    for (const Node& row : group.members)
    {
        if (row.isObject || !isHexRowName(row.name))
        {
            return std::nullopt;
        }
        std::string_view cells = row.text;
        while (!cells.empty())
        {
            size_t start = cells.find_first_not_of(' ');
            if (start == std::string_view::npos)
            {
                break;
            }
            size_t end = std::min(cells.find(' ', start), cells.size());
            auto octet = hexOctet(cells.substr(start, end - start));
            if (!octet)
            {
                return std::nullopt;
            }
            octets.push_back(*octet);
            cells.remove_prefix(end);
        }
    }
    return octets;
}

bool readReportFile(const std::string& file, std::ostream& err,
                    const std::function<void(const Document&)>& each)
{
    std::error_code error;
    if (!std::filesystem::is_regular_file(file, error))
    {
        err << file << ": not a regular file\n";
        return false;
    }
    std::ifstream in(file, std::ios::binary);
    if (!in)
    {
        err << file << ": cannot be read\n";
        return false;
    }
    ReportReader reader(in);
    bool intact = true;
    for (;;)
    {
        auto document = reader.next();
        for (const auto& problem : reader.problems())
        {
            err << file << ':' << problem.line << ": "
                << (problem.damage ? "" : "note: ") << problem.reason << '\n';
            intact = intact && !problem.damage;
        }
        if (!document)
        {
            break;
        }
        each(*document);
    }
    if (in.bad())
    {
        err << file << ": read error\n";
        intact = false;
    }
    return intact;
}

} // namespace qvreport
