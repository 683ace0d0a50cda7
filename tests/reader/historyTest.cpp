#include "history.hpp"

#include <gtest/gtest.h>

using namespace qvreport;

// One bay from 2026-01-01 on, a figure's value each day and the hours rising
// by 24 unless they are the figure: "FQDD VERDICT reasons [marks]" a drive.
static std::string followed(Figure DriveHealth::*figure,
                            const std::vector<std::int64_t>& values)
{
    HistoryBuilder builder;
    for (size_t i = 0; i < values.size(); ++i)
    {
        DriveHealth drive{.fqdd = "BAY",
                          .driveClass = DriveClass::sataSsd,
                          .powerOnHours = 1000 + 24 * std::int64_t(i)};
        drive.*figure = values[i];
        auto day = Day{std::chrono::year(2026) / 1 / 1} + std::chrono::days(i);
        builder.add(day, {drive}, endOfDay(day));
    }
    std::string text;
    for (const auto& drive : builder.build().drives)
    {
        text += drive.fqdd + ' ' +
                std::string(verdictName(drive.assessment.verdict)) + ' ' +
                drive.assessment.reasonsText() + " [" +
                joined(driveMarks(drive), ',') + "]\n";
    }
    return text;
}

TEST(HistoryTest, judgesACounterByItsCourse)
{
    using D = DriveHealth;
    // clang-format off
    EXPECT_EQ(followed(&D::pending, {1, 2}), "BAY WARNING pending 2 > 0 (since 2026-01-01) []\n");
    EXPECT_EQ(followed(&D::pending, {1, 1, 2, 3}), "BAY FAILED pending rose on 2 days, 1 -> 3 (since 2026-01-03) []\n");
    EXPECT_EQ(followed(&D::reallocated, {1, 1, 1, 1, 1, 1, 1}), "BAY WARNING reallocated 1 > 0 (since 2026-01-01) []\n");
    EXPECT_EQ(followed(&D::reallocated, {1, 1, 1, 1, 1, 1, 1, 1}), "BAY PASSED reallocated 1, unchanged since 2026-01-01 []\n");
    EXPECT_EQ(followed(&D::crcErrors, {0, 5}), "BAY WARNING crc_errors 5 > 0 (since 2026-01-02) []\n");
    EXPECT_EQ(followed(&D::crcErrors, {5, 5}), "BAY PASSED crc_errors 5, unchanged since 2026-01-01 []\n");
    EXPECT_EQ(followed(&D::pending, {20, 0}), "BAY FAILED pending 20 >= 16 (since 2026-01-01, latched) []\n");
    EXPECT_EQ(followed(&D::powerOnHours, {9000, 9024, 30}), "BAY PASSED  [vanished]\nBAY PASSED  [appeared]\n");
    // clang-format on
}
