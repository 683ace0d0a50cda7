#include "historyOptions.hpp"

#include "benchReport.hpp"

#include <cstdlib>
#include <iostream>

namespace bench::history
{
namespace
{

[[noreturn]] void usage()
{
    std::cerr << "usage: qv-bench-history [--days D] [--runs R] [--memory "
                 "[--raw-octets B]] DIR [N]\n";
    std::exit(64);
}

int positive(const std::string& text)
{
    const auto value = bench::positiveNumber(text);
    if (!value)
    {
        usage();
    }
    return *value;
}

} // namespace

Options parseOptions(const std::vector<std::string>& args)
{
    Options options;
    size_t next = 0;
    for (; next + 1 < args.size() && args[next].starts_with('-'); next += 2)
    {
        if (args[next] == "--days")
        {
            options.days = positive(args[next + 1]);
        }
        else if (args[next] == "--runs")
        {
            options.runs = positive(args[next + 1]);
        }
        else if (args[next] == "--raw-octets")
        {
            options.rawOctets = positive(args[next + 1]);
        }
        else if (args[next] == "--memory")
        {
            options.memory = true;
            --next;
        }
        else
        {
            usage();
        }
    }
    size_t left = args.size() - next;
    if (left < 1 || left > 2)
    {
        usage();
    }
    options.dir = args[next];
    if (left == 2)
    {
        options.drives = positive(args[next + 1]);
    }
    return options;
}

} // namespace bench::history
