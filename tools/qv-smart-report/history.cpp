#include "history.hpp"

#include <algorithm>
#include <limits>
#include <tuple>

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
    first = first.value_or(*value);
    min = std::min(min.value_or(*value), *value);
    max = std::max(max.value_or(*value), *value);
    last = value;
}

namespace
{

// Marks a day without that figure in a kept series.
constexpr std::int64_t noValue = std::numeric_limits<std::int64_t>::min();
constexpr size_t criticalWarningSlot = namedFigures.size();

size_t slotOf(Figure DriveHealth::*figure)
{
    return size_t(
        std::ranges::find(namedFigures, figure, &FigureColumn::figure) -
        namedFigures.begin());
}

} // namespace

void DailySeries::put(size_t figure, std::optional<std::int64_t> value)
{
    auto& column = values.at(figure);
    if (!value && column.empty())
    {
        return;
    }
    // A figure first reported today has no value on the days before.
    column.resize(days.size() - 1, noValue);
    column.push_back(value.value_or(noValue));
}

void DailySeries::add(Day day, const DriveHealth& health, Verdict verdict)
{
    days.push_back(std::int32_t(day.time_since_epoch().count()));
    verdicts.push_back(verdict);
    for (size_t i = 0; i < namedFigures.size(); ++i)
    {
        put(i, health.*namedFigures.at(i).figure);
    }
    auto bits = health.criticalWarning;
    put(criticalWarningSlot,
        bits ? std::optional<std::int64_t>(std::int64_t(*bits)) : std::nullopt);
}

Figure DailySeries::value(size_t i, Figure DriveHealth::*figure) const
{
    const auto& column = values.at(slotOf(figure));
    if (i >= column.size() || column[i] == noValue)
    {
        return std::nullopt;
    }
    return column[i];
}

std::optional<std::uint64_t> DailySeries::criticalWarning(size_t i) const
{
    const auto& column = values.at(criticalWarningSlot);
    if (i >= column.size() || column[i] == noValue)
    {
        return std::nullopt;
    }
    return std::uint64_t(column[i]);
}

const Trend& DriveRecord::trend(Figure DriveHealth::*figure) const
{
    const auto* column = std::ranges::find(figureColumns, figure,
                                           &FigureColumn::figure);
    return trends.at(size_t(column - figureColumns.begin()));
}

