#include "reportDocument.hpp"

#include <algorithm>
#include <cctype>

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

class Reader
{
public:
    explicit Reader(std::string_view text) : text(text)
    {}

    ReadResult readAll()
    {
        ReadResult result;
        try
        {
            while (skipBlanks())
            {
                result.documents.push_back(readDocument(result.notes));
            }
        }
        catch (const Damage& damage)
        {
            result.damage = ReadProblem{damage.line, damage.reason};
        }
        return result;
    }

private:
    std::string_view text;
    size_t pos = 0;
    int line = 1;

    bool skipBlanks()
    {
        while (pos < text.size() &&
               std::isspace(static_cast<unsigned char>(text[pos])))
        {
            line += text[pos] == '\n' ? 1 : 0;
            ++pos;
        }
        return pos < text.size();
    }

    [[noreturn]] void fail(const std::string& reason) const
    {
        throw Damage{line, reason};
    }

    char peek(const char* inside)
    {
        if (!skipBlanks())
        {
            fail(std::string("file ends inside ") + inside);
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
    // it: a name ends at the first quote followed by a colon on its line.
    std::string readString(bool isName)
    {
        expect('"', "a group");
        size_t lineEnd = std::min(text.find('\n', pos), text.size());
        size_t end = isName ? text.find("\":", pos) : text.find('"', pos);
        if (end == std::string_view::npos || end >= lineEnd)
        {
            fail("unterminated quoted text");
        }
        std::string value(text.substr(pos, end - pos));
        pos = end + 1;
        return value;
    }

    // Members up to and including the closing brace; the opening brace has
    // been consumed.
    void readMembers(Node& group)
    {
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
                readMembers(member);
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

    Document readDocument(std::vector<ReadProblem>& notes)
    {
        Document document;
        document.line = line;
        document.root.isObject = true;
        document.root.line = line;
        expect('{', "the text between documents");
        readMembers(document.root);
        // A hard drive reported without an FQDD has no group head, so the
        // document closes one brace early: the rest of the run follows as
        // ",<members>}" or a lone "}".
        while (skipBlanks() && (text[pos] == ',' || text[pos] == '}'))
        {
            notes.push_back({line, "unbalanced closing brace (hard drive "
                                   "without FQDD), read on"});
            if (text[pos++] == ',')
            {
                readMembers(document.root);
            }
        }
        return document;
    }
};

bool isHexRowName(const std::string& name)
{
    return name.size() >= 6 && std::ranges::all_of(name, [](char c) {
               return std::isxdigit(static_cast<unsigned char>(c)) != 0;
           });
}

std::optional<unsigned> hexOctet(std::string_view cell)
{
    if (cell.size() != 2 ||
        !std::isxdigit(static_cast<unsigned char>(cell[0])) ||
        !std::isxdigit(static_cast<unsigned char>(cell[1])))
    {
        return std::nullopt;
    }
    return static_cast<unsigned>(std::stoul(std::string(cell), nullptr, 16));
}

} // namespace

ReadResult readReport(std::string_view text)
{
    return Reader(text).readAll();
}

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

} // namespace qvreport
