// Measures how long `qv-smart-report history` takes to follow the drives of
// one server across a year of daily reports.
//
//   qv-bench-history [--days D] [--runs R] [--memory [--raw-octets B]] DIR [N]
//
// DIR holds scenario-N.json and tables-N.json (make-scenario.py writes them;
// N is 24 unless given). The shipped collector runs once in daily mode
// against a private dbus-daemon and the storage simulator serving that
// server. Its two reports become D days of SL<day>.json and RD<day>.json,
// ending on the day the collector wrote them: each earlier day is the same
// text with the temperatures and power-on hours changed in place. The reader
// then reads the directory R times with --format table and R times with
// --format json, interleaved, each run a fresh process. Prints a Markdown
// table and whether the slower format's median stays under two seconds;
// exit code 0 when it does, 3 when not, 1 when a run failed. With --memory
// it runs `export --format textfile` instead, the metrics unit's command,
// and judges its peak RSS against 32 MiB, and `export --format openmetrics
// --output FILE`, judged against 64 MiB; then the collector's own day gets
// the raw report of a second run with one raw-data reply of B octets
// (default 16 MiB), and `history` and `export --output FILE` are judged
// against 64 MiB.

#include "benchReport.hpp"
#include "historyChecks.hpp"
#include "historyDays.hpp"
#include "historyOptions.hpp"
#include "measure.hpp"
#include "reportDate.hpp"
#include "testSupport.hpp"

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

namespace fs = std::filesystem;
using bench::Measurement;
using bench::history::checkJson;
using bench::history::checkOpenMetrics;
using bench::history::checkTable;
using bench::history::checkTextfile;
using bench::history::collectOneDay;
using bench::history::Options;
using bench::history::parseOptions;
using bench::history::readText;
using bench::history::scenarioOf;
using bench::history::withRawReply;
using bench::history::writeDays;
using bench::history::writeText;
using std::chrono::sys_days;

constexpr double targetSeconds = 2;
constexpr long textfileTargetKiB = 32L * 1024;
constexpr long boundedTargetKiB = 64L * 1024;

// One command of the reader over the days, and how its output is checked.
struct Probe
{
    std::string name;
    std::vector<std::string> args;
    // Its output goes to a file named by --output, not to standard output.
    bool toFile = false;
    std::function<void(const fs::path&)> check;
    std::vector<Measurement> runs;
    // Of the reports read.
    std::uintmax_t bytes = 0;
};

Probe probe(std::string name, std::vector<std::string> args, bool toFile,
            std::function<void(const fs::path&)> check)
{
    return {std::move(name), std::move(args), toFile, std::move(check), {}, 0};
}

class HistoryBench
{
  public:
    explicit HistoryBench(const Options& options) : options(options) {}

    void prepare()
    {
        auto reports = collectOneDay(options, scenarioOf(options));
        fs::create_directories(days());
        lastDay = reports.day;
        rawBytes = reports.raw.size();
        bytes = writeDays(reports, options.days, days());
    }

    // The collector's day's raw report replaced by that of a run with one
    // large raw-data reply; returns its size.
    std::uintmax_t writeLargeRaw()
    {
        auto large = collectOneDay(options, withRawReply(scenarioOf(options),
                                                         options.rawOctets,
                                                         scratch.path()));
        writeText(days() / qvreport::dailyReportName(qvreport::ReportKind::raw,
                                                     lastDay),
                  large.raw);
        bytes += large.raw.size() - rawBytes;
        return large.raw.size();
    }

    // Each command once a round, so that a slow spell of the machine hits
    // all alike.
    std::vector<Probe> measure(std::vector<Probe> probes)
    {
        for (int run = 0; run < options.runs; ++run)
        {
            for (auto& probe : probes)
            {
                probe.runs.push_back(measureOne(probe));
            }
        }
        for (auto& probe : probes)
        {
            probe.bytes = bytes;
        }
        return probes;
    }

    std::vector<Probe> timedProbes() const
    {
        const int drives = options.drives;
        const int days = options.days;
        return {probe("history --format table",
                      {"history", "--format", "table"}, false, table()),
                probe("history --format json", {"history", "--format", "json"},
                      false, [drives, days](const fs::path& path) {
                          checkJson(readText(path), drives, days);
                      })};
    }

    // The metrics unit's export, and the OpenMetrics history to a file.
    std::vector<Probe> metricsProbes() const
    {
        return {probe("export --format textfile",
                      {"export", "--format", "textfile"}, false, textfile()),
                probe("export --format openmetrics --output",
                      {"export", "--format", "openmetrics"}, true,
                      openMetrics())};
    }

    // The same day by day with the large raw report: the history, the
    // metrics unit's export and the OpenMetrics history to a file.
    std::vector<Probe> largeRawProbes() const
    {
        return {
            probe("history, one large RD file", {"history"}, false, table()),
            probe("export --format textfile, one large RD file",
                  {"export", "--format", "textfile"}, false, textfile()),
            probe("export --output, one large RD file", {"export"}, true,
                  openMetrics())};
    }

  private:
    const Options& options;
    testsupport::TempDir scratch;
    sys_days lastDay{};
    std::uintmax_t rawBytes = 0;
    std::uintmax_t bytes = 0;

    fs::path days() const
    {
        return fs::path(scratch.path()) / "smartlogs";
    }

    fs::path output() const
    {
        return fs::path(scratch.path()) / "history.out";
    }

    std::function<void(const fs::path&)> table() const
    {
        return [drives = options.drives](const fs::path& path) {
            checkTable(readText(path), drives);
        };
    }

