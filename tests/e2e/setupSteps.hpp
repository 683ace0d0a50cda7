#pragma once

#include "caseWorkspace.hpp"

#include <memory>

namespace e2e
{

class HeldOpens;

// Seeds the earlier documents into both report files, then takes a case's
// "setup" steps in order (tests/README.md lists them). Returns the opens a
// step holds back (none: null), held for as long as the pointer lives.
std::shared_ptr<HeldOpens> takeSetupSteps(CaseWorkspace& workspace,
                                          const json& steps);

// A run's "fill": a file that takes every free block of its file system,
// as a controller's flash fills up between two runs.
void fillDisk(const CaseWorkspace& workspace, const std::string& inside);

} // namespace e2e
