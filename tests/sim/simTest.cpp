#include "childProcess.hpp"
#include "privateBus.hpp"
#include "simulator.hpp"
#include "tempDir.hpp"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <tuple>
#include <vector>

namespace
{

using Json = nlohmann::ordered_json;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

const char* const inventory = "com.kest.omrix.storage.drive.inventory";
const std::string drive = "/com/kest/omrix/storage/drive";
const std::string sata = "(tt)yuutussayyqayyqayyqayyqayyq";

struct Target
{
    std::string destination;
    std::string path;
    std::string interface;
};

const Target mapper = {"xyz.openbmc_project.ObjectMapper",
                       "/xyz/openbmc_project/object_mapper",
                       "xyz.openbmc_project.ObjectMapper"};
const Target storage = {"com.kest.omrix.storage", drive,
                        "com.kest.omrix.storage.drive.service"};

Target properties(const std::string& path)
{
    return {storage.destination, path, "org.freedesktop.DBus.Properties"};
}

void check(int result)
{
    if (result < 0)
    {
        throw std::system_error(-result, std::generic_category(), "sd-bus");
    }
}

// Structures, arrays and dictionary entries as JSON arrays, variants as
// [signature, value].
Json readValue(sd_bus_message* message)
{
    char type = 0;
    const char* contents = nullptr;
    check(sd_bus_message_peek_type(message, &type, &contents));
    if (std::string_view("arev").find(type) != std::string_view::npos)
    {
        check(sd_bus_message_enter_container(message, type, contents));
        Json items = type == 'v' ? Json::array({contents}) : Json::array();
        while (sd_bus_message_at_end(message, 0) == 0)
        {
            items.push_back(readValue(message));
        }
        check(sd_bus_message_exit_container(message));
        return items;
    }
    union
    {
        uint8_t y;
        uint16_t q;
        uint32_t u;
        uint64_t t;
        const char* s;
    } value{};
    check(sd_bus_message_read_basic(message, type, &value));
    switch (type)
    {
        case 'y':
            return value.y;
        case 'q':
            return value.q;
        case 'u':
            return value.u;
        case 't':
            return value.t;
        case 's':
            return value.s;
    }
    throw std::invalid_argument(std::string("cannot decode type ") + type);
}

// A private bus with the simulator serving one scenario, and a client on it.
class SimTest : public ::testing::Test
{
protected:
    testsupport::PrivateBus bus;
    testsupport::TempDir dir;
    std::unique_ptr<testsupport::Simulator> sim;
    std::unique_ptr<sd_bus, decltype(&sd_bus_flush_close_unref)> client{
        nullptr, sd_bus_flush_close_unref};

    void serve(const std::string& scenario)
    {
        sim = std::make_unique<testsupport::Simulator>(
            dir.write("scenario.json", scenario), bus);
        bus.exportToEnvironment();
        sd_bus* raw = nullptr;
        check(sd_bus_open_system(&raw));
        client.reset(raw);
    }

    // The reply as [signature, values...], or an error as "name: message".
    // `types` and `args` as sd_bus_message_append takes them.
    template <typename... Args>
    Json call(const Target& target, const char* member, const char* types,
              Args... args) const
    {
        sd_bus_error error = SD_BUS_ERROR_NULL;
        sd_bus_message* raw = nullptr;
        int result = sd_bus_call_method(
            client.get(), target.destination.c_str(), target.path.c_str(),
            target.interface.c_str(), member, &error, &raw, types, args...);
        std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)> reply(
            raw, sd_bus_message_unref);
        if (result < 0)
        {
            Json failure = std::string(error.name) + ": " +
                           (error.message != nullptr ? error.message : "");
            sd_bus_error_free(&error);
            return failure;
        }
        Json values = Json::array({sd_bus_message_get_signature(raw, 1)});
        while (sd_bus_message_at_end(raw, 1) == 0)
        {
            values.push_back(readValue(raw));
        }
        return values;
    }
};

