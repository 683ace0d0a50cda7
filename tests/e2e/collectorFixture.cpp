#include "collectorFixture.hpp"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <regex>
#include <sstream>

namespace e2e
{

Server::Server()
{
    doc = {{"sasSata", {{"entries", json::array()}}},
           {"nvme", {{"entries", json::array()}}},
           {"objects", json::array()},
           {"drives", json::object()}};
}

Server& Server::tableEntry(const std::string& key, const std::string& fqdd,
                           uint32_t protocol, uint32_t attributes,
                           const json& values)
{
    json entry = values;
    entry["key"] = key;
    entry["fqdd"] = fqdd;
    entry["protocol"] = protocol;
    entry["attributes"] = attributes;
    doc["sasSata"]["entries"].push_back(entry);
    return *this;
}

Server& Server::nvmeEntry(const std::string& key, const std::string& fqdd,
                          uint32_t protocol, const json& values)
{
    json entry = values;
    entry["key"] = key;
    entry["fqdd"] = fqdd;
    entry["protocol"] = protocol;
    doc["nvme"]["entries"].push_back(entry);
    return *this;
}

Server& Server::inventoryDrive(const std::string& name, const std::string& fqdd,
                               uint32_t protocol, uint32_t attributes)
{
    json properties = {{"Fqdd", {"s", fqdd}},
                       {"Protocol", {"u", protocol}},
                       {"Attributes", {"u", attributes}}};
    doc["objects"].push_back({{"path", "/com/kest/omrix/storage/drive/" + name},
                              {"interfaces", {{driveInventory, properties}}}});
    return *this;
}

Server& Server::rawData(const std::string& fqdd, const json& answer)
{
    doc["drives"][fqdd]["rawData"] = answer;
    return *this;
}

Server& Server::sasPages(const std::string& fqdd, const json& answer)
{
    doc["drives"][fqdd]["sasHdd"] = answer;
    return *this;
}

Server& Server::sataPages(const std::string& fqdd, const json& answer)
{
    doc["drives"][fqdd]["sataHdd"] = answer;
    return *this;
}

RunResult CollectorTest::run(const Server& server,
                             const std::vector<std::string>& args,
                             const EnvChanges& env)
{
    std::string scenario = dir.write("scenario.json", server.doc.dump(2));
    sim.reset();
    sim = std::make_unique<testsupport::Simulator>(scenario, bus);
    auto result = root->run(args, bus, scenario, env);
    if (result.exitCode == 0 && expectWellFormed)
    {
        for (const auto& dirName :
             {"/mmc2/qvcollection/vok/storagelog", testsupport::dailyDir})
        {
            std::error_code ec;
            for (const auto& entry : std::filesystem::directory_iterator(
                     root->hostPath(dirName), ec))
            {
                EXPECT_EQ(malformation(testsupport::readFile(entry.path())), "")
                    << entry.path();
                // The report reader must take every report the collector
                // writes.
                auto reader = readWithReportTool(entry.path().string());
                EXPECT_EQ(reader.exitCode, 0) << entry.path() << reader.err;
            }
        }
    }
    return result;
}

RunResult readWithReportTool(const std::string& file)
{
    return testsupport::runProgram(testsupport::targetCommand(
        {QV_SMART_REPORT_PATH, "--format", "json", file}));
}

namespace
{

// A small reader for the report documents' grammar.
class DocumentReader
{
public:
    explicit DocumentReader(const std::string& text) : text(text)
    {}

    std::string check()
    {
        skipSpace();
        if (at == text.size())
        {
            return "no document";
        }
        while (at < text.size() && error.empty())
        {
            object();
            skipSpace();
        }
        return error;
    }

private:
    const std::string& text;
    size_t at = 0;
    std::string error;

    void fail(const std::string& what)
    {
        if (error.empty())
        {
            error = what + " at offset " + std::to_string(at);
        }
        at = text.size();
    }
    void skipSpace()
    {
        while (at < text.size() &&
               std::isspace(static_cast<unsigned char>(text[at])) != 0)
        {
            ++at;
        }
    }
    bool take(char c)
    {
        skipSpace();
        if (at < text.size() && text[at] == c)
        {
            ++at;
            return true;
        }
        return false;
    }
    void quoted()
    {
        if (!take('"'))
        {
            return fail("expected a quoted text");
        }
        auto end = text.find('"', at);
        if (end == std::string::npos)
        {
            return fail("unterminated text");
        }
        at = end + 1;
    }
    void object()
    {
        if (!take('{'))
        {
            return fail("expected '{'");
        }
        while (error.empty() && !take('}'))
        {
            quoted();
            if (!take(':'))
            {
                return fail("expected ':'");
            }
            skipSpace();
            if (at < text.size() && text[at] == '{')
            {
                object();
            }
            else
            {
                quoted();
            }
            if (!take(','))
            {
                if (!take('}'))
                {
                    return fail("expected ',' or '}'");
                }
                return;
            }
        }
    }
};

} // namespace

std::string malformation(const std::string& text)
{
    return DocumentReader(text).check();
}

std::vector<std::string> CollectorTest::logLines() const
{
    static const std::regex lineNumber(
        R"(\|(qvDbusCollect[A-Za-z]+)\.[0-9]+([.:]))");
    std::vector<std::string> lines;
    std::istringstream in(root->log());
    for (std::string line; std::getline(in, line);)
    {
        lines.push_back(std::regex_replace(line, lineNumber, "|$1.L$2"));
    }
    return lines;
}

bool CollectorTest::logged(const std::string& line) const
{
    auto lines = logLines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::string CollectorTest::smartLogs() const
{
    return root->read(testsupport::smartLogsPath);
}

std::string CollectorTest::rawData() const
{
    return root->read(testsupport::smartRawDataPath);
}

std::vector<std::string> CollectorTest::dailyFiles() const
{
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(
             root->hostPath(testsupport::dailyDir), ec))
    {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string countingHex(unsigned first, unsigned count)
{
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned i = 0; i < count; ++i)
    {
        unsigned octet = (first + i) & 0xffu;
        hex += digits[octet >> 4];
        hex += digits[octet & 0xfu];
    }
    return hex;
}

} // namespace e2e
