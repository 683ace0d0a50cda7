#pragma once

#include <string>
#include <vector>

namespace bench::history
{

// What qv-bench-history is asked to measure (its usage is in
// historyBench.cpp).
struct Options
{
    int days = 365;
    int runs = 5;
    std::string dir;
    int drives = 24;
    bool memory = false;
    // The raw-data reply of the memory runs' large raw report.
    int rawOctets = 16 * 1024 * 1024;
};

// The options from the command line's arguments after the program's name;
// bad usage ends the program with exit code 64.
Options parseOptions(const std::vector<std::string>& args);

} // namespace bench::history
