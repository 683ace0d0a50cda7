#pragma once

#include "reportDocument.hpp"
#include "textOutput.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace qvreport
{

// A health figure; nothing when the report has none for the drive's class
// or it cannot be read.
using Figure = std::optional<std::int64_t>;

// What kind of drive a report's group is, from its members: a solid-state
// drive's record names its protocol, a hard drive's page groups do.
enum class DriveClass
{
    sasSsd,
    sataSsd,
    nvme,
    // A hard drive none of whose page groups names its protocol.
    hdd,
    sataHdd,
    sasHdd
};

// The class as the outputs name it: "SAS SSD", "NVMe", "SATA HDD", ...
std::string_view className(DriveClass driveClass);

bool isHardDrive(DriveClass driveClass);

struct DriveHealth
{
    std::string fqdd;
    // A group is a hard drive's until its members say more.
    DriveClass driveClass = DriveClass::hdd;
    Figure temperatureC;
    Figure lifeRemaining;
    Figure percentUsed;
    Figure powerOnHours;
    Figure mediaErrors;
    Figure crcErrors;
    Figure reallocated;
    Figure pending;
    Figure commandTimeouts;
    Figure availableSpare;
    Figure spareThreshold;
    // NVMe critical-warning bits.
    std::optional<std::uint64_t> criticalWarning;
    // Counters that only rise over a drive's life and are never judged: no
    // report carries a serial number, so a history tells drives apart by
    // them.
    Figure powerCycles;
    Figure dataWritten;
    Figure dataRead;
    Figure headFlyingHours;
    Figure loadEvents;
    Figure unsafeShutdowns;
};

// The figures the outputs show, in their order, by their column names.
struct FigureColumn
{
    std::string_view name;
    std::string_view heading;
    Figure DriveHealth::*figure;
};

inline constexpr auto figureColumns = std::to_array<FigureColumn>({
    {"temp_c", "TEMP_C", &DriveHealth::temperatureC},
    {"life_remaining", "LIFE", &DriveHealth::lifeRemaining},
    {"percent_used", "USED%", &DriveHealth::percentUsed},
    {"power_on_hours", "POH", &DriveHealth::powerOnHours},
    {"media_errors", "MEDIA", &DriveHealth::mediaErrors},
    {"crc_errors", "CRC", &DriveHealth::crcErrors},
    {"reallocated", "REALLOC", &DriveHealth::reallocated},
    {"pending", "PENDING", &DriveHealth::pending},
    {"command_timeouts", "TIMEOUTS", &DriveHealth::commandTimeouts},
    {"available_spare", "SPARE", &DriveHealth::availableSpare},
});

// Every figure a drive may report, by the name its reasons and outputs use:
// the columns and the NVMe spare threshold, which is only compared against.
inline constexpr auto namedFigures = [] {
    std::array<FigureColumn, figureColumns.size() + 1> named{};
    std::ranges::copy(figureColumns, named.begin());
    named.back() = {"spare_threshold", "THRESHOLD",
                    &DriveHealth::spareThreshold};
    return named;
}();

// Where a figure is among the columns; a figure they lack is a fault of the
// lists above and throws std::logic_error.
size_t columnOf(std::span<const FigureColumn> columns,
                Figure DriveHealth::*figure);

// What a reason is about: one of the named figures, or the NVMe
// critical-warning bits (&DriveHealth::criticalWarning).
using ReasonFigure = std::variant<Figure DriveHealth::*,
                                  std::optional<std::uint64_t> DriveHealth::*>;

// The name of a figure; a figure that has none is a fault of the lists
// above and throws std::logic_error.
std::string_view figureName(ReasonFigure figure);

// Health of every drive of a decoded (logs) or raw-data report document.
// Solid-state raw dumps are left out: their figures come from the logs
// report.
std::vector<DriveHealth> driveHealth(const Document& document);

// The same for every complete document of a report file, read one drive's
// group at a time: no document's text or raw-data dump is held whole.
// Problems and the result as readReportFile gives them.
bool readDriveHealth(
    const std::string& file, std::ostream& err,
    const std::function<void(const std::vector<DriveHealth>&)>& each);

std::vector<std::string> criticalWarningNames(std::uint64_t bits);

} // namespace qvreport
