#include "historyReasons.hpp"

#include <algorithm>
#include <variant>

namespace qvreport
{

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

namespace
{

// A counter that has stopped growing is the drive's baseline, not news: it
// warns when it first shows or grows, and is a note once it has held its
// value this many days. CRC errors point at a cable, so they warn only on
// the reading that shows them grow.
constexpr std::chrono::days baselineAfter{7};
constexpr std::chrono::days crcBaselineAfter{1};

// The counter a reason is about, or warningCounters.end().
const auto* counterNamed(const ReasonFigure& figure)
{
    return std::ranges::find_if(warningCounters, [&figure](auto member) {
        return ReasonFigure(member) == figure;
    });
}

void noteBaselines(const DriveRecord& record, std::vector<Reason>& found)
{
    for (auto& reason : found)
    {
        const auto* counter = counterNamed(reason.figure);
        // The counts that fail a single report are baselines too once they
        // stand still; growth is what fails a drive that is watched.
        if (reason.verdict == Verdict::passed ||
            counter == warningCounters.end())
        {
            continue;
        }
        const auto& trend = record.trend(*counter);
        auto quiet = *counter == &DriveHealth::crcErrors ? crcBaselineAfter
                                                         : baselineAfter;
        if (trend.lastChange && record.lastDay - *trend.lastChange >= quiet)
        {
            reason = {Verdict::passed, reason.figure,
                      std::string(figureName(reason.figure)) + ' ' +
                          std::to_string(*trend.last) + ", unchanged since " +
                          dayText(*trend.lastChange),
                      std::nullopt};
        }
    }
}

// The reasons that hold, a counter that stopped growing as a note, and a
// failure counter that kept rising failing the drive since the day it first
// rose.
std::vector<Reason> reasonsNow(const DriveRecord& record)
{
    auto found = record.holding;
    noteBaselines(record, found);
    for (auto member : failureCounters)
    {
        const auto& trend = record.trend(member);
        if (trend.rises < risesThatFail)
        {
            continue;
        }
        std::erase_if(found, [member](const Reason& r) {
            return r.figure == ReasonFigure(member);
        });
        found.push_back({Verdict::failed, member,
                         std::string(figureName(member)) + " rose on " +
                             std::to_string(trend.rises) + " days, " +
                             std::to_string(*trend.first) + " -> " +
                             std::to_string(*trend.last),
                         trend.firstRose});
    }
    return found;
}

// A count that failed the drive and has kept that value since, long enough
// to be its baseline: the failure was the count, not its growth.
bool standsStill(const DriveRecord& record, const Reason& failed)
{
    const auto* counter = counterNamed(failed.figure);
    if (counter == warningCounters.end() || !failed.since)
    {
        return false;
    }
    const auto& trend = record.trend(*counter);
    return trend.lastChange && *trend.lastChange <= *failed.since &&
           record.lastDay - *trend.lastChange >= baselineAfter &&
           trend.rises == 0;
}

// The reasons that hold and every reason that failed the drive before: a
// failure that no longer shows (sectors remapped, a drive that cooled
// down) keeps its first day.
std::vector<Reason> reasonsWithLatched(const DriveRecord& record)
{
    auto found = reasonsNow(record);
    for (const auto& failed : record.latched)
    {
        auto now = std::ranges::find_if(found, [&failed](const Reason& r) {
            return r.figure == failed.figure && r.verdict == Verdict::failed;
        });
        if (standsStill(record, failed))
        {
            continue;
        }
        if (now == found.end())
        {
            found.push_back(failed);
            found.back().latched = true;
        }
        else if (failed.since && (!now->since || *failed.since < *now->since))
        {
            now->since = failed.since;
        }
    }
    return found;
}

// Whether a figure of the reading went past what the operator accepted.
bool beyondAccepted(const DriveHealth& now, const DriveHealth& accepted,
                    const ReasonFigure& figure)
{
    const auto* member = std::get_if<Figure DriveHealth::*>(&figure);
    if (member == nullptr)
    {
        return (now.criticalWarning.value_or(0) &
                ~accepted.criticalWarning.value_or(0)) != 0;
    }
    const Figure& value = now.**member;
    const Figure& kept = accepted.**member;
    if (!value || !kept)
    {
        return value.has_value();
    }
    // Wear left and spare only go down as a drive gets worse.
    bool fallsWhenWorse = *member == &DriveHealth::lifeRemaining ||
                          *member == &DriveHealth::availableSpare;
    return fallsWhenWorse ? *value < *kept : *value > *kept;
}

// While an acknowledgement holds, a reason whose figure has not gone past
// the accepted one is a note.
void applyAcknowledgement(const DriveRecord& record, Day asOf,
                          std::vector<Reason>& found)
{
    const auto& ack = record.acknowledgement;
    if (!ack || asOf < ack->day || asOf > ack->until)
    {
        return;
    }
    for (auto& reason : found)
    {
        if (reason.verdict != Verdict::passed &&
            !beyondAccepted(record.latest, ack->accepted, reason.figure))
        {
            reason = {Verdict::passed, reason.figure,
                      reason.text + ", accepted on " + dayText(ack->day) +
                          " until " + dayText(ack->until) + ": " + ack->note,
                      std::nullopt};
        }
    }
}

} // namespace

Assessment assess(const DriveRecord& record, Day asOf)
{
    auto found = reasonsWithLatched(record);
    applyAcknowledgement(record, asOf, found);
    return Assessment(std::move(found));
}

void latchFailures(DriveRecord& record, const Assessment& assessment)
{
    for (const auto& reason : assessment.reasons)
    {
        bool known = std::ranges::any_of(record.latched,
                                         [&reason](const Reason& r) {
            return r.figure == reason.figure;
        });
        if (reason.verdict == Verdict::failed && !known)
        {
            record.latched.push_back(reason);
            record.latched.back().latched = false;
        }
    }
}

} // namespace qvreport
