#include "viewCells.hpp"

#include "textOutput.hpp"

namespace qvreport
{
namespace
{

std::string noValue(CellKind kind)
{
    return kind == CellKind::table ? "-" : "";
}

} // namespace

std::string figureCell(Figure value, CellKind kind)
{
    return value ? std::to_string(*value) : noValue(kind);
}

std::string criticalWarningCell(std::optional<std::uint64_t> bits,
                                CellKind kind)
{
    if (!bits)
    {
        return noValue(kind);
    }
    auto names = criticalWarningNames(*bits);
    return names.empty() ? "none"
                         : joined(names, kind == CellKind::table ? ',' : ';');
}

std::string flaggedCell(const std::string& cell, bool flagged)
{
    bool hasValue = cell != "-" && cell != "none";
    return flagged && hasValue ? cell + '!' : cell;
}

std::string dayCell(std::optional<Day> day)
{
    return day ? dayText(*day) : "";
}

} // namespace qvreport
