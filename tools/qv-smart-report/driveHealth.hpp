#pragma once

#include "reportDocument.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qvreport
{

// One health figure and whether it is past its alert threshold.
struct Reading
{
    std::optional<long long> value;
    bool alert = false;
};

struct DriveHealth
{
    std::string fqdd;
    std::string driveClass;
    Reading temperatureC;
    Reading lifeRemaining;
    Reading percentUsed;
    Reading powerOnHours;
    Reading mediaErrors;
    Reading crcErrors;
    Reading reallocated;
    Reading pending;
    Reading availableSpare;
    // Names of the set NVMe critical-warning bits; alert when any is set.
    std::optional<std::vector<std::string>> criticalWarnings;
};

// Health of every drive of a decoded (logs) or raw-data report document.
// Solid-state raw dumps are left out: their figures come from the logs
// report.
std::vector<DriveHealth> driveHealth(const Document& document);

std::vector<std::string> criticalWarningNames(std::uint64_t bits);

} // namespace qvreport
