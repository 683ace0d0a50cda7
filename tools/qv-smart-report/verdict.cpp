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
        found.push_back({Verdict::warning, &DriveHealth::temperatureC,
                         compared(&DriveHealth::temperatureC,
                                  *drive.temperatureC, ">=", hot),
                         std::nullopt});
    }
}

// NVMe figures of a percentage are defined from 0 to 100; a threshold
// outside 1 to 100 is reserved.
constexpr std::int64_t percentTop = 100;

Reason implausible(Figure DriveHealth::*member, std::int64_t value,
                   std::string_view why)
{
    auto text = std::string(figureName(member)) + ' ' + std::to_string(value) +
                " implausible";
    return {Verdict::passed, member,
            why.empty() ? text : text + ", " + std::string(why), std::nullopt};
}

void lifeReason(const DriveHealth& drive, std::vector<Reason>& found)
{
    if (auto life = drive.lifeRemaining; life && *life <= lifeLowPercent)
    {
        found.push_back({*life <= 0 ? Verdict::failed : Verdict::warning,
                         &DriveHealth::lifeRemaining,
                         compared(&DriveHealth::lifeRemaining, *life,
                                  "<=", *life <= 0 ? 0 : lifeLowPercent),
                         std::nullopt});
    }
}

// Percentage Used is the drive's estimate of its rated endurance used; it
// may pass 100 and, in the NVMe standard's words, "does not indicate an NVM
// subsystem failure": worn, not failed. One past 100 % within fewer
// power-on hours than its percent is no wear a drive can have done.
void usedReason(const DriveHealth& drive, std::vector<Reason>& found)
{
    auto used = drive.percentUsed;
    if (!used || *used < usedHighPercent)
    {
        return;
    }
    if (*used > percentTop && drive.powerOnHours && *drive.powerOnHours < *used)
    {
        found.push_back(implausible(&DriveHealth::percentUsed, *used,
                                    "after " +
                                        std::to_string(*drive.powerOnHours) +
                                        " power-on hours"));
        return;
    }
    bool pastRated = *used >= usedUpPercent;
    found.push_back({Verdict::warning, &DriveHealth::percentUsed,
                     compared(&DriveHealth::percentUsed, *used, ">=",
                              pastRated ? usedUpPercent : usedHighPercent) +
                         (pastRated ? ", past rated endurance" : ""),
                     std::nullopt});
}

bool validThreshold(Figure threshold)
{
    return threshold && *threshold >= 1 && *threshold <= percentTop;
}

// The spare rule holds only between defined values: the spare as a
// percentage, the threshold between 1 and 100.
void spareReasons(const DriveHealth& drive, std::vector<Reason>& found)
{
    if (drive.availableSpare && *drive.availableSpare > percentTop)
    {
        found.push_back(implausible(&DriveHealth::availableSpare,
                                    *drive.availableSpare, ""));
        return;
    }
    // 0 % is a threshold nothing falls below; 101 to 255 are reserved.
    if (drive.spareThreshold && *drive.spareThreshold > percentTop)
    {
        found.push_back(implausible(&DriveHealth::spareThreshold,
                                    *drive.spareThreshold,
                                    "reserved: no spare rule"));
        return;
    }
    if (drive.availableSpare && drive.spareThreshold &&
        *drive.availableSpare < *drive.spareThreshold)
    {
        found.push_back(
            {Verdict::failed, &DriveHealth::availableSpare,
             compared(&DriveHealth::availableSpare, *drive.availableSpare,
                      "< threshold", *drive.spareThreshold),
             std::nullopt});
    }
}

// The critical-warning bits as the NVMe standard names them (README,
// "Verdicts"): read-only media and a failed volatile memory backup device
// are failures; so is a spare below a valid threshold, and a degraded
// reliability beside media errors past their count; the rest warn.
// Reserved bits alone are named, never judged.
Verdict criticalWarningVerdict(const DriveHealth& drive, std::uint64_t bits)
{
    constexpr std::uint64_t spareBelow = 1U << 0;
    constexpr std::uint64_t reliabilityDegraded = 1U << 2;
    constexpr std::uint64_t readOnly = 1U << 3;
    constexpr std::uint64_t backupFailed = 1U << 4;
    constexpr std::uint64_t definedBits = 0x3f;
    bool spareFailed = (bits & spareBelow) != 0 &&
                       validThreshold(drive.spareThreshold);
    bool mediaFailed = drive.mediaErrors.value_or(0) >= mediaErrorsThatFail;
    bool failing = spareFailed || (bits & (readOnly | backupFailed)) != 0;
    if (failing || ((bits & reliabilityDegraded) != 0 && mediaFailed))
    {
        return Verdict::failed;
    }
    return (bits & definedBits) != 0 ? Verdict::warning : Verdict::passed;
}

void nvmeReasons(const DriveHealth& drive, std::vector<Reason>& found)
{
    spareReasons(drive, found);
    if (drive.criticalWarning && *drive.criticalWarning != 0)
    {
        auto bits = *drive.criticalWarning;
        auto names = joined(criticalWarningNames(bits), ',');
        auto verdict = criticalWarningVerdict(drive, bits);
        const ReasonFigure figure = &DriveHealth::criticalWarning;
        found.push_back({verdict, figure,
                         std::string(figureName(figure)) + ' ' + names +
                             (verdict == Verdict::passed ? " implausible" : ""),
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
        found.push_back(
            {fails ? Verdict::failed : Verdict::warning, rule.member,
             fails ? compared(rule.member, *count, ">=", rule.failAt)
                   : compared(rule.member, *count, ">", 0),
             std::nullopt});
    }
}

} // namespace

std::int64_t temperatureWarningC(DriveClass driveClass)
{
    return isHardDrive(driveClass) ? hardDriveHotC : solidStateHotC;
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

bool Assessment::flags(ReasonFigure figure) const
{
    // A note (an implausible value, a count that stopped growing) is shown,
    // not flagged.
    return std::ranges::any_of(reasons, [figure](const Reason& reason) {
        return reason.figure == figure && reason.verdict != Verdict::passed;
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
    lifeReason(drive, found);
    usedReason(drive, found);
    nvmeReasons(drive, found);
    counterReasons(drive, found);
    return found;
}

} // namespace qvreport
