#include "childProcess.hpp"
#include "simClient.hpp"

namespace simtest
{
namespace
{

struct BadCase
{
    const char* scenario;
    const char* complaint; // part of the message on standard error
};

// Each file is refused before any name is taken, with the member at fault
// named.
const std::vector<BadCase> badCases = {
    {R"({"objects": [)", "not valid JSON"},
    {"[]", "scenario: expected a JSON object"},
    {R"({"names": {"mapper": 1}})", "scenario.names.mapper: expected true"},
    {R"({"objects": [{"path": "no/slash"}]})",
     "scenario.objects[0].path: \"no/slash\" is not a valid object path"},
    {R"({"objects": [{"path": "/a", "intefaces": {}}]})",
     "scenario.objects[0]: unknown member \"intefaces\""},
    {R"({"objects": [{"path": "/a"}, {"path": "/a"}]})",
     "scenario.objects[1]: path and service are listed twice"},
    {R"({"objects": [{"path": "/a", "interfaces": {"x.Y": {"P": ["u", -1]}}}]})",
     "scenario.objects[0].interfaces.x.Y.P: value -1 for type u"},
    {R"({"objects": [{"path": "/a", "interfaces": {"x.Y": {"P": ["o", "x"]}}}]})",
     "scenario.objects[0].interfaces.x.Y.P: value \"x\" for type o refused"},
    {R"({"objects": [{"path": "/a", "interfaces": {"x.Y": {"P": ["a{vs}", {}]}}}]})",
     "dictionary key in \"a{vs}\" is not a basic type"},
    {R"j({"objects": [{"path": "/a", "interfaces": {"x.Y": {"P": ["(yy)", [1]]}}}]})j",
     "expected an array of 2 members"},
    {R"({"objects": [{"path": "/a", "getAll": {"delayMs": "5"}}]})",
     "scenario.objects[0].getAll.delayMs: expected an integer"},
    {R"({"mapper": {"error": {"name": "NoDots"}}})",
     "scenario.mapper.error.name: \"NoDots\" is not a valid D-Bus error name"},
    {R"({"mapper": {"error": {"name": "a.B"}, "reply": {"signature": ""}}})",
     "\"error\" cannot be combined"},
    {R"({"mapper": {"noReply": true, "delayMs": 5}})",
     "\"noReply\" cannot be combined"},
    {R"({"mapper": {"reply": {"signature": "ss", "values": ["a"]}}})",
     "scenario.mapper.reply: \"values\" must hold one value per complete type"},
    {R"({"mapper": {"extra": {"signature": "u", "values": ["a"]}}})",
     "scenario.mapper.extra: value \"a\" for type u"},
    {R"({"drives": {"D": {"rawData": {"data": "0g"}}}})",
     "scenario.drives.D.rawData.data: hex data has a bad digit pair"},
    {R"({"drives": {"D": {"rawData": {"data": "00", "dataLength": 1}}}})",
     "give \"data\" or \"dataLength\""},
    {R"({"drives": {"D": {"rawData": {"status": [0]}}}})",
     "scenario.drives.D.rawData.status: expected [primaryErr, secondaryErr]"},
    {R"({"drives": {"D": {"sataHdd": {"pages": [{}, {}, {}, {}, {}, {}]}}}})",
     "scenario.drives.D.sataHdd.pages: at most 5 pages"},
    {R"({"drives": {"D": {"sasHdd": {"pages": [{"length": 65536}]}}}})",
     "scenario.drives.D.sasHdd.pages[0].length: expected an integer from 0 "
     "to 65535"},
    {R"({"drives": {"D": {"sasHdd": {"pages": [{"dataLength": 65536}]}}}})",
     "needs an explicit \"length\""},
    {R"({"drives": {"D": {"nvme": {}}}})",
     "scenario.drives.D: unknown member \"nvme\""},
};

TEST_F(SimTest, badScenariosAreRefusedWithTheMemberNamed)
{
    const std::string simPath = testsupport::Simulator::executablePath();
    for (const auto& c : badCases)
    {
        SCOPED_TRACE(c.scenario);
        std::string file = dir.write("bad.json", c.scenario);
        auto run = testsupport::runProgram({simPath, "--scenario", file},
                                           bus.environment(),
                                           std::chrono::seconds(10));
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err.find(c.complaint), std::string::npos) << run.err;
    }
}

TEST_F(SimTest, commandLineMistakesAreRefused)
{
    const std::string simPath = testsupport::Simulator::executablePath();
    const std::vector<std::vector<std::string>> cases = {
        {simPath},
        {simPath, "--scenario"},
        {simPath, "--scenario", dir.file("missing.json")},
    };
    for (const auto& argv : cases)
    {
        auto run = testsupport::runProgram(argv, bus.environment(),
                                           std::chrono::seconds(10));
        EXPECT_EQ(run.exitCode, 2) << run.err;
        EXPECT_NE(run.err.find("storage-sim"), std::string::npos);
    }
}

TEST_F(SimTest, namesOwnedElsewhereStopTheStart)
{
    serve(R"({"names": {"storage": false}})");
    std::string file =
        dir.write("second.json", R"({"names": {"mapper": false}})");
    auto free = testsupport::runProgram(
        {"/usr/bin/timeout", "--preserve-status", "-s", "TERM", "1",
         testsupport::Simulator::executablePath(), "--scenario", file},
        bus.environment(), std::chrono::seconds(10));
    EXPECT_EQ(free.out, "ready\n");
    file = dir.write("third.json", "{}");
    auto taken = testsupport::runProgram(
        {testsupport::Simulator::executablePath(), "--scenario", file},
        bus.environment(), std::chrono::seconds(10));
    EXPECT_EQ(taken.exitCode, 1);
    EXPECT_EQ(taken.out, "");
    EXPECT_NE(taken.err.find("xyz.openbmc_project.ObjectMapper is already "
                             "owned by another connection"),
              std::string::npos)
        << taken.err;
}

// Members of other readers of the same file, and comments, are left alone;
// "--scenario=FILE" works as well.
TEST_F(SimTest, foreignMembersAreIgnored)
{
    serve(R"({"comment": "x", "sasSata": {"entries": [{"fqdd": "A"}]},
              "nvme": {"status": 1}, "objects": [{"comment": "y",
              "path": "/a", "interfaces": {"x.Y": {"P": ["u", 3]}}}]})");
    EXPECT_EQ(client->getAll("/a", "x.Y").body,
              Json::parse(R"([[["P", ["u", 3]]]])"));
    sim.reset();
    std::string file = dir.write("joined.json", "{}");
    auto run = testsupport::runProgram(
        {"/usr/bin/timeout", "--preserve-status", "-s", "TERM", "1",
         testsupport::Simulator::executablePath(), "--scenario=" + file},
        bus.environment(), std::chrono::seconds(10));
    EXPECT_EQ(run.out, "ready\n");
    EXPECT_EQ(run.exitCode, 0) << run.err;
}

} // namespace
} // namespace simtest
