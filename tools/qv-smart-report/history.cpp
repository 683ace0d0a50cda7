#include "history.hpp"

#include "driveIdentity.hpp"
#include "historyReasons.hpp"

#include <algorithm>
#include <limits>
#include <tuple>

namespace qvreport
{

const Trend& DriveRecord::trend(Figure DriveHealth::*figure) const
{
    return trends.at(columnOf(figureColumns, figure));
}

const std::string& DriveRecord::bayOn(Day day) const
{
    // Each move is to the next one's bay, the last to the bay it is in.
    for (const auto& move : moves)
    {
        if (day < move.day)
        {
            return move.from;
        }
    }
    return fqdd;
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

// The reading into the drive's running figures, reasons and verdict.
void addReading(DriveRecord& record, Day day, DriveHealth& health,
                std::int64_t time, bool keepDays)
{
    record.lastSeen = std::max(record.lastSeen, day);
    record.driveClass = health.driveClass;
    record.lastDay = day;
    record.lastReadingTime = time;
    ++record.days;
    for (size_t i = 0; i < figureColumns.size(); ++i)
    {
        record.trends.at(i).add(day, health.*figureColumns.at(i).figure);
    }
    record.holding = heldSince(record.holding, snapshotReasons(health), day);
    record.latest = std::move(health);
    auto assessment = assess(record, day);
    latchFailures(record, assessment);
    if (keepDays)
    {
        record.series.add(day, record.latest, assessment.verdict);
    }
}

std::string setAsideLine(const std::string& fqdd, Day day,
                         const std::string& why)
{
    return fqdd + ": reading of " + dayText(day) + " set aside: " + why;
}

} // namespace

HistoryBuilder::HistoryBuilder(HistoryOptions options) :
    options(std::move(options))
{
    std::ranges::stable_sort(this->options.operatorWords, {},
                             &OperatorWord::day);
}

void HistoryBuilder::add(Day day, const std::vector<DriveHealth>& drives,
                         std::int64_t readingTime)
{
    if (gathering && *gathering != day)
    {
        closeDay();
    }
    gathering = day;
    gatheredTime = std::max(gatheredTime, readingTime);
    for (const auto& drive : drives)
    {
        // Drives without an FQDD cannot be told apart from day to day.
        if (!drive.fqdd.empty())
        {
            gathered.insert_or_assign(drive.fqdd, drive);
        }
    }
}

bool HistoryBuilder::live(size_t record) const
{
    return !records[record].vanished;
}

size_t HistoryBuilder::open(Day day, const std::string& fqdd,
                            DriveClass driveClass)
{
    if (auto bay = inBay.find(fqdd); bay != inBay.end())
    {
        // Another drive is seen in its bay.
        records[bay->second].vanished = true;
    }
    DriveRecord opened;
    opened.fqdd = fqdd;
    opened.driveClass = driveClass;
    opened.firstDay = day;
    opened.lastDay = day;
    opened.lastSeen = day;
    inBay.insert_or_assign(fqdd, records.size());
    records.push_back(std::move(opened));
    return records.size() - 1;
}

// A bay listed without figures: its drive is seen, not read.
void HistoryBuilder::listed(Day day, const std::string& fqdd,
                            const DriveHealth& health)
{
    auto bay = inBay.find(fqdd);
    size_t record = bay == inBay.end() ? open(day, fqdd, health.driveClass)
                                       : bay->second;
    records[record].lastSeen = day;
}

void HistoryBuilder::commitHeld(const std::string& fqdd, Held entry)
{
    auto& record = records[open(entry.day, fqdd, entry.reading.driveClass)];
    addReading(record, entry.day, entry.reading, entry.time, options.keepDays);
}

// A held reading is a glitch when the bay's next reading continues the
// drive before it at least as well as it continues the held one; else the
// held reading was another drive's first.
void HistoryBuilder::settleHeld(Day day, const std::vector<Arrival>& arrivals)
{
    for (auto entry = held.begin(); entry != held.end();)
    {
        const auto& [fqdd, hold] = *entry;
        auto next = std::ranges::find(arrivals, fqdd, &Arrival::fqdd);
        if (next == arrivals.end())
        {
            ++entry;
            continue;
        }
        auto bay = inBay.find(fqdd);
        if (bay == inBay.end() || !live(bay->second))
        {
            // The drive it broke with has gone elsewhere meanwhile.
            commitHeld(fqdd, hold);
            entry = held.erase(entry);
            continue;
        }
        const auto& before = records[bay->second];
        auto old = costOf(
            continuity(before.latest, before.lastDay, next->reading, day),
            false);
        auto fresh = costOf(
            continuity(hold.reading, hold.day, next->reading, day), false);
        if (old && (!fresh || *old <= *fresh))
        {
            setAside.push_back(setAsideLine(
                fqdd, hold.day,
                hold.why + ", and the next reading continues the drive"));
        }
        else
        {
            commitHeld(fqdd, hold);
        }
        entry = held.erase(entry);
    }
}

void HistoryBuilder::closeDay()
{
    if (!gathering)
    {
        return;
    }
    const Day day = *gathering;
    acknowledge(day);
    reportDays.push_back(day);
    std::vector<Arrival> arrivals;
    for (auto& [fqdd, health] : gathered)
    {
        if (!hasReading(health))
        {
            listed(day, fqdd, health);
        }
        else if (allZero(health))
        {
            setAside.push_back(setAsideLine(fqdd, day, "every figure is 0"));
            listed(day, fqdd, health);
        }
        else
        {
            arrivals.push_back({fqdd, std::move(health)});
        }
    }
    settleHeld(day, arrivals);
    match(day, arrivals);
    gathered.clear();
    gatheredTime = 0;
    gathering.reset();
}

// A reading to its drive, moved or not; or the first of another drive,
// held for a day when it breaks with the drive its bay had.
void HistoryBuilder::arrive(Day day, Arrival& arrival,
                            std::optional<size_t> drive,
                            const std::vector<bool>& matched)
{
    // The drive the bay had, if it has no reading elsewhere today.
    std::optional<size_t> before;
    if (auto bay = inBay.find(arrival.fqdd);
        bay != inBay.end() && live(bay->second) && !matched[bay->second])
    {
        before = bay->second;
    }
    if (!drive && before && records[*before].days > 0)
    {
        const auto& record = records[*before];
        auto why =
            continuity(record.latest, record.lastDay, arrival.reading, day).why;
        held.insert_or_assign(arrival.fqdd,
                              Held{day, std::move(arrival.reading),
                                   gatheredTime, std::move(why)});
        return;
    }
    if (!drive)
    {
        drive = open(day, arrival.fqdd, arrival.reading.driveClass);
    }
    auto& record = records[*drive];
    if (record.fqdd != arrival.fqdd)
    {
        if (auto left = inBay.find(record.fqdd);
            left != inBay.end() && left->second == *drive)
        {
            inBay.erase(left);
        }
        if (before)
        {
            // Another drive is seen in its bay.
            records[*before].vanished = true;
        }
        record.moves.push_back({day, record.fqdd});
        record.fqdd = arrival.fqdd;
        inBay.insert_or_assign(arrival.fqdd, *drive);
    }
    addReading(record, day, arrival.reading, gatheredTime, options.keepDays);
}

void HistoryBuilder::retire()
{
    for (const auto& word : options.operatorWords)
    {
        if (word.action != OperatorWord::Action::retire)
        {
            continue;
        }
        for (auto& record : records)
        {
            if (record.fqdd == word.fqdd && !record.vanished &&
                record.lastSeen <= word.day)
            {
                record.vanished = true;
                record.retired = word.day;
            }
        }
    }
}

// Each acknowledgement given before `before` (every one left without it)
// to the drive its bay has then, with that drive's last figures: a FAILED
// verdict latched before it is released.
void HistoryBuilder::acknowledge(std::optional<Day> before)
{
    auto& words = options.operatorWords;
    for (; acknowledged < words.size(); ++acknowledged)
    {
        const auto& word = words[acknowledged];
        if (before && word.day >= *before)
        {
            break;
        }
        if (word.action != OperatorWord::Action::acknowledge)
        {
            continue;
        }
        auto bay = inBay.find(word.fqdd);
        if (bay == inBay.end() || !live(bay->second) ||
            records[bay->second].days == 0)
        {
            setAside.push_back(word.fqdd + ": acknowledgement of " +
                               dayText(word.day) +
                               " set aside: no drive read "
                               "in the bay by then");
            continue;
        }
        auto& record = records[bay->second];
        record.acknowledgement = Acknowledgement{
            word.day, word.until.value_or(word.day), word.note, record.latest};
        record.latched.clear();
    }
}

History HistoryBuilder::build()
{
    closeDay();
    for (auto& [fqdd, hold] : held)
    {
        // Nothing came after it to tell; counters at 0 are more likely a
        // glitch than a drive that has never run.
        if (zeroedCounters(hold.reading))
        {
            setAside.push_back(setAsideLine(
                fqdd, hold.day, hold.why + ", and nothing read after it"));
        }
        else
        {
            commitHeld(fqdd, hold);
        }
    }
    acknowledge(std::nullopt);
    retire();
    History history;
    if (!reportDays.empty())
    {
        history.firstDay = reportDays.front();
        history.lastDay = reportDays.back();
    }
    for (auto& record : records)
    {
        record.assessment = assess(record, reportDays.back());
        record.appeared = record.firstDay > *history.firstDay;
        auto after = std::ranges::upper_bound(reportDays, record.lastDay);
        if (!record.vanished && (record.days == 0 || after != reportDays.end()))
        {
            record.silentSince = record.days == 0 ? record.firstDay : *after;
        }
        history.newestReading = std::max(history.newestReading,
                                         record.lastReadingTime);
    }
    std::ranges::stable_sort(records, [](const auto& a, const auto& b) {
        return std::tie(a.fqdd, a.firstDay) < std::tie(b.fqdd, b.firstDay);
    });
    std::ranges::stable_sort(records, std::greater{},
                             [](const DriveRecord& record) {
        return record.assessment.verdict;
    });
    history.drives = std::move(records);
    history.setAside = std::move(setAside);
    *this = HistoryBuilder(options);
    return history;
}

std::vector<std::string> driveMarks(const DriveRecord& drive)
{
    std::vector<std::string> marks;
    if (drive.appeared)
    {
        marks.emplace_back("appeared");
    }
    for (const auto& move : drive.moves)
    {
        marks.push_back("moved from " + move.from + " on " + dayText(move.day));
    }
    if (drive.retired)
    {
        marks.push_back("retired " + dayText(*drive.retired));
    }
    else if (drive.vanished)
    {
        marks.emplace_back("vanished");
    }
    if (drive.silentSince)
    {
        marks.push_back("silent since " + dayText(*drive.silentSince));
    }
    if (const auto& ack = drive.acknowledgement; ack)
    {
        marks.push_back("acknowledged " + dayText(ack->day) + " until " +
                        dayText(ack->until));
    }
    return marks;
}

} // namespace qvreport
