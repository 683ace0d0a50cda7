#pragma once

#include "testSupport.hpp"

#include <chrono>
#include <string>
#include <vector>

namespace bench
{

// What one finished run cost.
struct Measurement
{
    int exitCode = -1; // -1 when the program was killed by a signal
    int termSignal = 0;
    // From the moment the program is forked until it has been reaped.
    std::chrono::nanoseconds wallTime{0};
    std::chrono::microseconds cpuTime{0}; // user and system, its children's too
    std::chrono::microseconds systemTime{0}; // the system part of cpuTime
    long peakRssKiB = 0; // the largest of the program and its children
};

// Runs a program to its end with its standard error sent to `errorFile` and
// its standard output to `outputFile`, and measures it. Waits without a
// timeout: a benchmark that hangs is to be seen, not hidden. The child is
// forked from this process, whose anonymous memory it shares until it
// executes the program: keep the caller small.
Measurement measureProgram(const std::vector<std::string>& argv,
                           const testsupport::EnvChanges& env,
                           const std::string& errorFile,
                           const std::string& outputFile = "/dev/null");

} // namespace bench
