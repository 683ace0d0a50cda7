#include "metrics.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
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
constexpr std::string_view verdictName = "qv_smart_device_verdict";

std::string labelValue(std::string_view text)
{
    std::string escaped;
    for (char c : text)
    {
        if (c == '\\' || c == '"')
        {
            escaped += '\\';
        }
        escaped += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return escaped;
}

std::string driveLabels(const DriveHistory& drive, std::string_view extra)
{
    std::string labels = "{fqdd=\"" + labelValue(drive.fqdd) + "\",class=\"" +
                         labelValue(drive.samples.back().health.driveClass) +
                         '"';
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

using DayValue = std::function<std::optional<std::int64_t>(size_t)>;

// One sample per day of the drive that has a value; with `stamped` each
// carries its day, otherwise only the last day's is written.
void writeSeries(std::ostream& out, std::string_view name,
                 const std::string& labels, const DriveHistory& drive,
                 const DayValue& valueOn, bool stamped)
{
    size_t from = stamped ? 0 : drive.samples.size() - 1;
    for (size_t i = from; i < drive.samples.size(); ++i)
    {
        auto value = valueOn(i);
        if (!value)
        {
            continue;
        }
        out << name << labels << ' ' << *value;
        if (stamped)
        {
            out << ' '
                << drive.samples[i].day.time_since_epoch().count() * 86400;
        }
        out << '\n';
    }
}

void writeMetrics(std::ostream& out, const History& history, bool stamped)
{
    // Without timestamps only the drives of the last day are the server's.
    std::vector<const DriveHistory*> drives;
    for (const auto& drive : history.drives)
    {
        if (stamped || drive.samples.back().day == history.lastDay)
        {
            drives.push_back(&drive);
        }
    }
    for (const auto& family : families)
    {
        if (!family.help.empty())
        {
            writeHeader(out, family.name, family.help);
        }
        for (const auto* drive : drives)
        {
            writeSeries(
                out, family.name, driveLabels(*drive, family.labels), *drive,
                [&](size_t i) -> std::optional<std::int64_t> {
                    auto value = drive->samples[i].health.*family.figure;
                    return value ? std::optional(scaled(*value, family.scale))
                                 : std::nullopt;
                },
                stamped);
        }
    }
    writeHeader(out, criticalWarningName,
                "NVMe critical warning bits as the drive reports them");
    for (const auto* drive : drives)
    {
        writeSeries(
            out, criticalWarningName, driveLabels(*drive, ""), *drive,
            [&](size_t i) -> std::optional<std::int64_t> {
                auto bits = drive->samples[i].health.criticalWarning;
                return bits ? std::optional<std::int64_t>(*bits) : std::nullopt;
            },
            stamped);
    }
    writeHeader(out, verdictName,
                "Verdict of the history up to the day: 0 PASSED, 1 WARNING, "
                "2 FAILED");
    for (const auto* drive : drives)
    {
        // The last day's verdict is the history's own.
        auto verdicts = stamped ? dailyVerdicts(*drive)
                                : std::vector<Verdict>{};
        writeSeries(
            out, verdictName, driveLabels(*drive, ""), *drive,
            [&](size_t i) {
            return std::optional<std::int64_t>(static_cast<std::int64_t>(
                stamped ? verdicts[i] : drive->assessment.verdict));
            },
            stamped);
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

bool replaceFile(const std::string& path, const std::string& text,
                 std::ostream& err)
{
    std::string temporary = path + ".tmp." + std::to_string(::getpid());
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                    0644);
    bool written = fd >= 0;
    for (size_t done = 0; written && done < text.size();)
    {
        auto count = ::write(fd, text.data() + done, text.size() - done);
        written = count > 0 || (count < 0 && errno == EINTR);
        done += count > 0 ? size_t(count) : 0;
    }
    written = written && ::fsync(fd) == 0;
    int error = errno;
    if (fd >= 0 && ::close(fd) != 0 && written)
    {
        written = false;
        error = errno;
    }
    if (written && std::rename(temporary.c_str(), path.c_str()) == 0)
    {
        return true;
    }
    error = written ? errno : error;
    ::unlink(temporary.c_str());
    err << path << ": cannot be written: " << std::strerror(error) << '\n';
    return false;
}

} // namespace qvreport
