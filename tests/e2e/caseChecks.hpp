#pragma once

#include "caseWorkspace.hpp"

namespace e2e
{

// A run's exit code, killing signal and standard error; a failed run
// clears allSucceeded, as its reports need not be readable.
void checkRunResult(CaseWorkspace& workspace, const json& run,
                    const testsupport::RunResult& result);

// What the case wants of its runs together: log lines, the simulator's
// calls, the files it names (and no other dated file), reader runs.
void checkOutcome(const CaseWorkspace& workspace, const json& testCase);

} // namespace e2e
