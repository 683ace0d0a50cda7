#include "callList.hpp"

#include <nlohmann/json.hpp>

#include <array>
#include <stdexcept>

namespace bench
{
namespace
{

struct Call
{
    std::string destination;
    std::string path;
    std::string interface;
    std::string member;
    std::string signature;
    std::vector<std::string> arguments; // an `as` is its elements, in place
};

struct Route
{
    const char* member;
    const char* destination;
    const char* interface;
    const char* signature;
};

// Where each method the collector calls lives on the simulated server.
constexpr auto routes = std::to_array<Route>({
    {"GetSubTree", "xyz.openbmc_project.ObjectMapper",
     "xyz.openbmc_project.ObjectMapper", "sias"},
    {"GetAll", "com.kest.omrix.storage", "org.freedesktop.DBus.Properties",
     "s"},
    {"Get", "com.kest.omrix.storage", "org.freedesktop.DBus.Properties", "ss"},
    {"GetSmartPDSASSATARawData", "com.kest.omrix.storage",
     "com.kest.omrix.storage.drive.service", "s"},
    {"GetSmartPDSATAHDDData", "com.kest.omrix.storage",
     "com.kest.omrix.storage.drive.service", "s"},
    {"GetSmartPDSASHDDData", "com.kest.omrix.storage",
     "com.kest.omrix.storage.drive.service", "s"},
});

void appendArgument(Call& call, const nlohmann::json& value)
{
    if (value.is_string())
    {
        call.arguments.push_back(value.get<std::string>());
    }
    else if (value.is_number_integer())
    {
        call.arguments.push_back(std::to_string(value.get<long long>()));
    }
    else if (value.is_array())
    {
        for (const auto& element : value)
        {
            appendArgument(call, element);
        }
    }
    else
    {
        throw std::runtime_error("unexpected argument " + value.dump());
    }
}

Call parseLine(const std::string& line)
{
    size_t afterMember = line.find(' ');
    size_t afterPath = line.find(' ', afterMember + 1);
    if (afterMember == std::string::npos || afterPath == std::string::npos)
    {
        throw std::runtime_error("bad call log line: " + line);
    }
    Call call;
    call.member = line.substr(0, afterMember);
    call.path = line.substr(afterMember + 1, afterPath - afterMember - 1);
    const Route* route = nullptr;
    for (const auto& candidate : routes)
    {
        if (call.member == candidate.member)
        {
            route = &candidate;
        }
    }
    if (route == nullptr)
    {
        throw std::runtime_error("no route for call: " + line);
    }
    call.destination = route->destination;
    call.interface = route->interface;
    call.signature = route->signature;
    auto arguments = nlohmann::json::parse(line.substr(afterPath + 1));
    for (const auto& argument : arguments)
    {
        appendArgument(call, argument);
    }
    return call;
}

// A word the shell passes on unchanged.
std::string shellWord(const std::string& word)
{
    if (word.find('\'') != std::string::npos)
    {
        throw std::runtime_error("quote in argument: " + word);
    }
    return "'" + word + "'";
}

} // namespace

std::string floorCallList(const std::vector<std::string>& loggedCalls)
{
    std::string list;
    for (const auto& line : loggedCalls)
    {
        Call call = parseLine(line);
        list += call.destination + '\t' + call.path + '\t' + call.interface +
                '\t' + call.member + '\t' + call.signature;
        for (const auto& argument : call.arguments)
        {
            list += '\t' + argument;
        }
        list += '\n';
    }
    return list;
}

std::string busctlScript(const std::vector<std::string>& loggedCalls)
{
    std::string script = "#!/bin/sh\nset -e\nexec >/tmp/busctl.out\n";
    for (const auto& line : loggedCalls)
    {
        Call call = parseLine(line);
        script += "busctl call " + call.destination + " " +
                  shellWord(call.path) + " " + call.interface + " " +
                  call.member + " " + call.signature;
        // An `as` ends a signature; busctl wants its element count first.
        size_t scalars = call.signature.ends_with("as")
                             ? call.signature.size() - 2
                             : call.signature.size();
        for (size_t i = 0; i < call.arguments.size(); ++i)
        {
            if (i == scalars)
            {
                script += " " + std::to_string(call.arguments.size() - i);
            }
            script += " " + shellWord(call.arguments[i]);
        }
        if (call.signature.ends_with("as") && call.arguments.size() == scalars)
        {
            script += " 0";
        }
        script += "\n";
    }
    return script;
}

} // namespace bench
