#include "history.hpp"

#include <algorithm>
#include <iterator>

namespace qvreport
{

namespace
{

// A collection file's runs, one day each, the last on the file's own day.
struct Run
{
    Day day;
    std::int64_t time;
    std::vector<DriveHealth> drives;
};

std::vector<Run> runsOf(const DatedFile& file, std::ostream& err, bool& intact)
{
    std::vector<Run> runs;
    intact = readDriveHealth(
                 file.path, err,
                 [&runs](const std::vector<DriveHealth>& drives) {
        runs.push_back({Day{}, 0, drives});
                 }) &&
        intact;
    for (size_t i = 0; i < runs.size(); ++i)
    {
        runs[i].day = file.day - std::chrono::days(runs.size() - 1 - i);
        runs[i].time = readingTime(runs[i].day, file.written);
    }
    return runs;
}

} // namespace

History readHistory(const std::vector<DatedFile>& files, const Period& period,
                    HistoryOptions options, std::ostream& err, bool& intact)
{
    // A collection's runs are few and held until their day comes; daily
    // reports are read one document at a time.
    std::vector<Run> runs;
    for (const auto& file : files)
    {
        if (file.runPerDocument)
        {
            std::ranges::move(runsOf(file, err, intact),
                              std::back_inserter(runs));
        }
    }
    std::erase_if(
        runs, [&period](const Run& run) { return !inPeriod(run.day, period); });
    std::ranges::stable_sort(runs, {}, &Run::day);
    HistoryBuilder builder(std::move(options));
    auto run = runs.begin();
    auto runsBefore = [&](std::optional<Day> day) {
        for (; run != runs.end() && (!day || run->day < *day); ++run)
        {
            builder.add(run->day, run->drives, run->time);
        }
    };
    for (const auto& file : files)
    {
        if (file.runPerDocument)
        {
            continue;
        }
        // A collection on the same day as a daily run came after it.
        runsBefore(file.day);
        const auto time = readingTime(file.day, file.written);
        if (file.empty)
        {
            // The collector ran but could not write: not one drive read.
            err << file.path << ": empty, a day without readings\n";
            builder.add(file.day, {}, 0);
            continue;
        }
        intact = readDriveHealth(
                     file.path, err,
                     [&](const std::vector<DriveHealth>& drives) {
            builder.add(file.day, drives, time);
                     }) &&
            intact;
    }
    runsBefore(std::nullopt);
    auto history = builder.build();
    for (const auto& line : history.setAside)
    {
        err << line << '\n';
    }
    return history;
}

} // namespace qvreport
