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
#include "measure.hpp"
#include "reportDate.hpp"
#include "testSupport.hpp"

#include <malloc.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace
{

namespace fs = std::filesystem;
using bench::Measurement;
using std::chrono::sys_days;

constexpr double targetSeconds = 2;
constexpr long textfileTargetKiB = 32L * 1024;
constexpr long boundedTargetKiB = 64L * 1024;

struct Options
{
    int days = 365;
    int runs = 5;
    std::string dir;
    int drives = 24;
    bool memory = false;
    // The raw-data reply of the memory runs' large raw report.
    int rawOctets = 16 * 1024 * 1024;
};

// The reports of one daily run, as the collector wrote them.
struct DailyReports
{
    sys_days day;
    std::string logs;
    std::string raw;
};

std::string readText(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
    {
        throw std::runtime_error("cannot read " + path.string());
    }
    return {std::istreambuf_iterator<char>(in),
            std::istreambuf_iterator<char>()};
}

void writeText(const fs::path& path, std::string_view text)
{
    std::ofstream out(path, std::ios::binary);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    if (!out.flush())
    {
        throw std::runtime_error("cannot write " + path.string());
    }
}

// Runs the collector in daily mode (any argument but 0) against the server
// of `scenario` and returns its two reports. The simulator goes before the
// bus: it would report the bus going away.
DailyReports collectOneDay(const Options& options, const std::string& scenario)
{
    std::string size = std::to_string(options.drives);
    testsupport::PrivateBus bus;
    testsupport::Simulator simulator(scenario, bus);
    testsupport::Sandbox root;
    // The collector sees only the sandbox's directory of the host's.
    std::string tables = root.dir() + "/tables.json";
    fs::copy_file(options.dir + "/tables-" + size + ".json", tables);
    auto result = root.run({"1"}, bus, tables);
    if (result.exitCode != 0)
    {
        throw std::runtime_error("the collector failed with exit code " +
                                 std::to_string(result.exitCode) + ": " +
                                 result.err);
    }
    fs::path daily = root.hostPath(testsupport::dailyDir);
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(daily))
    {
        names.push_back(entry.path().filename().string());
    }
    auto dated = names.empty() ? std::nullopt
                               : qvreport::datedReportName(names.front());
    if (!dated || names.size() != 2)
    {
        throw std::runtime_error("the collector did not write one SL and one "
                                 "RD report of the same day into " +
                                 daily.string());
    }
    fs::path logs = daily / qvreport::dailyReportName(
                                qvreport::ReportKind::logs, dated->day);
    fs::path raw = daily / qvreport::dailyReportName(qvreport::ReportKind::raw,
                                                     dated->day);
    if (!fs::exists(logs) || !fs::exists(raw))
    {
        throw std::runtime_error("the collector did not write one SL and one "
                                 "RD report of the same day into " +
                                 daily.string());
    }
    return {dated->day, readText(logs), readText(raw)};
}

std::string scenarioOf(const Options& options)
{
    return options.dir + "/scenario-" + std::to_string(options.drives) +
           ".json";
}

// The server with one solid-state drive's raw-data reply `octets` long,
// written into `dir`.
std::string withRawReply(const std::string& scenario, int octets,
                         const fs::path& dir)
{
    auto server = nlohmann::json::parse(readText(scenario));
    for (auto& drive : server.at("drives"))
    {
        if (drive.contains("rawData"))
        {
            drive["rawData"] = {{"dataLength", octets}};
            auto path = (dir / "scenario-raw.json").string();
            writeText(path, server.dump());
            return path;
        }
    }
    throw std::runtime_error(scenario + " has no drive with raw data");
}

// The text with every value of the members called `name` moved by `delta`,
// never below 0. Only the digits between the member's `"name": "` and the
// closing quote change; a value that is not a plain number stays.
std::string shifted(std::string_view text, std::string_view name, long delta)
{
    std::string head = "\"" + std::string(name) + "\": \"";
    std::string result;
    result.reserve(text.size() + 64);
    size_t done = 0;
    for (size_t at = text.find(head); at != std::string_view::npos;
         at = text.find(head, done))
    {
        size_t from = at + head.size();
        size_t to = text.find('"', from);
        if (to == std::string_view::npos)
        {
            break;
        }
        long value = 0;
        auto [end, error] = std::from_chars(text.data() + from,
                                            text.data() + to, value);
        result.append(text.substr(done, from - done));
        if (error == std::errc() && end == text.data() + to)
        {
            result += std::to_string(std::max(0L, value + delta));
        }
        else
        {
            result.append(text.substr(from, to - from));
        }
        done = to;
    }
    result.append(text.substr(done));
    return result;
}

// How far the temperatures of a day lie from the collector's: -5 to +5 °C,
// different from one day to the next, 0 on the collector's own day.
long temperatureSwing(long daysBefore)
{
    return (daysBefore * 7 + 5) % 11 - 5;
}

