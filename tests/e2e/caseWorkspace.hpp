#pragma once

#include "testSupport.hpp"

#include <nlohmann/json.hpp>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace e2e
{

using nlohmann::json;

// What the machine running the case lacks: the real drive data beside the
// checkout, or fanotify (qemu-user, which runs a cross build's case runner,
// has none). The case is skipped there, unless QV_NO_SKIP says that this
// machine must have everything.
struct Unsupported : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

// Expected text: a string, or an array of pieces joined, where "@name"
// stands for the file `name` of the expected directory, "@name:N" for its
// first N octets, and {"repeat": text, "times": n} for text n times over.
// Setup steps write their files in the same notation.
std::string textOf(const json& pieces);

// `text` with every placeholder name of `values` replaced by its value.
std::string substituted(std::string text,
                        const std::map<std::string, std::string>& values);

// The sandbox one case runs in and what its steps leave for the checks:
// the earlier text seeded into each file (a file's new bytes start after
// it), the local date of the latest run (dated names and log lines carry
// it), whether every run succeeded, the daily files renamed to other days.
struct CaseWorkspace
{
    testsupport::Sandbox sandbox;
    const std::string scenarioPath = sandbox.dir() + "/scenario.json";
    const std::string callLogPath = sandbox.dir() + "/calls.log";
    const std::string logPath = sandbox.dir() + "/dlog.log";
    std::map<std::string, std::string> seeded;
    std::string date;
    bool allSucceeded = true;
    std::vector<std::string> redated;

    void seed(const std::string& inside, const std::string& text);
    // The calls of `member` in the simulator's call log, one line each.
    int callsOf(const std::string& member) const;
    // What a case's arguments and texts may name the sandbox's files by.
    std::map<std::string, std::string> placeholders() const;
};

} // namespace e2e
