// Runs the cases of the JSON case files: each one serves a scenario on a
// private bus, runs the shipped collector in a sandbox over report files
// that already hold an earlier document, and checks exit codes, log records
// and the bytes appended to every file it names. tests/README.md describes
// the case format; scenarioBuilder, setupSteps and caseChecks do the parts.
#include "caseChecks.hpp"
#include "scenarioBuilder.hpp"
#include "setupSteps.hpp"

#include <array>
#include <chrono>
#include <ctime>
#include <future>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

namespace e2e
{
namespace
{

using testsupport::PrivateBus;
using testsupport::RunResult;

// A zone whose date differs from the UTC date right now.
std::string awayZone()
{
    std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    return utc.tm_hour >= 10 ? "UTC-14" : "UTC+12";
}

// Today's date in `zone` (or this process's own), as the collector names
// its dated files.
std::string localDate(const std::optional<std::string>& zone)
{
    const char* saved = std::getenv("TZ");
    std::string before = saved != nullptr ? saved : "";
    if (zone)
    {
        setenv("TZ", zone->c_str(), 1);
    }
    tzset();
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::array<char, 16> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%Y%m%d",
                                             &local);
    if (saved != nullptr)
    {
        setenv("TZ", before.c_str(), 1);
    }
    else
    {
        unsetenv("TZ");
    }
    tzset();
    return {text.data(), length};
}

// The case as it holds on the bus the suite runs on: on dbus-broker the
// members of its "broker" object replace the case's own (an error message
// the two buses word differently).
json onThisBus(const json& caseJson)
{
    json effective = caseJson;
    if (testsupport::busKindFromEnvironment() == testsupport::BusKind::broker)
    {
        effective.update(caseJson.value("broker", json::object()));
    }
    return effective;
}

// "pauseBusMs": the bus is stopped as the run starts and resumed that much
// later, from the thread handed back: the collector meets a bus that does
// not answer yet, not even its greeting.
std::jthread pauseBus(const json& run, const PrivateBus& bus)
{
    if (!run.contains("pauseBusMs"))
    {
        return {};
    }
    bus.pause();
    return std::jthread([&bus, ms = run["pauseBusMs"].get<int>()] {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        bus.resume();
    });
}

class CaseRun
{
  public:
    explicit CaseRun(const json& caseJson) :
        testCase(onThisBus(caseJson)),
        heldOpens(
            takeSetupSteps(workspace, testCase.value("setup", json::array())))
    {}

    // A case without a server ("server": null) has no bus and no run: its
    // reader runs read the files its setup wrote.
    void run()
    {
        std::optional<PrivateBus> bus;
        std::optional<testsupport::Simulator> simulator;
        if (!testCase.contains("server") || !testCase["server"].is_null())
        {
            writeScenario(workspace, testCase);
            bus.emplace();
            simulator.emplace(workspace.scenarioPath, *bus);
        }
        const json runs = testCase.value("runs", json::array({testCase}));
        if (bus && !testCase.value("together", false))
        {
            runInTurn(runs, *bus, simulator);
        }
        else if (bus)
        {
            runTogether(runs, *bus);
        }
        // The opens are held for the runs only: the checks read the files
        // unheld.
        heldOpens.reset();
    }

    void check() const
    {
        checkOutcome(workspace, testCase);
    }

  private:
    const json testCase;
    CaseWorkspace workspace;
    std::shared_ptr<HeldOpens> heldOpens;

    // A run's own "set" restarts the simulator on the case's scenario with
    // the run's changes; its "fill" fills the disk before it starts.
    void runInTurn(const json& runs, const PrivateBus& bus,
                   std::optional<testsupport::Simulator>& simulator)
    {
        for (const auto& run : runs)
        {
            if (run.contains("set"))
            {
                simulator.reset();
                writeScenario(workspace, testCase, run);
                simulator.emplace(workspace.scenarioPath, bus);
            }
            if (run.contains("fill"))
            {
                fillDisk(workspace, run["fill"].get<std::string>());
            }
            auto env = environment(run);
            const auto resumer = pauseBus(run, bus);
            checkRunResult(workspace, run,
                           workspace.sandbox.run(
                               run.value("args", std::vector<std::string>{"0"}),
                               bus, workspace.scenarioPath, env));
            redate(run);
        }
    }

