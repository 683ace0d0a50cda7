#pragma once

#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace qvreport
{

// The names one after the other, `separator` between them.
std::string joined(const std::vector<std::string>& names, char separator);

// The text as valid UTF-8: each octet that starts no valid sequence becomes
// U+FFFD, as the JSON output writes it.
std::string validUtf8(std::string_view text);

// A cell of a csv row, quoted when it holds a comma, a quote or a line break.
std::string csvCell(const std::string& text);

// One csv row of cells, each quoted as it needs.
void writeCsvRow(std::ostream& out, const std::vector<std::string>& cells);

// Rows printed once all are known: each column is as wide as its widest
// cell; the last one is not padded. Control characters show as \xNN, and a
// cell of a padded column longer than 64 characters is cut with "…", so one
// huge name cannot pad every row.
class TextTable
{
  public:
    explicit TextTable(std::vector<std::string> heading);
    void add(std::vector<std::string> row);
    void print(std::ostream& out) const;

  private:
    std::vector<std::vector<std::string>> rows;
};

// Replaces `path` with what `write` writes, in one step: written as it
// comes into a new file beside it under a random name, flushed to disk,
// renamed over it. A reader of the file sees the old or the new text, never
// a part, and the text is never held whole. Only a regular file or a name
// not taken yet is replaced. The temporary file is removed on every failure
// and when SIGTERM or SIGINT stops the writing. False, with the reason on
// `err`, when that fails.
bool replaceFile(const std::string& path, std::ostream& err,
                 const std::function<void(std::ostream&)>& write);

} // namespace qvreport