// Listed out of path order on purpose: replies keep this order. "drive10"
// does not lie below "drive".
const std::string scenario = R"({"objects": [
  {"path": "/com/kest/omrix/storage/drive/9",
   "interfaces": {"com.kest.omrix.storage.drive.inventory": {
     "Fqdd": ["s", "SSD-9"], "Size": ["t", 18446744073709551615],
     "Id": ["ay", "00 7f FF"], "Keys": ["a{qs}", {"7": "seven"}],
     "Extra": ["a{sv}", {"z": ["v", ["u", 1]], "a": ["as", ["x"]]}]}}},
  {"path": "/com/kest/omrix/storage/drive/10",
   "interfaces": {"com.kest.omrix.storage.drive.inventory": {},
                  "org.freedesktop.DBus.Properties": {}}},
  {"path": "/com/kest/omrix/storage/drive10",
   "interfaces": {"com.kest.omrix.storage.drive.inventory": {}}},
  {"path": "/com/kest/omrix/storage/drive/9/slot/1",
   "interfaces": {"com.kest.omrix.storage.drive.inventory": {}}},
  {"path": "/com/kest/omrix/storage/drive",
   "interfaces": {"com.kest.omrix.storage.drive.service": {}}},
  {"path": "/com/kest/omrix/storage/drive/10", "service": "org.example.Other",
   "interfaces": {"org.example.Extra": {}}}],
 "drives": {
  "SSD-1": {"rawData": {"status": [18446744073709551615, 1], "data": [9, 255]}},
  "SATA-1": {"sataHdd": {"protocol": 16, "attributes": 3, "field1": 1,
     "field2": 2, "field4": 4, "field6": "six", "field7": "seven",
     "pages": [{"code": 0, "data": "0001"}, {"code": 1, "length": 2,
       "data": "aabbcc"}, {"code": 2, "length": 300, "data": "dd"}]}},
  "SAS-1": {"rawData": {}, "sasHdd": {"status": [1, 0], "protocol": 32,
     "pages": [{"code": 3, "dataLength": 3}, {}, {}, {}, {}, {},
               {"code": 13, "data": "0d00"}]}}}})";

TEST_F(SimTest, subTreeFiltersByRootDepthAndInterfaceInScenarioOrder)
{
    serve(scenario);
    struct Case
    {
        std::string root;
        int32_t depth;
        const char* filter; // none when null
        std::vector<std::string> paths;
    };
    const std::vector<Case> cases = {
        {"/",
         0,
         nullptr,
         {drive + "/9", drive + "/10", drive + "10", drive + "/9/slot/1",
          drive}},
        {drive + "/",
         0,
         inventory,
         {drive + "/9", drive + "/10", drive + "/9/slot/1"}},
        {"/com/kest/omrix/storage", 1, nullptr, {drive + "10", drive}},
        {"/", 0, "org.example.Extra", {drive + "/10"}},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.root + " depth " + std::to_string(c.depth));
        Json reply = call(mapper, "GetSubTree", "sias", c.root.c_str(), c.depth,
                          c.filter ? 1 : 0, c.filter);
        ASSERT_EQ(reply[0], "a{sa{sas}}") << reply;
        std::vector<std::string> paths;
        for (const auto& entry : reply[1])
        {
            paths.push_back(entry[0]);
        }
        EXPECT_EQ(paths, c.paths);
    }
    // Services sharing a path form one entry, with all their interfaces.
    EXPECT_EQ(
        call(mapper, "GetSubTree", "sias", (drive + "/10").c_str(), 0, 0),
        Json::parse(R"(["a{sa{sas}}", [["/com/kest/omrix/storage/drive/10", [
        ["com.kest.omrix.storage", ["com.kest.omrix.storage.drive.inventory",
                                    "org.freedesktop.DBus.Properties"]],
        ["org.example.Other", ["org.example.Extra"]]]]]])"));
}

TEST_F(SimTest, getAllKeepsTypesValuesAndOrder)
{
    serve(scenario);
    EXPECT_EQ(call(properties(drive + "/9"), "GetAll", "s", inventory),
              Json::parse(R"(["a{sv}", [
        ["Fqdd", ["s", "SSD-9"]], ["Size", ["t", 18446744073709551615]],
        ["Id", ["ay", [0, 127, 255]]], ["Keys", ["a{qs}", [[7, "seven"]]]],
        ["Extra", ["a{sv}", [["z", ["v", ["u", 1]]], ["a", ["as", ["x"]]]]]]
    ]])"));
}

// Pages left out are sent empty; a page's length is sent as given, whatever
// its octets.
TEST_F(SimTest, storageMethodsReplyWithExactSignatureAndContent)
{
    serve(scenario);
    const std::string pad = R"(, [], 0, 0)";
    using Case = std::tuple<const char*, const char*, std::string>;
    const std::vector<Case> cases = {
        {"GetSmartPDSASSATARawData", "SSD-1",
         R"(["(tt)ay", [18446744073709551615, 1], [9, 255]])"},
        {"GetSmartPDSASSATARawData", "SAS-1", R"(["(tt)ay", [0, 0], []])"},
        {"GetSmartPDSATAHDDData", "SATA-1",
         R"([")" + sata + R"(", [0, 0], 1, 2, 16, 4, 3, "six", "seven",
                 [0, 1], 0, 2, [170, 187, 204], 1, 2, [221], 2, 300)" +
             pad + pad + "]"},
        {"GetSmartPDSASHDDData", "SAS-1",
         R"([")" + sata + R"(ayyqayyq", [1, 0], 0, 0, 32, 0, 0, "", "",
                 [0, 1, 2], 3, 3)" +
             pad + pad + pad + pad + pad + R"(, [13, 0], 13, 2])"},
        {"GetSmartPDSASHDDData", "ssd-1",
         R"("com.kest.omrix.storage.Error.NotFound: )"
         R"(GetSmartPDSASHDDData: no data for FQDD 'ssd-1'")"},
    };
    for (const auto& [member, fqdd, expected] : cases)
    {
        SCOPED_TRACE(std::string(member) + " " + fqdd);
        EXPECT_EQ(call(storage, member, "s", fqdd), Json::parse(expected));
    }
}

