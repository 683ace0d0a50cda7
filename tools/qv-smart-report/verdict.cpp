#include "verdict.hpp"

#include <algorithm>
#include <array>

namespace qvreport
{
namespace
{

// See the README's table of thresholds for where each one comes from.
constexpr std::int64_t solidStateHotC = 70;
constexpr std::int64_t hardDriveHotC = 60;
constexpr std::int64_t lifeLowPercent = 10;
constexpr std::int64_t usedHighPercent = 90;
constexpr std::int64_t usedUpPercent = 100;
constexpr std::uint64_t temperatureWarningBit = 1U << 1;

// A counter warns on any count; from failAt on (0: never) a single report
// of it fails the drive. A few remapped or unreadable sectors are common on
// drives that keep running; the thresholds (README, "Verdicts") are where
// they stop being common on drives that keep running.
struct CounterRule
{
    Figure DriveHealth::*member;
    std::int64_t failAt;
};

constexpr std::int64_t mediaErrorsThatFail = 16;
constexpr std::int64_t reallocatedThatFail = 100;
constexpr std::int64_t pendingThatFail = 16;

// CRC errors point at the cable or the backplane, never at the medium.
constexpr std::array<CounterRule, 4> counterRules = {{
    {&DriveHealth::mediaErrors, mediaErrorsThatFail},
    {&DriveHealth::crcErrors, 0},
    {&DriveHealth::reallocated, reallocatedThatFail},
    {&DriveHealth::pending, pendingThatFail},
}};

std::string compared(Figure DriveHealth::*member, std::int64_t value,
                     std::string_view relation, std::int64_t threshold)
{
    return std::string(figureName(member)) + ' ' + std::to_string(value) + ' ' +
           std::string(relation) + ' ' + std::to_string(threshold);
}

void temperatureReason(const DriveHealth& drive, std::vector<Reason>& found)
{
    auto hot = temperatureWarningC(drive.driveClass);
    if (drive.temperatureC && *drive.temperatureC >= hot)
    {
        found.push_back({Verdict::warning, "temp_c",
                         compared(&DriveHealth::temperatureC,
                                  *drive.temperatureC, ">=", hot),
                         std::nullopt});
    }
}

void wearReasons(const DriveHealth& drive, std::vector<Reason>& found)
{
    if (auto life = drive.lifeRemaining; life && *life <= lifeLowPercent)
    {
        found.push_back({*life <= 0 ? Verdict::failed : Verdict::warning,
                         "life_remaining",
                         compared(&DriveHealth::lifeRemaining, *life,
                                  "<=", *life <= 0 ? 0 : lifeLowPercent),
                         std::nullopt});
    }
    if (auto used = drive.percentUsed; used && *used >= usedHighPercent)
    {
        bool usedUp = *used >= usedUpPercent;
        found.push_back(
            {usedUp ? Verdict::failed : Verdict::warning, "percent_used",
             compared(&DriveHealth::percentUsed, *used,
                      ">=", usedUp ? usedUpPercent : usedHighPercent),
             std::nullopt});
    }
}

void nvmeReasons(const DriveHealth& drive, std::vector<Reason>& found)
{
    if (drive.availableSpare && drive.spareThreshold &&
        *drive.availableSpare < *drive.spareThreshold)
    {
        found.push_back(
            {Verdict::failed, "available_spare",
             compared(&DriveHealth::availableSpare, *drive.availableSpare,
                      "< threshold", *drive.spareThreshold),
             std::nullopt});
    }
    if (drive.criticalWarning && *drive.criticalWarning != 0)
    {
        auto names = joined(criticalWarningNames(*drive.criticalWarning), ',');
        // Only the temperature bit passes when the drive cools down.
        bool onlyTemperature = *drive.criticalWarning == temperatureWarningBit;
        found.push_back({onlyTemperature ? Verdict::warning : Verdict::failed,
                         "critical_warning", "critical_warning " + names,
                         std::nullopt});
    }
}

void counterReasons(const DriveHealth& drive, std::vector<Reason>& found)
{
    for (const auto& rule : counterRules)
    {
        auto count = drive.*rule.member;
        if (!count || *count <= 0)
        {
            continue;
        }
        bool fails = rule.failAt > 0 && *count >= rule.failAt;
        found.push_back({fails ? Verdict::failed : Verdict::warning,
                         std::string(figureName(rule.member)),
                         fails
                             ? compared(rule.member, *count, ">=", rule.failAt)
                             : compared(rule.member, *count, ">", 0),
                         std::nullopt});
    }
}

} // namespace

std::int64_t temperatureWarningC(std::string_view driveClass)
{
    return driveClass.ends_with("HDD") ? hardDriveHotC : solidStateHotC;
}

std::string_view verdictName(Verdict verdict)
{
    switch (verdict)
    {
        case Verdict::failed:
            return "FAILED";
        case Verdict::warning:
            return "WARNING";
        case Verdict::passed:
            break;
    }
    return "PASSED";
}

Assessment::Assessment(std::vector<Reason> found) : reasons(std::move(found))
{
    for (const auto& reason : reasons)
    {
        verdict = std::max(verdict, reason.verdict);
    }
}

bool Assessment::flags(std::string_view figure) const
{
    return std::ranges::any_of(reasons, [figure](const Reason& reason) {
        return reason.figure == figure;
    });
}

std::string Assessment::reasonsText() const
{
    std::string text;
    for (const auto& reason : reasons)
    {
        text += (text.empty() ? "" : "; ") + reason.text;
        if (reason.since)
        {
            text += " (since " + dayText(*reason.since) +
                    (reason.latched ? ", latched)" : ")");
        }
    }
    return text;
}

std::vector<Reason> snapshotReasons(const DriveHealth& drive)
{
    std::vector<Reason> found;
    temperatureReason(drive, found);
    wearReasons(drive, found);
    nvmeReasons(drive, found);
    counterReasons(drive, found);
    return found;
}

} // namespace qvreport
