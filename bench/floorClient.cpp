// The floor of a collection: a bare sd-bus client that makes a given list of
// method calls, one round trip each, and does nothing with the replies. What
// the collector costs beyond this is its own work.
//
//   qv-bench-floor CALLS
//
// CALLS has one call per line, fields separated by tabs:
//   destination  path  interface  member  signature  argument...
// The signature is made of `s`, `i` and at most one `as` at its end, which
// takes all remaining fields. Exit code 0 when every call got a reply, 1 on
// an error reply or a bus failure, 64 on a bad command line or call list.

#include "sdBusHandles.hpp"

#include <systemd/sd-bus.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

namespace
{

using storagesim::BusPtr;
using storagesim::MessagePtr;

struct BadCall
{
    std::string reason;
};

std::vector<std::string> splitTabs(const std::string& line)
{
    std::vector<std::string> fields;
    size_t start = 0;
    while (true)
    {
        size_t tab = line.find('\t', start);
        fields.push_back(line.substr(start, tab - start));
        if (tab == std::string::npos)
        {
            return fields;
        }
        start = tab + 1;
    }
}

// Appends fields[first...] by `signature`; a negative result is sd-bus's.
int appendArguments(sd_bus_message* call, const std::string& signature,
                    const std::vector<std::string>& fields, size_t first)
{
    size_t next = first;
    for (size_t i = 0; i < signature.size(); ++i)
    {
        int r = 0;
        if (signature.compare(i, std::string::npos, "as") == 0)
        {
            std::vector<char*> strings;
            for (; next < fields.size(); ++next)
            {
                strings.push_back(const_cast<char*>(fields[next].c_str()));
            }
            strings.push_back(nullptr);
            return sd_bus_message_append_strv(call, strings.data());
        }
        if (next >= fields.size())
        {
            throw BadCall{"too few arguments"};
        }
        const std::string& field = fields[next++];
        if (signature[i] == 's')
        {
            r = sd_bus_message_append_basic(call, 's', field.c_str());
        }
        else if (signature[i] == 'i')
        {
            int32_t value = 0;
            const char* end = field.data() + field.size();
            if (std::from_chars(field.data(), end, value).ptr != end)
            {
                throw BadCall{"not a number: " + field};
            }
            r = sd_bus_message_append_basic(call, 'i', &value);
        }
        else
        {
            throw BadCall{"unsupported signature " + signature};
        }
        if (r < 0)
        {
            return r;
        }
    }
    if (next != fields.size())
    {
        throw BadCall{"too many arguments"};
    }
    return 0;
}

// One round trip; false after printing why it failed.
bool callOnce(sd_bus* bus, const std::vector<std::string>& fields)
{
    if (fields.size() < 5)
    {
        throw BadCall{"fewer than five fields"};
    }
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus, &raw, fields[0].c_str(),
                                           fields[1].c_str(), fields[2].c_str(),
                                           fields[3].c_str());
    MessagePtr call(raw);
    if (r >= 0)
    {
        r = appendArguments(call.get(), fields[4], fields, 5);
    }
    sd_bus_error error{}; // SD_BUS_ERROR_NULL, without its C compound literal
    sd_bus_message* rawReply = nullptr;
    if (r >= 0)
    {
        r = sd_bus_call(bus, call.get(), 0, &error, &rawReply);
    }
    MessagePtr reply(rawReply);
    if (r < 0)
    {
        std::cerr << "qv-bench-floor: " << fields[3] << " " << fields[1] << ": "
                  << (error.name != nullptr ? error.name : std::strerror(-r))
                  << "\n";
    }
    sd_bus_error_free(&error);
    return r >= 0;
}

} // namespace

int main(int argc, char* argv[])
{
    if (argc != 2)
    {
        std::cerr << "usage: qv-bench-floor CALLS\n";
        return 64;
    }
    std::ifstream calls(argv[1]);
    if (!calls)
    {
        std::cerr << "qv-bench-floor: cannot read " << argv[1] << "\n";
        return 64;
    }
    sd_bus* raw = nullptr;
    int r = sd_bus_open_system(&raw);
    BusPtr bus(raw);
    if (r < 0)
    {
        std::cerr << "qv-bench-floor: no bus: " << std::strerror(-r) << "\n";
        return 1;
    }
    size_t lineNumber = 0;
    try
    {
        for (std::string line; std::getline(calls, line);)
        {
            ++lineNumber;
            if (!callOnce(bus.get(), splitTabs(line)))
            {
                return 1;
            }
        }
    }
    catch (const BadCall& bad)
    {
        std::cerr << "qv-bench-floor: " << argv[1] << ":" << lineNumber << ": "
                  << bad.reason << "\n";
        return 64;
    }
    return 0;
}
