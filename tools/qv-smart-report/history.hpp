#pragma once

#include "driveHealth.hpp"
#include "reportDate.hpp"
#include "verdict.hpp"

#include <nlohmann/json.hpp>

#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace qvreport
{

// A report file and the day it speaks for.
struct DatedFile
{
    Day day;
    std::string path;
};

struct Period
{
    std::optional<Day> since;
    std::optional<Day> until;
    // The day of collection-mode files, instead of their modification time.
    std::optional<Day> date;
};

// The report files of `paths`, by day: a directory gives its daily and
// collection-mode reports, a file is taken whatever its name. A daily report
// is dated by its name, any other file by its modification time (local
// time) unless the period names a day. Files outside the period are left
// out; a path that cannot be read is named on `err` and makes `intact`
// false.
std::vector<DatedFile> datedFiles(const std::vector<std::string>& paths,
                                  const Period& period, std::ostream& err,
                                  bool& intact);

struct Sample
{
    Day day;
    DriveHealth health;
};

// One drive, followed by its FQDD: its figures on each day it was reported,
// the day's last report holding.
struct DriveHistory
{
    std::string fqdd;
    std::vector<Sample> samples;
    Assessment assessment{{}};
};

// How one figure went across a drive's history.
struct Trend
{
    Figure first;
    Figure last;
    Figure min;
    Figure max;
    int rises = 0;
    std::optional<Day> firstRose;

    // The next day's value, if it has one.
    void add(Day day, Figure value);
};

Trend trendOf(const DriveHistory& drive, Figure DriveHealth::*figure);

// The last day's thresholds, each since the first of the days up to the
// last on which it held, and failure counters that kept rising.
Assessment historyAssessment(const DriveHistory& drive);

// The verdict the history up to each day gives, day by day: the last one is
// historyAssessment's.
std::vector<Verdict> dailyVerdicts(const DriveHistory& drive);

// The drives followed across the days read, each assessed once: what every
// output of the history is written from.
struct History
{
    // Drives with an FQDD, failed first, then warned, then by FQDD. Drives
    // without one cannot be told apart from day to day.
    std::vector<DriveHistory> drives;
    std::optional<Day> firstDay;
    std::optional<Day> lastDay;
};

class HistoryBuilder
{
  public:
    // Every drive of one report document, on its day.
    void add(Day day, const Document& document);

    // Moves the days read into the history: the builder is empty after.
    History build();

  private:
    std::map<std::string, std::map<Day, DriveHealth>> timeline;
    std::optional<Day> first;
    std::optional<Day> last;
};

// A drive's history as the json output holds it; the table and the csv
// output are read from it.
nlohmann::ordered_json historyJson(const DriveHistory& drive,
                                   const History& history);

void writeHistoryJson(std::ostream& out, const History& history);
void writeHistoryCsv(std::ostream& out, const History& history);
void writeHistoryTable(std::ostream& out, const History& history);

} // namespace qvreport
