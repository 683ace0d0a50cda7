#pragma once

#include "reportDate.hpp"

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
// that cannot be read or whose name cannot be its day is named on `err` and
// makes `intact` false.
std::vector<DatedFile> datedFiles(const std::vector<std::string>& paths,
                                  const Period& period, std::ostream& err,
                                  bool& intact);

// Today, by the local clock.
Day today();

} // namespace qvreport
