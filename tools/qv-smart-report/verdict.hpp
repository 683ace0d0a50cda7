#pragma once

#include "driveHealth.hpp"
#include "reportDate.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvreport
{

// Ordered by severity.
enum class Verdict
{
    passed,
    warning,
    failed
};

std::string_view verdictName(Verdict verdict);

// Why a drive is not PASSED: the figure it is about, its value
// against the threshold, and in a history the first day of the days up to
// the last on which the reason held throughout. A reason of a PASSED
// verdict is a note: a value outside its defined range, a count that has
// stopped growing.
struct Reason
{
    Verdict verdict = Verdict::warning;
    ReasonFigure figure;
    std::string text;
    std::optional<Day> since;
    // A FAILED reason of an earlier reading that no longer holds: the
    // verdict stays until the drive is replaced or retired.
    bool latched = false;
};

struct Assessment
{
    Verdict verdict = Verdict::passed;
    std::vector<Reason> reasons;

    explicit Assessment(std::vector<Reason> found);
    bool flags(ReasonFigure figure) const;
    // "reallocated 12 > 0 (since 2026-01-03); ..."
    std::string reasonsText() const;
};

// The temperature from which a drive of the class warns, in degrees
// Celsius: the verdicts and the metrics that alerts compare with.
std::int64_t temperatureWarningC(DriveClass driveClass);

// The thresholds one report's figures are held to.
std::vector<Reason> snapshotReasons(const DriveHealth& drive);

// The counters that field studies tie to coming failure: any non-zero value
// warns, a count past its threshold fails, and so does one that keeps rising
// across a history. Command timeouts are not among them: on real fleets they
// are as common on healthy drives as on failing ones.
inline constexpr std::array<Figure DriveHealth::*, 3> failureCounters = {
    &DriveHealth::mediaErrors, &DriveHealth::reallocated,
    &DriveHealth::pending};

// The counters a drive keeps of faults it could not hide, in the order of
// their reasons; a history follows how each of them rose. Which of them warn
// or fail, and from which count, is counterRules in verdict.cpp.
inline constexpr std::array<Figure DriveHealth::*, 5> warningCounters = {
    &DriveHealth::mediaErrors, &DriveHealth::crcErrors,
    &DriveHealth::reallocated, &DriveHealth::pending,
    &DriveHealth::commandTimeouts};

// A failure counter that rose on this many days of a history fails.
inline constexpr int risesThatFail = 2;

} // namespace qvreport
