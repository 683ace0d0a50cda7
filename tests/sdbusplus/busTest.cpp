#include "privateBus.hpp"
#include "testService.hpp"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <sdbusplus/bus.hpp>
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace
{

using namespace sdbustest;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class BusTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        daemon = std::make_unique<testsupport::PrivateBus>();
        daemon->exportToEnvironment();
        service = std::make_unique<TestService>(daemon->address());
    }
    static void TearDownTestSuite()
    {
        service.reset();
        daemon.reset();
    }

    static sdbusplus::message_t callTo(sdbusplus::bus_t& on, const char* method,
                                       const char* destination = serviceName)
    {
        return on.new_method_call(destination, objectPath, interfaceName,
                                  method);
    }

    // Runs `call`, which must throw SdBusError, and hands the error back.
    static sdbusplus::exception::SdBusError
    failureOf(const std::function<void()>& call)
    {
        try
        {
            call();
        }
        catch (const sdbusplus::exception::SdBusError& e)
        {
            return e;
        }
        throw std::runtime_error("the call did not fail");
    }

    static inline std::unique_ptr<testsupport::PrivateBus> daemon;
    static inline std::unique_ptr<TestService> service;
    sdbusplus::bus_t bus = connectTo(daemon->address());
};

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.rfind(prefix, 0) == 0;
}

TEST_F(BusTest, CallToUnownedNameFailsWithServiceUnknown)
{
    auto m = callTo(bus, "Echo", "com.example.Nobody");
    auto error = failureOf([&] { bus.call(m); });
    EXPECT_TRUE(
        startsWith(error.what(),
                   "sd_bus_call: org.freedesktop.DBus.Error.ServiceUnknown: "))
        << error.what();
    EXPECT_STREQ(error.name(), "org.freedesktop.DBus.Error.ServiceUnknown");
    EXPECT_NE(std::string(error.description()).find("com.example.Nobody"),
              std::string::npos);
}

TEST_F(BusTest, ErrorReplyBecomesSdBusError)
{
    auto m = callTo(bus, "Fail");
    auto error = failureOf([&] { bus.call(m, 0); });
    EXPECT_STREQ(error.what(),
                 "sd_bus_call: com.example.Error.Broken: broken on purpose");
    EXPECT_STREQ(error.name(), "com.example.Error.Broken");
    EXPECT_STREQ(error.description(), "broken on purpose");
    EXPECT_STREQ(error.get_error()->name, "com.example.Error.Broken");

    auto again = callTo(bus, "Fail");
    auto noReply = failureOf([&] { bus.call_noreply(again); });
    EXPECT_STREQ(
        noReply.what(),
        "sd_bus_call noreply: com.example.Error.Broken: broken on purpose");
}