namespace
{

bool hasReading(const DriveHealth& health)
{
    return health.criticalWarning ||
           std::ranges::any_of(namedFigures, [&health](const auto& column) {
               return (health.*column.figure).has_value();
           });
}

// Another drive in the bay: its power-on hours fell to less than half of
// the last reading's, or its class changed. A drive's own count may step
// back a little (a real one went back 1,068 of its 22,198 hours from one
// day to the next), so a small drop is not taken for another drive. No
// report carries a serial number or model.
bool anotherDrive(const DriveRecord& record, const DriveHealth& reading)
{
    if (record.days == 0)
    {
        return false;
    }
    const auto& hours = record.trend(&DriveHealth::powerOnHours).last;
    return (hours && reading.powerOnHours &&
            *reading.powerOnHours < *hours / 2) ||
           reading.driveClass != record.driveClass;
}

// Today's reasons, each since the first day of the readings up to today on
// which it held.
std::vector<Reason> heldSince(const std::vector<Reason>& before,
                              std::vector<Reason> now, Day day)
{
    for (auto& reason : now)
    {
        auto held = std::ranges::find_if(before, [&reason](const Reason& r) {
            return r.figure == reason.figure && r.verdict == reason.verdict;
        });
        reason.since = held == before.end() ? day : held->since;
    }
    return now;
}

// The reasons that hold, with a failure counter that kept rising failing
// the drive since the day it first rose.
Assessment assess(const DriveRecord& record)
{
    auto found = record.holding;
    for (auto member : failureCounters)
    {
        const auto& trend = record.trend(member);
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

} // namespace

HistoryBuilder::HistoryBuilder(HistoryOptions options) : options(options) {}

void HistoryBuilder::add(Day day, const std::vector<DriveHealth>& drives,
                         bool wholeRun)
{
    if (gathering && *gathering != day)
    {
        closeDay();
    }
    gathering = day;
    gatheredWholeRun = gatheredWholeRun || wholeRun;
    for (const auto& drive : drives)
    {
        // Drives without an FQDD cannot be told apart from day to day.
        if (!drive.fqdd.empty())
        {
            gathered.insert_or_assign(drive.fqdd, drive);
        }
    }
}

void HistoryBuilder::addReading(Day day, const std::string& fqdd,
                                DriveHealth& health)
{
    auto bay = inBay.find(fqdd);
    bool reading = hasReading(health);
    if (bay == inBay.end() ||
        (reading && anotherDrive(records[bay->second], health)))
    {
        if (bay != inBay.end())
        {
            records[bay->second].vanished = true;
        }
        DriveRecord opened;
        opened.fqdd = fqdd;
        opened.driveClass = health.driveClass;
        opened.firstDay = day;
        opened.lastDay = day;
        inBay.insert_or_assign(fqdd, records.size());
        records.push_back(std::move(opened));
        bay = inBay.find(fqdd);
    }
    auto& record = records[bay->second];
    record.lastSeen = day;
    if (!reading)
    {
        return;
    }
    record.driveClass = health.driveClass;
    record.lastDay = day;
    ++record.days;
    for (size_t i = 0; i < figureColumns.size(); ++i)
    {
        record.trends.at(i).add(day, health.*figureColumns.at(i).figure);
    }
    record.holding = heldSince(record.holding, snapshotReasons(health), day);
    if (options.keepDays)
    {
        record.series.add(day, health, assess(record).verdict);
    }
    record.latest = std::move(health);
}

void HistoryBuilder::closeDay()
{
    if (!gathering)
    {
        return;
    }
    Day day = *gathering;
    if (!gathered.empty())
    {
        first = std::min(first.value_or(day), day);
        last = std::max(last.value_or(day), day);
        lastDayWholeRun = gatheredWholeRun;
    }
    for (auto& [fqdd, health] : gathered)
    {
        addReading(day, fqdd, health);
    }
    gathered.clear();
    gatheredWholeRun = false;
    gathering.reset();
}

History HistoryBuilder::build()
{
    closeDay();
    for (auto& record : records)
    {
        record.assessment = assess(record);
        record.appeared = record.firstDay > *first;
        // A collection run lists every drive the server has: one it leaves
        // out is gone. A daily run may miss a drive whose data could not be
        // read, so only days on end without a reading mean it is gone.
        bool missedWholeRun = lastDayWholeRun && record.lastSeen < *last;
        bool silentTooLong = *last - record.lastDay >=
                             std::chrono::days(options.staleAfter);
        record.vanished = record.vanished || missedWholeRun || silentTooLong;
        record.stale = !record.vanished && record.lastDay < *last;
    }
    std::ranges::stable_sort(records, [](const auto& a, const auto& b) {
        return std::tie(a.fqdd, a.firstDay) < std::tie(b.fqdd, b.firstDay);
    });
    std::ranges::stable_sort(records, std::greater{},
                             [](const DriveRecord& record) {
        return record.assessment.verdict;
    });
    History history{std::move(records), first, last};
    *this = HistoryBuilder(options);
    return history;
}

namespace
{

// A collection file's runs, one day each, the last on the file's own day.
struct Run
{
    Day day;
    std::vector<DriveHealth> drives;
};

std::vector<Run> runsOf(const DatedFile& file, std::ostream& err, bool& intact)
{
    std::vector<Run> runs;
    intact = readReportFile(
                 file.path, err,
                 [&runs](const Document& document) {
        runs.push_back({Day{}, driveHealth(document)});
                 }) &&
        intact;
    for (size_t i = 0; i < runs.size(); ++i)
    {
        runs[i].day = file.day - std::chrono::days(runs.size() - 1 - i);
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
    HistoryBuilder builder(options);
    auto run = runs.begin();
    auto runsBefore = [&](std::optional<Day> day) {
        for (; run != runs.end() && (!day || run->day < *day); ++run)
        {
            builder.add(run->day, run->drives, true);
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
        intact = readReportFile(
                     file.path, err,
                     [&](const Document& document) {
            builder.add(file.day, driveHealth(document));
                     }) &&
            intact;
    }
    runsBefore(std::nullopt);
    return builder.build();
}

} // namespace qvreport
