// A report file as the history takes it: the first line is the file's name,
// dated the way a directory's files are, the rest its text, read document
// by document into a history that is then written in every format, along
// with each document's own health view. Findings: a dated name that does
// not spell its own day, a day that does not read back, an exception
// escaping, and every sanitizer report.

#include "history.hpp"
#include "reportTool.hpp"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

namespace
{

[[noreturn]] void finding(const char* what)
{
    std::fprintf(stderr, "history finding: %s\n", what);
    std::abort();
}

std::string compact(const std::string& day)
{
    return day.substr(0, 4) + day.substr(5, 2) + day.substr(8, 2);
}

void checkDating(const std::string& name)
{
    if (auto dated = qvreport::datedReportName(name); dated)
    {
        std::string prefix =
            dated->kind == qvreport::ReportKind::logs ? "SL" : "RD";
        if (prefix + compact(qvreport::dayText(dated->day)) + ".json" != name)
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
    qvreport::History history;
    std::ostringstream out;
    while (auto document = reader.next())
    {
        qvreport::writeJson(out, name, *document);
        for (const auto& drive : qvreport::driveHealth(*document))
        {
            qvreport::Assessment(qvreport::snapshotReasons(drive));
        }
        // Each further document a day later, so trends have days to span.
        history.add(day, *document);
        day += std::chrono::days(1);
    }
    qvreport::writeHistoryJson(out, history);
    qvreport::writeHistoryCsv(out, history);
    qvreport::writeHistoryTable(out, history);
    return 0;
}
