#include "benchReport.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <functional>

namespace bench
{
namespace
{

double median(std::vector<double> values)
{
    if (values.empty())
    {
        return 0;
    }
    std::sort(values.begin(), values.end());
    size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle]
                                  : (values[middle - 1] + values[middle]) / 2;
}

double medianOf(const std::vector<Measurement>& runs,
                const std::function<double(const Measurement&)>& value)
{
    std::vector<double> values;
    values.reserve(runs.size());
    for (const auto& run : runs)
    {
        values.push_back(value(run));
    }
    return median(values);
}

std::string row(const std::vector<std::string>& cells)
{
    std::string line = "|";
    for (const auto& cell : cells)
    {
        line += " " + cell + " |";
    }
    return line + "\n";
}

std::string separator(size_t columns)
{
    std::string line = "|";
    for (size_t i = 0; i < columns; ++i)
    {
        line += "---:|";
    }
    return line + "\n";
}

std::string timeTable(const std::vector<SizeResult>& results)
{
    std::vector<std::string> head = {"drives",
                                     "round trips",
                                     "floor ms",
                                     "collector ms",
                                     "collector / floor",
                                     "best floor ms",
                                     "best collector ms",
                                     "best collector / floor",
                                     "median of run ratios",
                                     "busctl script ms",
                                     "busctl / collector",
                                     "collector µs per round trip"};
    std::string table = row(head) + separator(head.size());
    for (const auto& r : results)
    {
        double floorMs = medianWallMs(r.floor);
        double collectorMs = medianWallMs(r.collector);
        double bestFloorMs = bestWallMs(r.floor);
        double bestCollectorMs = bestWallMs(r.collector);
        double busctlMs = medianWallMs(r.busctl);
        table += row(
            {std::to_string(r.drives), std::to_string(r.roundTrips),
             formatted("%.2f", floorMs), formatted("%.2f", collectorMs),
             formatted("%.3f", collectorMs / floorMs),
             formatted("%.2f", bestFloorMs), formatted("%.2f", bestCollectorMs),
             formatted("%.3f", bestCollectorMs / bestFloorMs),
             formatted("%.3f", pairedRatio(r.collector, r.floor)),
             formatted("%.0f", busctlMs),
             formatted("%.1f", busctlMs / collectorMs),
             formatted("%.1f", bestCollectorMs * 1000 /
                                   static_cast<double>(r.roundTrips))});
    }
    return table;
}

std::string memoryTable(const std::vector<SizeResult>& results)
{
    std::vector<std::string> head = {"drives",
                                     "/bin/true peak KiB",
                                     "floor peak KiB",
                                     "collector peak KiB",
                                     "collector / floor",
                                     "floor CPU ms",
                                     "of it system",
                                     "collector CPU ms",
                                     "of it system",
                                     "report bytes"};
    std::string table = row(head) + separator(head.size());
    for (const auto& r : results)
    {
        long floorKiB = peakRssKiB(r.floor);
        long collectorKiB = peakRssKiB(r.collector);
        table += row({std::to_string(r.drives),
                      std::to_string(peakRssKiB(r.baseline)),
                      std::to_string(floorKiB), std::to_string(collectorKiB),
                      formatted("%.3f", static_cast<double>(collectorKiB) /
                                            static_cast<double>(floorKiB)),
                      formatted("%.1f", medianCpuMs(r.floor)),
                      formatted("%.1f", medianSystemMs(r.floor)),
                      formatted("%.1f", medianCpuMs(r.collector)),
                      formatted("%.1f", medianSystemMs(r.collector)),
                      std::to_string(r.reportBytes)});
    }
    return table;
}

// Milliseconds per extra round trip from one size to the next.
double slope(const SizeResult& from, const SizeResult& to)
{
    return (bestWallMs(to.collector) - bestWallMs(from.collector)) /
           (static_cast<double>(to.roundTrips) -
            static_cast<double>(from.roundTrips));
}

void verdict(Verdicts& verdicts, bool met, const std::string& what)
{
    verdicts.allMet = verdicts.allMet && met;
    verdicts.text += std::string(met ? "met:    " : "MISSED: ") + what + "\n";
}

} // namespace

