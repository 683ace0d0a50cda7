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

// Reads one document at the cursor of the text, handing its members to
// `events` as they come.
class DocumentParser
{
  public:
    DocumentParser(ReportText& text, ReportEvents& events) :
        text(text), events(events)
    {}

    void document(std::vector<ReadProblem>& notes)
    {
        events.start(text.line());
        expect('{', "the text between documents");
        readMembers(1);
        // A hard drive reported without an FQDD has no group head, so the
        // document closes one brace early: the rest of the run follows as
        // ",<members>}" or a lone "}".
        while (text.skipBlanks() && (text.at(0) == ',' || text.at(0) == '}'))
        {
            notes.push_back({text.line(),
                             "unbalanced closing brace (hard drive without "
                             "FQDD), read on",
                             false});
            const bool comma = text.at(0) == ',';
            text.consume(1);
            if (comma)
            {
                readMembers(1);
            }
        }
    }

  private:
    ReportText& text;
    ReportEvents& events;

    [[noreturn]] void fail(const std::string& reason) const
    {
        throw Damage{text.line(), reason};
    }

    char peek(const char* inside)
    {
        if (!text.skipBlanks())
        {
            fail(std::string("file ends inside ") + inside);
        }
        return text.at(0);
    }

    void expect(char wanted, const char* inside)
    {
        char found = peek(inside);
        if (found != wanted)
        {
            fail(std::string("expected '") + wanted + "' but found '" + found +
                 "' in " + inside);
        }
        text.consume(1);
    }

    // The length of the quoted text at the cursor, whose opening quote it
    // consumes. Names are written unescaped, so a quote inside an FQDD does
    // not end it: a name ends at the first quote followed by a colon on its
    // line, a value at its first quote. Neither spans lines.
    size_t quotedLength(bool isName)
    {
        expect('"', "a group");
        for (size_t end = 0; text.has(end);)
        {
            auto held = text.heldAfter(end);
            size_t stop = held.find_first_of("\"\n");
            if (stop == std::string_view::npos)
            {
                end += held.size();
                continue;
            }
            end += stop;
            if (text.at(end) == '\n')
            {
                fail("unterminated quoted text");
            }
            if (isName && !text.has(end + 1))
            {
                break;
            }
            if (!isName || text.at(end + 1) == ':')
            {
                return end;
            }
            ++end;
        }
        fail("unterminated quoted text");
    }

    // Members up to and including the closing brace; the opening brace has
    // been consumed.
    void readMembers(int depth)
    {
        if (depth > maxGroupDepth)
        {
            fail("groups nested deeper than " + std::to_string(maxGroupDepth));
        }
        while (peek("a group") != '}')
        {
            const int line = text.line();
            size_t length = quotedLength(true);
            std::string name(text.view(length));
            text.consume(length + 1);
            expect(':', "a member");
            if (peek("a member") == '{')
            {
                text.consume(1);
                events.openGroup(name, line);
                readMembers(depth + 1);
                events.closeGroup();
            }
            else
            {
                length = quotedLength(false);
                events.text(name, text.view(length), line);
                text.consume(length + 1);
            }
            if (peek("a group") == ',')
            {
                text.consume(1);
            }
            else if (text.at(0) != '}')
            {
                fail(std::string("expected ',' or '}' but found '") +
                     text.at(0) + "' in a group");
            }
        }
        text.consume(1);
    }
};

// Builds the whole document out of its events.
class DocumentBuilder final : public ReportEvents
{
  public:
    void start(int line) override
    {
        document = Document{line, Node{"", "", true, line, {}}};
        open = {&document.root};
    }
    void openGroup(std::string_view name, int line) override
    {
        auto& members = open.back()->members;
        members.push_back(Node{std::string(name), "", true, line, {}});
        open.push_back(&members.back());
    }
    void text(std::string_view name, std::string_view value, int line) override
    {
        open.back()->members.push_back(
            Node{std::string(name), std::string(value), false, line, {}});
    }
    void closeGroup() override
    {
        open.pop_back();
    }
    Document take()
    {
        return std::move(document);
    }

  private:
    Document document;
    // The groups open, the innermost last.
    std::vector<Node*> open;
};

constexpr size_t minimumRead = size_t{64} * 1024;

} // namespace

bool ReportReader::next(ReportEvents& events)
{
    found.clear();
    while (text.skipBlanks())
    {
        const auto documentStart = text.mark();
        try
        {
            std::vector<ReadProblem> notes;
            DocumentParser(text, events).document(notes);
            found.insert(found.end(), notes.begin(), notes.end());
            return true;
        }
        catch (const Damage& damage)
        {
            found.push_back({damage.line, damage.reason, true});
            text.rewind(documentStart);
            text.skipToNextDocument();
        }
    }
    return false;
}