// Each handler carries a fault of another kind. Calls are logged as they
// arrive, so the unanswered one counts too.
TEST_F(SimTest, faultsDisturbTheirHandlerAlone)
{
    std::string log = dir.file("calls.log");
    serve(R"({"callLog": ")" + log + R"(",
      "mapper": {"error": {"name": "org.example.Error.Busy",
                           "message": "busy"}},
      "objects": [{"path": "/d/1", "interfaces": {"x.Y": {"P": ["u", 1]}},
        "getAll": {"reply": {"signature": "(yy)ay",
                             "values": [[1, 2], "ff"]}}}],
      "drives": {"D": {"sataHdd": {"delayMs": 600},
        "rawData": {"extra": {"signature": "sq", "values": ["t", 9]}},
        "sasHdd": {"noReply": true}}}})");
    // The delayed call goes first; the others are answered meanwhile.
    check(sd_bus_call_method_async(
        client.get(), nullptr, storage.destination.c_str(),
        storage.path.c_str(), storage.interface.c_str(),
        "GetSmartPDSATAHDDData",
        [](sd_bus_message*, void*, sd_bus_error*) { return 0; }, nullptr, "s",
        "D"));
    auto start = Clock::now();
    EXPECT_EQ(call(mapper, "GetSubTree", "sias", "/", 0, 0),
              "org.example.Error.Busy: busy");
    EXPECT_EQ(call(properties("/d/1"), "GetAll", "s", "x.Y"),
              Json::parse(R"(["(yy)ay", [1, 2], [255]])"));
    EXPECT_EQ(call(storage, "GetSmartPDSASSATARawData", "s", "D"),
              Json::parse(R"(["(tt)aysq", [0, 0], [], "t", 9])"));
    EXPECT_LT(Clock::now() - start, 400ms);
    start = Clock::now();
    EXPECT_EQ(call(storage, "GetSmartPDSATAHDDData", "s", "D")[0], sata);
    EXPECT_GE(Clock::now() - start, 600ms);
    check(sd_bus_set_method_call_timeout(client.get(), 200000));
    EXPECT_EQ(call(storage, "GetSmartPDSASHDDData", "s", "D"),
              "org.freedesktop.DBus.Error.Timeout: Connection timed out");
    EXPECT_EQ(testsupport::readFile(log),
              "GetSmartPDSATAHDDData /com/kest/omrix/storage/drive [\"D\"]\n"
              "GetSubTree /xyz/openbmc_project/object_mapper [\"/\",0,[]]\n"
              "GetAll /d/1 [\"x.Y\"]\n"
              "GetSmartPDSASSATARawData /com/kest/omrix/storage/drive [\"D\"]\n"
              "GetSmartPDSATAHDDData /com/kest/omrix/storage/drive [\"D\"]\n"
              "GetSmartPDSASHDDData /com/kest/omrix/storage/drive [\"D\"]\n");
    EXPECT_EQ(sim->stop(), 0); // exit code 0 on SIGTERM
}

// A bad file is refused before any name is taken, naming the member at fault.
TEST_F(SimTest, badScenariosAreRefusedWithTheMemberNamed)
{
    const std::vector<std::pair<const char*, const char*>> cases = {
        {R"({"objects": [{"path": "/a", "intefaces": {}}]})",
         "scenario.objects[0]: unknown member \"intefaces\""},
        {R"({"objects": [{"path": "/a", "interfaces": {"x.Y":
            {"P": ["u", -1]}}}]})",
         "scenario.objects[0].interfaces.x.Y.P: value -1 for type u"},
        {R"({"mapper": {"noReply": true, "delayMs": 5}})",
         "scenario.mapper: \"noReply\" cannot be combined"},
    };
    for (const auto& [scenario, complaint] : cases)
    {
        SCOPED_TRACE(scenario);
        auto run = testsupport::runProgram(
            testsupport::Simulator::command(dir.write("bad.json", scenario)),
            bus.environment(), 10s);
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err.find(complaint), std::string::npos) << run.err;
    }
}

} // namespace
