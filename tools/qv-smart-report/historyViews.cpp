#include "historyViews.hpp"

#include "viewCells.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <string_view>

namespace qvreport
{
namespace
{

using Json = nlohmann::ordered_json;

bool isCounter(Figure DriveHealth::*member)
{
    return std::ranges::find(warningCounters, member) != warningCounters.end();
}

std::string boolText(bool value)
{
    return value ? "true" : "false";
}

// The last reading's critical-warning bits; "none" when the NVMe drive
// reports 0, nothing when it reports no bits at all.
std::optional<std::vector<std::string>> warningNames(const DriveRecord& drive)
{
    const auto& bits = drive.latest.criticalWarning;
    if (!bits)
    {
        return std::nullopt;
    }
    return criticalWarningNames(*bits);
}

// How the drive stands against the history's days; "-" for a drive read
// from the first day to the last in one bay.
std::string seenText(const DriveRecord& drive)
{
    std::string text;
    for (const auto& mark : driveMarks(drive))
    {
        text += (text.empty() ? "" : ", ") + mark;
    }
    return text.empty() ? "-" : text;
}

std::string movesText(const DriveRecord& drive)
{
    std::string text;
    for (const auto& move : drive.moves)
    {
        text += (text.empty() ? "" : ";") + move.from + " (" +
                dayText(move.day) + ")";
    }
    return text;
}

Json dayJson(std::optional<Day> day)
{
    return day ? Json(dayText(*day)) : Json();
}

Json ackJson(const std::optional<Acknowledgement>& ack)
{
    if (!ack)
    {
        return {};
    }
    return Json{{"day", dayText(ack->day)},
                {"until", dayText(ack->until)},
                {"note", ack->note}};
}

Json trendJson(const Trend& trend, bool counter)
{
    Json figure{{"first", *trend.first},
                {"last", *trend.last},
                {"change", *trend.last - *trend.first},
                {"min", *trend.min},
                {"max", *trend.max}};
    if (counter)
    {
        figure["rises"] = trend.rises;
        figure["first_rose"] = trend.firstRose ? Json(dayText(*trend.firstRose))
                                               : Json();
    }
    return figure;
}

Json reasonsJson(const Assessment& assessment)
{
    Json reasons = Json::array();
    for (const auto& reason : assessment.reasons)
    {
        reasons.push_back({{"verdict", verdictName(reason.verdict)},
                           {"figure", figureName(reason.figure)},
                           {"text", reason.text},
                           {"since", dayJson(reason.since)},
                           {"latched", reason.latched}});
    }
    return reasons;
}

Json driveJson(const DriveRecord& drive)
{
    Json figures = Json::object();
    for (const auto& column : figureColumns)
    {
        if (const auto& trend = drive.trend(column.figure); trend.first)
        {
            figures[std::string(column.name)] =
                trendJson(trend, isCounter(column.figure));
        }
    }
    Json moves = Json::array();
    for (const auto& move : drive.moves)
    {
        moves.push_back({{"from", move.from}, {"day", dayText(move.day)}});
    }
    auto warnings = warningNames(drive);
    return Json{
        {"fqdd", drive.fqdd},
        {"class", className(drive.driveClass)},
        {"first_day", dayText(drive.firstDay)},
        {"last_day", dayText(drive.lastDay)},
        {"days", drive.days},
        {"last_reading", drive.days > 0 ? Json(drive.lastReadingTime) : Json()},
        {"appeared", drive.appeared},
        {"moves", moves},
        {"vanished", drive.vanished},
        {"retired", dayJson(drive.retired)},
        {"silent_since", dayJson(drive.silentSince)},
        {"acknowledged", ackJson(drive.acknowledgement)},
        {"verdict", verdictName(drive.assessment.verdict)},
        {"reasons", reasonsJson(drive.assessment)},
        {"figures", figures},
        {"critical_warning", warnings ? Json(*warnings) : Json()}};
}

std::vector<std::string_view> figureParts(const FigureColumn& column)
{
    std::vector<std::string_view> parts{"first", "last", "change", "min",
                                        "max"};
    if (isCounter(column.figure))
    {
        parts.emplace_back("first_rose");
    }
    return parts;
}

std::vector<std::string> csvColumns()
{
    std::vector<std::string> columns{
        "fqdd",    "class",        "first_day",          "last_day",
        "days",    "appeared",     "moved_from",         "vanished",
        "retired", "silent_since", "acknowledged_until", "verdict",
        "reasons"};
    for (const auto& column : figureColumns)
    {
        for (auto part : figureParts(column))
        {
            columns.push_back(std::string(column.name) + '_' +
                              std::string(part));
        }
    }
    columns.emplace_back("critical_warning");
    return columns;
}

std::string trendPart(const Trend& trend, std::string_view part)
{
    if (!trend.first)
    {
        return "";
    }
    if (part == "first_rose")
    {
        return dayCell(trend.firstRose);
    }
    if (part == "change")
    {
        return std::to_string(*trend.last - *trend.first);
    }
    return figureCell(part == "first"  ? trend.first
                      : part == "last" ? trend.last
                      : part == "min"  ? trend.min
                                       : trend.max,
                      CellKind::csv);
}

std::vector<std::string> csvRow(const DriveRecord& drive)
{
    std::vector<std::string> row{
        drive.fqdd,
        std::string(className(drive.driveClass)),
        dayText(drive.firstDay),
        dayText(drive.lastDay),
        std::to_string(drive.days),
        boolText(drive.appeared),
        movesText(drive),
        boolText(drive.vanished),
        dayCell(drive.retired),
        dayCell(drive.silentSince),
        dayCell(drive.acknowledgement
                    ? std::optional<Day>(drive.acknowledgement->until)
                    : std::nullopt),
        std::string(verdictName(drive.assessment.verdict)),
        drive.assessment.reasonsText()};
    for (const auto& column : figureColumns)
    {
        for (auto part : figureParts(column))
        {
            row.push_back(trendPart(drive.trend(column.figure), part));
        }
    }
    row.push_back(
        criticalWarningCell(drive.latest.criticalWarning, CellKind::csv));
    return row;
}

// The last value, and its change over the history when there is one.
std::string trendCell(const Trend& trend)
{
    if (!trend.first)
    {
        return "-";
    }
    auto change = *trend.last - *trend.first;
    return std::to_string(*trend.last) +
           (change == 0 ? ""
                        : "(" + std::string(change > 0 ? "+" : "") +
                              std::to_string(change) + ")");
}

} // namespace

void writeHistoryJson(std::ostream& out, const History& history)
{
    Json drives = Json::array();
    for (const auto& drive : history.drives)
    {
        drives.push_back(driveJson(drive));
    }
    Json whole{{"first_day",
                history.firstDay ? Json(dayText(*history.firstDay)) : Json()},
               {"last_day",
                history.lastDay ? Json(dayText(*history.lastDay)) : Json()},
               {"drives", drives}};
    out << whole.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

void writeHistoryCsv(std::ostream& out, const History& history)
{
    writeCsvRow(out, csvColumns());
    for (const auto& drive : history.drives)
    {
        writeCsvRow(out, csvRow(drive));
    }
}

void writeHistoryTable(std::ostream& out, const History& history)
{
    std::vector<std::string> heading{"FQDD",     "CLASS", "FIRST_DAY",
                                     "LAST_DAY", "SEEN",  "TEMP_MIN",
                                     "TEMP_MAX"};
    for (const auto& column : figureColumns)
    {
        heading.emplace_back(column.heading);
    }
    heading.insert(heading.end(), {"VERDICT", "REASONS"});
    TextTable table(heading);
    for (const auto& drive : history.drives)
    {
        const auto& temperature = drive.trend(&DriveHealth::temperatureC);
        std::vector<std::string> row{
            drive.fqdd,
            std::string(className(drive.driveClass)),
            dayText(drive.firstDay),
            dayText(drive.lastDay),
            seenText(drive),
            figureCell(temperature.min, CellKind::table),
            figureCell(temperature.max, CellKind::table)};
        for (const auto& column : figureColumns)
        {
            row.push_back(trendCell(drive.trend(column.figure)));
        }
        row.emplace_back(verdictName(drive.assessment.verdict));
        row.push_back(drive.assessment.reasonsText());
        table.add(std::move(row));
    }
    table.print(out);
}

} // namespace qvreport
