#pragma once

#include "driveHealth.hpp"
#include "reportDate.hpp"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qvreport
{

// Figures a drive only ever counts up: a reading where one of them is lower
// than the drive's last is another drive's, or the drive's own odd count.
// Power-on hours are judged on their own (continuity()).
inline constexpr std::array<Figure DriveHealth::*, 11> risingFigures = {
    &DriveHealth::powerCycles, &DriveHealth::dataWritten,
    &DriveHealth::dataRead,    &DriveHealth::headFlyingHours,
    &DriveHealth::loadEvents,  &DriveHealth::unsafeShutdowns,
    &DriveHealth::reallocated, &DriveHealth::mediaErrors,
    &DriveHealth::crcErrors,   &DriveHealth::commandTimeouts,
    &DriveHealth::percentUsed};

// The wear a solid-state drive has left only ever goes down.
inline constexpr std::array<Figure DriveHealth::*, 1> fallingFigures = {
    &DriveHealth::lifeRemaining};

// How a reading of one day stands to a drive's last reading.
struct Continuity
{
    // False when no drive could count so: another class, power-on hours
    // far below the last or further on than the days between allow.
    bool possible = true;
    // Figures lower than the last reading's, power-on hours that stepped
    // back a little among them.
    int setbacks = 0;
    // Hours between the power-on count and the last one plus the days
    // between; 0 when either has none.
    std::int64_t hoursOff = 0;
    // Figures of those above that both readings have: with none, nothing
    // tells whether it is the same drive.
    int shared = 0;
    // The first figure that broke or fell, as "power_on_hours 0 after
    // 30192"; empty when none did.
    std::string why;

    bool seamless() const
    {
        return possible && setbacks == 0;
    }
};

Continuity continuity(const DriveHealth& last, Day lastDay,
                      const DriveHealth& next, Day nextDay);

// Every figure the reading has is 0: the drive answered with an empty log.
bool allZero(const DriveHealth& reading);

// No hour and no count on record: a drive that answered with its counters
// cleared, or one that has never run.
bool zeroedCounters(const DriveHealth& reading);

// Weights of the day's matching of readings to drives (lower is likelier).
// A reading goes to its bay's drive, however odd one count of it, unless
// the drive turns up elsewhere: two drives swapped between bays are two
// moves, cheaper than the figure each bay's reading would set back.
namespace matchCost
{
// A figure lower than the drive's last.
inline constexpr std::int64_t setback = 1'000'000;
// Taking the reading for the drive that was in another bay.
inline constexpr std::int64_t moved = 10'000;
// Hours off the expected count, to pick the closer drive; capped below a
// move.
inline constexpr std::int64_t hoursOffCap = 9'999;
// Taking the reading for a drive not seen before.
inline constexpr std::int64_t newDrive = 500'000;
// A drive left without a reading although its bay has one that it could
// have given: with a new drive, two setbacks are another drive, one is
// still the same.
inline constexpr std::int64_t unread = setback;
} // namespace matchCost

// The cost of taking a reading for a drive's; nothing when it cannot be.
std::optional<std::int64_t> costOf(const Continuity& continuity, bool moved);

// The cheapest way to take each reading for one drive or for a new one:
// `cost[reading][drive]` (nothing: not that drive), `unreadCost[drive]`
// when the drive gets none. For each reading, its drive's index or
// nothing for a new drive.
std::vector<std::optional<size_t>> assignReadings(
    const std::vector<std::vector<std::optional<std::int64_t>>>& cost,
    const std::vector<std::int64_t>& unreadCost);

} // namespace qvreport