double bestWallMs(const std::vector<Measurement>& runs)
{
    double best = 0;
    for (const auto& run : runs)
    {
        double ms =
            std::chrono::duration<double, std::milli>(run.wallTime).count();
        best = best == 0 ? ms : std::min(best, ms);
    }
    return best;
}

double pairedRatio(const std::vector<Measurement>& collector,
                   const std::vector<Measurement>& floor)
{
    std::vector<double> ratios;
    for (size_t i = 0; i < collector.size() && i < floor.size(); ++i)
    {
        ratios.push_back(static_cast<double>(collector[i].wallTime.count()) /
                         static_cast<double>(floor[i].wallTime.count()));
    }
    return median(ratios);
}

std::optional<int> positiveNumber(std::string_view text)
{
    int value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value <= 0)
    {
        return std::nullopt;
    }
    return value;
}

std::string formatted(const char* pattern, double value)
{
    std::array<char, 64> text{};
    const int length = std::snprintf(text.data(), text.size(), pattern, value);
    return length > 0 ? text.data() : "";
}

double medianWallMs(const std::vector<Measurement>& runs)
{
    return medianOf(runs, [](const Measurement& run) {
        return std::chrono::duration<double, std::milli>(run.wallTime).count();
    });
}

long peakRssKiB(const std::vector<Measurement>& runs)
{
    long peak = 0;
    for (const auto& run : runs)
    {
        peak = std::max(peak, run.peakRssKiB);
    }
    return peak;
}

double medianCpuMs(const std::vector<Measurement>& runs)
{
    return medianOf(runs, [](const Measurement& run) {
        return std::chrono::duration<double, std::milli>(run.cpuTime).count();
    });
}

double medianSystemMs(const std::vector<Measurement>& runs)
{
    return medianOf(runs, [](const Measurement& run) {
        return std::chrono::duration<double, std::milli>(run.systemTime)
            .count();
    });
}

std::string resultTable(const std::vector<SizeResult>& results)
{
    return "Wall time (median of the runs, and the best run):\n\n" +
           timeTable(results) +
           "\nMemory and CPU (peak RSS: largest of all runs; CPU: "
           "median):\n\n" +
           memoryTable(results);
}

Verdicts checkTargets(const std::vector<SizeResult>& results)
{
    Verdicts verdicts;
    for (const auto& r : results)
    {
        auto floorKiB = static_cast<double>(peakRssKiB(r.floor));
        double ratio = static_cast<double>(peakRssKiB(r.collector)) / floorKiB;
        // The collector's own data grows with the server; up to 256 drives
        // it must stay within 15 % of the floor, beyond that within 20 %.
        const double limit = r.drives <= 256 ? 1.15 : 1.2;
        verdict(verdicts, ratio <= limit,
                formatted("peak RSS %.3f x the floor's", ratio) + " at " +
                    std::to_string(r.drives) + " drives" +
                    formatted(" (at most %.2f)", limit));
        if (r.drives == 256)
        {
            double wall = pairedRatio(r.collector, r.floor);
            verdict(verdicts, wall <= 1.25,
                    formatted("wall time %.3f x the floor's", wall) +
                        " at 256 drives (median of the runs' ratios; at "
                        "most 1.25)");
        }
    }
    if (results.size() >= 2)
    {
        long growth = peakRssKiB(results.back().collector) -
                      peakRssKiB(results.front().collector);
        verdict(verdicts, growth < 1024,
                "peak RSS grows by " + std::to_string(growth) + " KiB from " +
                    std::to_string(results.front().drives) + " to " +
                    std::to_string(results.back().drives) +
                    " drives (less than 1024)");
    }
    if (results.size() >= 3)
    {
        size_t last = results.size() - 1;
        double first = slope(results[0], results[1]);
        double final = slope(results[last - 1], results[last]);
        verdict(verdicts, final <= 1.25 * first,
                formatted("%.1f µs", final * 1000) +
                    " per extra round trip between the two largest sizes, " +
                    formatted("%.1f µs", first * 1000) +
                    " between the two smallest (at most 1.25 x)");
    }
    return verdicts;
}

} // namespace bench
