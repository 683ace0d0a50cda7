#pragma once

#include "history.hpp"

#include <ostream>

namespace qvreport
{

// One self-contained page of the history: inline CSS and SVG, nothing
// fetched. The drives ordered by verdict with their reasons, and for each
// small plots of its temperature, its life used or remaining and its error
// counters across the days.
void writeHtmlPage(std::ostream& out, const History& history);

} // namespace qvreport