// The reports of a day `daysBefore` the collector's run: its text with the
// SSD and NVMe temperatures swung and the power-on hours taken back by 24
// an elapsed day. The raw report (hard drives' log pages, SSD raw data) is
// the same every day.
std::string logsBefore(const std::string& logs, long daysBefore)
{
    long swing = temperatureSwing(daysBefore);
    long hours = -24 * daysBefore;
    std::string text = shifted(logs, "Drive Temp", swing);
    text = shifted(text, "Composite Temperature", swing);
    text = shifted(text, "Power On hours", hours);
    return shifted(text, "PowerOnHours Lower", hours);
}

// Writes `days` days of both reports into `dir`, the last one the
// collector's; returns the bytes written.
std::uintmax_t writeDays(const DailyReports& reports, int days,
                         const fs::path& dir)
{
    std::uintmax_t bytes = 0;
    for (long before = days - 1; before >= 0; --before)
    {
        auto day = reports.day - std::chrono::days(before);
        std::string logs = logsBefore(reports.logs, before);
        writeText(
            dir / qvreport::dailyReportName(qvreport::ReportKind::logs, day),
            logs);
        writeText(dir /
                      qvreport::dailyReportName(qvreport::ReportKind::raw, day),
                  reports.raw);
        bytes += logs.size() + reports.raw.size();
    }
    return bytes;
}

// The table lists one drive a line under its heading.
void checkTable(const std::string& output, int drives)
{
    long lines = std::count(output.begin(), output.end(), '\n');
    if (lines != drives + 1)
    {
        throw std::runtime_error("the table lists " +
                                 std::to_string(lines - 1) + " drives, not " +
                                 std::to_string(drives));
    }
}

// The json output follows every drive over every day.
void checkJson(const std::string& output, int drives, int days)
{
    auto whole = nlohmann::json::parse(output);
    const auto& followed = whole.at("drives");
    if (followed.size() != size_t(drives))
    {
        throw std::runtime_error("the json output lists " +
                                 std::to_string(followed.size()) +
                                 " drives, not " + std::to_string(drives));
    }
    for (const auto& drive : followed)
    {
        if (drive.at("days") != days)
        {
            throw std::runtime_error(
                drive.at("fqdd").get<std::string>() + " is followed over " +
                drive.at("days").dump() + " days, not " + std::to_string(days));
        }
    }
}

// Counts the verdict samples of a metrics file line by line: an
// OpenMetrics file of a long history is far larger than the benchmark
// should hold.
struct MetricsLines
{
    long verdicts = 0;
    std::string last;
};

MetricsLines metricsLines(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
    {
        throw std::runtime_error("cannot read " + path.string());
    }
    MetricsLines found;
    for (std::string line; std::getline(in, line);)
    {
        found.verdicts += line.starts_with("qv_smart_device_verdict{") ? 1 : 0;
        found.last = std::move(line);
    }
    return found;
}

// The textfile has one verdict sample per drive.
void checkTextfile(const fs::path& path, int drives)
{
    auto found = metricsLines(path);
    if (found.verdicts != drives)
    {
        throw std::runtime_error("the textfile has " +
                                 std::to_string(found.verdicts) +
                                 " verdicts, not " + std::to_string(drives));
    }
}

// The OpenMetrics file has one verdict sample per drive and day, and ends.
void checkOpenMetrics(const fs::path& path, int drives, int days)
{
    auto found = metricsLines(path);
    if (found.verdicts != long(drives) * days || found.last != "# EOF")
    {
        throw std::runtime_error(
            "the OpenMetrics file has " + std::to_string(found.verdicts) +
            " verdicts, not " + std::to_string(long(drives) * days) +
            (found.last == "# EOF" ? "" : ", and no # EOF at its end"));
    }
}

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

[[noreturn]] void usage()
{
    std::cerr << "usage: qv-bench-history [--days D] [--runs R] [--memory "
                 "[--raw-octets B]] DIR [N]\n";
    std::exit(64);
}

int positive(const std::string& text)
{
    const auto value = bench::positiveNumber(text);
    if (!value)
    {
        usage();
    }
    return *value;
}

Options parseOptions(const std::vector<std::string>& args)
{
    Options options;
    size_t next = 0;
    for (; next + 1 < args.size() && args[next].starts_with('-'); next += 2)
    {
        if (args[next] == "--days")
        {
            options.days = positive(args[next + 1]);
        }
        else if (args[next] == "--runs")
        {
            options.runs = positive(args[next + 1]);
        }
        else if (args[next] == "--raw-octets")
        {
            options.rawOctets = positive(args[next + 1]);
        }
        else if (args[next] == "--memory")
        {
            options.memory = true;
            --next;
        }
        else
        {
            usage();
        }
    }
    size_t left = args.size() - next;
    if (left < 1 || left > 2)
    {
        usage();
    }
    options.dir = args[next];
    if (left == 2)
    {
        options.drives = positive(args[next + 1]);
    }
    return options;
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
