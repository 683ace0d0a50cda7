#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace qvreport
{

using Day = std::chrono::sys_days;

// "2026-11-24" or "20261124"; nothing unless it is a real calendar day.
std::optional<Day> parseDay(std::string_view text);

// "2026-11-24".
std::string dayText(Day day);

enum class ReportKind
{
    logs,
    raw
};

struct DatedName
{
    ReportKind kind;
    Day day;
};

// The day of a daily report by its file name, "SL20261124.json" or
// "RD20261124.json"; nothing for any other name.
std::optional<DatedName> datedReportName(std::string_view fileName);

// The eight digits of a daily report's name, "SL<8 digits>.json" or
// "RD<8 digits>.json", whether or not they spell a calendar day
// ("SL20260230.json" gives "20260230"); nothing for any other name.
std::optional<std::string_view> dailyReportDigits(std::string_view fileName);

// The daily report's name for a day: "SL20261124.json" or "RD20261124.json".
std::string dailyReportName(ReportKind kind, Day day);

// Which report a collection-mode file name is ("SmartLogs.json",
// "SmartRawData.json"); nothing for any other name.
std::optional<ReportKind> collectionReportName(std::string_view fileName);

} // namespace qvreport
