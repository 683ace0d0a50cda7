#include "dayFiles.hpp"

#include <gtest/gtest.h>

using namespace qvreport;

TEST(DayFilesTest, takesThePeriodsBoundsAndNoReadingAfterItsDay)
{
    const auto first = parseDay("20260101");
    const auto second = parseDay("20260102");
    const auto third = parseDay("20260103");
    EXPECT_TRUE(inPeriod(*second, {second, second, {}}));
    EXPECT_FALSE(inPeriod(*second, {third, {}, {}}));
    EXPECT_FALSE(inPeriod(*second, {{}, first, {}}));
    // A file written after its day says only that the readings are of it.
    EXPECT_EQ(readingTime(*first, endOfDay(*first) + 1), endOfDay(*first));
    EXPECT_EQ(readingTime(*first, endOfDay(*first) - 1), endOfDay(*first) - 1);
}
