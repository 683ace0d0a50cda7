#pragma once

#include "history.hpp"

#include <ostream>
#include <string>

namespace qvreport
{

// Every figure and verdict of every drive on every day of the history, as
// OpenMetrics text: one sample a day, stamped with the day (00:00 UTC), so
// that a history can be loaded into a time series database as it was.
void writeOpenMetrics(std::ostream& out, const History& history);

// The drives of the history's last day, their figures and verdicts of that
// day, as Prometheus text without timestamps: what node_exporter's textfile
// collector takes.
void writeTextfile(std::ostream& out, const History& history);

} // namespace qvreport
