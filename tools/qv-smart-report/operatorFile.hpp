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
// {"action":"retire","fqdd":"…","day":"YYYY-MM-DD","note":"…"} or
// {"action":"ack","fqdd":"…","day":"…","until":"…","note":"…"}.
inline constexpr std::string_view operatorFileName = "qv-smart-operator.jsonl";

// Appends a word to the operator file of `directory`; false, with a line
// on `err`, when it cannot be written.
bool recordWord(const std::string& directory, const OperatorWord& word,
                std::ostream& err);

// The words in the operator files of the directories among `paths`. A line
// that is not one is named on `err` and makes `intact` false.
std::vector<OperatorWord>
    readOperatorWords(const std::vector<std::string>& paths, std::ostream& err,
                      bool& intact);

} // namespace qvreport
