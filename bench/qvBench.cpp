// Measures the shipped collector against the floor of its work: the same
// D-Bus round trips made by a bare sd-bus client, and against a shell script
// of `busctl call`s making them too.
//
//   qv-bench [--runs R] [--busctl-runs B] DIR N...
//
// DIR holds scenario-N.json and tables-N.json for each N (make-scenario.py
// writes them). Per server size it starts a private dbus-daemon and the
// storage simulator, records the calls the collector makes, checks that the
// floor client and the busctl script make exactly the same calls, and then
// runs the floor and the collector R times, interleaved, then the script B
// times, each from a fresh process in the same private root. It prints a
// Markdown table and whether the targets are met; exit code 0 when they all
// are, 3 when one is missed.

#include "benchReport.hpp"
#include "callList.hpp"
#include "measure.hpp"
#include "testSupport.hpp"

#include <malloc.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

namespace fs = std::filesystem;
using bench::Measurement;
using testsupport::PrivateBus;

// A command line and its environment changes.
struct Command
{
    std::vector<std::string> argv;
    testsupport::EnvChanges env;
};

std::string readText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
    {
        throw std::runtime_error("cannot read " + path);
    }
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Copies a scenario and adds a call log to it, so the simulator writes one
// line per call it receives. Streams the file: this process stays small.
void writeWithCallLog(const std::string& scenario, const std::string& copy,
                      const std::string& log)
{
    std::ifstream in(scenario, std::ios::binary);
    std::ofstream out(copy, std::ios::binary);
    in >> std::ws;
    if (in.get() != '{')
    {
        throw std::runtime_error(scenario + " is not a JSON object");
    }
    out << R"({"callLog": ")" << log << R"(", )" << in.rdbuf();
    if (!out.flush())
    {
        throw std::runtime_error("cannot write " + copy);
    }
}

// Lines a call log gained since `seen` lines were read.
std::vector<std::string> newLines(const std::string& log, size_t& seen)
{
    std::vector<std::string> lines;
    std::istringstream in(readText(log));
    size_t number = 0;
    for (std::string line; std::getline(in, line); ++number)
    {
        if (number >= seen)
        {
            lines.push_back(line);
        }
    }
    seen = number;
    return lines;
}

void expectSameCalls(const std::vector<std::string>& expected,
                     const std::vector<std::string>& got, const char* who)
{
    if (expected == got)
    {
        return;
    }
    auto [left, right] = std::mismatch(expected.begin(), expected.end(),
                                       got.begin(), got.end());
    std::string wanted = left != expected.end() ? *left : "(end)";
    std::string made = right != got.end() ? *right : "(end)";
    throw std::runtime_error(std::string(who) + " made other calls than " +
                             "the collector: call " +
                             std::to_string(left - expected.begin() + 1) +
                             " is `" + made + "`, expected `" + wanted + "`");
}

void expectSuccess(const testsupport::RunResult& result, const char* who)
{
    if (result.exitCode != 0)
    {
        throw std::runtime_error(std::string(who) + " failed with exit code " +
                                 std::to_string(result.exitCode) + ": " +
                                 result.err);
    }
}

struct Setup
{
    std::string scenarioFile;
    std::string tablesFile;
    int runs = 15;
    int busctlRuns = 3;
};

// One server size: the private bus and root, and the programs to compare.
class SizeBench
{
  public:
    explicit SizeBench(const Setup& setup) : setup(setup)
    {
        // The collector sees only the sandbox's directory of the host's.
        std::string tables = root.dir() + "/tables.json";
        fs::copy_file(setup.tablesFile, tables);
        collector = {root.collectorCommand({"0"}),
                     root.collectorEnvironment(bus, tables)};
        floor = {root.confine(testsupport::targetCommand(
                                  {QV_BENCH_FLOOR_PATH, floorCalls()}),
                              fs::path(QV_BENCH_FLOOR_PATH).parent_path()),
                 bus.environment()};
        script = {root.confine({"/bin/sh", busctlScript()}, {}),
                  bus.environment()};
        baseline = {root.confine({"/bin/true"}, {}), bus.environment()};
    }

    // Runs everything once against a recording simulator; returns the number
    // of round trips, after checking all three made the same calls.
    size_t record()
    {
        std::string log = scratch.path() + "/calls.log";
        std::string scenario = scratch.path() + "/recording.json";
        writeWithCallLog(setup.scenarioFile, scenario, log);
        testsupport::Simulator simulator(scenario, bus);
        size_t seen = 0;

        expectSuccess(runInRoot(collector), "the collector");
        auto calls = newLines(log, seen);
        std::ofstream(floorCalls()) << bench::floorCallList(calls);
        std::ofstream(busctlScript()) << bench::busctlScript(calls);

        expectSuccess(runInRoot(floor), "the floor client");
        expectSameCalls(calls, newLines(log, seen), "the floor client");
        expectSuccess(runInRoot(script), "the busctl script");
        expectSameCalls(calls, newLines(log, seen), "the busctl script");
        return calls.size();
    }

