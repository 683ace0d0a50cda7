#pragma once

#include "dayFiles.hpp"
#include "driveHealth.hpp"
#include "verdict.hpp"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
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
    // Per figure of namedFigures, then the critical-warning bits; empty for
    // a figure the drive never reported.
    std::array<std::vector<std::int64_t>, namedFigures.size() + 1> values;
    void put(size_t figure, std::optional<std::int64_t> value);
};

// One drive from its first reading to its last: its identity, the running
// figures of its readings, the reasons that hold and the verdict. Every
// output of the history is written from it.
struct DriveRecord
{
    std::string fqdd;
    // The class of its last reading.
    std::string driveClass;
    Day firstDay{};
    // The day of its last reading.
    Day lastDay{};
    // Days with a reading.
    int days = 0;
    // The last day a report listed it, with or without figures.
    Day lastSeen{};
    std::array<Trend, figureColumns.size()> trends{};
    // The last reading itself.
    DriveHealth latest;
    // The last reading's reasons, each since the first of the readings up
    // to the last on which it held.
    std::vector<Reason> holding;
    Assessment assessment{{}};
    bool appeared = false;
    // Another drive took its bay, or it went without a reading too long.
    bool vanished = false;
    // Still the server's, but without a reading on the history's last day:
    // its verdict is the one of its last reading.
    bool stale = false;
    // Only when the history keeps its days.
    DailySeries series;

    const Trend& trend(Figure DriveHealth::*figure) const;
};

// The drives followed across the days read, each assessed once.
struct History
{
    // Failed first, then warned, then by FQDD and first day.
    std::vector<DriveRecord> drives;
    std::optional<Day> firstDay;
    std::optional<Day> lastDay;
};

struct HistoryOptions
{
    // Keep every reading for the outputs that show each day.
    bool keepDays = false;
    // Days without a reading after which a drive counts as gone.
    int staleAfter = 3;
};

// Builds the history from reports given day by day, in order of their days.
// A drive is followed by its FQDD, which names its bay: power-on hours that
// drop or a class that changes mean another drive in that bay. A report of
// the drive without any figure (its log pages could not be read) is a gap,
// not a recovery.
class HistoryBuilder
{
  public:
    explicit HistoryBuilder(HistoryOptions options = {});

    // Every drive of one run's report, on its day. `wholeRun` when the
    // report is a collection run, which lists every drive the server had.
    void add(Day day, const std::vector<DriveHealth>& drives,
             bool wholeRun = false);

    // Moves the days read into the history: the builder is empty after.
    History build();

  private:
    HistoryOptions options;
    std::optional<Day> gathering;
    std::map<std::string, DriveHealth> gathered;
    bool gatheredWholeRun = false;
    std::vector<DriveRecord> records;
    // The record of the drive in each bay.
    std::map<std::string, size_t> inBay;
    std::optional<Day> first;
    std::optional<Day> last;
    bool lastDayWholeRun = false;

    void closeDay();
    void addReading(Day day, const std::string& fqdd, DriveHealth& health);
};

// Reads the files in order of their days into a history. A file read with
// damage is named on `err` and makes `intact` false; the rest of it is
// still taken.
History readHistory(const std::vector<DatedFile>& files, const Period& period,
                    HistoryOptions options, std::ostream& err, bool& intact);

} // namespace qvreport
