#pragma once

#include "dlogCapture.hpp"
#include "qvDbusCollectSmartData.hpp"
#include "tempDir.hpp"

#include <iostream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace collectortest
{

// The collector's own log lines as "level|text", with the source line
// number replaced by '#' so the expectations survive edits of the file.
inline std::vector<std::string> collectorLines(const dlog::Capture& capture)
{
    static const std::regex lineNumber("^(qvDbusCollectSmartData\\.)[0-9]+");
    std::vector<std::string> lines;
    for (const auto& [level, module, text] : capture.records())
    {
        if (module == 171)
        {
            lines.push_back(std::to_string(level) + "|" +
                            std::regex_replace(text, lineNumber, "$1#"));
        }
    }
    return lines;
}

// Everything written to std::cerr while alive.
struct CerrCapture
{
    std::ostringstream text;
    std::streambuf* previous = std::cerr.rdbuf(text.rdbuf());

    ~CerrCapture()
    {
        std::cerr.rdbuf(previous);
    }
};

} // namespace collectortest