    bench::SizeResult measure()
    {
        testsupport::Simulator simulator(setup.scenarioFile, bus);
        bench::SizeResult result;
        for (int run = 0; run < setup.runs; ++run)
        {
            result.baseline.push_back(measureOne(baseline, "/bin/true"));
            result.floor.push_back(measureOne(floor, "the floor client"));
            removeReports();
            result.collector.push_back(measureOne(collector, "the collector"));
        }
        // Apart from the others: a thousand busctl connections keep the
        // daemon busy for a while after the script ends.
        for (int run = 0; run < setup.busctlRuns; ++run)
        {
            result.busctl.push_back(measureOne(script, "busctl script"));
        }
        result.reportBytes =
            fs::file_size(root.hostPath(testsupport::smartLogsPath)) +
            fs::file_size(root.hostPath(testsupport::smartRawDataPath));
        return result;
    }

  private:
    const Setup& setup;
    testsupport::TempDir scratch;
    PrivateBus bus;
    testsupport::Sandbox root;
    Command collector;
    Command floor;
    Command script;
    Command baseline;

    std::string floorCalls() const
    {
        return root.dir() + "/floor-calls.txt";
    }

    std::string busctlScript() const
    {
        return root.dir() + "/busctl.sh";
    }

    static testsupport::RunResult runInRoot(const Command& command)
    {
        return testsupport::runProgram(command.argv, command.env,
                                       std::chrono::minutes(5));
    }

    Measurement measureOne(const Command& command, const char* who)
    {
        std::string errors = scratch.path() + "/stderr.txt";
        auto measured = bench::measureProgram(command.argv, command.env,
                                              errors);
        if (measured.exitCode != 0)
        {
            throw std::runtime_error(std::string(who) + " failed (exit code " +
                                     std::to_string(measured.exitCode) +
                                     "): " + readText(errors));
        }
        return measured;
    }

    void removeReports()
    {
        fs::remove(root.hostPath(testsupport::smartLogsPath));
        fs::remove(root.hostPath(testsupport::smartRawDataPath));
    }
};

[[noreturn]] void usage()
{
    std::cerr << "usage: qv-bench [--runs R] [--busctl-runs B] DIR N...\n";
    std::exit(64);
}

// DIR/KIND-N.json, as make-scenario.py names its files.
std::string sizeFile(const std::string& dir, const char* kind,
                     const std::string& size)
{
    return dir + "/" + kind + "-" + size + ".json";
}

int positive(const char* text)
{
    const auto value = bench::positiveNumber(text);
    if (!value)
    {
        usage();
    }
    return *value;
}

} // namespace

int main(int argc, char* argv[])
{
    int runs = 15;
    int busctlRuns = 3;
    int next = 1;
    for (; next + 1 < argc && argv[next][0] == '-'; next += 2)
    {
        std::string option = argv[next];
        if (option == "--runs")
        {
            runs = positive(argv[next + 1]);
        }
        else if (option == "--busctl-runs")
        {
            busctlRuns = positive(argv[next + 1]);
        }
        else
        {
            usage();
        }
    }
    if (argc - next < 2)
    {
        usage();
    }
    const std::string dir = argv[next++];
    std::vector<bench::SizeResult> results;
    try
    {
        for (; next < argc; ++next)
        {
            const std::string size = argv[next];
            Setup setup{sizeFile(dir, "scenario", size),
                        sizeFile(dir, "tables", size), runs, busctlRuns};
            SizeBench sizeBench(setup);
            size_t roundTrips = sizeBench.record();
            // Every measured program starts as a fork of this process: hand
            // the recording's memory back first.
            malloc_trim(0);
            auto result = sizeBench.measure();
            result.drives = positive(size.c_str());
            result.roundTrips = roundTrips;
            std::cerr << "qv-bench: " << size << " drives measured\n";
            results.push_back(std::move(result));
        }
    }
    catch (const std::exception& e)
    {
        std::cerr << "qv-bench: " << e.what() << "\n";
        return 1;
    }
    std::cout << bench::resultTable(results) << "\n";
    auto verdicts = bench::checkTargets(results);
    std::cout << verdicts.text;
    return verdicts.allMet ? 0 : 3;
}
