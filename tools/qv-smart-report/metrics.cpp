#include "metrics.hpp"

#include <algorithm>
#include <array>
#include <functional>
#include <limits>
#include <string_view>

namespace qvreport
{
namespace
{

// A metric family: its name, what it says, any fixed labels, and its value
// for a drive on a day (nothing when the report has none).
struct Family
{
    std::string_view name;
    std::string_view help;
    std::string_view labels;
    Figure DriveHealth::*figure = nullptr;
    std::int64_t scale = 1;
};

// Named as the common SMART exporters name them, with this tool's prefix:
// a figure they export on its own has its own metric, the others are
// device attributes by their usual attribute name.
constexpr auto families = std::to_array<Family>({
    {"qv_smart_device_temperature", "Drive temperature in degrees Celsius",
     R"(temperature_type="current")", &DriveHealth::temperatureC},
    {"qv_smart_device_power_on_seconds", "Drive power-on time in seconds", "",
     &DriveHealth::powerOnHours, 3600},
    {"qv_smart_device_percentage_used",
     "NVMe estimate of the rated endurance used, in percent", "",
     &DriveHealth::percentUsed},
    {"qv_smart_device_available_spare", "NVMe spare capacity left, in percent",
     "", &DriveHealth::availableSpare},
    {"qv_smart_device_available_spare_threshold",
     "NVMe spare capacity below which the drive warns, in percent", "",
     &DriveHealth::spareThreshold},
    {"qv_smart_device_media_errors",
     "Uncorrectable media and data integrity errors", "",
     &DriveHealth::mediaErrors},
    {"qv_smart_device_attribute", "Drive counters by attribute name",
     R"(attribute_name="Percent_Lifetime_Remain",attribute_value_type="raw")",
     &DriveHealth::lifeRemaining},
    {"qv_smart_device_attribute", "",
     R"(attribute_name="Reallocated_Sector_Ct",attribute_value_type="raw")",
     &DriveHealth::reallocated},
    {"qv_smart_device_attribute", "",
     R"(attribute_name="Current_Pending_Sector",attribute_value_type="raw")",
     &DriveHealth::pending},
    {"qv_smart_device_attribute", "",
     R"(attribute_name="UDMA_CRC_Error_Count",attribute_value_type="raw")",
     &DriveHealth::crcErrors},
    {"qv_smart_device_attribute", "",
     R"(attribute_name="Command_Timeout",attribute_value_type="raw")",
     &DriveHealth::commandTimeouts},
});

constexpr std::string_view criticalWarningName =
    "qv_smart_device_critical_warning";
constexpr std::string_view verdictMetric = "qv_smart_device_verdict";
constexpr std::string_view verdictInfoMetric = "qv_smart_device_verdict_info";
constexpr std::string_view temperatureWarningMetric =
    "qv_smart_device_temperature_warning_threshold";

std::string labelValue(std::string_view text)
{
    std::string escaped;
    // Prometheus takes label values as UTF-8 only: one bad octet would make
    // it refuse every drive's samples.
    for (char c : validUtf8(text))
    {
        if (c == '\\' || c == '"')
        {
            escaped += '\\';
        }
        escaped += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return escaped;
}

std::string driveLabels(const DriveRecord& drive, std::string_view extra)
{
    std::string labels = "{fqdd=\"" + labelValue(drive.fqdd) + "\",class=\"" +
                         labelValue(drive.driveClass) + '"';
    if (!extra.empty())
    {
        labels += ',' + std::string(extra);
    }
    return labels + '}';
}

// A figure in the metric's unit, held to the range of a 64-bit value as the
// figures themselves are.
std::int64_t scaled(std::int64_t value, std::int64_t scale)
{
    constexpr auto top = std::numeric_limits<std::int64_t>::max();
    constexpr auto bottom = std::numeric_limits<std::int64_t>::min();
    if (value > top / scale)
    {
        return top;
    }
    return value < bottom / scale ? bottom : value * scale;
}

void writeHeader(std::ostream& out, std::string_view name,
                 std::string_view help)
{
    out << "# TYPE " << name << " gauge\n# HELP " << name << ' ' << help
        << '\n';
}

// What a metric family says of a drive: the value of one figure of a
// reading, or of the drive's verdict.
struct Sampler
{
    std::function<std::optional<std::int64_t>(const DailySeries&, size_t)>
        onDay;
    std::function<std::optional<std::int64_t>(const DriveRecord&)> latest;
};

// The drives whose samples go into one series each. A bay whose drive was
// replaced is one series over both drives, in the order of their days,
// since the labels name the bay: the later ones of the same labels are
// written with the first.
std::vector<std::vector<const DriveRecord*>> seriesOf(const History& history,
                                                      bool stamped)
{
    std::vector<std::vector<const DriveRecord*>> all;
    for (const auto& drive : history.drives)
    {
        // Without timestamps only the drives still in the server count.
        if (!stamped && drive.vanished)
        {
            continue;
        }
        auto same = std::ranges::find_if(all, [&drive](const auto& series) {
            return series.front()->fqdd == drive.fqdd &&
                   series.front()->driveClass == drive.driveClass;
        });
        if (same == all.end())
        {
            all.push_back({&drive});
        }
        else
        {
            same->push_back(&drive);
        }
    }
    for (auto& series : all)
    {
        std::ranges::sort(series, {}, &DriveRecord::firstDay);
    }
    return all;
}

using Series = std::vector<const DriveRecord*>;

// One sample per reading day with a value, stamped with its day; or,
// without stamps, the last reading's value.
void writeSeries(std::ostream& out, std::string_view name,
                 std::string_view extra, const Series& drives,
                 const Sampler& sampler, bool stamped)
{
    auto labels = driveLabels(*drives.front(), extra);
    if (!stamped)
    {
        if (auto value = sampler.latest(*drives.back()); value)
        {
            out << name << labels << ' ' << *value << '\n';
        }
        return;
    }
    for (const auto* drive : drives)
    {
        const auto& series = drive->series;
        for (size_t i = 0; i < series.size(); ++i)
        {
            if (auto value = sampler.onDay(series, i); value)
            {
                out << name << labels << ' ' << *value << ' '
                    << series.day(i).time_since_epoch().count() * 86400 << '\n';
            }
        }
    }
}

Sampler figureSampler(const Family& family)
{
    auto inUnit = [scale = family.scale](Figure value) {
        return value ? std::optional(scaled(*value, scale)) : std::nullopt;
    };
    return {[&family, inUnit](const DailySeries& series, size_t i) {
        return inUnit(series.value(i, family.figure));
            },
            [&family, inUnit](const DriveRecord& drive) {
        return inUnit(drive.latest.*family.figure);
    }};
}

std::optional<std::int64_t> bitsValue(std::optional<std::uint64_t> bits)
{
    return bits ? std::optional<std::int64_t>(*bits) : std::nullopt;
}

// What an alert on a drive says beyond its figures: the temperature it is
// held to, and why its verdict is not PASSED. Of the last reading only, for
// the alerting rules over the textfile: the history keeps no reasons day by
// day, and the thresholds come from the verdicts' own code.
void writeAlertSeries(std::ostream& out, const std::vector<Series>& all)
{
    writeHeader(out, temperatureWarningMetric,
                "Temperature from which the drive's verdict warns, in degrees "
                "Celsius");
    for (const auto& drives : all)
    {
        const auto& drive = *drives.back();
        if (drive.latest.temperatureC)
        {
            out << temperatureWarningMetric << driveLabels(drive, "") << ' '
                << temperatureWarningC(drive.driveClass) << '\n';
        }
    }
    writeHeader(
        out, verdictInfoMetric,
        "Why the verdict of the history is not PASSED, in a label; always 1");
    for (const auto& drives : all)
    {
        const auto& drive = *drives.back();
        out << verdictInfoMetric
            << driveLabels(drive,
                           "reasons=\"" +
                               labelValue(drive.assessment.reasonsText()) + '"')
            << " 1\n";
    }
}

void writeMetrics(std::ostream& out, const History& history, bool stamped)
{
    const auto all = seriesOf(history, stamped);
    for (const auto& family : families)
    {
        if (!family.help.empty())
        {
            writeHeader(out, family.name, family.help);
        }
        for (const auto& drives : all)
        {
            writeSeries(out, family.name, family.labels, drives,
                        figureSampler(family), stamped);
        }
    }
    writeHeader(out, criticalWarningName,
                "NVMe critical warning bits as the drive reports them");
    const Sampler bits{[](const DailySeries& series, size_t i) {
        return bitsValue(series.criticalWarning(i));
                       },
                       [](const DriveRecord& drive) {
        return bitsValue(drive.latest.criticalWarning);
    }};
    for (const auto& drives : all)
    {
        writeSeries(out, criticalWarningName, "", drives, bits, stamped);
    }
    writeHeader(out, verdictMetric,
                "Verdict of the history up to the day: 0 PASSED, 1 WARNING, "
                "2 FAILED");
    const Sampler verdicts{[](const DailySeries& series, size_t i) {
        return std::optional<std::int64_t>(std::int64_t(series.verdict(i)));
                           },
                           [](const DriveRecord& drive) {
        return std::optional<std::int64_t>(
            std::int64_t(drive.assessment.verdict));
    }};
    for (const auto& drives : all)
    {
        writeSeries(out, verdictMetric, "", drives, verdicts, stamped);
    }
    if (!stamped)
    {
        writeAlertSeries(out, all);
    }
}

} // namespace

void writeOpenMetrics(std::ostream& out, const History& history)
{
    writeMetrics(out, history, true);
    out << "# EOF\n";
}

void writeTextfile(std::ostream& out, const History& history)
{
    writeMetrics(out, history, false);
}

} // namespace qvreport
