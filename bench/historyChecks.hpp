#pragma once

#include <filesystem>
#include <string>

namespace bench::history
{

// Each throws std::runtime_error when the reader's output does not hold
// every drive it should.

// The table lists one drive a line under its heading.
void checkTable(const std::string& output, int drives);
// The json output follows every drive over every day.
void checkJson(const std::string& output, int drives, int days);
// The textfile has one verdict sample per drive.
void checkTextfile(const std::filesystem::path& path, int drives);
// The OpenMetrics file has one verdict sample per drive and day, and ends.
void checkOpenMetrics(const std::filesystem::path& path, int drives, int days);

} // namespace bench::history
