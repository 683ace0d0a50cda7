#pragma once

#include <functional>
#include <istream>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace qvreport
{

// One value of a report: a quoted text or a group of named values. Names are
// kept in file order and may repeat (entries without an FQDD all carry "").
struct Node
{
    std::string name;
    std::string text;
    bool isObject = false;
    int line = 0;
    std::vector<Node> members;

    const Node* find(std::string_view key) const;
};

// What one collector run appended: the outer group, keyed by drive.
struct Document
{
    int line = 0;
    Node root;
};

struct ReadProblem
{
    int line = 0;
    std::string reason;
    // Damage: text that is no document, skipped up to the next document's
    // start. Otherwise a note on text the collector is known to leave
    // unbalanced, read on regardless.
    bool damage = true;
};

// Groups nested deeper than this are damage: the collector writes three
// levels (document, drive, log page).
inline constexpr int maxGroupDepth = 16;

// Reads the documents of a report file one at a time: appended runs back to
// back, unescaped names, a comma after every member. Only the document being
// read is held in memory. After damage (a run cut short, a name with a line
// break) the reader names it and goes on at the next document's start.
class ReportReader
{
  public:
    explicit ReportReader(std::istream& in) : in(in) {}

    // The next complete document; nothing at the end of the input. The
    // problems met on the way are in problems() until the next call.
    std::optional<Document> next();

    const std::vector<ReadProblem>& problems() const
    {
        return found;
    }

  private:
    std::istream& in;
    std::string buffer;
    size_t start = 0; // first unread octet of `buffer`
    int line = 1;     // line number of buffer[start]
    bool atEnd = false;
    std::vector<ReadProblem> found;

    bool fill();
    bool skipBlanks();
    void consume(size_t count);
    bool opensDocument(size_t at) const;
    void skipToNextDocument();
};

// Octets of a group made only of hex rows ("000010": "0a 0b ..."), in row
// order; nothing when the group is not such a dump.
std::optional<std::vector<unsigned>> decodeHexRows(const Node& group);

// Hands every document of one report file to `each`, naming each problem on
// `err` as "<file>:<line>: <reason>"; false when the file cannot be read or
// holds damage. A FIFO, a device or a directory is refused: a report is a
// regular file, and reading the others may never end.
bool readReportFile(const std::string& file, std::ostream& err,
                    const std::function<void(const Document&)>& each);

} // namespace qvreport
