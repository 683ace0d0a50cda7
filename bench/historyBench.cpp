// Measures how long `qv-smart-report history` takes to follow the drives of
// one server across a year of daily reports.
//
//   qv-bench-history [--days D] [--runs R] [--memory] DIR [N]
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
// and judges its peak RSS against 32 MiB.

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
#include <iostream>
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
constexpr long targetPeakKiB = 32L * 1024;

struct Options
{
    int days = 365;
    int runs = 5;
    std::string dir;
    int drives = 24;
    bool memory = false;
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

// Runs the collector in daily mode (any argument but 0) and returns its two
// reports. The simulator goes before the bus: it would report the bus going
// away.
DailyReports collectOneDay(const Options& options)
{
    std::string size = std::to_string(options.drives);
    testsupport::PrivateBus bus;
    testsupport::Simulator simulator(
        options.dir + "/scenario-" + size + ".json", bus);
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

// Every measured run of one output format.
struct FormatRuns
{
    std::string format;
    std::vector<Measurement> runs;
};

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

// The textfile has one verdict sample per drive.
void checkTextfile(const std::string& output, int drives)
{
    long verdicts = 0;
    for (size_t at = output.find("\nqv_smart_device_verdict{");
         at != std::string::npos;
         at = output.find("\nqv_smart_device_verdict{", at + 1))
    {
        ++verdicts;
    }
    if (verdicts != drives)
    {
        throw std::runtime_error("the textfile has " +
                                 std::to_string(verdicts) + " verdicts, not " +
                                 std::to_string(drives));
    }
}

class HistoryBench
{
  public:
    explicit HistoryBench(const Options& options) : options(options) {}

    std::uintmax_t prepare()
    {
        auto reports = collectOneDay(options);
        fs::create_directories(days());
        return writeDays(reports, options.days, days());
    }

    // Each format once a round, so that a slow spell of the machine hits
    // both alike.
    std::vector<FormatRuns> measure()
    {
        std::vector<FormatRuns> results{{"table", {}}, {"json", {}}};
        if (options.memory)
        {
            results = {{"textfile", {}}};
        }
        for (int run = 0; run < options.runs; ++run)
        {
            for (auto& result : results)
            {
                result.runs.push_back(measureOne(result.format));
            }
        }
        return results;
    }

  private:
    const Options& options;
    testsupport::TempDir scratch;

    fs::path days() const
    {
        return fs::path(scratch.path()) / "smartlogs";
    }

    Measurement measureOne(const std::string& format)
    {
        std::string output = scratch.path() + "/history.out";
        std::string errors = scratch.path() + "/history.err";
        auto command = testsupport::targetCommand(
            {QV_SMART_REPORT_PATH, format == "textfile" ? "export" : "history",
             "--format", format, days()});
        auto measured = bench::measureProgram(command, {}, errors, output);
        // Bits 4 and 8 are the drives' verdicts; 1 is damaged input, 2 bad
        // usage.
        if (measured.exitCode < 0 || (measured.exitCode & 3) != 0)
        {
            throw std::runtime_error(
                "qv-smart-report history --format " + format +
                " failed (exit code " + std::to_string(measured.exitCode) +
                ", signal " + std::to_string(measured.termSignal) +
                "): " + testsupport::readFile(errors));
        }
        std::string text = readText(output);
        if (format == "table")
        {
            checkTable(text, options.drives);
        }
        else if (format == "json")
        {
            checkJson(text, options.drives, options.days);
        }
        else
        {
            checkTextfile(text, options.drives);
        }
        return measured;
    }
};

std::string resultTable(const Options& options, std::uintmax_t bytes,
                        const std::vector<FormatRuns>& results)
{
    std::string table =
        "| format | files | MiB | drives | median ms | best ms | peak KiB | "
        "CPU ms | of it system |\n"
        "|---|---:|---:|---:|---:|---:|---:|---:|---:|\n";
    for (const auto& result : results)
    {
        table +=
            "| " + result.format + " | " + std::to_string(2 * options.days) +
            " | " +
            bench::formatted("%.1f", double(bytes) / (1024.0 * 1024.0)) +
            " | " + std::to_string(options.drives) + " | " +
            bench::formatted("%.1f", bench::medianWallMs(result.runs)) + " | " +
            bench::formatted("%.1f", bench::bestWallMs(result.runs)) + " | " +
            std::to_string(bench::peakRssKiB(result.runs)) + " | " +
            bench::formatted("%.1f", bench::medianCpuMs(result.runs)) + " | " +
            bench::formatted("%.1f", bench::medianSystemMs(result.runs)) +
            " |\n";
    }
    return table;
}

[[noreturn]] void usage()
{
    std::cerr << "usage: qv-bench-history [--days D] [--runs R] [--memory] "
                 "DIR [N]\n";
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
    std::uintmax_t bytes = 0;
    std::vector<FormatRuns> results;
    try
    {
        HistoryBench bench(options);
        bytes = bench.prepare();
        // Every measured run starts as a fork of this process: hand the
        // reports' memory back first.
        malloc_trim(0);
        results = bench.measure();
    }
    catch (const std::exception& e)
    {
        std::cerr << "qv-bench-history: " << e.what() << "\n";
        return 1;
    }
    std::cout << resultTable(options, bytes, results) << "\n";
    if (options.memory)
    {
        long peak = bench::peakRssKiB(results.front().runs);
        bool met = peak <= targetPeakKiB;
        std::cout << "textfile export of " << options.drives << " drives over "
                  << options.days << " days: peak "
                  << bench::formatted("%.1f", double(peak) / 1024)
                  << " MiB, target <= 32 MiB: " << (met ? "met" : "MISSED")
                  << "\n";
        return met ? 0 : 3;
    }
    double slowest = 0;
    for (const auto& result : results)
    {
        slowest = std::max(slowest, bench::medianWallMs(result.runs) / 1000);
    }
    bool met = slowest < targetSeconds;
    std::cout << "history of " << 2 * options.days << " files: median "
              << bench::formatted("%.3f", slowest)
              << " s, target < 2 s: " << (met ? "met" : "MISSED") << "\n";
    return met ? 0 : 3;
}
