#pragma once

#include "historyOptions.hpp"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace bench::history
{

// The reports of one daily run, as the collector wrote them.
struct DailyReports
{
    std::chrono::sys_days day;
    std::string logs;
    std::string raw;
};

// A whole file, and a file made of `text`; both throw std::runtime_error
// when they cannot.
std::string readText(const std::filesystem::path& path);
void writeText(const std::filesystem::path& path, std::string_view text);

// Runs the collector in daily mode (any argument but 0) against the server
// of `scenario` and returns its two reports. The simulator goes before the
// bus: it would report the bus going away.
DailyReports collectOneDay(const Options& options, const std::string& scenario);

// The scenario file of the server with the options' number of drives.
std::string scenarioOf(const Options& options);

// The server with one solid-state drive's raw-data reply `octets` long,
// written into `dir`.
std::string withRawReply(const std::string& scenario, int octets,
                         const std::filesystem::path& dir);

// Writes `days` days of both reports into `dir`, the last one the
// collector's; returns the bytes written.
std::uintmax_t writeDays(const DailyReports& reports, int days,
                         const std::filesystem::path& dir);

} // namespace bench::history
