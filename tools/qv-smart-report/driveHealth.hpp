#pragma once

#include "reportDocument.hpp"
#include "textOutput.hpp"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace qvreport
{

// A health figure; nothing when the report has none for the drive's class
// or it cannot be read.
using Figure = std::optional<std::int64_t>;

struct DriveHealth
{
    std::string fqdd;
    std::string driveClass;
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
inline constexpr auto namedFigures = std::to_array<FigureColumn>({
    figureColumns[0],
    figureColumns[1],
    figureColumns[2],
    figureColumns[3],
    figureColumns[4],
    figureColumns[5],
    figureColumns[6],
    figureColumns[7],
    figureColumns[8],
    figureColumns[9],
    {"spare_threshold", "THRESHOLD", &DriveHealth::spareThreshold},
});

// The name of a figure.
std::string_view figureName(Figure DriveHealth::*figure);

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
