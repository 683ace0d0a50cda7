#include "caseChecks.hpp"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

namespace e2e
{
namespace
{

namespace fs = std::filesystem;
using testsupport::readFile;
using testsupport::RunResult;

// A log record as the table writes it: "function: text" stands for the
// collector's own record of that function at level 9.
std::string recordOf(const std::string& line)
{
    return std::isdigit(static_cast<unsigned char>(line[0])) != 0
               ? line
               : "9|171|qvDbusCollectSmartData.L." + line;
}

// The log's records with the collector's line numbers read as "L": a case
// stays true when a source line moves.
std::vector<std::string> logRecords(const std::string& log)
{
    static const std::regex lineNumber(
        R"(\|(qvDbusCollect[A-Za-z]+)\.[0-9]+([.:]))");
    std::vector<std::string> records;
    std::istringstream in(log);
    for (std::string line; std::getline(in, line);)
    {
        records.push_back(std::regex_replace(line, lineNumber, "|$1.L$2"));
    }
    return records;
}

class OutcomeChecks
{
  public:
    OutcomeChecks(const CaseWorkspace& workspace, const json& testCase) :
        workspace(workspace), testCase(testCase)
    {}

    // "log": lines that must be logged; {"line": …, "times": n} exactly n
    // times. "notLogged": lines that must not be.
    void checkLog() const
    {
        const auto log = readFile(workspace.logPath);
        const auto records = logRecords(log);
        auto count = [&](const std::string& line) {
            return std::count(
                records.begin(), records.end(),
                substituted(recordOf(line), {{"{date}", workspace.date}}));
        };
        for (const auto& line : testCase.value("log", json::array()))
        {
            if (line.is_object())
            {
                EXPECT_EQ(count(line.at("line")), line.at("times").get<int>())
                    << line << "\nin the log:\n"
                    << log;
                continue;
            }
            EXPECT_GT(count(line), 0) << line << "\nin the log:\n" << log;
        }
        for (const auto& line : testCase.value("notLogged", json::array()))
        {
            EXPECT_EQ(count(line), 0) << line;
        }
    }

    // "calls": {member: n}, the calls of each member the simulator got.
    void checkCalls() const
    {
        const json calls = testCase.value("calls", json::object());
        for (const auto& [member, times] : calls.items())
        {
            EXPECT_EQ(workspace.callsOf(member), times.get<int>())
                << member << " in\n"
                << readFile(workspace.callLogPath);
        }
    }

    // Both reports, the files the case names, and no dated file but those
    // named or renamed to a run's day.
    void checkFiles() const
    {
        expectFile(testsupport::smartLogsPath,
                   testCase.value("logs", json("")));
        expectFile(testsupport::smartRawDataPath,
                   testCase.value("raw", json("")));
        std::set<std::string> dated(workspace.redated.begin(),
                                    workspace.redated.end());
        const json files = testCase.value("files", json::object());
        for (const auto& [path, want] : files.items())
        {
            std::string inside = substituted(path,
                                             {{"{date}", workspace.date}});
            expectFile(inside, want);
            if (inside.starts_with(testsupport::dailyDir))
            {
                dated.insert(inside);
            }
        }
        EXPECT_EQ(datedFilesWritten(), dated) << "dated files";
    }

    void checkReader() const
    {
        const json reader = testCase.value("reader", json());
        int runNumber = 0;
        for (const auto& run :
             reader.is_array() ? reader : json::array({reader}))
        {
            if (!run.is_null())
            {
                checkReaderRun(run, runNumber++);
            }
        }
        if (reader.is_null() && workspace.allSucceeded &&
            !testCase.value("unbalanced", false))
        {
            // The reader must take every report the collector writes; the
            // drives' verdicts may set the bits above damage and usage.
            auto result = readReports({"--format", "json", "{logs}", "{raw}"});
            constexpr int damageOrUsage = 3;
            EXPECT_EQ(result.exitCode & damageOrUsage, 0) << result.err;
        }
    }

  private:
    const CaseWorkspace& workspace;
    const json& testCase;

    // What the daily directory holds, by the names the collector sees.
    std::set<std::string> datedFilesWritten() const
    {
        std::set<std::string> written;
        std::error_code ec;
        for (const auto& entry : fs::directory_iterator(
                 workspace.sandbox.hostPath(testsupport::dailyDir), ec))
        {
            written.insert(testsupport::dailyDir +
                           entry.path().filename().string());
        }
        return written;
    }

    void checkReaderRun(const json& run, int runNumber) const
    {
        auto result = readReports(run.at("args"), run.value("toFull", false));
        keepActual(runNumber, result);
        EXPECT_EQ(result.exitCode, run.value("exit", 0)) << result.err;
        expectText("standard output", result.out, run.value("stdout", json()));
        expectText("standard error", result.err, run.value("stderr", json("")));
    }

