#pragma once

#include "measure.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace bench
{

// Everything measured for one server size.
struct SizeResult
{
    int drives = 0;
    size_t roundTrips = 0;
    std::vector<Measurement> baseline; // /bin/true, same launch
    std::vector<Measurement> floor;
    std::vector<Measurement> collector;
    std::vector<Measurement> busctl;
    std::uintmax_t reportBytes = 0; // both reports of one collector run
};

// Median and shortest wall time in milliseconds, largest peak RSS in KiB,
// median CPU time and its system part in milliseconds.
// A whole number above 0 written out in full, or nothing.
std::optional<int> positiveNumber(std::string_view text);
// One number through a printf pattern.
std::string formatted(const char* pattern, double value);

double medianWallMs(const std::vector<Measurement>& runs);
double bestWallMs(const std::vector<Measurement>& runs);
// The median of collector / floor over runs made back to back: slow spells
// of a shared machine hit both runs of a pair alike.
double pairedRatio(const std::vector<Measurement>& collector,
                   const std::vector<Measurement>& floor);
long peakRssKiB(const std::vector<Measurement>& runs);
double medianCpuMs(const std::vector<Measurement>& runs);
double medianSystemMs(const std::vector<Measurement>& runs);

// Markdown tables of the results, sizes in the order given.
std::string resultTable(const std::vector<SizeResult>& results);

struct Verdicts
{
    bool allMet = true;
    std::string text; // one line per target
};

// The targets: wall time at most 1.25 times the floor's at 256 drives; peak
// RSS at most 1.2 times the floor's at every size and growing by less than
// 1 MiB from the smallest size to the largest; time per extra round trip
// between the two largest sizes at most 1.25 times that between the two
// smallest (no worse than linear). The wall-time ratio is the median of the
// runs' own ratios and the slopes use the best runs: on a shared machine
// slow spells measure the neighbours.
Verdicts checkTargets(const std::vector<SizeResult>& results);

} // namespace bench
