#pragma once

#include <string>
#include <vector>

namespace bench
{

// Both take the lines the storage simulator logs for calls it receives,
// `<member> <object path> <arguments as a JSON array>`, and throw
// std::runtime_error on a line they cannot turn into a call.

// The call list qv-bench-floor reads: one tab-separated call per line.
std::string floorCallList(const std::vector<std::string>& loggedCalls);

// A shell script making the same calls with `busctl call`, writing every
// reply to /tmp/busctl.out, as a collection done in shell would.
std::string busctlScript(const std::vector<std::string>& loggedCalls);

} // namespace bench
