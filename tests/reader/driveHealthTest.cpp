#include "driveHealth.hpp"

#include <cstdlib>
#include <sstream>

#include <gtest/gtest.h>

using namespace qvreport;

// Counters only in the unsigned 64-bit range, capped at the signed top; a
// SAS page read as far as its length says, whatever its disable-save bit; a
// page in another's slot, a temperature of another length are not read.
TEST(DriveHealthTest, readsEachDrivesFiguresAndVoidsDamagedDocuments)
{
    const std::string file = std::string(std::getenv("QV_READER_FIXTURES")) +
                             "/reports.json";
    std::ostringstream problems;
    std::vector<std::string> read;
    auto each = [&read](const std::vector<DriveHealth>& drives) {
        read.emplace_back();
        for (const auto& drive : drives)
        {
            read.back() += drive.fqdd + ' ' +
                           std::string(className(drive.driveClass));
            for (const auto& column : namedFigures)
            {
                if (auto value = drive.*column.figure)
                {
                    read.back() += ' ' + std::string(column.name) + '=' +
                                   std::to_string(*value);
                }
            }
            read.back() += '\n';
        }
    };
    EXPECT_FALSE(readDriveHealth(file, problems, each));
    // clang-format off
    EXPECT_EQ(read, std::vector<std::string>({
        "SSD-SAS SAS SSD temp_c=30 life_remaining=90 reallocated=9223372036854775807 command_timeouts=7\n"
        "SSD-SATA SATA SSD life_remaining=50\n"
        "NVME-WIDE NVMe temp_c=69 power_on_hours=9223372036854775807\n"
        "SAS-HDD SAS HDD media_errors=4294967298\n"
        "SATA-HDD SATA HDD temp_c=-5\n",
        "AFTER SATA SSD life_remaining=2\n"}));
    EXPECT_EQ(problems.str(), file + ":11: expected ',' or '}' but found '\"' in a group\n" + file + ":18: file ends inside a group\n");
    // clang-format on
}
