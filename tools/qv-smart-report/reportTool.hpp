#pragma once

#include "driveHealth.hpp"
#include "reportDocument.hpp"

#include <ostream>
#include <span>
#include <string>
#include <vector>

namespace qvreport
{

enum class Format
{
    table,
    csv,
    json
};

enum ExitCode
{
    exitOk = 0,
    exitDamaged = 1,
    exitUsage = 2
};

// One JSON line for a document: {"file":..,"line":..,"report":{..}}.
void writeJson(std::ostream& out, const std::string& file,
               const Document& document);
void writeCsvHeader(std::ostream& out);
void writeCsvRows(std::ostream& out, const std::string& file,
                  const std::vector<DriveHealth>& drives);

// The health view as a table, printed once every row is known: each column
// is as wide as its widest cell.
class HealthTable
{
public:
    HealthTable();
    void add(const std::vector<DriveHealth>& drives);
    void print(std::ostream& out) const;

private:
    std::vector<std::vector<std::string>> rows;
};

// The whole command: arguments without the program name.
int runReportTool(std::span<const std::string> args, std::ostream& out,
                  std::ostream& err);

} // namespace qvreport
