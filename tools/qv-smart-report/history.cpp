#include "history.hpp"

#include "reportTool.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <filesystem>
#include <string_view>
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

std::optional<Day> modificationDay(const fs::path& path)
{
    struct stat status
    {};
    if (::stat(path.c_str(), &status) != 0)
    {
        return std::nullopt;
    }
    return localDay(status.st_mtime);
}

// Why the day in a daily report's name cannot be the day it was collected:
// the controller's clock was wrong when it named the file. A file written a
// day early (a run just before midnight, a file copied later) is still
// taken. Nothing when the day is plausible.
std::optional<std::string> wrongClock(Day named, Day written, Day today)
{
    constexpr Day earliest{std::chrono::year(2000) / 1 / 1};
    constexpr std::chrono::days slack{1};
    if (named < earliest)
    {
        return "dated " + dayText(named) + ", before 2000";
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
std::variant<Day, std::string> dayOf(const fs::path& path, const Period& period,
                                     Day today)
{
    auto name = path.filename().string();
    auto written = modificationDay(path);
    if (!written)
    {
        return std::string("cannot be read");
    }
    if (auto dated = datedReportName(name); dated)
    {
        if (auto wrong = wrongClock(dated->day, *written, today); wrong)
        {
            return "set aside: " + *wrong;
        }
        return dated->day;
    }
    if (auto digits = dailyReportDigits(name); digits)
    {
        return "set aside: no such day as " + std::string(*digits);
    }
    return period.date ? *period.date : *written;
}

bool inPeriod(Day day, const Period& period)
{
    return (!period.since || day >= *period.since) &&
           (!period.until || day <= *period.until);
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

} // namespace

std::vector<DatedFile> datedFiles(const std::vector<std::string>& paths,
                                  const Period& period, std::ostream& err,
                                  bool& intact)
{
    std::vector<DatedFile> files;
    const Day today = localDay(std::time(nullptr));
    auto take = [&](const fs::path& path) {
        auto day = dayOf(path, period, today);
        if (const auto* why = std::get_if<std::string>(&day))
        {
            err << path.string() << ": " << *why << '\n';
            intact = false;
        }
        else if (inPeriod(std::get<Day>(day), period))
        {
            files.push_back({std::get<Day>(day), path.string()});
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
    return files;
}

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
    first = first.value_or(*value);
    min = std::min(min.value_or(*value), *value);
    max = std::max(max.value_or(*value), *value);
    last = value;
}

Trend trendOf(const DriveHistory& drive, Figure DriveHealth::*figure)
{
    Trend trend;
    for (const auto& sample : drive.samples)
    {
        trend.add(sample.day, sample.health.*figure);
    }
    return trend;
}

namespace
{

bool holds(const std::vector<Reason>& reasons, const Reason& reason)
{
    return std::ranges::any_of(reasons, [&reason](const Reason& other) {
        return other.figure == reason.figure && other.verdict == reason.verdict;
    });
}

} // namespace

Assessment historyAssessment(const DriveHistory& drive)
{
    std::vector<std::vector<Reason>> daily;
    for (const auto& sample : drive.samples)
    {
        daily.push_back(snapshotReasons(sample.health));
    }
    std::vector<Reason> found;
    for (auto reason : daily.empty() ? std::vector<Reason>{} : daily.back())
    {
        size_t from = daily.size() - 1;
        while (from > 0 && holds(daily[from - 1], reason))
        {
            --from;
        }
        reason.since = drive.samples[from].day;
        found.push_back(std::move(reason));
    }
    for (auto member : failureCounters)
    {
        auto trend = trendOf(drive, member);
        if (trend.rises < risesThatFail)
        {
            continue;
        }
        auto name = std::string(figureName(member));
        std::erase_if(found,
                      [&name](const Reason& r) { return r.figure == name; });
        found.push_back({Verdict::failed, name,
                         name + " rose on " + std::to_string(trend.rises) +
                             " days, " + std::to_string(*trend.first) + " -> " +
                             std::to_string(*trend.last),
                         trend.firstRose});
    }
    return Assessment(std::move(found));
}

std::vector<Verdict> dailyVerdicts(const DriveHistory& drive)
{
    std::vector<Verdict> verdicts;
    std::array<Trend, failureCounters.size()> trends{};
    for (const auto& sample : drive.samples)
    {
        Verdict verdict = Assessment(snapshotReasons(sample.health)).verdict;
        for (size_t i = 0; i < failureCounters.size(); ++i)
        {
            Trend& trend = trends.at(i);
            trend.add(sample.day, sample.health.*failureCounters.at(i));
            if (trend.rises >= risesThatFail)
            {
                verdict = Verdict::failed;
            }
        }
        verdicts.push_back(verdict);
    }
    return verdicts;
}

void HistoryBuilder::add(Day day, const Document& document)
{
    for (auto& drive : driveHealth(document))
    {
        if (drive.fqdd.empty())
        {
            continue;
        }
        first = std::min(first.value_or(day), day);
        last = std::max(last.value_or(day), day);
        auto fqdd = drive.fqdd;
        timeline[fqdd].insert_or_assign(day, std::move(drive));
    }
}

History HistoryBuilder::build()
{
    std::vector<DriveHistory> followed;
    // One drive at a time, so that its days are never held twice.
    while (!timeline.empty())
    {
        auto days = timeline.extract(timeline.begin());
        DriveHistory drive{days.key(), {}};
        drive.samples.reserve(days.mapped().size());
        for (auto& [day, health] : days.mapped())
        {
            drive.samples.push_back({day, std::move(health)});
        }
        drive.assessment = historyAssessment(drive);
        followed.push_back(std::move(drive));
    }
    std::ranges::stable_sort(followed, std::greater{},
                             [](const DriveHistory& drive) {
        return drive.assessment.verdict;
    });
    return {std::move(followed), first, last};
}

namespace
{

using Json = nlohmann::ordered_json;

Json optionalDay(std::optional<Day> day)
{
    return day ? Json(dayText(*day)) : Json();
}

bool isCounter(Figure DriveHealth::*member)
{
    return std::ranges::find(warningCounters, member) != warningCounters.end();
}

Json trendJson(const Trend& trend, bool counter)
{
    Json figure{{"first", *trend.first},
                {"last", *trend.last},
                {"change", *trend.last - *trend.first},
                {"min", *trend.min},
                {"max", *trend.max}};
    if (counter)
    {
        figure["rises"] = trend.rises;
        figure["first_rose"] = optionalDay(trend.firstRose);
    }
    return figure;
}

Json reasonsJson(const Assessment& assessment)
{
    Json reasons = Json::array();
    for (const auto& reason : assessment.reasons)
    {
        reasons.push_back({{"verdict", verdictName(reason.verdict)},
                           {"figure", reason.figure},
                           {"text", reason.text},
                           {"since", optionalDay(reason.since)}});
    }
    return reasons;
}

} // namespace

Json historyJson(const DriveHistory& drive, const History& history)
{
    const auto& lastHealth = drive.samples.back().health;
    Json figures = Json::object();
    for (const auto& column : figureColumns)
    {
        auto trend = trendOf(drive, column.figure);
        if (trend.first)
        {
            figures[std::string(column.name)] =
                trendJson(trend, isCounter(column.figure));
        }
    }
    Json warnings;
    if (lastHealth.criticalWarning)
    {
        warnings = criticalWarningNames(*lastHealth.criticalWarning);
    }
    Day firstDay = drive.samples.front().day;
    Day lastDay = drive.samples.back().day;
    return Json{{"fqdd", drive.fqdd},
                {"class", lastHealth.driveClass},
                {"first_day", dayText(firstDay)},
                {"last_day", dayText(lastDay)},
                {"days", drive.samples.size()},
                {"appeared", firstDay > *history.firstDay},
                {"vanished", lastDay < *history.lastDay},
                {"verdict", verdictName(drive.assessment.verdict)},
                {"reasons", reasonsJson(drive.assessment)},
                {"figures", figures},
                {"critical_warning", warnings}};
}

void writeHistoryJson(std::ostream& out, const History& history)
{
    Json drives = Json::array();
    for (const auto& drive : history.drives)
    {
        drives.push_back(historyJson(drive, history));
    }
    Json whole{{"first_day", optionalDay(history.firstDay)},
               {"last_day", optionalDay(history.lastDay)},
               {"drives", drives}};
    out << whole.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

namespace
{

std::string cellText(const Json& value)
{
    if (value.is_null())
    {
        return "";
    }
    return value.is_string() ? value.get<std::string>() : value.dump();
}

std::vector<std::string> figureParts(const FigureColumn& column)
{
    std::vector<std::string> parts{"first", "last", "change", "min", "max"};
    if (isCounter(column.figure))
    {
        parts.emplace_back("first_rose");
    }
    return parts;
}

std::vector<std::string> csvColumns()
{
    std::vector<std::string> columns{"fqdd",     "class",   "first_day",
                                     "last_day", "days",    "appeared",
                                     "vanished", "verdict", "reasons"};
    for (const auto& column : figureColumns)
    {
        for (const auto& part : figureParts(column))
        {
            columns.push_back(std::string(column.name) + '_' + part);
        }
    }
    columns.emplace_back("critical_warning");
    return columns;
}

// The set critical-warning bits; "none" when the NVMe drive reports 0.
std::string warningsCell(const Json& warnings)
{
    if (!warnings.is_array())
    {
        return "";
    }
    auto names = warnings.get<std::vector<std::string>>();
    return names.empty() ? "none" : joined(names, ';');
}

std::vector<std::string> csvRow(const Json& drive, const Assessment& assessment)
{
    std::vector<std::string> row;
    for (const char* key : {"fqdd", "class", "first_day", "last_day", "days",
                            "appeared", "vanished", "verdict"})
    {
        row.push_back(cellText(drive[key]));
    }
    row.push_back(assessment.reasonsText());
    const Json& figures = drive["figures"];
    for (const auto& column : figureColumns)
    {
        auto figure = figures.value(std::string(column.name), Json::object());
        for (const auto& part : figureParts(column))
        {
            row.push_back(cellText(figure.value(part, Json())));
        }
    }
    row.push_back(warningsCell(drive["critical_warning"]));
    return row;
}

std::string seenText(const Json& drive)
{
    if (drive["appeared"] && drive["vanished"])
    {
        return "appeared,vanished";
    }
    return drive["appeared"]   ? "appeared"
           : drive["vanished"] ? "vanished"
                               : "-";
}

// The last value, and its change over the history when there is one.
std::string trendCell(const Json& figures, std::string_view name)
{
    if (!figures.contains(name))
    {
        return "-";
    }
    const Json& figure = figures[std::string(name)];
    auto change = figure["change"].get<std::int64_t>();
    return figure["last"].dump() +
           (change == 0 ? ""
                        : "(" + std::string(change > 0 ? "+" : "") +
                              std::to_string(change) + ")");
}

} // namespace

void writeHistoryCsv(std::ostream& out, const History& history)
{
    auto columns = csvColumns();
    for (size_t i = 0; i < columns.size(); ++i)
    {
        out << (i == 0 ? "" : ",") << columns[i];
    }
    out << '\n';
    for (const auto& drive : history.drives)
    {
        auto row = csvRow(historyJson(drive, history), drive.assessment);
        for (size_t i = 0; i < row.size(); ++i)
        {
            out << (i == 0 ? "" : ",") << csvCell(row[i]);
        }
        out << '\n';
    }
}

void writeHistoryTable(std::ostream& out, const History& history)
{
    std::vector<std::string> heading{"FQDD",     "CLASS", "FIRST_DAY",
                                     "LAST_DAY", "SEEN",  "TEMP_MIN",
                                     "TEMP_MAX"};
    for (const auto& column : figureColumns)
    {
        heading.emplace_back(column.heading);
    }
    heading.insert(heading.end(), {"VERDICT", "REASONS"});
    TextTable table(heading);
    for (const auto& drive : history.drives)
    {
        auto json = historyJson(drive, history);
        const Json& figures = json["figures"];
        auto temperature = figures.value("temp_c", Json::object());
        std::vector<std::string> row{
            drive.fqdd,
            json["class"],
            json["first_day"],
            json["last_day"],
            seenText(json),
            temperature.contains("min") ? temperature["min"].dump() : "-",
            temperature.contains("max") ? temperature["max"].dump() : "-"};
        for (const auto& column : figureColumns)
        {
            row.push_back(trendCell(figures, column.name));
        }
        row.emplace_back(verdictName(drive.assessment.verdict));
        row.push_back(drive.assessment.reasonsText());
        table.add(std::move(row));
    }
    table.print(out);
}

} // namespace qvreport
