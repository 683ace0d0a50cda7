#include "verdict.hpp"

#include <gtest/gtest.h>

using namespace qvreport;

// Each figure against its threshold: "VERDICT reasons | figures marked".
TEST(VerdictTest, holdsEachFigureToItsThreshold)
{
    // clang-format off
    const std::vector<std::pair<DriveHealth, std::string>> rows = {
        {{.driveClass = DriveClass::sataSsd, .temperatureC = 69, .lifeRemaining = 11, .commandTimeouts = 1}, "PASSED  |"},
        {{.driveClass = DriveClass::sataSsd, .temperatureC = 70, .lifeRemaining = 0}, "FAILED temp_c 70 >= 70; life_remaining 0 <= 0 | temp_c life_remaining"},
        {{.driveClass = DriveClass::sataSsd, .lifeRemaining = 10}, "WARNING life_remaining 10 <= 10 | life_remaining"},
        {{.driveClass = DriveClass::sasHdd, .temperatureC = 59}, "PASSED  |"},
        {{.driveClass = DriveClass::sasHdd, .temperatureC = 60}, "WARNING temp_c 60 >= 60 | temp_c"},
        {{.driveClass = DriveClass::sataSsd, .mediaErrors = 15, .reallocated = 99, .pending = 15}, "WARNING media_errors 15 > 0; reallocated 99 > 0; pending 15 > 0 | media_errors reallocated pending"},
        {{.driveClass = DriveClass::sataSsd, .mediaErrors = 16, .reallocated = 100, .pending = 16}, "FAILED media_errors 16 >= 16; reallocated 100 >= 100; pending 16 >= 16 | media_errors reallocated pending"},
        {{.driveClass = DriveClass::sataSsd, .lifeRemaining = 0, .crcErrors = 100000}, "FAILED life_remaining 0 <= 0; crc_errors 100000 > 0 | life_remaining crc_errors"},
        {{.driveClass = DriveClass::nvme, .percentUsed = 90, .availableSpare = 10, .spareThreshold = 10}, "WARNING percent_used 90 >= 90 | percent_used"},
        {{.driveClass = DriveClass::nvme, .percentUsed = 100, .availableSpare = 101, .spareThreshold = 10}, "WARNING percent_used 100 >= 100, past rated endurance; available_spare 101 implausible | percent_used"},
        {{.driveClass = DriveClass::nvme, .percentUsed = 150, .powerOnHours = 20000}, "WARNING percent_used 150 >= 100, past rated endurance | percent_used"},
        {{.driveClass = DriveClass::nvme, .percentUsed = 255, .powerOnHours = 5, .availableSpare = 50, .spareThreshold = 255}, "PASSED percent_used 255 implausible, after 5 power-on hours; spare_threshold 255 implausible, reserved: no spare rule |"},
        {{.driveClass = DriveClass::nvme, .availableSpare = 5, .spareThreshold = 10, .criticalWarning = 1}, "FAILED available_spare 5 < threshold 10; critical_warning spare-below-threshold | available_spare critical_warning"},
        {{.driveClass = DriveClass::nvme, .availableSpare = 5, .spareThreshold = 0, .criticalWarning = 1}, "WARNING critical_warning spare-below-threshold | critical_warning"},
        {{.driveClass = DriveClass::nvme, .criticalWarning = 10}, "FAILED critical_warning temperature,read-only | critical_warning"},
        {{.driveClass = DriveClass::nvme, .mediaErrors = 0, .criticalWarning = 4}, "WARNING critical_warning reliability-degraded | critical_warning"},
        {{.driveClass = DriveClass::nvme, .mediaErrors = 20, .criticalWarning = 4}, "FAILED critical_warning reliability-degraded; media_errors 20 >= 16 | critical_warning media_errors"},
        {{.driveClass = DriveClass::nvme, .criticalWarning = 16}, "FAILED critical_warning volatile-backup-failed | critical_warning"},
        {{.driveClass = DriveClass::nvme, .criticalWarning = 34}, "WARNING critical_warning temperature,pmr-read-only | critical_warning"},
        {{.driveClass = DriveClass::nvme, .criticalWarning = 64}, "PASSED critical_warning bit6 implausible |"},
    };
    // clang-format on
    for (const auto& [drive, expected] : rows)
    {
        Assessment assessment(snapshotReasons(drive));
        auto text = std::string(verdictName(assessment.verdict)) + ' ' +
                    assessment.reasonsText() + " |";
        for (const auto& reason : assessment.reasons)
        {
            if (assessment.flags(reason.figure))
            {
                text += ' ' + std::string(figureName(reason.figure));
            }
        }
        EXPECT_EQ(text, expected);
    }
}