    // QV_CASES_ACTUAL=DIR keeps what each reader run wrote and its exit
    // code, as DIR/<case>-<run>.out, .err and .exit, to compare with or
    // take as expected.
    void keepActual(int runNumber, const RunResult& result) const
    {
        const char* dir = std::getenv("QV_CASES_ACTUAL");
        if (dir == nullptr)
        {
            return;
        }
        auto stem = std::string(dir) + "/" +
                    testCase.at("name").get<std::string>() + "-" +
                    std::to_string(runNumber);
        std::ofstream(stem + ".out", std::ios::binary) << result.out;
        std::ofstream(stem + ".err", std::ios::binary) << result.err;
        std::ofstream(stem + ".exit") << result.exitCode << '\n';
    }

    // With `toFull`, standard output is /dev/full: every write fails.
    RunResult readReports(const json& args, bool toFull = false) const
    {
        std::vector<std::string> argv{QV_SMART_REPORT_PATH};
        for (const auto& arg : args)
        {
            argv.push_back(substituted(arg, workspace.placeholders()));
        }
        argv = testsupport::targetCommand(argv);
        // Reading times are ends of local days: one zone for every machine.
        argv.insert(argv.begin(), {"env", "TZ=UTC"});
        if (toFull)
        {
            argv.insert(argv.begin(),
                        {"sh", "-c", R"(exec "$@" >/dev/full)", "sh"});
        }
        return testsupport::runProgram(argv);
    }

    // A file's whole text is what was seeded plus `want`; null: it does not
    // exist; an object: partial checks (see expectText), or "kind".
    void expectFile(const std::string& inside, const json& want) const
    {
        auto host = workspace.sandbox.hostPath(inside);
        auto type = fs::symlink_status(host).type();
        if (want.is_null() || want.contains("kind"))
        {
            const std::map<std::string, fs::file_type> kinds = {
                {"fifo", fs::file_type::fifo},
                {"symlink", fs::file_type::symlink},
                {"directory", fs::file_type::directory}};
            EXPECT_EQ(type, want.is_null() ? fs::file_type::not_found
                                           : kinds.at(want["kind"]))
                << inside;
            return;
        }
        EXPECT_EQ(type, fs::file_type::regular) << inside;
        std::string text = readFile(host);
        const auto seeded = workspace.seeded.find(inside);
        const std::string before =
            seeded == workspace.seeded.end() ? "" : seeded->second;
        ASSERT_EQ(text.substr(0, before.size()), before)
            << inside << ": earlier bytes lost";
        expectText(inside, text.substr(before.size()), want);
    }

    // Whole text, or an object of "head", "tail", "size", "lines" and
    // "contains" (pieces found anywhere).
    void expectText(const std::string& what, const std::string& text,
                    const json& want) const
    {
        if (want.is_null())
        {
            return;
        }
        const auto placeholders = workspace.placeholders();
        if (!want.is_object())
        {
            EXPECT_EQ(text, substituted(textOf(want), placeholders)) << what;
            return;
        }
        std::string head = substituted(textOf(want.value("head", "")),
                                       placeholders);
        std::string tail = textOf(want.value("tail", ""));
        EXPECT_EQ(text.substr(0, head.size()), head) << what;
        EXPECT_EQ(text.substr(text.size() - std::min(text.size(), tail.size())),
                  tail)
            << what;
        EXPECT_EQ(text.size(), want.value("size", text.size())) << what;
        const auto lines = std::count(text.begin(), text.end(), '\n');
        EXPECT_EQ(lines, want.value("lines", lines)) << what;
        for (const auto& part : want.value("contains", json::array()))
        {
            EXPECT_NE(text.find(substituted(textOf(part), placeholders)),
                      std::string::npos)
                << what << " lacks " << part << ":\n"
                << text;
        }
    }
};

} // namespace

void checkRunResult(CaseWorkspace& workspace, const json& run,
                    const RunResult& result)
{
    EXPECT_EQ(result.exitCode, run.value("exit", 0)) << result.err;
    EXPECT_EQ(result.termSignal, run.value("signal", 0));
    workspace.allSucceeded = workspace.allSucceeded && result.exitCode == 0;
    if (run.contains("stderr"))
    {
        EXPECT_EQ(result.err,
                  substituted(textOf(run["stderr"]), workspace.placeholders()));
    }
}

void checkOutcome(const CaseWorkspace& workspace, const json& testCase)
{
    const OutcomeChecks checks(workspace, testCase);
    checks.checkLog();
    checks.checkCalls();
    checks.checkFiles();
    checks.checkReader();
}

} // namespace e2e
