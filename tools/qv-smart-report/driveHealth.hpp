#pragma once

#include "reportDocument.hpp"

#include <array>
#include <cstdint>
#include <optional>
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

// The column name of a figure.
std::string_view figureName(Figure DriveHealth::*figure);

// Health of every drive of a decoded (logs) or raw-data report document.
// Solid-state raw dumps are left out: their figures come from the logs
// report.
std::vector<DriveHealth> driveHealth(const Document& document);

std::vector<std::string> criticalWarningNames(std::uint64_t bits);

// The names one after the other, `separator` between them.
std::string joined(const std::vector<std::string>& names, char separator);

} // namespace qvreport