TEST_F(BusTest, ExplicitTimeoutEndsAHangingCall)
{
    auto m = callTo(bus, "Hang");
    auto started = Clock::now();
    auto error = failureOf([&] { bus.call(m, 300'000); });
    auto elapsed = Clock::now() - started;
    EXPECT_GE(elapsed, 250ms);
    EXPECT_LT(elapsed, 5s);
    EXPECT_TRUE(startsWith(error.what(), "sd_bus_call: ")) << error.what();
    EXPECT_EQ(error.get_errno(), ETIMEDOUT);
}

// Sets an environment variable for the lifetime of the object.
class ScopedEnv
{
public:
    ScopedEnv(const char* name, const char* value) : name(name)
    {
        setenv(name, value, 1);
    }
    ~ScopedEnv()
    {
        unsetenv(name);
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    const char* name;
};

TEST_F(BusTest, DefaultTimeoutFollowsSystemdBusTimeout)
{
    ScopedEnv timeout("SYSTEMD_BUS_TIMEOUT", "1");
    // sd-bus reads the variable once per connection, on its first call.
    auto fresh = connectTo(daemon->address());
    auto m = callTo(fresh, "Hang");
    auto started = Clock::now();
    auto error = failureOf([&] { fresh.call(m); });
    auto elapsed = Clock::now() - started;
    EXPECT_GE(elapsed, 900ms);
    EXPECT_LT(elapsed, 10s);
    EXPECT_EQ(error.get_errno(), ETIMEDOUT);
}

// The shapes the collector sends and receives, through the daemon and back.
TEST_F(BusTest, EchoCarriesCollectorShapes)
{
    using SubTree =
        std::map<std::string, std::map<std::string, std::list<std::string>>>;
    const SubTree tree{{"/d/0", {{"svc", {"a", "b"}}}}, {"/d/1", {}}};
    std::vector<uint8_t> raw(4u << 20);
    for (std::size_t i = 0; i < raw.size(); ++i)
    {
        raw[i] = static_cast<uint8_t>(i ^ (i >> 12));
    }

    auto m = callTo(bus, "Echo");
    m.append(std::string("/com/kest"), int32_t{0},
             std::list<std::string>{"i1", "i2"}, tree,
             std::tuple<uint64_t, uint64_t>{0, 7}, raw);
    auto reply = bus.call(m);
    EXPECT_STREQ(reply.get_signature(), "sias"
                                        "a{sa{sas}}"
                                        "(tt)ay");
    EXPECT_EQ(reply.get_sender(), service->uniqueName());
    EXPECT_EQ(reply.get_destination(), bus.get_unique_name());

    auto [root, depth, filter, treeBack] =
        reply.unpack<std::string, int32_t, std::list<std::string>, SubTree>();
    EXPECT_EQ(root, "/com/kest");
    EXPECT_EQ(depth, 0);
    EXPECT_EQ(filter, (std::list<std::string>{"i1", "i2"}));
    EXPECT_EQ(treeBack, tree);
    std::tuple<uint64_t, uint64_t> status;
    std::vector<uint8_t> rawBack;
    reply.read(status, rawBack);
    EXPECT_EQ(status, std::make_tuple(uint64_t{0}, uint64_t{7}));
    EXPECT_TRUE(rawBack == raw);

    auto quiet = callTo(bus, "Echo");
    EXPECT_NO_THROW(bus.call_noreply(quiet));
}

struct DefaultBusResult
{
    bool same = false;
    bool defaultUsableAfterSystemDropped = false;
    bool systemUsableAfterDefaultDropped = false;
    std::string uniqueName;
};

bool echoWorks(sdbusplus::bus_t& on)
{
    try
    {
        auto m =
            on.new_method_call(serviceName, objectPath, interfaceName, "Echo");
        m.append(uint32_t{1});
        return on.call(m).unpack<uint32_t>() == 1;
    }
    catch (const sdbusplus::exception_t&)
    {
        return false;
    }
}

// Default connections are per thread: a thread of its own starts from none,
// whatever other tests left behind.
DefaultBusResult exerciseDefaultBuses()
{
    DefaultBusResult result;
    auto first = sdbusplus::bus::new_default();
    {
        auto system = sdbusplus::bus::new_default_system();
        result.same = system.get() == first.get() && first.get() != nullptr;
    }
    result.defaultUsableAfterSystemDropped = echoWorks(first);
    result.uniqueName = first.get_unique_name();

    auto system = sdbusplus::bus::new_default_system();
    first = sdbusplus::bus::new_default();
    {
        auto dropped = std::move(first);
    }
    result.systemUsableAfterDefaultDropped = echoWorks(system);
    return result;
}

TEST_F(BusTest, DroppingOneDefaultHandleLeavesTheSharedConnectionOpen)
{
    DefaultBusResult result;
    std::thread([&result] { result = exerciseDefaultBuses(); }).join();
    EXPECT_TRUE(result.same);
    EXPECT_TRUE(result.defaultUsableAfterSystemDropped);
    EXPECT_TRUE(result.systemUsableAfterDefaultDropped);
    EXPECT_TRUE(startsWith(result.uniqueName, ":"));
}

TEST_F(BusTest, HandlesCountReferencesAndMove)
{
    {
        sdbusplus::bus_t extra(bus.get());
        EXPECT_EQ(extra.get(), bus.get());
    }
    EXPECT_TRUE(echoWorks(bus));

    auto own = sdbusplus::bus::new_system();
    ASSERT_NE(own.get(), nullptr);
    EXPECT_NE(own.get_unique_name(), bus.get_unique_name());
    sdbusplus::bus_t moved(std::move(own));
    EXPECT_EQ(own.get(), nullptr);
    EXPECT_TRUE(echoWorks(moved));
}

struct BadCallCase
{
    const char* name;
    bool nullBus;
    const char* path;
    const char* interface;
};

TEST_F(BusTest, MethodCallThatCannotBeBuiltThrows)
{
    const std::vector<BadCallCase> table = {
        {"path without slash", false, "relative", interfaceName},
        {"interface without dot", false, objectPath, "nodot"},
        {"no connection", true, objectPath, interfaceName},
    };
    for (const auto& c : table)
    {
        SCOPED_TRACE(c.name);
        sdbusplus::bus_t none(nullptr, std::false_type{});
        auto& on = c.nullBus ? none : bus;
        auto error = failureOf([&] {
            on.new_method_call(serviceName, c.path, c.interface, "Echo");
        });
        EXPECT_TRUE(
            startsWith(error.what(), "sd_bus_message_new_method_call: "))
            << error.what();
        EXPECT_GT(error.get_errno(), 0);
    }
}

} // namespace
