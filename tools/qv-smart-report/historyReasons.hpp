#pragma once

#include "history.hpp"

#include <vector>

namespace qvreport
{

// Today's reasons, each since the first day of the readings up to today on
// which it held.
std::vector<Reason> heldSince(const std::vector<Reason>& before,
                              std::vector<Reason> now, Day day);

// The drive's verdict on a day of its history: the reasons that hold, a
// counter that stopped growing as a note, one that kept rising failing it,
// every failure before latched, and an operator's acknowledgement.
Assessment assess(const DriveRecord& record, Day asOf);

// The failures of the assessment, each kept from its first day on.
void latchFailures(DriveRecord& record, const Assessment& assessment);

} // namespace qvreport
