#pragma once

#include "history.hpp"

#include <ostream>

namespace qvreport
{

// The history as one JSON document, a csv row per drive, or a table.
void writeHistoryJson(std::ostream& out, const History& history);
void writeHistoryCsv(std::ostream& out, const History& history);
void writeHistoryTable(std::ostream& out, const History& history);

} // namespace qvreport
