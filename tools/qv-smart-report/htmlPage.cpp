#include "htmlPage.hpp"

#include <algorithm>
#include <array>
#include <string_view>
#include <vector>

namespace qvreport
{
namespace
{

constexpr std::string_view style = R"(
body { font: 14px/1.4 system-ui, sans-serif; margin: 1.5em; color: #222; }
h1 { font-size: 1.4em; margin: 0 0 .2em; }
.drive { border: 1px solid #ccc; border-left-width: 8px; border-radius: 4px;
  margin: 1em 0; padding: .6em 1em; }
.drive.FAILED { border-left-color: #c62828; }
.drive.WARNING { border-left-color: #ef8f00; }
.drive.PASSED { border-left-color: #2e7d32; }
.drive h2 { font-size: 1.1em; margin: 0; }
.verdict { font-weight: bold; margin-right: .5em; }
.FAILED .verdict { color: #c62828; }
.WARNING .verdict { color: #b26a00; }
.PASSED .verdict { color: #2e7d32; }
.meta { color: #555; }
.reasons { margin: .3em 0; padding-left: 1.2em; }
.plots { display: flex; flex-wrap: wrap; gap: 1em; }
.plots figure { margin: 0; width: 262px; }
.plots figcaption { font-size: .85em; color: #555; }
svg.plot { background: #fafafa; border: 1px solid #e0e0e0; }
svg.plot text { font-size: 10px; fill: #666; }
)";

constexpr int plotWidth = 260;
constexpr int plotHeight = 70;
constexpr int plotMargin = 6;

std::string escaped(std::string_view text)
{
    std::string out;
    for (char c : text)
    {
        switch (c)
        {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

struct Line
{
    std::string_view name;
    std::string_view colour;
    Figure DriveHealth::*figure;
};

struct Plot
{
    std::string_view caption;
    std::vector<Line> lines;
};

// Temperature, wear (whichever the drive reports) and the error counters.
const std::array<Plot, 3>& plots()
{
    static const std::array<Plot, 3> all = {
        Plot{"temperature (°C)",
             {{"temp_c", "#d84315", &DriveHealth::temperatureC}}},
        Plot{"life",
             {{"life_remaining %", "#2e7d32", &DriveHealth::lifeRemaining},
              {"percent_used %", "#6a1b9a", &DriveHealth::percentUsed}}},
        Plot{"error counters",
             {{"media_errors", "#c62828", &DriveHealth::mediaErrors},
              {"reallocated", "#1565c0", &DriveHealth::reallocated},
              {"pending", "#ef8f00", &DriveHealth::pending},
              {"command_timeouts", "#00838f", &DriveHealth::commandTimeouts},
              {"crc_errors", "#757575", &DriveHealth::crcErrors}}},
    };
    return all;
}

struct Scale
{
    Day first;
    Day last;
    std::int64_t low;
    std::int64_t high;

    double x(Day day) const
    {
        auto span = std::max<std::int64_t>((last - first).count(), 1);
        return plotMargin + double((day - first).count()) *
                                (plotWidth - 2 * plotMargin) / double(span);
    }

    double y(std::int64_t value) const
    {
        auto span = std::max<std::int64_t>(high - low, 1);
        return plotHeight - plotMargin -
               double(value - low) * (plotHeight - 2 * plotMargin) /
                   double(span);
    }
};

struct Point
{
    int x;
    int y;
};

std::vector<Point> points(const DailySeries& series,
                          Figure DriveHealth::*figure, const Scale& scale)
{
    std::vector<Point> at;
    for (size_t i = 0; i < series.size(); ++i)
    {
        if (auto value = series.value(i, figure); value)
        {
            at.push_back({int(scale.x(series.day(i))), int(scale.y(*value))});
        }
    }
    return at;
}

// A line through the points; a lone point, which draws no line, as a dot.
void writeLine(std::ostream& out, const std::vector<Point>& at,
               std::string_view colour)
{
    out << "<polyline fill='none' stroke-width='2' stroke='" << colour
        << "' points='";
    for (size_t i = 0; i < at.size(); ++i)
    {
        out << (i == 0 ? "" : " ") << at[i].x << ',' << at[i].y;
    }
    out << "'/>";
    if (at.size() == 1)
    {
        out << "<circle r='3' fill='" << colour << "' cx='" << at[0].x
            << "' cy='" << at[0].y << "'/>";
    }
}

// A small chart of the plot's lines over the whole history's days; nothing
// when the drive reports none of its figures.
void writePlot(std::ostream& out, const Plot& plot, const DriveRecord& drive,
               const History& history)
{
    std::vector<std::pair<const Line*, Trend>> shown;
    for (const auto& line : plot.lines)
    {
        if (const auto& trend = drive.trend(line.figure); trend.first)
        {
            shown.emplace_back(&line, trend);
        }
    }
    if (shown.empty())
    {
        return;
    }
    Scale scale{*history.firstDay, *history.lastDay, *shown[0].second.min,
                *shown[0].second.max};
    std::string legend;
    for (const auto& [line, trend] : shown)
    {
        scale.low = std::min(scale.low, *trend.min);
        scale.high = std::max(scale.high, *trend.max);
        legend += std::string(legend.empty() ? "" : ", ") +
                  std::string(line->name) + ' ' + std::to_string(*trend.last);
    }
    out << "<figure><svg class='plot' width='" << plotWidth << "' height='"
        << plotHeight << "' viewBox='0 0 " << plotWidth << ' ' << plotHeight
        << "' role='img'>"
        << "<title>" << escaped(plot.caption) << "</title>"
        << "<text x='3' y='10'>" << scale.high << "</text>"
        << "<text x='3' y='" << plotHeight - 2 << "'>" << scale.low
        << "</text>";
    for (const auto& [line, trend] : shown)
    {
        writeLine(out, points(drive.series, line->figure, scale), line->colour);
    }
    out << "</svg><figcaption>" << escaped(plot.caption) << ": "
        << escaped(legend) << "</figcaption></figure>\n";
}

void writeDrive(std::ostream& out, const DriveRecord& drive,
                const History& history)
{
    auto verdict = verdictName(drive.assessment.verdict);
    out << "<section class='drive " << verdict << "' data-fqdd='"
        << escaped(drive.fqdd) << "' data-verdict='" << verdict << "'>\n"
        << "<h2><span class='verdict'>" << verdict << "</span>"
        << escaped(drive.fqdd) << "</h2>\n<div class='meta'>"
        << escaped(className(drive.driveClass)) << " · seen "
        << dayText(drive.firstDay) << " to " << dayText(drive.lastDay) << " ("
        << drive.days << " days)";
    for (const auto& mark : driveMarks(drive))
    {
        out << " · " << escaped(mark);
    }
    out << "</div>\n";
    if (!drive.assessment.reasons.empty())
    {
        out << "<ul class='reasons'>\n";
        for (const auto& reason : drive.assessment.reasons)
        {
            out << "<li>" << verdictName(reason.verdict) << ": "
                << escaped(reason.text)
                << (reason.since ? " since " + dayText(*reason.since) : "")
                << (reason.latched ? ", latched" : "") << "</li>\n";
        }
        out << "</ul>\n";
    }
    out << "<div class='plots'>\n";
    for (const auto& plot : plots())
    {
        writePlot(out, plot, drive, history);
    }
    out << "</div>\n</section>\n";
}

} // namespace

void writeHtmlPage(std::ostream& out, const History& history)
{
    const auto& drives = history.drives;
    std::array<int, 3> counts{};
    for (const auto& drive : drives)
    {
        ++counts.at(size_t(drive.assessment.verdict));
    }
    out << "<!DOCTYPE html>\n<html lang='en'>\n<head>\n<meta "
           "charset='utf-8'>\n<title>Drive health</title>\n<style>"
        << style << "</style>\n</head>\n<body>\n<h1>Drive health</h1>\n"
        << "<p class='meta'>";
    if (history.firstDay)
    {
        out << dayText(*history.firstDay) << " to " << dayText(*history.lastDay)
            << " · ";
    }
    out << drives.size() << " drives: " << counts[2] << " failed, " << counts[1]
        << " with warnings, " << counts[0] << " passed</p>\n";
    for (const auto& drive : drives)
    {
        writeDrive(out, drive, history);
    }
    out << "</body>\n</html>\n";
}

} // namespace qvreport
