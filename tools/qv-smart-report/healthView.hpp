#pragma once

#include "driveHealth.hpp"
#include "reportDocument.hpp"
#include "textOutput.hpp"
#include "verdict.hpp"

#include <ostream>
#include <string>

namespace qvreport
{

// One JSON line for a document: {"file":..,"line":..,"report":{..}}.
void writeJson(std::ostream& out, const std::string& file,
               const Document& document);

// The health view of report files: a line per drive with its figures, its
// verdict and the reasons for it. A csv row is written as its drive comes,
// the table once every drive is known (each column as wide as its widest
// cell). The JSON lines are the documents themselves (writeJson).
class HealthView
{
  public:
    enum class Format
    {
        table,
        csv,
        jsonLines
    };

    // The csv heading is written at once.
    HealthView(std::ostream& out, Format format);

    void add(const std::string& file, const DriveHealth& drive,
             const Assessment& assessment);
    // Prints the table.
    void finish();

  private:
    std::ostream& out;
    Format format;
    TextTable table;
};

} // namespace qvreport
