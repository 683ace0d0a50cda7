#pragma once

#include "history.hpp"

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace qvreport
{

// What operators said of drives, kept beside the daily reports (on a
// controller the only place that is written to and that the metrics unit
// reads): one JSON object a line, appended to and never rewritten,
// {"action":"retire","fqdd":"…","day":"YYYY-MM-DD","note":"…"}.
inline constexpr std::string_view operatorFileName = "qv-smart-operator.jsonl";

// Appends a retirement to the operator file of `directory`; false, with a
// line on `err`, when it cannot be written.
bool recordRetirement(const std::string& directory,
                      const Retirement& retirement, std::ostream& err);

// The retirements in the operator files of the directories among `paths`.
// A line that is not one is named on `err` and makes `intact` false.
std::vector<Retirement> readRetirements(const std::vector<std::string>& paths,
                                        std::ostream& err, bool& intact);

} // namespace qvreport
