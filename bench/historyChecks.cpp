#include "historyChecks.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace bench::history
{

namespace fs = std::filesystem;

void checkTable(const std::string& output, int drives)
{
    long lines = std::count(output.begin(), output.end(), '\n');
    if (lines != drives + 1)
    {
        throw std::runtime_error("the table lists " +
                                 std::to_string(lines - 1) + " drives, not " +
                                 std::to_string(drives));
    }
}

void checkJson(const std::string& output, int drives, int days)
{
    auto whole = nlohmann::json::parse(output);
    const auto& followed = whole.at("drives");
    if (followed.size() != size_t(drives))
    {
        throw std::runtime_error("the json output lists " +
                                 std::to_string(followed.size()) +
                                 " drives, not " + std::to_string(drives));
    }
    for (const auto& drive : followed)
    {
        if (drive.at("days") != days)
        {
            throw std::runtime_error(
                drive.at("fqdd").get<std::string>() + " is followed over " +
                drive.at("days").dump() + " days, not " + std::to_string(days));
        }
    }
}

namespace
{

// Counts the verdict samples of a metrics file line by line: an
// OpenMetrics file of a long history is far larger than the benchmark
// should hold.
struct MetricsLines
{
    long verdicts = 0;
    std::string last;
};

MetricsLines metricsLines(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
    {
        throw std::runtime_error("cannot read " + path.string());
    }
    MetricsLines found;
    for (std::string line; std::getline(in, line);)
    {
        found.verdicts += line.starts_with("qv_smart_device_verdict{") ? 1 : 0;
        found.last = std::move(line);
    }
    return found;
}

} // namespace

void checkTextfile(const fs::path& path, int drives)
{
    auto found = metricsLines(path);
    if (found.verdicts != drives)
    {
        throw std::runtime_error("the textfile has " +
                                 std::to_string(found.verdicts) +
                                 " verdicts, not " + std::to_string(drives));
    }
}

void checkOpenMetrics(const fs::path& path, int drives, int days)
{
    auto found = metricsLines(path);
    if (found.verdicts != long(drives) * days || found.last != "# EOF")
    {
        throw std::runtime_error(
            "the OpenMetrics file has " + std::to_string(found.verdicts) +
            " verdicts, not " + std::to_string(long(drives) * days) +
            (found.last == "# EOF" ? "" : ", and no # EOF at its end"));
    }
}

} // namespace bench::history
