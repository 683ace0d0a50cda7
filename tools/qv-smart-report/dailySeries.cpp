#include "dailySeries.hpp"

#include <algorithm>
#include <limits>

namespace qvreport
{

void Trend::add(Day day, Figure value)
{
    if (!value)
    {
        return;
    }
    if (last && *value > *last)
    {
        ++rises;
        firstRose = firstRose.value_or(day);
    }
    if (!last || *value != *last)
    {
        lastChange = day;
    }
    first = first.value_or(*value);
    min = std::min(min.value_or(*value), *value);
    max = std::max(max.value_or(*value), *value);
    last = value;
}

namespace
{

// Marks a day without that figure in a kept series.
constexpr std::int64_t noValue = std::numeric_limits<std::int64_t>::min();

std::optional<std::int64_t> valueAt(const std::vector<std::int64_t>& column,
                                    size_t i)
{
    if (i >= column.size() || column[i] == noValue)
    {
        return std::nullopt;
    }
    return column[i];
}

// The day's value into a figure's column as the `day`th entry; a figure
// first reported that day has no value on the days before.
void put(std::vector<std::int64_t>& column, size_t day,
         std::optional<std::int64_t> value)
{
    if (!value && column.empty())
    {
        return;
    }
    column.resize(day, noValue);
    column.push_back(value.value_or(noValue));
}

} // namespace

void DailySeries::add(Day day, const DriveHealth& health, Verdict verdict)
{
    days.push_back(std::int32_t(day.time_since_epoch().count()));
    verdicts.push_back(verdict);
    for (size_t i = 0; i < namedFigures.size(); ++i)
    {
        put(values.at(i), days.size() - 1, health.*namedFigures.at(i).figure);
    }
    auto bits = health.criticalWarning;
    put(criticalWarnings, days.size() - 1,
        bits ? std::optional<std::int64_t>(std::int64_t(*bits)) : std::nullopt);
}

Figure DailySeries::value(size_t i, Figure DriveHealth::*figure) const
{
    return valueAt(values.at(columnOf(namedFigures, figure)), i);
}

std::optional<std::uint64_t> DailySeries::criticalWarning(size_t i) const
{
    auto bits = valueAt(criticalWarnings, i);
    return bits ? std::optional<std::uint64_t>(*bits) : std::nullopt;
}

} // namespace qvreport