    std::function<void(const fs::path&)> textfile() const
    {
        return [drives = options.drives](const fs::path& path) {
            checkTextfile(path, drives);
        };
    }

    std::function<void(const fs::path&)> openMetrics() const
    {
        return [drives = options.drives,
                days = options.days](const fs::path& path) {
            checkOpenMetrics(path, drives, days);
        };
    }

    Measurement measureOne(const Probe& probe)
    {
        std::string errors = scratch.path() + "/history.err";
        std::vector<std::string> argv{QV_SMART_REPORT_PATH};
        argv.insert(argv.end(), probe.args.begin(), probe.args.end());
        if (probe.toFile)
        {
            argv.insert(argv.end(), {"--output", output().string()});
        }
        argv.push_back(days());
        auto measured = bench::measureProgram(
            testsupport::targetCommand(argv), {}, errors,
            probe.toFile ? "/dev/null" : output().string());
        // Bits 4 and 8 are the drives' verdicts; 1 is damaged input, 2 bad
        // usage.
        if (measured.exitCode < 0 || (measured.exitCode & 3) != 0)
        {
            throw std::runtime_error(
                "qv-smart-report " + probe.name + " failed (exit code " +
                std::to_string(measured.exitCode) + ", signal " +
                std::to_string(measured.termSignal) +
                "): " + testsupport::readFile(errors));
        }
        probe.check(output());
        fs::remove(output());
        return measured;
    }
};

std::string resultTable(const Options& options,
                        const std::vector<Probe>& probes)
{
    std::string table =
        "| command | files | MiB | drives | median ms | best ms | peak KiB | "
        "CPU ms | of it system |\n"
        "|---|---:|---:|---:|---:|---:|---:|---:|---:|\n";
    for (const auto& probe : probes)
    {
        table +=
            "| " + probe.name + " | " + std::to_string(2 * options.days) +
            " | " +
            bench::formatted("%.1f", double(probe.bytes) / (1024.0 * 1024.0)) +
            " | " + std::to_string(options.drives) + " | " +
            bench::formatted("%.1f", bench::medianWallMs(probe.runs)) + " | " +
            bench::formatted("%.1f", bench::bestWallMs(probe.runs)) + " | " +
            std::to_string(bench::peakRssKiB(probe.runs)) + " | " +
            bench::formatted("%.1f", bench::medianCpuMs(probe.runs)) + " | " +
            bench::formatted("%.1f", bench::medianSystemMs(probe.runs)) +
            " |\n";
    }
    return table;
}

// "<what>: peak P MiB, target <= T MiB: met" or "MISSED"; whether it was.
bool judgePeak(const std::string& what, long peakKiB, long targetKiB)
{
    bool met = peakKiB <= targetKiB;
    std::cout << what << ": peak "
              << bench::formatted("%.1f", double(peakKiB) / 1024)
              << " MiB, target <= " << targetKiB / 1024
              << " MiB: " << (met ? "met" : "MISSED") << "\n";
    return met;
}

// The target lines of the memory runs, whose probes are the metrics
// exports and then history and export with the large raw report: 0 when
// all are met, 3 when not.
int judgeMemory(const Options& options, const std::vector<Probe>& probes,
                std::uintmax_t largeRaw)
{
    const std::string span = std::to_string(options.drives) + " drives over " +
                             std::to_string(options.days) + " days";
    bool met = judgePeak("textfile export of " + span,
                         bench::peakRssKiB(probes.at(0).runs),
                         textfileTargetKiB);
    met = judgePeak("openmetrics export of " + span + " to a file",
                    bench::peakRssKiB(probes.at(1).runs), boundedTargetKiB) &&
          met;
    met = judgePeak("history and export of " + span + ", one RD file of " +
                        bench::formatted("%.1f", double(largeRaw) / 1e6) +
                        " MB",
                    std::max({bench::peakRssKiB(probes.at(2).runs),
                              bench::peakRssKiB(probes.at(3).runs),
                              bench::peakRssKiB(probes.at(4).runs)}),
                    boundedTargetKiB) &&
          met;
    return met ? 0 : 3;
}

} // namespace

int main(int argc, char* argv[])
{
    Options options = parseOptions({argv + 1, argv + argc});
    std::uintmax_t largeRaw = 0;
    std::vector<Probe> probes;
    try
    {
        HistoryBench bench(options);
        bench.prepare();
        // Every measured run starts as a fork of this process: hand the
        // reports' memory back first.
        malloc_trim(0);
        probes = bench.measure(options.memory ? bench.metricsProbes()
                                              : bench.timedProbes());
        if (options.memory)
        {
            largeRaw = bench.writeLargeRaw();
            malloc_trim(0);
            std::ranges::move(bench.measure(bench.largeRawProbes()),
                              std::back_inserter(probes));
        }
    }
    catch (const std::exception& e)
    {
        std::cerr << "qv-bench-history: " << e.what() << "\n";
        return 1;
    }
    std::cout << resultTable(options, probes) << "\n";
    if (options.memory)
    {
        return judgeMemory(options, probes, largeRaw);
    }
    double slowest = 0;
    for (const auto& probe : probes)
    {
        slowest = std::max(slowest, bench::medianWallMs(probe.runs) / 1000);
    }
    bool met = slowest < targetSeconds;
    std::cout << "history of " << 2 * options.days << " files: median "
              << bench::formatted("%.3f", slowest)
              << " s, target < 2 s: " << (met ? "met" : "MISSED") << "\n";
    return met ? 0 : 3;
}
