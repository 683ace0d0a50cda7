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
constexpr std::string_view lastReadingMetric =
    "qv_smart_device_last_reading_timestamp_seconds";
constexpr std::string_view silentMetric = "qv_smart_device_silent";
constexpr std::string_view acknowledgedMetric = "qv_smart_device_acknowledged";
constexpr std::string_view movedMetric = "qv_smart_device_moved_info";
constexpr std::string_view damagedInputMetric = "qv_smart_report_damaged_input";
constexpr std::string_view newestReadingMetric =
    "qv_smart_newest_reading_timestamp_seconds";

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

std::string bayLabels(std::string_view fqdd, DriveClass driveClass,
                      std::string_view extra)
{
    std::string labels = "{fqdd=\"" + labelValue(fqdd) + "\",class=\"" +
                         labelValue(className(driveClass)) + '"';
    if (!extra.empty())
    {
        labels += ',' + std::string(extra);
    }
    return labels + '}';
}

std::string driveLabels(const DriveRecord& drive, std::string_view extra)
{
    return bayLabels(drive.fqdd, drive.driveClass, extra);
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

// The drives whose samples go into one series each: the labels name the
// bay, so a bay's series carries the readings of every drive on the days it
// was in the bay, a drive that moved the ones of each bay in that bay's.
struct Series
{
    std::string fqdd;
    DriveClass driveClass;
    std::vector<const DriveRecord*> drives;
};

std::vector<Series> seriesOf(const History& history, bool stamped)
{
    std::vector<Series> all;
    auto join = [&all](const std::string& fqdd, const DriveRecord& drive) {
        auto same = std::ranges::find_if(all, [&](const Series& series) {
            return series.fqdd == fqdd && series.driveClass == drive.driveClass;
        });
        if (same == all.end())
        {
            all.push_back({fqdd, drive.driveClass, {&drive}});
        }
        else if (same->drives.back() != &drive)
        {
            same->drives.push_back(&drive);
        }
    };
    for (const auto& drive : history.drives)
    {
        // Without timestamps only the drives still in the server count,
        // each in its bay.
        if (!stamped)
        {
            if (!drive.vanished)
            {
                join(drive.fqdd, drive);
            }
            continue;
        }
        for (const auto& move : drive.moves)
        {
            join(move.from, drive);
        }
        join(drive.fqdd, drive);
    }
    return all;
}

// One sample per reading day with a value, stamped with its day, of the
// days each drive was in the series' bay; or, without stamps, the last
// reading's value.
void writeSeries(std::ostream& out, std::string_view name,
                 std::string_view extra, const Series& bay,
                 const Sampler& sampler, bool stamped)
{
    auto labels = bayLabels(bay.fqdd, bay.driveClass, extra);
    if (!stamped)
    {
        if (auto value = sampler.latest(*bay.drives.back()); value)
        {
            out << name << labels << ' ' << *value << '\n';
        }
        return;
    }
    std::vector<std::pair<Day, std::int64_t>> samples;
    for (const auto* drive : bay.drives)
    {
        const auto& series = drive->series;
        for (size_t i = 0; i < series.size(); ++i)
        {
            if (drive->bayOn(series.day(i)) != bay.fqdd)
            {
                continue;
            }
            if (auto value = sampler.onDay(series, i); value)
            {
                samples.emplace_back(series.day(i), *value);
            }
        }
    }
    std::ranges::sort(samples);
    for (const auto& [day, value] : samples)
    {
        out << name << labels << ' ' << value << ' '
            << day.time_since_epoch().count() * 86400 << '\n';
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
    for (const auto& bay : all)
    {
        const auto& drive = *bay.drives.back();
        if (drive.latest.temperatureC)
        {
            out << temperatureWarningMetric << driveLabels(drive, "") << ' '
                << temperatureWarningC(drive.driveClass) << '\n';
        }
    }
    writeHeader(
        out, verdictInfoMetric,
        "Why the verdict of the history is not PASSED, in a label; always 1");
    for (const auto& bay : all)
    {
        const auto& drive = *bay.drives.back();
        out << verdictInfoMetric
            << driveLabels(drive,
                           "reasons=\"" +
                               labelValue(drive.assessment.reasonsText()) + '"')
            << " 1\n";
    }
}

// What tells a drive that stopped answering, a disk too full for reports
// and a collector that writes nothing from drives that are read every day:
// when each drive and the newest of all were last read.
void writeSilenceSeries(std::ostream& out, const std::vector<Series>& all,
                        const History& history)
{
    writeHeader(out, lastReadingMetric,
                "When the drive's last reading was taken, in seconds since "
                "the epoch");
    for (const auto& bay : all)
    {
        const auto& drive = *bay.drives.back();
        if (drive.days > 0)
        {
            out << lastReadingMetric << driveLabels(drive, "") << ' '
                << drive.lastReadingTime << '\n';
        }
    }
    writeHeader(out, silentMetric,
                "1 when the drive has no reading on the newest day of the "
                "reports, its verdict the one of its last reading");
    for (const auto& bay : all)
    {
        const auto& drive = *bay.drives.back();
        out << silentMetric << driveLabels(drive, "") << ' '
            << (drive.silentSince ? 1 : 0) << '\n';
    }
    writeHeader(out, acknowledgedMetric,
                "1 while an operator's acknowledgement of the drive's "
                "figures holds on the newest day of the reports");
    for (const auto& bay : all)
    {
        const auto& drive = *bay.drives.back();
        const auto& ack = drive.acknowledgement;
        bool holds = ack && history.lastDay && ack->day <= *history.lastDay &&
                     *history.lastDay <= ack->until;
        out << acknowledgedMetric << driveLabels(drive, "") << ' '
            << (holds ? 1 : 0) << '\n';
    }
    writeHeader(out, movedMetric,
                "A drive that was moved from another bay, named in from; "
                "always 1");
    for (const auto& bay : all)
    {
        const auto& drive = *bay.drives.back();
        for (const auto& move : drive.moves)
        {
            out << movedMetric
                << driveLabels(drive, "from=\"" + labelValue(move.from) + '"')
                << " 1\n";
        }
    }
    writeHeader(out, damagedInputMetric,
                "1 when a report file was damaged, could not be read or was "
                "set aside: the metrics hold what the other files say");
    out << damagedInputMetric << ' ' << (history.damagedInput ? 1 : 0) << '\n';
    // 0 without any reading: a controller that never wrote one is stale.
    writeHeader(out, newestReadingMetric,
                "When the newest reading of any drive was taken, in seconds "
                "since the epoch; 0 for none");
    out << newestReadingMetric << ' ' << history.newestReading << '\n';
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
        for (const auto& bay : all)
        {
            writeSeries(out, family.name, family.labels, bay,
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
    for (const auto& bay : all)
    {
        writeSeries(out, criticalWarningName, "", bay, bits, stamped);
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
    for (const auto& bay : all)
    {
        writeSeries(out, verdictMetric, "", bay, verdicts, stamped);
    }
    if (!stamped)
    {
        writeAlertSeries(out, all);
        writeSilenceSeries(out, all, history);
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
