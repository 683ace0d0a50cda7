#include "caseWorkspace.hpp"

#include <fstream>
#include <sstream>

namespace e2e
{

using testsupport::readFile;

std::string textOf(const json& pieces)
{
    std::string text;
    if (pieces.is_array())
    {
        for (const auto& piece : pieces)
        {
            text += textOf(piece);
        }
    }
    else if (pieces.is_object())
    {
        for (int i = 0; i < pieces.at("times").get<int>(); ++i)
        {
            text += pieces.at("repeat").get<std::string>();
        }
    }
    else if (auto piece = pieces.get<std::string>(); piece.starts_with("@"))
    {
        auto colon = piece.find(':');
        text = readFile(std::string(EXPECTED_DIR) + "/" +
                        piece.substr(1, colon - 1));
        if (colon != std::string::npos)
        {
            text.resize(std::stoul(piece.substr(colon + 1)));
        }
    }
    else
    {
        text = piece;
    }
    return text;
}

std::string substituted(std::string text,
                        const std::map<std::string, std::string>& values)
{
    for (const auto& [name, value] : values)
    {
        for (size_t at = text.find(name); at != std::string::npos;
             at = text.find(name, at + value.size()))
        {
            text.replace(at, name.size(), value);
        }
    }
    return text;
}

void CaseWorkspace::seed(const std::string& inside, const std::string& text)
{
    seeded[inside] = text;
    std::ofstream(sandbox.hostPath(inside), std::ios::binary) << text;
}

int CaseWorkspace::callsOf(const std::string& member) const
{
    int made = 0;
    std::istringstream lines(readFile(callLogPath));
    for (std::string line; std::getline(lines, line);)
    {
        made += line.starts_with(member + " ") ? 1 : 0;
    }
    return made;
}

std::map<std::string, std::string> CaseWorkspace::placeholders() const
{
    return {{"{logs}", sandbox.hostPath(testsupport::smartLogsPath)},
            {"{raw}", sandbox.hostPath(testsupport::smartRawDataPath)},
            {"{root}", sandbox.hostPath("")},
            {"{scenario}", scenarioPath},
            {"{daily}", sandbox.hostPath(testsupport::dailyDir)}};
}

} // namespace e2e