    // "together": the runs at once, each checked once all have started.
    void runTogether(const json& runs, const PrivateBus& bus)
    {
        std::vector<std::future<RunResult>> started;
        for (const auto& run : runs)
        {
            auto env = environment(run);
            auto args = run.value("args", std::vector<std::string>{"0"});
            if (run.contains("after"))
            {
                awaitCall(run["after"].get<std::string>());
            }
            started.push_back(std::async(std::launch::async,
                                         [this, &bus, env, args] {
                return workspace.sandbox.run(args, bus, workspace.scenarioPath,
                                             env);
            }));
        }
        for (size_t i = 0; i < started.size(); ++i)
        {
            checkRunResult(workspace, runs[i], started[i].get());
        }
    }

    // A run's "after": it starts once the simulator got a call of
    // `member`, so the runs before it have got that far.
    void awaitCall(const std::string& member) const
    {
        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::seconds(60);
        while (workspace.callsOf(member) == 0)
        {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline)
                << "no call of " << member;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    // The run's "env" with its placeholders; "{awayZone}" is a zone whose
    // date is not today's in UTC. The run's zone gives the date its dated
    // files and log lines carry.
    testsupport::EnvChanges environment(const json& run)
    {
        testsupport::EnvChanges env;
        const json variables = run.value("env", json::object());
        for (const auto& [name, value] : variables.items())
        {
            env[name] = value == "{awayZone}"
                            ? awayZone()
                            : substituted(value, workspace.placeholders());
        }
        workspace.date = localDate(env.contains("TZ") ? env["TZ"]
                                                      : std::nullopt);
        return env;
    }

    // A run's "day" stands for a daily run of that day: its dated files
    // are renamed.
    void redate(const json& run)
    {
        if (!run.contains("day"))
        {
            return;
        }
        for (const char* kind : {"SL", "RD"})
        {
            const auto& sandbox = workspace.sandbox;
            std::string from = testsupport::dailyDir + (kind + workspace.date) +
                               ".json";
            std::string to = testsupport::dailyDir +
                             (kind + run["day"].get<std::string>()) + ".json";
            std::filesystem::rename(sandbox.hostPath(from),
                                    sandbox.hostPath(to));
            workspace.redated.push_back(to);
        }
    }
};

// The case as the test's parameter: printed by its name only.
struct Params
{
    json testCase;
};

void PrintTo(const Params& params, std::ostream* out)
{
    *out << params.testCase.at("name");
}

// Both case files; every case knows the servers of its file.
std::vector<Params> allCases()
{
    std::vector<Params> cases;
    for (const char* file : {COLLECTOR_CASES, READER_CASES})
    {
        json doc = json::parse(testsupport::readFile(file));
        for (auto& testCase : doc.at("cases"))
        {
            testCase["servers"] = doc.value("servers", json::object());
            cases.push_back({std::move(testCase)});
        }
    }
    return cases;
}

class Case : public ::testing::TestWithParam<Params>
{};

TEST_P(Case, Runs)
{
    try
    {
        CaseRun caseRun(GetParam().testCase);
        caseRun.run();
        caseRun.check();
    }
    catch (const Unsupported& missing)
    {
        if (std::getenv("QV_NO_SKIP") != nullptr)
        {
            FAIL() << "no " << missing.what() << " here (QV_NO_SKIP)";
        }
        GTEST_SKIP() << "no " << missing.what() << " here";
    }
}

INSTANTIATE_TEST_SUITE_P(, Case, ::testing::ValuesIn(allCases()),
                         [](const auto& info) {
    return info.param.testCase.at("name").template get<std::string>();
});

} // namespace
} // namespace e2e
