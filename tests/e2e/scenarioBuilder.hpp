#pragma once

#include "caseWorkspace.hpp"

namespace e2e
{

// Writes the scenario the simulator serves for `testCase` (and `run`) to
// the workspace's scenario file, with the call log the checks count in.
void writeScenario(const CaseWorkspace& workspace, const json& testCase,
                   const json& run = json::object());

} // namespace e2e
