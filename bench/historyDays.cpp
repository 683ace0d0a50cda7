#include "historyDays.hpp"

#include "reportDate.hpp"
#include "testSupport.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <vector>

namespace bench::history
{

namespace fs = std::filesystem;

std::string readText(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
    {
        throw std::runtime_error("cannot read " + path.string());
    }
    return {std::istreambuf_iterator<char>(in),
            std::istreambuf_iterator<char>()};
}

void writeText(const fs::path& path, std::string_view text)
{
    std::ofstream out(path, std::ios::binary);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    if (!out.flush())
    {
        throw std::runtime_error("cannot write " + path.string());
    }
}

DailyReports collectOneDay(const Options& options, const std::string& scenario)
{
    std::string size = std::to_string(options.drives);
    testsupport::PrivateBus bus;
    testsupport::Simulator simulator(scenario, bus);
    testsupport::Sandbox root;
    // The collector sees only the sandbox's directory of the host's.
    std::string tables = root.dir() + "/tables.json";
    fs::copy_file(options.dir + "/tables-" + size + ".json", tables);
    auto result = root.run({"1"}, bus, tables);
    if (result.exitCode != 0)
    {
        throw std::runtime_error("the collector failed with exit code " +
                                 std::to_string(result.exitCode) + ": " +
                                 result.err);
    }
    fs::path daily = root.hostPath(testsupport::dailyDir);
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(daily))
    {
        names.push_back(entry.path().filename().string());
    }
    auto dated = names.empty() ? std::nullopt
                               : qvreport::datedReportName(names.front());
    if (!dated || names.size() != 2)
    {
        throw std::runtime_error("the collector did not write one SL and one "
                                 "RD report of the same day into " +
                                 daily.string());
    }
    fs::path logs = daily / qvreport::dailyReportName(
                                qvreport::ReportKind::logs, dated->day);
    fs::path raw = daily / qvreport::dailyReportName(qvreport::ReportKind::raw,
                                                     dated->day);
    if (!fs::exists(logs) || !fs::exists(raw))
    {
        throw std::runtime_error("the collector did not write one SL and one "
                                 "RD report of the same day into " +
                                 daily.string());
    }
    return {dated->day, readText(logs), readText(raw)};
}

std::string scenarioOf(const Options& options)
{
    return options.dir + "/scenario-" + std::to_string(options.drives) +
           ".json";
}

std::string withRawReply(const std::string& scenario, int octets,
                         const fs::path& dir)
{
    auto server = nlohmann::json::parse(readText(scenario));
    for (auto& drive : server.at("drives"))
    {
        if (drive.contains("rawData"))
        {
            drive["rawData"] = {{"dataLength", octets}};
            auto path = (dir / "scenario-raw.json").string();
            writeText(path, server.dump());
            return path;
        }
    }
    throw std::runtime_error(scenario + " has no drive with raw data");
}

namespace
{

// The text with every value of the members called `name` moved by `delta`,
// never below 0. Only the digits between the member's `"name": "` and the
// closing quote change; a value that is not a plain number stays.
std::string shifted(std::string_view text, std::string_view name, long delta)
{
    std::string head = "\"" + std::string(name) + "\": \"";
    std::string result;
    result.reserve(text.size() + 64);
    size_t done = 0;
    for (size_t at = text.find(head); at != std::string_view::npos;
         at = text.find(head, done))
    {
        size_t from = at + head.size();
        size_t to = text.find('"', from);
        if (to == std::string_view::npos)
        {
            break;
        }
        long value = 0;
        auto [end, error] = std::from_chars(text.data() + from,
                                            text.data() + to, value);
        result.append(text.substr(done, from - done));
        if (error == std::errc() && end == text.data() + to)
        {
            result += std::to_string(std::max(0L, value + delta));
        }
        else
        {
            result.append(text.substr(from, to - from));
        }
        done = to;
    }
    result.append(text.substr(done));
    return result;
}

// How far the temperatures of a day lie from the collector's: -5 to +5 °C,
// different from one day to the next, 0 on the collector's own day.
long temperatureSwing(long daysBefore)
{
    return (daysBefore * 7 + 5) % 11 - 5;
}

// The reports of a day `daysBefore` the collector's run: its text with the
// SSD and NVMe temperatures swung and the power-on hours taken back by 24
// an elapsed day. The raw report (hard drives' log pages, SSD raw data) is
// the same every day.
std::string logsBefore(const std::string& logs, long daysBefore)
{
    long swing = temperatureSwing(daysBefore);
    long hours = -24 * daysBefore;
    std::string text = shifted(logs, "Drive Temp", swing);
    text = shifted(text, "Composite Temperature", swing);
    text = shifted(text, "Power On hours", hours);
    return shifted(text, "PowerOnHours Lower", hours);
}

} // namespace

std::uintmax_t writeDays(const DailyReports& reports, int days,
                         const fs::path& dir)
{
    std::uintmax_t bytes = 0;
    for (long before = days - 1; before >= 0; --before)
    {
        auto day = reports.day - std::chrono::days(before);
        std::string logs = logsBefore(reports.logs, before);
        writeText(
            dir / qvreport::dailyReportName(qvreport::ReportKind::logs, day),
            logs);
        writeText(dir /
                      qvreport::dailyReportName(qvreport::ReportKind::raw, day),
                  reports.raw);
        bytes += logs.size() + reports.raw.size();
    }
    return bytes;
}

} // namespace bench::history
