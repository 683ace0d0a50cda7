#include "dayFiles.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <tuple>
#include <variant>

namespace qvreport
{
namespace fs = std::filesystem;

namespace
{

Day localDay(std::time_t time)
{
    std::tm local{};
    localtime_r(&time, &local);
    return Day(std::chrono::year_month_day(
        std::chrono::year(local.tm_year + 1900),
        std::chrono::month(unsigned(local.tm_mon + 1)),
        std::chrono::day(unsigned(local.tm_mday))));
}

struct Written
{
    Day day;
    std::int64_t time;
    bool empty;
};

std::optional<Written> writtenOf(const fs::path& path)
{
    struct stat status
    {};
    if (::stat(path.c_str(), &status) != 0)
    {
        return std::nullopt;
    }
    return Written{localDay(status.st_mtime), status.st_mtime,
                   S_ISREG(status.st_mode) && status.st_size == 0};
}

// Why the day in a daily report's name cannot be the day it was collected:
// the controller's clock was wrong when it named the file. A file written a
// day early (a run just before midnight, a file copied later) is still
// taken. Nothing when the day is plausible.
std::optional<std::string> wrongClock(Day named, Day written, Day today)
{
    // No controller of this kind ran before then: a clock reset to its
    // epoch or to a board's default date names files of 1970 or 2000.
    constexpr Day earliest{std::chrono::year(2010) / 1 / 1};
    constexpr std::chrono::days slack{1};
    if (named < earliest)
    {
        return "dated " + dayText(named) + ", before 2010";
    }
    if (named > written + slack)
    {
        return "dated " + dayText(named) +
               ", more than a day after the file was last written";
    }
    if (named > today + slack)
    {
        return "dated " + dayText(named) + ", more than a day after today";
    }
    return std::nullopt;
}

// The day a report file stands for, or why it is set aside.
std::variant<DatedFile, std::string> dayOf(const fs::path& path,
                                           const Period& period, Day today)
{
    auto name = path.filename().string();
    auto written = writtenOf(path);
    if (!written)
    {
        return std::string("cannot be read");
    }
    if (auto dated = datedReportName(name); dated)
    {
        if (auto wrong = wrongClock(dated->day, written->day, today); wrong)
        {
            return "set aside: " + *wrong;
        }
        return DatedFile{dated->day, path.string(), false, written->time,
                         written->empty};
    }
    if (auto digits = dailyReportDigits(name); digits)
    {
        return "set aside: no such day as " + std::string(*digits);
    }
    return DatedFile{period.date ? *period.date : written->day, path.string(),
                     true, written->time, written->empty};
}

bool isReportName(const std::string& name)
{
    return dailyReportDigits(name) || collectionReportName(name);
}

// A directory's report files in name order, so that what is said about
// them comes in the same order on every file system.
std::vector<fs::path> reportFilesIn(const std::string& directory,
                                    std::error_code& error)
{
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(directory, error))
    {
        if (isReportName(entry.path().filename().string()))
        {
            found.push_back(entry.path());
        }
    }
    std::ranges::sort(found);
    return found;
}

// Daily reports in order of their days, each set aside when it was written
// more than a day after a report of a later day: the clock that named it
// had gone back (a controller's clock reset to a date that is still
// plausible on its own).
void setAsideRewritten(std::vector<DatedFile>& files, std::ostream& err,
                       bool& intact)
{
    constexpr std::int64_t slack = 86400;
    const DatedFile* firstWrittenLater = nullptr;
    std::vector<DatedFile> kept;
    for (auto group = files.rbegin(); group != files.rend();)
    {
        auto end = std::find_if(group, files.rend(), [&](const DatedFile& f) {
            return f.day != group->day;
        });
        const DatedFile* firstWritten = firstWrittenLater;
        for (auto file = group; file != end; ++file)
        {
            if (!file->runPerDocument && firstWrittenLater != nullptr &&
                file->written > firstWrittenLater->written + slack)
            {
                err << file->path << ": set aside: dated " << dayText(file->day)
                    << ", written more than a day after "
                    << fs::path(firstWrittenLater->path).filename().string()
                    << " of " << dayText(firstWrittenLater->day) << '\n';
                intact = false;
                continue;
            }
            if (!file->runPerDocument &&
                (firstWritten == nullptr ||
                 file->written < firstWritten->written))
            {
                firstWritten = &*file;
            }
            kept.push_back(*file);
        }
        firstWrittenLater = firstWritten;
        group = end;
    }
    std::ranges::reverse(kept);
    files = std::move(kept);
}

} // namespace

std::vector<DatedFile> datedFiles(const std::vector<std::string>& paths,
                                  const Period& period, std::ostream& err,
                                  bool& intact)
{
    std::vector<DatedFile> files;
    const Day now = today();
    auto take = [&](const fs::path& path) {
        auto dated = dayOf(path, period, now);
        if (const auto* why = std::get_if<std::string>(&dated))
        {
            err << path.string() << ": " << *why << '\n';
            intact = false;
        }
        else if (auto& file = std::get<DatedFile>(dated);
                 file.runPerDocument || inPeriod(file.day, period))
        {
            files.push_back(std::move(file));
        }
    };
    for (const auto& path : paths)
    {
        std::error_code error;
        if (!fs::is_directory(path, error))
        {
            take(path);
            continue;
        }
        for (const auto& file : reportFilesIn(path, error))
        {
            take(file);
        }
        if (error)
        {
            err << path << ": " << error.message() << '\n';
            intact = false;
        }
    }
    std::ranges::sort(files, [](const DatedFile& a, const DatedFile& b) {
        return std::tie(a.day, a.path) < std::tie(b.day, b.path);
    });
    setAsideRewritten(files, err, intact);
    return files;
}

bool inPeriod(Day day, const Period& period)
{
    return (!period.since || day >= *period.since) &&
           (!period.until || day <= *period.until);
}

Day today()
{
    return localDay(std::time(nullptr));
}

std::int64_t endOfDay(Day day)
{
    std::chrono::year_month_day date(day + std::chrono::days(1));
    std::tm local{};
    local.tm_year = int(date.year()) - 1900;
    local.tm_mon = int(unsigned(date.month())) - 1;
    local.tm_mday = int(unsigned(date.day()));
    local.tm_isdst = -1;
    return std::int64_t(std::mktime(&local)) - 1;
}

std::int64_t readingTime(Day day, std::int64_t written)
{
    return std::min(written, endOfDay(day));
}

} // namespace qvreport