std::optional<Document> ReportReader::next()
{
    DocumentBuilder builder;
    if (!next(builder))
    {
        return std::nullopt;
    }
    return builder.take();
}

ReportText::ReportText(std::istream& in) : in(in), origin(in.tellg()) {}

bool ReportText::has(size_t ahead)
{
    while (start + ahead >= buffer.size())
    {
        if (!fill())
        {
            return false;
        }
    }
    return true;
}

// Lets go of the text before the cursor and appends at least as much again
// as is held after it, so that reading one long quoted text costs no more
// than twice its size.
bool ReportText::fill()
{
    buffer.erase(0, start);
    offset += std::streamoff(start);
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

bool ReportText::skipBlanks()
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

void ReportText::consume(size_t count)
{
    cursorLine += static_cast<int>(std::count(
        buffer.begin() + static_cast<std::ptrdiff_t>(start),
        buffer.begin() + static_cast<std::ptrdiff_t>(start + count), '\n'));
    start += count;
}

void ReportText::rewind(const Mark& back)
{
    cursorLine = back.line;
    if (back.offset >= offset)
    {
        start = size_t(back.offset - offset);
        return;
    }
    buffer.clear();
    start = 0;
    offset = back.offset;
    // A read error stays what it is; a failed seek is one too.
    atEnd = true;
    if (in.bad())
    {
        return;
    }
    in.clear();
    if (origin < 0 || !in.seekg(origin + back.offset))
    {
        in.setstate(std::ios::badbit);
        return;
    }
    atEnd = false;
}

// A document opens with a brace alone on its line. So does a drive's group,
// but its name's colon precedes it ("\"FQDD\":\n{"), as it precedes a log
// page's brace ("\"name\": {").
bool ReportText::opensDocument(size_t at) const
{
    if (buffer[at] != '{' || buffer[at + 1] != '\n')
    {
        return false;
    }
    return at < 2 || buffer[at - 2] != ':' ||
           (buffer[at - 1] != '\n' && buffer[at - 1] != ' ');
}

void ReportText::skipToNextDocument()
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
        // Never less than the first octet: after a rewind that read the
        // text again, nothing may be held yet.
        searched = std::max<size_t>(end - start, 1);
        if (!fill())
        {
            consume(buffer.size() - start);
            return;
        }
    }
}

namespace
{

std::optional<std::uint8_t> hexOctet(std::string_view cell)
{
    if (cell.size() != 2 ||
        std::isxdigit(static_cast<unsigned char>(cell[0])) == 0 ||
        std::isxdigit(static_cast<unsigned char>(cell[1])) == 0)
    {
        return std::nullopt;
    }
    return static_cast<std::uint8_t>(
        std::stoul(std::string(cell), nullptr, 16));
}

void handOver(const Node& member, ReportEvents& events)
{
    if (!member.isObject)
    {
        events.text(member.name, member.text, member.line);
        return;
    }
    events.openGroup(member.name, member.line);
    for (const Node& inner : member.members)
    {
        handOver(inner, events);
    }
    events.closeGroup();
}

} // namespace

bool isHexRowName(std::string_view name)
{
    return name.size() >= 6 && std::ranges::all_of(name, [](char c) {
               return std::isxdigit(static_cast<unsigned char>(c)) != 0;
           });
}

bool appendHexRow(std::string_view cells, std::vector<std::uint8_t>& octets)
{
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
            return false;
        }
        octets.push_back(*octet);
        cells.remove_prefix(end);
    }
    return true;
}

std::optional<std::vector<std::uint8_t>> decodeHexRows(const Node& group)
{
    if (!group.isObject || group.members.empty())
    {
        return std::nullopt;
    }
    std::vector<std::uint8_t> octets;
    for (const Node& row : group.members)
    {
        if (row.isObject || !isHexRowName(row.name) ||
            !appendHexRow(row.text, octets))
        {
            return std::nullopt;
        }
    }
    return octets;
}

void handOver(const Document& document, ReportEvents& events)
{
    events.start(document.line);
    for (const Node& member : document.root.members)
    {
        handOver(member, events);
    }
}

bool readReportFile(const std::string& file, std::ostream& err,
                    ReportEvents& events,
                    const std::function<void()>& documentRead)
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
        const bool read = reader.next(events);
        for (const auto& problem : reader.problems())
        {
            err << file << ':' << problem.line << ": "
                << (problem.damage ? "" : "note: ") << problem.reason << '\n';
            intact = intact && !problem.damage;
        }
        if (!read)
        {
            break;
        }
        documentRead();
    }
    if (in.bad())
    {
        err << file << ": read error\n";
        intact = false;
    }
    return intact;
}

bool readReportFile(const std::string& file, std::ostream& err,
                    const std::function<void(const Document&)>& each)
{
    DocumentBuilder builder;
    return readReportFile(file, err, builder, [&] { each(builder.take()); });
}

} // namespace qvreport
