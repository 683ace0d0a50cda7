#include "healthView.hpp"

#include "viewCells.hpp"

#include <nlohmann/json.hpp>

#include <charconv>
#include <cstdint>
#include <vector>

namespace qvreport
{
namespace
{

using Json = nlohmann::ordered_json;

// Unsigned 64-bit values in their plain decimal form become JSON numbers,
// so counters stay exact; any other text stays a string.
Json textValue(const std::string& text)
{
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, value);
    bool plain = error == std::errc() && stop == end &&
                 (text == "0" || text.front() != '0');
    return plain ? Json(value) : Json(text);
}

// Names may repeat (every entry without an FQDD is named ""), which a JSON
// object's insertion would merge: members are appended to the ordered
// object's list as they are.
Json nodeJson(const Node& node)
{
    if (!node.isObject)
    {
        return textValue(node.text);
    }
    if (auto octets = decodeHexRows(node); octets)
    {
        Json array = *octets;
        return array;
    }
    Json object = Json::object();
    auto& members = object.get_ref<Json::object_t&>();
    for (const auto& member : node.members)
    {
        members.emplace_back(member.name, nodeJson(member));
    }
    return object;
}

constexpr ReasonFigure criticalWarning = &DriveHealth::criticalWarning;

// Flagged figures, by column name, for the csv "alerts" column.
std::vector<std::string> alerts(const Assessment& assessment)
{
    std::vector<std::string> names;
    for (const auto& column : figureColumns)
    {
        if (assessment.flags(column.figure))
        {
            names.emplace_back(column.name);
        }
    }
    if (assessment.flags(criticalWarning))
    {
        names.emplace_back(figureName(criticalWarning));
    }
    return names;
}

std::vector<std::string> tableHeading()
{
    std::vector<std::string> heading{"FQDD", "CLASS"};
    for (const auto& column : figureColumns)
    {
        heading.emplace_back(column.heading);
    }
    heading.insert(heading.end(), {"CRITICAL_WARNING", "VERDICT", "REASONS"});
    return heading;
}

std::vector<std::string> tableRow(const DriveHealth& drive,
                                  const Assessment& assessment)
{
    std::vector<std::string> cells{drive.fqdd.empty() ? "(no FQDD)"
                                                      : drive.fqdd,
                                   std::string(className(drive.driveClass))};
    for (const auto& column : figureColumns)
    {
        cells.push_back(
            flaggedCell(figureCell(drive.*column.figure, CellKind::table),
                        assessment.flags(column.figure)));
    }
    cells.push_back(
        flaggedCell(criticalWarningCell(drive.criticalWarning, CellKind::table),
                    assessment.flags(criticalWarning)));
    cells.emplace_back(verdictName(assessment.verdict));
    cells.push_back(assessment.reasonsText());
    return cells;
}

std::vector<std::string> csvHeading()
{
    std::vector<std::string> heading{"file", "fqdd", "class"};
    for (const auto& column : figureColumns)
    {
        heading.emplace_back(column.name);
    }
    heading.insert(heading.end(),
                   {"critical_warning", "alerts", "verdict", "reasons"});
    return heading;
}

std::vector<std::string> csvRow(const std::string& file,
                                const DriveHealth& drive,
                                const Assessment& assessment)
{
    std::vector<std::string> cells{file, drive.fqdd,
                                   std::string(className(drive.driveClass))};
    for (const auto& column : figureColumns)
    {
        cells.push_back(figureCell(drive.*column.figure, CellKind::csv));
    }
    cells.push_back(criticalWarningCell(drive.criticalWarning, CellKind::csv));
    cells.push_back(joined(alerts(assessment), ';'));
    cells.emplace_back(verdictName(assessment.verdict));
    cells.push_back(assessment.reasonsText());
    return cells;
}

} // namespace

void writeJson(std::ostream& out, const std::string& file,
               const Document& document)
{
    Json line{{"file", file},
              {"line", document.line},
              {"report", nodeJson(document.root)}};
    out << line.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
}

HealthView::HealthView(std::ostream& out, Format format) :
    out(out), format(format), table(tableHeading())
{
    if (format == Format::csv)
    {
        writeCsvRow(out, csvHeading());
    }
}

void HealthView::add(const std::string& file, const DriveHealth& drive,
                     const Assessment& assessment)
{
    if (format == Format::csv)
    {
        writeCsvRow(out, csvRow(file, drive, assessment));
    }
    else if (format == Format::table)
    {
        table.add(tableRow(drive, assessment));
    }
}

void HealthView::finish()
{
    if (format == Format::table)
    {
        table.print(out);
    }
}

} // namespace qvreport
