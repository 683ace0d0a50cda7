#include "reportDate.hpp"

#include <algorithm>
#include <array>
#include <cctype>

namespace qvreport
{
namespace
{

std::optional<int> digits(std::string_view text)
{
    if (text.empty() || !std::ranges::all_of(text, [](char c) {
            return std::isdigit(static_cast<unsigned char>(c)) != 0;
        }))
    {
        return std::nullopt;
    }
    int value = 0;
    for (char c : text)
    {
        value = value * 10 + (c - '0');
    }
    return value;
}

std::optional<Day> dayOf(std::string_view year, std::string_view month,
                         std::string_view day)
{
    auto y = digits(year);
    auto m = digits(month);
    auto d = digits(day);
    if (!y || !m || !d)
    {
        return std::nullopt;
    }
    std::chrono::year_month_day date{std::chrono::year(*y),
                                     std::chrono::month(unsigned(*m)),
                                     std::chrono::day(unsigned(*d))};
    if (!date.ok())
    {
        return std::nullopt;
    }
    return Day(date);
}

} // namespace

std::optional<Day> parseDay(std::string_view text)
{
    if (text.size() == 8)
    {
        return dayOf(text.substr(0, 4), text.substr(4, 2), text.substr(6, 2));
    }
    if (text.size() == 10 && text[4] == '-' && text[7] == '-')
    {
        return dayOf(text.substr(0, 4), text.substr(5, 2), text.substr(8, 2));
    }
    return std::nullopt;
}

std::string dayText(Day day)
{
    std::chrono::year_month_day date(day);
    std::array<char, 16> text{};
    const int length = std::snprintf(text.data(), text.size(), "%04d-%02u-%02u",
                                     int(date.year()), unsigned(date.month()),
                                     unsigned(date.day()));
    return length > 0 ? text.data() : "";
}

std::string dailyReportName(ReportKind kind, Day day)
{
    std::string text = dayText(day);
    std::erase(text, '-');
    return (kind == ReportKind::logs ? "SL" : "RD") + text + ".json";
}

std::optional<std::string_view> dailyReportDigits(std::string_view fileName)
{
    constexpr std::string_view suffix = ".json";
    constexpr size_t nameSize = 2 + 8 + suffix.size();
    if (fileName.size() != nameSize || !fileName.ends_with(suffix))
    {
        return std::nullopt;
    }
    auto prefix = fileName.substr(0, 2);
    auto day = fileName.substr(2, 8);
    if ((prefix != "SL" && prefix != "RD") || !digits(day))
    {
        return std::nullopt;
    }
    return day;
}

std::optional<DatedName> datedReportName(std::string_view fileName)
{
    auto digits = dailyReportDigits(fileName);
    auto day = digits ? parseDay(*digits) : std::nullopt;
    if (!day)
    {
        return std::nullopt;
    }
    return DatedName{
        fileName.starts_with("SL") ? ReportKind::logs : ReportKind::raw, *day};
}

std::optional<ReportKind> collectionReportName(std::string_view fileName)
{
    if (fileName == "SmartLogs.json")
    {
        return ReportKind::logs;
    }
    if (fileName == "SmartRawData.json")
    {
        return ReportKind::raw;
    }
    return std::nullopt;
}

} // namespace qvreport
