#include "simClient.hpp"

#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>

namespace simtest
{
namespace
{

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// One handler of each kind, every one disturbed by the same fault.
std::string faultScenario(const std::string& fault)
{
    return R"({"mapper": )" + fault + R"(,
      "objects": [{"path": "/d/1", "getAll": )" +
           fault + R"(,
        "interfaces": {"x.Y": {"P": ["u", 1]}}}],
      "drives": {"D": {
        "rawData": {"data": "01", "status": [0, 0], )" +
           fault.substr(1) + R"(,
        "sataHdd": {"protocol": 16, )" +
           fault.substr(1) + R"(,
        "sasHdd": {"protocol": 32, )" +
           fault.substr(1) + "}}}";
}

struct Handler
{
    const char* name;
    std::string normalSignature;
};

const std::vector<Handler> handlers = {
    {"mapper", "a{sa{sas}}"},
    {"getAll", "a{sv}"},
    {"GetSmartPDSASSATARawData", "(tt)ay"},
    {"GetSmartPDSATAHDDData", "(tt)yuutussayyqayyqayyqayyqayyq"},
    {"GetSmartPDSASHDDData", "(tt)yuutussayyqayyqayyqayyqayyqayyqayyq"},
};

Reply callHandler(const Client& client, const Handler& handler,
                  std::chrono::microseconds timeout = {})
{
    std::string name = handler.name;
    if (name == "mapper")
    {
        return client.getSubTree("/", 0, {}, mapper, timeout);
    }
    if (name == "getAll")
    {
        return client.getAll("/d/1", "x.Y", storage, timeout);
    }
    return client.drive(name, "D", timeout);
}

TEST_F(SimTest, faultsReplaceOrExtendEveryKindOfReply)
{
    struct Case
    {
        const char* fault;
        const char* errorName;
        std::string signatureSuffix; // after the normal signature
        const char* replaced;        // whole signature, when replaced
        Json lastValues;
    };
    const std::vector<Case> cases = {
        {R"({"error": {"name": "org.example.Error.Busy", "message": "busy"}})",
         "org.example.Error.Busy",
         "",
         nullptr,
         {}},
        {R"({"reply": {"signature": "(ii)ay", "values": [[1, 2], "ff"]}})", "",
         "", "(ii)ay", Json::parse(R"([[1, 2], "ff"])")},
        {R"({"reply": {"signature": ""}})", "", "", "", Json::array()},
        {R"({"extra": {"signature": "sq", "values": ["tail", 9]}})", "", "sq",
         nullptr, Json::parse(R"(["tail", 9])")},
    };
    for (const auto& c : cases)
    {
        serve(faultScenario(c.fault));
        for (const auto& handler : handlers)
        {
            SCOPED_TRACE(std::string(c.fault) + " on " + handler.name);
            Reply reply = callHandler(*client, handler);
            EXPECT_EQ(reply.errorName, c.errorName);
            if (*c.errorName != '\0')
            {
                EXPECT_EQ(reply.errorMessage, "busy");
                continue;
            }
            EXPECT_EQ(reply.signature,
                      c.replaced != nullptr
                          ? std::string(c.replaced)
                          : handler.normalSignature + c.signatureSuffix);
            ASSERT_GE(reply.body.size(), c.lastValues.size());
            Json tail(reply.body.end() - c.lastValues.size(), reply.body.end());
            EXPECT_EQ(tail, c.lastValues);
        }
        sim.reset();
    }
}

TEST_F(SimTest, slowReplyDoesNotHoldUpOtherCalls)
{
    serve(faultScenario(R"({"delayMs": 600})"));
    auto start = Clock::now();
    std::optional<Clock::time_point> slowDone;
    auto request = client->newCall(storage, "/com/kest/omrix/storage/drive",
                                   "com.kest.omrix.storage.drive.service",
                                   "GetSmartPDSASSATARawData");
    sd_bus_message_append(request.get(), "s", "D");
    auto onReply = [](sd_bus_message*, void* done, sd_bus_error*) {
        *static_cast<std::optional<Clock::time_point>*>(done) = Clock::now();
        return 0;
    };
    ASSERT_GE(sd_bus_call_async(client->get(), nullptr, request.get(), onReply,
                                &slowDone, 0),
              0);
    // No fault on Get: it answers while the raw data is still delayed.
    Reply fast = client->getProperty("/d/1", "x.Y", "P");
    EXPECT_EQ(fast.body, Json::parse(R"([["u", 1]])"));
    EXPECT_FALSE(slowDone.has_value());
    EXPECT_LT(Clock::now() - start, 400ms);
    while (!slowDone && Clock::now() - start < 5s)
    {
        sd_bus_process(client->get(), nullptr);
        sd_bus_wait(client->get(), 100000);
    }
    ASSERT_TRUE(slowDone.has_value());
    EXPECT_GE(*slowDone - start, 600ms);
    EXPECT_LT(*slowDone - start, 1500ms);
}

TEST_F(SimTest, noReplyLeavesTheCallerToTimeOut)
{
    serve(faultScenario(R"({"noReply": true})"));
    for (const auto& handler : handlers)
    {
        SCOPED_TRACE(handler.name);
        auto start = Clock::now();
        Reply reply = callHandler(*client, handler, 200ms);
        EXPECT_EQ(reply.result, -ETIMEDOUT);
        EXPECT_GE(Clock::now() - start, 200ms);
    }
    // The simulator is still serving.
    EXPECT_EQ(client->getProperty("/d/1", "x.Y", "P").result, 1);
}

TEST_F(SimTest, callLogRecordsEveryCallInOrder)
{
    std::string log = dir.file("calls.log");
    serve(R"({"callLog": ")" + log + R"(", "mapper": {"noReply": true},
              "drives": {"D": {"rawData": {}}}})");
    callHandler(*client, handlers[0], 100ms);
    client->getAll("/none", "x.Y");
    client->drive("GetSmartPDSASSATARawData", "D");
    client->drive("GetSmartPDSASHDDData", "with space");
    std::string expected =
        "GetSubTree /xyz/openbmc_project/object_mapper [\"/\",0,[]]\n"
        "GetAll /none [\"x.Y\"]\n"
        "GetSmartPDSASSATARawData /com/kest/omrix/storage/drive [\"D\"]\n"
        "GetSmartPDSASHDDData /com/kest/omrix/storage/drive "
        "[\"with space\"]\n";
    EXPECT_EQ(testsupport::readFile(log), expected);
}

TEST_F(SimTest, stopsCleanlyOnSigterm)
{
    serve("{}");
    int status = sim->stop();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

} // namespace
} // namespace simtest
