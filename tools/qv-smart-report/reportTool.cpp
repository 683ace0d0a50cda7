#include "reportTool.hpp"

#include "healthView.hpp"
#include "history.hpp"
#include "historyViews.hpp"
#include "htmlPage.hpp"
#include "metrics.hpp"
#include "operatorFile.hpp"
#include "verdict.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdint>
#include <iomanip>
#include <map>
#include <variant>

namespace qvreport
{
namespace
{

int verdictBits(Verdict verdict)
{
    switch (verdict)
    {
        case Verdict::failed:
            return exitFailed;
        case Verdict::warning:
            return exitWarning;
        case Verdict::passed:
            break;
    }
    return exitOk;
}

enum class Format
{
    table,
    csv,
    json,
    openmetrics,
    textfile
};

enum class Command
{
    show,
    history,
    exportMetrics,
    html,
    retire,
    acknowledge
};

struct Options
{
    Command command = Command::show;
    Format format = Format::table;
    std::vector<std::string> paths;
    Period period;
    HistoryOptions history;
    // Only the reports of this many days up to today.
    std::optional<int> recentDays;
    std::string output;
    // What the operator says of a drive (retire, ack), on this day or
    // today.
    OperatorWord word;
    std::optional<Day> actionDay;
};

Format formatOf(const std::string& name)
{
    const std::map<std::string, Format> formats = {
        {"table", Format::table},
        {"csv", Format::csv},
        {"json", Format::json},
        {"openmetrics", Format::openmetrics},
        {"textfile", Format::textfile}};
    return formats.at(name);
}

// A day option: "2026-11-24" or "20261124".
CLI::Option* addDay(CLI::App& app, const std::string& name,
                    std::optional<Day>& day, const std::string& help)
{
    return app.add_option_function<std::string>(
        name,
        [&day, name](const std::string& text) {
        day = parseDay(text);
        if (!day)
        {
            throw CLI::ValidationError(name, "not a day: " + text);
        }
        },
        help);
}

// A subcommand over the days of report files and directories.
CLI::App* addDaysCommand(CLI::App& app, Options& options, Command command,
                         const std::string& name, const std::string& help)
{
    auto* sub = app.add_subcommand(name, help);
    addDay(*sub, "--since", options.period.since,
           "first day to read, YYYY-MM-DD");
    addDay(*sub, "--until", options.period.until,
           "last day to read, YYYY-MM-DD");
    addDay(*sub, "--date", options.period.date,
           "day of the last run of SmartLogs.json/SmartRawData.json files, "
           "instead of their modification time");
    sub->add_option("--days", options.recentDays,
                    "read only the reports of this many days up to today")
        ->check(CLI::Range(1, 100000));
    sub->add_option("PATH", options.paths, "report files and directories")
        ->required();
    sub->final_callback([&options, command] { options.command = command; });
    return sub;
}

// An operator's word on the drive in a bay, appended to the daily
// directory's operator file.
CLI::App* addWordCommand(CLI::App& app, Options& options, Command command,
                         const std::string& name, const std::string& help)
{
    auto* sub = app.add_subcommand(name, help);
    auto& word = options.word;
    sub->add_option("FQDD", word.fqdd, "the drive's bay")->required();
    sub->add_option("DIR", options.paths, "the daily reports' directory")
        ->required()
        ->expected(1)
        ->check(CLI::ExistingDirectory);
    addDay(*sub, "--day", options.actionDay, "the day of it (default today)");
    sub->final_callback([&options, command] { options.command = command; });
    return sub;
}

void addOperatorCommands(CLI::App& app, Options& options)
{
    addWordCommand(app, options, Command::retire, "retire",
                   "Records that the drive in a bay was taken out for good: "
                   "its history ends, it no longer counts in the exit status "
                   "and the metrics.")
        ->add_option("--note", options.word.note, "why, for the record");
    auto* ack = addWordCommand(
        app, options, Command::acknowledge, "ack",
        "Accepts the figures of the drive in a bay as they are: until the "
        "day given only change beyond them counts, and a FAILED verdict "
        "latched before is released.");
    ack->add_option("--note", options.word.note, "why, for the record")
        ->required();
    addDay(*ack, "--until", options.word.until,
           "the last day it holds (default 30 days on)");
}

void addSubcommands(CLI::App& app, Options& options, std::string& format)
{
    addDaysCommand(app, options, Command::history, "history",
                   "Follows every drive by its FQDD across the days of "
                   "report files and directories.")
        ->add_option("--format", format, "table (default), csv or json")
        ->check(CLI::IsMember({"table", "csv", "json"}));
    auto* metrics = addDaysCommand(
        app, options, Command::exportMetrics, "export",
        "Writes every drive's figures and verdicts as metrics: OpenMetrics "
        "with one sample a day, or the last day for node_exporter's "
        "textfile collector.");
    metrics->add_option("--format", format, "openmetrics (default) or textfile")
        ->check(CLI::IsMember({"openmetrics", "textfile"}));
    metrics->add_option("--output", options.output,
                        "file to replace in one step instead of writing to "
                        "standard output");
    addDaysCommand(app, options, Command::html, "html",
                   "Writes one self-contained page: the drives by verdict, "
                   "each with plots of its history.");
    addOperatorCommands(app, options);
}

// The command line, through CLI11: --help and --version answer on standard
// output with exit code 0, any other problem says what is wrong on standard
// error with the usage bit.
std::variant<Options, int> parseArgs(std::span<const std::string> args,
                                     std::ostream& out, std::ostream& err)
{
    Options options;
    CLI::App app{"Reads the collector's reports and prints a per-drive "
                 "health table with verdicts, CSV or strict JSON; "
                 "\"history\" follows the drives across days.",
                 "qv-smart-report"};
    app.set_version_flag("--version", std::string(QV_SMART_REPORT_VERSION));
    std::string format = "table";
    app.add_option("--format", format, "table (default), csv or json")
        ->check(CLI::IsMember({"table", "csv", "json"}));
    app.add_option("REPORT", options.paths, "report files, read in this order");
    addSubcommands(app, options, format);
    app.require_subcommand(0, 1);
    // CLI11 takes the arguments last first.
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    try
    {
        app.parse(reversed);
        if (options.paths.empty())
        {
            throw CLI::RequiredError("REPORT");
        }
        const auto& period = options.period;
        if (period.since && period.until && *period.since > *period.until)
        {
            throw CLI::ValidationError("--since", dayText(*period.since) +
                                                      " is after --until " +
                                                      dayText(*period.until));
        }
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error, out, err) == 0 ? exitOk : exitUsage;
    }
    // The main command's --format names a table format, never a metrics one.
    if (options.command == Command::exportMetrics && format != "textfile")
    {
        format = "openmetrics";
    }
    options.format = formatOf(format);
    options.history.keepDays = options.command == Command::html ||
                               options.format == Format::openmetrics;
    return options;
}

// The drives of each complete document of a file, one drive's group at a
// time; the JSON lines, which print each document whole, read it whole.
bool readDrives(
    const Options& options, const std::string& file, std::ostream& out,
    std::ostream& err,
    const std::function<void(const std::vector<DriveHealth>&)>& each)
{
    if (options.format != Format::json)
    {
        return readDriveHealth(file, err, each);
    }
    return readReportFile(file, err, [&](const Document& document) {
        writeJson(out, file, document);
        each(driveHealth(document));
    });
}

// Every drive of every document, in the chosen format: the health view.
int showReports(const Options& options, std::ostream& out, std::ostream& err)
{
    HealthView view(out, options.format == Format::csv ? HealthView::Format::csv
                         : options.format == Format::json
                             ? HealthView::Format::jsonLines
                             : HealthView::Format::table);
    int status = exitOk;
    for (const auto& file : options.paths)
    {
        auto each = [&](const std::vector<DriveHealth>& drives) {
            for (const auto& drive : drives)
            {
                Assessment assessment(snapshotReasons(drive));
                status |= verdictBits(assessment.verdict);
                view.add(file, drive, assessment);
            }
        };
        if (!readDrives(options, file, out, err, each))
        {
            status |= exitDamaged;
        }
    }
    view.finish();
    return status;
}

void writeHistory(std::ostream& out, const Options& options,
                  const History& history)
{
    switch (options.format)
    {
        case Format::json:
            writeHistoryJson(out, history);
            break;
        case Format::csv:
            writeHistoryCsv(out, history);
            break;
        case Format::table:
            writeHistoryTable(out, history);
            break;
        case Format::openmetrics:
            writeOpenMetrics(out, history);
            break;
        case Format::textfile:
            writeTextfile(out, history);
            break;
    }
}

// The history, the metrics or the page of the days of the paths given.
int showDays(const Options& options, std::ostream& out, std::ostream& err)
{
    bool intact = true;
    Period period = options.period;
    if (options.recentDays)
    {
        Day first = today() - std::chrono::days(*options.recentDays - 1);
        period.since = std::max(period.since.value_or(first), first);
    }
    auto historyOptions = options.history;
    historyOptions.operatorWords = readOperatorWords(options.paths, err,
                                                     intact);
    History history =
        readHistory(datedFiles(options.paths, period, err, intact), period,
                    std::move(historyOptions), err, intact);
    // The good files are still written out; the metrics say some were not.
    history.damagedInput = !intact;
    int status = intact ? exitOk : exitDamaged;
    for (const auto& drive : history.drives)
    {
        // A drive gone was replaced or retired: its state is no longer the
        // server's. A silent one's still is.
        if (!drive.vanished)
        {
            status |= verdictBits(drive.assessment.verdict) |
                      (drive.silentSince ? exitSilent : exitOk);
        }
    }
    if (options.command == Command::html)
    {
        writeHtmlPage(out, history);
    }
    else if (options.output.empty())
    {
        writeHistory(out, options, history);
    }
    else
    {
        auto write = [&](std::ostream& file) {
            writeHistory(file, options, history);
        };
        if (!replaceFile(options.output, err, write))
        {
            status |= exitNotWritten;
        }
    }
    return status;
}

// The word the command line gives, on its day.
OperatorWord operatorWord(const Options& options)
{
    constexpr std::chrono::days ackLasts{30};
    auto word = options.word;
    word.action = options.command == Command::retire
                      ? OperatorWord::Action::retire
                      : OperatorWord::Action::acknowledge;
    word.day = options.actionDay.value_or(today());
    if (word.action == OperatorWord::Action::acknowledge && !word.until)
    {
        word.until = word.day + ackLasts;
    }
    return word;
}

} // namespace

int runReportTool(std::span<const std::string> args, std::ostream& out,
                  std::ostream& err)
{
    auto parsed = parseArgs(args, out, err);
    if (const int* code = std::get_if<int>(&parsed))
    {
        return *code;
    }
    const Options& options = std::get<Options>(parsed);
    int status = exitOk;
    if (options.command == Command::retire ||
        options.command == Command::acknowledge)
    {
        auto word = operatorWord(options);
        if (word.until && *word.until < word.day)
        {
            err << "--until " << dayText(*word.until) << " is before "
                << dayText(word.day) << "\n";
            return exitUsage;
        }
        status = recordWord(options.paths.front(), word, err) ? exitOk
                                                              : exitNotWritten;
    }
    else
    {
        status = options.command == Command::show
                     ? showReports(options, out, err)
                     : showDays(options, out, err);
    }
    // A full disk or a closed pipe must not pass for a complete output.
    if (!out.flush())
    {
        err << "standard output: cannot be written\n";
        status |= exitNotWritten;
    }
    return status;
}

} // namespace qvreport
