#pragma once

#include "driveHealth.hpp"
#include "reportDocument.hpp"

#include <ostream>
#include <span>
#include <string>
#include <vector>

namespace qvreport
{

// The exit status is a sum of these bits, so that scripts can test each.
enum ExitBit
{
    exitOk = 0,
    exitDamaged = 1,
    exitUsage = 2,
    exitWarning = 4,
    exitFailed = 8,
    exitNotWritten = 16,
    // A drive of the server had no reading on the newest day read.
    exitSilent = 32
};

// The whole command: arguments without the program name.
int runReportTool(std::span<const std::string> args, std::ostream& out,
                  std::ostream& err);

} // namespace qvreport
