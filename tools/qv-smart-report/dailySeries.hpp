#pragma once

#include "driveHealth.hpp"
#include "reportDate.hpp"
#include "verdict.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace qvreport
{

// How one figure went across a drive's readings.
struct Trend
{
    Figure first;
    Figure last;
    Figure min;
    Figure max;
    int rises = 0;
    std::optional<Day> firstRose;
    // The day of the first reading with the value the figure has now.
    std::optional<Day> lastChange;

    // The next reading's value, if it has one.
    void add(Day day, Figure value);
};

// A drive's readings day by day, kept only for the outputs that draw or
// stamp every day: one value per day and figure, the FQDD and class held
// once by the drive.
class DailySeries
{
  public:
    void add(Day day, const DriveHealth& health, Verdict verdict);
    size_t size() const
    {
        return days.size();
    }
    Day day(size_t i) const
    {
        return Day(std::chrono::days(days.at(i)));
    }
    Verdict verdict(size_t i) const
    {
        return verdicts.at(i);
    }
    Figure value(size_t i, Figure DriveHealth::*figure) const;
    std::optional<std::uint64_t> criticalWarning(size_t i) const;

  private:
    std::vector<std::int32_t> days;
    std::vector<Verdict> verdicts;
    // Per figure of namedFigures, and the critical-warning bits; empty for
    // a figure the drive never reported.
    std::array<std::vector<std::int64_t>, namedFigures.size()> values;
    std::vector<std::int64_t> criticalWarnings;
};

} // namespace qvreport
