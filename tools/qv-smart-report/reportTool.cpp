#include "reportTool.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <variant>

namespace qvreport
{
namespace
{

void writeJsonString(std::ostream& out, std::string_view text)
{
    out << '"';
    for (char c : text)
    {
        auto octet = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\')
        {
            out << '\\' << c;
        }
        else if (octet < 0x20)
        {
            out << "\\u" << std::hex << std::setw(4) << std::setfill('0')
                << unsigned{octet} << std::dec << std::setfill(' ');
        }
        else
        {
            out << c;
        }
    }
    out << '"';
}

// Unsigned 64-bit values in their plain decimal form become JSON numbers
// verbatim, so counters stay exact; any other text stays a string.
bool isJsonNumber(const std::string& text)
{
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && stop == end &&
           (text == "0" || text.front() != '0');
}

void writeJsonValue(std::ostream& out, const Node& node)
{
    if (!node.isObject)
    {
        if (isJsonNumber(node.text))
        {
            out << node.text;
        }
        else
        {
            writeJsonString(out, node.text);
        }
        return;
    }
    if (auto octets = decodeHexRows(node); octets)
    {
        out << '[';
        for (size_t i = 0; i < octets->size(); ++i)
        {
            out << (i == 0 ? "" : ",") << (*octets)[i];
        }
        out << ']';
        return;
    }
    out << '{';
    for (size_t i = 0; i < node.members.size(); ++i)
    {
        out << (i == 0 ? "" : ",");
        writeJsonString(out, node.members[i].name);
        out << ':';
        writeJsonValue(out, node.members[i]);
    }
    out << '}';
}

struct Column
{
    const char* title;
    const Reading DriveHealth::*reading;
};

constexpr auto readingColumns = std::to_array<Column>({
    {"temp_c", &DriveHealth::temperatureC},
    {"life_remaining", &DriveHealth::lifeRemaining},
    {"percent_used", &DriveHealth::percentUsed},
    {"power_on_hours", &DriveHealth::powerOnHours},
    {"media_errors", &DriveHealth::mediaErrors},
    {"crc_errors", &DriveHealth::crcErrors},
    {"reallocated", &DriveHealth::reallocated},
    {"pending", &DriveHealth::pending},
    {"available_spare", &DriveHealth::availableSpare},
});

std::string joined(const std::vector<std::string>& names, char separator)
{
    std::string text;
    for (const auto& name : names)
    {
        text += (text.empty() ? "" : std::string(1, separator)) + name;
    }
    return text;
}

std::string readingText(const Reading& reading)
{
    return reading.value ? std::to_string(*reading.value) : "";
}

// Alerted figures, by column title, for the csv "alerts" column.
std::vector<std::string> alerts(const DriveHealth& drive)
{
    std::vector<std::string> titles;
    for (const auto& column : readingColumns)
    {
        if ((drive.*column.reading).alert)
        {
            titles.emplace_back(column.title);
        }
    }
    if (drive.criticalWarnings && !drive.criticalWarnings->empty())
    {
        titles.emplace_back("critical_warning");
    }
    return titles;
}

std::string csvCell(const std::string& text)
{
    if (text.find_first_of(",\"\n") == std::string::npos)
    {
        return text;
    }
    std::string quoted = "\"";
    for (char c : text)
    {
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    }
    return quoted + '"';
}

std::vector<std::string> tableCells(const DriveHealth& drive)
{
    std::vector<std::string> cells{
        drive.fqdd.empty() ? "(no FQDD)" : drive.fqdd, drive.driveClass};
    for (const auto& column : readingColumns)
    {
        const Reading& reading = drive.*column.reading;
        cells.push_back(reading.value
                            ? readingText(reading) + (reading.alert ? "!" : "")
                            : "-");
    }
    if (!drive.criticalWarnings)
    {
        cells.emplace_back("-");
    }
    else
    {
        cells.push_back(drive.criticalWarnings->empty()
                            ? "none"
                            : joined(*drive.criticalWarnings, ',') + "!");
    }
    return cells;
}

struct Options
{
    Format format = Format::table;
    std::vector<std::string> files;
};

// The command line, through CLI11: --help and --version answer on standard
// output with exit code 0, any other problem says what is wrong on standard
// error with exit code 2.
std::variant<Options, int> parseArgs(std::span<const std::string> args,
                                     std::ostream& out, std::ostream& err)
{
    Options options;
    CLI::App app{"Reads the collector's reports and prints them as strict "
                 "JSON, CSV or a per-drive health table.",
                 "qv-smart-report"};
    app.set_version_flag("--version", std::string(QV_SMART_REPORT_VERSION));
    std::string format = "table";
    app.add_option("--format", format, "table (default), csv or json")
        ->check(CLI::IsMember({"table", "csv", "json"}));
    app.add_option("REPORT", options.files, "report files, read in this order")
        ->required();
    // CLI11 takes the arguments last first.
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    try
    {
        app.parse(reversed);
    }
    catch (const CLI::ParseError& error)
    {
        return app.exit(error, out, err) == 0 ? exitOk : exitUsage;
    }
    options.format = format == "csv"    ? Format::csv
                     : format == "json" ? Format::json
                                        : Format::table;
    return options;
}

void writeDocument(std::ostream& out, Format format, const std::string& file,
                   const Document& document, HealthTable& table)
{
    switch (format)
    {
        case Format::json:
            writeJson(out, file, document);
            break;
        case Format::csv:
            writeCsvRows(out, file, driveHealth(document));
            break;
        case Format::table:
            table.add(driveHealth(document));
            break;
    }
}

} // namespace

void writeJson(std::ostream& out, const std::string& file,
               const Document& document)
{
    out << "{\"file\":";
    writeJsonString(out, file);
    out << ",\"line\":" << document.line << ",\"report\":";
    writeJsonValue(out, document.root);
    out << "}\n";
}

void writeCsvHeader(std::ostream& out)
{
    out << "file,fqdd,class";
    for (const auto& column : readingColumns)
    {
        out << ',' << column.title;
    }
    out << ",critical_warning,alerts\n";
}

void writeCsvRows(std::ostream& out, const std::string& file,
                  const std::vector<DriveHealth>& drives)
{
    for (const auto& drive : drives)
    {
        out << csvCell(file) << ',' << csvCell(drive.fqdd) << ','
            << drive.driveClass;
        for (const auto& column : readingColumns)
        {
            out << ',' << readingText(drive.*column.reading);
        }
        out << ','
            << (drive.criticalWarnings
                    ? csvCell(drive.criticalWarnings->empty()
                                  ? "none"
                                  : joined(*drive.criticalWarnings, ';'))
                    : "")
            << ',' << joined(alerts(drive), ';') << '\n';
    }
}

HealthTable::HealthTable() :
    rows{{"FQDD", "CLASS", "TEMP_C", "LIFE", "USED%", "POH", "MEDIA", "CRC",
          "REALLOC", "PENDING", "SPARE", "CRITICAL_WARNING"}}
{}

void HealthTable::add(const std::vector<DriveHealth>& drives)
{
    for (const auto& drive : drives)
    {
        rows.push_back(tableCells(drive));
    }
}

void HealthTable::print(std::ostream& out) const
{
    std::vector<size_t> widths(rows.front().size(), 0);
    for (const auto& row : rows)
    {
        for (size_t i = 0; i < row.size(); ++i)
        {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    for (const auto& row : rows)
    {
        for (size_t i = 0; i + 1 < row.size(); ++i)
        {
            out << std::left << std::setw(static_cast<int>(widths[i])) << row[i]
                << ' ';
        }
        out << row.back() << '\n';
    }
}

namespace
{

// Writes every document of one report file; false when the file cannot be
// read or holds damage. A FIFO, a device or a directory is refused: a report
// is a regular file, and reading the others may never end.
bool readReportFile(const std::string& file, Format format, std::ostream& out,
                    std::ostream& err, HealthTable& table)
{
    std::error_code error;
    if (!std::filesystem::is_regular_file(file, error))
    {
        err << file << ": not a regular file\n";
        return false;
    }
    std::ifstream in(file, std::ios::binary);
    if (!in)
    {
        err << file << ": cannot be read\n";
        return false;
    }
    ReportReader reader(in);
    bool intact = true;
    for (;;)
    {
        auto document = reader.next();
        for (const auto& problem : reader.problems())
        {
            err << file << ':' << problem.line << ": "
                << (problem.damage ? "" : "note: ") << problem.reason << '\n';
            intact = intact && !problem.damage;
        }
        if (!document)
        {
            break;
        }
        writeDocument(out, format, file, *document, table);
    }
    if (in.bad())
    {
        err << file << ": read error\n";
        intact = false;
    }
    return intact;
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
    if (options.format == Format::csv)
    {
        writeCsvHeader(out);
    }
    HealthTable table;
    int status = exitOk;
    for (const auto& file : options.files)
    {
        if (!readReportFile(file, options.format, out, err, table))
        {
            status = exitDamaged;
        }
    }
    if (options.format == Format::table)
    {
        table.print(out);
    }
    return status;
}

} // namespace qvreport
