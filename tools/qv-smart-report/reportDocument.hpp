#pragma once

#include <cstdint>
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

// What a document holds, handed over in file order as it is read: a
// group's name as it opens, each quoted text with its name, the end of the
// innermost open group. The document's own braces are not a group. The
// views last only for the call.
class ReportEvents
{
  public:
    ReportEvents() = default;
    virtual ~ReportEvents() = default;
    ReportEvents(const ReportEvents&) = delete;
    ReportEvents& operator=(const ReportEvents&) = delete;
    ReportEvents(ReportEvents&&) = delete;
    ReportEvents& operator=(ReportEvents&&) = delete;

    // A document starts on `line`: what was handed over since the last
    // start belonged to damaged text and is void.
    virtual void start(int line) = 0;
    virtual void openGroup(std::string_view name, int line) = 0;
    virtual void text(std::string_view name, std::string_view value,
                      int line) = 0;
    virtual void closeGroup() = 0;
};

// The text of a report, read in blocks behind a cursor: only the text from
// the cursor on is held, and of that only as far as it has been looked at,
// so a document far larger than memory can be read through.
class ReportText
{
  public:
    explicit ReportText(std::istream& in);

    // Whether an octet lies `ahead` octets past the cursor, reading on as
    // far as that needs.
    bool has(size_t ahead);
    char at(size_t ahead) const
    {
        return buffer[start + ahead];
    }
    // The `count` octets from the cursor on, all of them read already.
    std::string_view view(size_t count) const
    {
        return std::string_view(buffer).substr(start, count);
    }
    // The octets read past the cursor and `ahead`, without reading on.
    std::string_view heldAfter(size_t ahead) const
    {
        return std::string_view(buffer).substr(start + ahead);
    }
    void consume(size_t count);
    // Moves the cursor past blanks; false at the end of the input.
    bool skipBlanks();
    int line() const
    {
        return cursorLine;
    }

    // A place in the text to come back to.
    struct Mark
    {
        std::streamoff offset = 0;
        int line = 1;
    };
    Mark mark() const
    {
        return {offset + std::streamoff(start), cursorLine};
    }
    // Puts the cursor back on a mark, reading the input again from there
    // when its text has been let go. An input that cannot go back there is
    // left bad.
    void rewind(const Mark& back);
    // Skips a damaged document: from the cursor on to the next brace that
    // opens a document, or to the end of the input.
    void skipToNextDocument();

  private:
    std::istream& in;
    std::streamoff origin;
    std::string buffer;
    std::streamoff offset = 0; // of buffer[0], from the input's start
    size_t start = 0;          // the cursor: first unread octet of `buffer`
    int cursorLine = 1;
    bool atEnd = false;

    bool fill();
    bool opensDocument(size_t at) const;
};

// Reads the documents of a report file one at a time: appended runs back to
// back, unescaped names, a comma after every member. Only the text being
// read is held in memory, never a whole document's. After damage (a run cut
// short, a name with a line break) the reader names it and goes on at the
// next document's start, reading again from the damaged document's start:
// the input must be able to seek there.
class ReportReader
{
  public:
    explicit ReportReader(std::istream& in) : text(in) {}

    // The next complete document; nothing at the end of the input. The
    // problems met on the way are in problems() until the next call.
    std::optional<Document> next();

    // The next complete document handed to `events` as it is read; false
    // at the end of the input, where anything handed over since the last
    // start is void.
    bool next(ReportEvents& events);

    const std::vector<ReadProblem>& problems() const
    {
        return found;
    }

  private:
    ReportText text;
    std::vector<ReadProblem> found;
};

// A member name of a hex dump's row: its offset, six hex digits or more.
bool isHexRowName(std::string_view name);

// Appends the octets of a hex dump row's text ("0a 0b ..."); false when a
// cell is not two hex digits.
bool appendHexRow(std::string_view cells, std::vector<std::uint8_t>& octets);

// Octets of a group made only of hex rows ("000010": "0a 0b ..."), in row
// order; nothing when the group is not such a dump.
std::optional<std::vector<std::uint8_t>> decodeHexRows(const Node& group);

// Hands a document already read to `events`, as reading it would have.
void handOver(const Document& document, ReportEvents& events);

// Reads every document of one report file into `events`, calling
// `documentRead` after each complete one and naming each problem on `err`
// as "<file>:<line>: <reason>"; false when the file cannot be read or holds
// damage. A FIFO, a device or a directory is refused: a report is a regular
// file, and reading the others may never end.
bool readReportFile(const std::string& file, std::ostream& err,
                    ReportEvents& events,
                    const std::function<void()>& documentRead);

// The same, each complete document handed to `each` whole.
bool readReportFile(const std::string& file, std::ostream& err,
                    const std::function<void(const Document&)>& each);

} // namespace qvreport
