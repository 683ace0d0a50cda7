#include "scenarioBuilder.hpp"

#include <filesystem>
#include <fstream>

namespace e2e
{
namespace
{

// `value` put where the JSON pointer says; a '*' stands for every element.
void place(json& doc, const std::string& pointer, const json& value)
{
    auto star = pointer.find('*');
    if (star == std::string::npos)
    {
        doc[json::json_pointer(pointer)] = value;
        return;
    }
    auto& list = doc[json::json_pointer(pointer.substr(0, star - 1))];
    for (size_t i = 0; i < list.size(); ++i)
    {
        place(doc,
              pointer.substr(0, star) + std::to_string(i) +
                  pointer.substr(star + 1),
              value);
    }
}

// A LOG SENSE response kept as "<cdb>,<sense>,<response>" in hex, one line.
// The real drive data is not part of the project: without it the case is
// skipped.
std::string realResponse(const std::string& file)
{
    if (!std::filesystem::is_directory(REALDATA_DIR))
    {
        throw Unsupported(std::string("real drive data at ") + REALDATA_DIR);
    }
    std::string line =
        testsupport::readFile(std::string(REALDATA_DIR) + "/" + file);
    auto cut = line.rfind(',');
    if (line.empty() || cut == std::string::npos)
    {
        throw std::runtime_error(file + ": no LOG SENSE response");
    }
    line.erase(0, cut + 1);
    line.erase(line.find_last_not_of(" \r\n") + 1);
    return line;
}

// A hard drive's page given as {"real": file, "after": hex} takes the
// response of that file of the real data, followed by the octets of
// "after" (what else the buffer held).
void realPages(json& drive)
{
    for (const char* method : {"sasHdd", "sataHdd"})
    {
        if (!drive.contains(method) || !drive[method].contains("pages"))
        {
            continue;
        }
        for (auto& page : drive[method]["pages"])
        {
            if (page.contains("real"))
            {
                page["data"] = realResponse(page["real"]) + " " +
                               page.value("after", "");
                page.erase("real");
                page.erase("after");
            }
        }
    }
}

// An "inventory" row [name, fqdd, protocol, attributes] as the drive
// object the storage service shows for it.
json inventoryObject(const json& row)
{
    return {
        {"path", "/com/kest/omrix/storage/drive/" + row[0].get<std::string>()},
        {"interfaces",
         {{"com.kest.omrix.storage.drive.inventory",
           {{"Fqdd", {"s", row[1]}},
            {"Protocol", {"u", row[2]}},
            {"Attributes", {"u", row[3]}}}}}}};
}

// The named server (or the case's own) with its inventory rows as drive
// objects, then the case's "set" and the run's over it.
json scenarioOf(const json& testCase, const json& run)
{
    json doc = testCase.value("server", json("base"));
    if (doc.is_string())
    {
        doc = testCase.at("servers").at(doc.get<std::string>());
    }
    for (const auto& row : doc.value("inventory", json::array()))
    {
        doc["objects"].push_back(inventoryObject(row));
    }
    doc.erase("inventory");
    for (const json& changes : {testCase.value("set", json::object()),
                                run.value("set", json::object())})
    {
        for (const auto& [pointer, value] : changes.items())
        {
            place(doc, pointer, value);
        }
    }
    if (doc.contains("drives"))
    {
        for (auto& drive : doc["drives"])
        {
            realPages(drive);
        }
    }
    return doc;
}

} // namespace

void writeScenario(const CaseWorkspace& workspace, const json& testCase,
                   const json& run)
{
    json scenario = scenarioOf(testCase, run);
    scenario["callLog"] = workspace.callLogPath;
    std::ofstream(workspace.scenarioPath) << scenario.dump();
}

} // namespace e2e
