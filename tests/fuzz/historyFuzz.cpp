// A report file as the history takes it: the first line is the file's name,
// dated the way a directory's files are, the rest its text, read document
// by document into a history that is then written in every format, as
// metrics and as a page, along with each document's own health view.
// Findings: a dated name that does not spell its own day, a day that does
// not read back, a metrics line that is neither a comment nor a sample of
// ours (text of the input breaking out of a label), a page with markup from
// the input, a day-by-day verdict whose last day differs from the
// history's, an exception escaping, and every sanitizer report.

#include "fuzzInput.hpp"
#include "healthView.hpp"
#include "history.hpp"
#include "historyViews.hpp"
#include "htmlPage.hpp"
#include "metrics.hpp"

#include <cstdint>
#include <sstream>
#include <string>

namespace
{

using fuzzing::finding;

std::string compact(const std::string& day)
{
    return day.substr(0, 4) + day.substr(5, 2) + day.substr(8, 2);
}

void checkDating(const std::string& name)
{
    if (auto dated = qvreport::datedReportName(name); dated)
    {
        if (qvreport::dailyReportName(dated->kind, dated->day) != name)
        {
            finding("a dated name that does not spell its day");
        }
    }
    if (auto day = qvreport::parseDay(name); day)
    {
        auto text = qvreport::dayText(*day);
        if (text != name && compact(text) != name)
        {
            finding("a day that does not read back");
        }
    }
}

void checkMetrics(const qvreport::History& history)
{
    std::ostringstream text;
    qvreport::writeOpenMetrics(text, history);
    qvreport::writeTextfile(text, history);
    std::istringstream lines(text.str());
    for (std::string line; std::getline(lines, line);)
    {
        if (!line.starts_with("# ") && !line.starts_with("qv_smart_"))
        {
            finding("a metrics line that is no comment and no sample");
        }
    }
}

void checkPage(const qvreport::History& history)
{
    std::ostringstream page;
    qvreport::writeHtmlPage(page, history);
    if (page.str().find("<x") != std::string::npos)
    {
        finding("markup of the input on the page");
    }
    for (const auto& drive : history.drives)
    {
        const auto& series = drive.series;
        if (series.size() != 0 &&
            series.verdict(series.size() - 1) != drive.assessment.verdict)
        {
            finding("the last day's verdict is not the history's");
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string input(reinterpret_cast<const char*>(data), size);
    auto newline = input.find('\n');
    std::string name = input.substr(0, newline);
    checkDating(name);
    auto dated = qvreport::datedReportName(name);
    auto day = dated ? dated->day : *qvreport::parseDay("2026-01-01");
    std::istringstream in(
        newline == std::string::npos ? "" : input.substr(newline + 1));
    qvreport::ReportReader reader(in);
    qvreport::HistoryBuilder builder({.keepDays = true});
    std::ostringstream out;
    while (auto document = reader.next())
    {
        qvreport::writeJson(out, name, *document);
        for (const auto& drive : qvreport::driveHealth(*document))
        {
            qvreport::Assessment(qvreport::snapshotReasons(drive));
        }
        // Each further document a day later, so trends have days to span.
        builder.add(day, qvreport::driveHealth(*document), 0);
        day += std::chrono::days(1);
    }
    const auto history = builder.build();
    qvreport::writeHistoryJson(out, history);
    qvreport::writeHistoryCsv(out, history);
    qvreport::writeHistoryTable(out, history);
    checkMetrics(history);
    checkPage(history);
    return 0;
}
