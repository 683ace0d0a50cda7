#pragma once

#include "reportDate.hpp"

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace qvreport
{

// A report file and the day it speaks for. A daily report holds the runs
// of its day; any other file (a collection's SmartLogs.json) holds one run
// per document, the last of them on `day`.
struct DatedFile
{
    Day day;
    std::string path;
    bool runPerDocument = false;
    // When it was last written, in seconds since the epoch.
    std::int64_t written = 0;
    // Of 0 octets: a run that could not write (a full disk).
    bool empty = false;
};

struct Period
{
    std::optional<Day> since;
    std::optional<Day> until;
    // The day of collection-mode files, instead of their modification time.
    std::optional<Day> date;
};

bool inPeriod(Day day, const Period& period);

// The report files of `paths`, by day: a directory gives its daily and
// collection-mode reports, a file is taken whatever its name. A daily report
// is dated by its name, any other file by its modification time (local
// time) unless the period names a day. Daily reports outside the period are
// left out; the runs of the other files are held to it one by one. A path
// that cannot be read or whose name cannot be its day (see the README,
// "History") is named on `err` and makes `intact` false.
std::vector<DatedFile> datedFiles(const std::vector<std::string>& paths,
                                  const Period& period, std::ostream& err,
                                  bool& intact);

// Today, by the local clock.
Day today();

// The last second of a day by the local clock, in seconds since the epoch.
std::int64_t endOfDay(Day day);

// When the readings of a report of `day` written at `written` were taken:
// a file written after its day (copied, appended to by a late run) says
// no more than that they were taken that day.
std::int64_t readingTime(Day day, std::int64_t written);

} // namespace qvreport
