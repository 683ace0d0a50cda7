#pragma once

#include "driveHealth.hpp"
#include "reportDate.hpp"

#include <cstdint>
#include <optional>
#include <string>

namespace qvreport
{

// The cells the tables and csv rows of the health view and the history are
// made of, each written here once. A table shows "-" for what a report
// does not have, a csv row an empty cell.
enum class CellKind
{
    table,
    csv
};

// A figure's value.
std::string figureCell(Figure value, CellKind kind);

// The NVMe critical-warning bits by name, "none" for a drive that reports
// 0; a table separates them with ',', a csv row with ';'.
std::string criticalWarningCell(std::optional<std::uint64_t> bits,
                                CellKind kind);

// A table cell marked with '!' when a reason flags its figure; a cell
// without a value ("-", "none") is never marked.
std::string flaggedCell(const std::string& cell, bool flagged);

// A day, empty when there is none.
std::string dayCell(std::optional<Day> day);

} // namespace qvreport
