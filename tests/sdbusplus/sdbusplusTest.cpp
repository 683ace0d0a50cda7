#include "qvDbusCollectCommon.hpp"
#include "testSupport.hpp"

#include <systemd/sd-bus.h>

#include <sdbusplus/bus.hpp>
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

namespace
{

using namespace std::chrono_literals;
using sdbusplus::exception::SdBusError;

constexpr const char* serviceName = "com.example.Test";
constexpr const char* objectPath = "/com/example/test";
constexpr const char* interfaceName = "com.example.Test";

// The test service answers every call with the arguments it was sent.
// Called from C: nothing may unwind.
int answer(sd_bus_message* call, void* /*data*/,
           sd_bus_error* /*error*/) noexcept
{
    sd_bus_message* reply = nullptr;
    int r = sd_bus_message_new_method_return(call, &reply);
    sdbusplus::message_t owned(reply, std::false_type{});
    r = r < 0 ? r : sd_bus_message_copy(reply, call, 1);
    return r < 0 ? r : sd_bus_send(nullptr, reply, nullptr);
}

// Runs `call`, which must throw SdBusError, and hands the error back.
SdBusError failureOf(const std::function<void()>& call)
{
    try
    {
        call();
    }
    catch (SdBusError& e)
    {
        return std::move(e);
    }
    throw std::runtime_error("the call did not fail");
}

// The test service's own connection, in plain sd-bus: the binding keeps its
// connection to itself.
struct BusUnref
{
    void operator()(sd_bus* b) const noexcept
    {
        sd_bus_flush_close_unref(b);
    }
};
using ServerBus = std::unique_ptr<sd_bus, BusUnref>;

ServerBus serve()
{
    sd_bus* raw = nullptr;
    if (sd_bus_open_system(&raw) < 0)
    {
        throw std::runtime_error("cannot connect the test service");
    }
    ServerBus server(raw);
    if (sd_bus_add_object(raw, nullptr, objectPath, answer, nullptr) < 0 ||
        sd_bus_request_name(raw, serviceName, 0) < 0)
    {
        throw std::runtime_error("cannot serve the test object");
    }
    return server;
}

// Message content written with sd-bus directly, independent of the code
// under test.
using RawWriter = std::function<int(sd_bus_message*)>;

auto put(auto... args)
{
    return [=](sd_bus_message* m) { return sd_bus_message_append(m, args...); };
}

class SdbusplusTest : public ::testing::Test
{
  protected:
    static void SetUpTestSuite()
    {
        daemon = std::make_unique<testsupport::PrivateBus>();
        for (const auto& [name, value] : daemon->environment())
        {
            setenv(name.c_str(), value->c_str(), 1);
        }
        server = serve();
        client =
            std::make_unique<sdbusplus::bus_t>(sdbusplus::bus::new_system());
        serving = std::jthread([](const std::stop_token& stop) {
            while (!stop.stop_requested() &&
                   sd_bus_process(server.get(), nullptr) >= 0)
            {
                sd_bus_wait(server.get(), 50'000);
            }
        });
    }
    static void TearDownTestSuite()
    {
        serving = std::jthread(); // stops and joins the server thread
        client.reset();
        server.reset();
        daemon.reset();
    }

    static sdbusplus::message_t callTo(sdbusplus::bus_t& on, const char* method)
    {
        return on.new_method_call(serviceName, objectPath, interfaceName,
                                  method);
    }

    // A message holding what `write` wrote, readable from its first field
    // as a received one is.
    static sdbusplus::message_t rawMessage(const RawWriter& write)
    {
        static uint64_t cookie = 1;
        auto m = callTo(*client, "Echo");
        if (write(m.get()) < 0 ||
            sd_bus_message_seal(m.get(), cookie++, 0) < 0 ||
            sd_bus_message_rewind(m.get(), 1) < 0)
        {
            throw std::runtime_error("cannot build the test message");
        }
        return m;
    }

    static inline std::unique_ptr<testsupport::PrivateBus> daemon;
    static inline ServerBus server;
    static inline std::jthread serving;
    static inline std::unique_ptr<sdbusplus::bus_t> client;
};

struct VariantCase
{
    const char* name;
    RawWriter write;
    DbusBasicVariant expected;
};

// Each value is followed by "su" fields that must still read correctly.
TEST_F(SdbusplusTest, VariantTakesExactMatchOrBecomesEmptyString)
{
    const std::vector<VariantCase> table = {
        {"s", put("v", "s", "text"), std::string("text")},
        {"b", put("v", "b", 1), true},
        {"y", put("v", "y", 200), uint8_t{200}},
        {"n", put("v", "n", -300), int16_t{-300}},
        {"u", put("v", "u", 7), uint32_t{7}},
        {"t", put("v", "t", uint64_t{9}), uint64_t{9}},
        {"as", put("v", "as", 2, "a", "b"), std::vector<std::string>{"a", "b"}},
        {"ay", put("v", "ay", 2, 1, 2), std::vector<uint8_t>{1, 2}},
        {"(ys)", put("v", "(ys)", 1, "x"),
         std::tuple<uint8_t, std::string>{1, "x"}},
        {"a(ssu)", put("v", "a(ssu)", 1, "a", "b", 1),
         std::vector<std::tuple<std::string, std::string, uint32_t>>{
             {"a", "b", 1}}},
        {"(yyyy)", put("v", "(yyyy)", 1, 2, 3, 4),
         std::tuple<uint8_t, uint8_t, uint8_t, uint8_t>{1, 2, 3, 4}},
        {"o", put("v", "o", "/a/b"), std::string()},
        {"a{sv}", put("v", "a{sv}", 1, "k", "s", "x"), std::string()},
        {"v in v", put("v", "v", "u", 7), std::string()},
        {"(yyy)", put("v", "(yyy)", 1, 2, 3), std::string()},
        {"ab", put("v", "ab", 1, 1), std::string()},
    };
    for (const auto& c : table)
    {
        SCOPED_TRACE(c.name);
        auto m = rawMessage([&c](sd_bus_message* raw) {
            int r = c.write(raw);
            return r < 0 ? r : sd_bus_message_append(raw, "su", "tail", 42);
        });
        // Start from a value no case expects, so a read that leaves the
        // variant alone shows.
        DbusBasicVariant value = std::vector<uint64_t>{99};
        std::string tail;
        uint32_t number = 0;
        m.read(value, tail, number);
        EXPECT_EQ(value, c.expected);
        EXPECT_EQ(tail, "tail");
        EXPECT_EQ(number, 42U);
    }
}

TEST_F(SdbusplusTest, PropertyMapKeepsKnownValuesAndFirstOfDuplicates)
{
    auto m =
        rawMessage(put("a{sv}", 6, "Protocol", "u", 32, "Fqdd", "s",
                       "DRIVE-SAS-3", "Path", "o", "/com/kest/x", "Attributes",
                       "q", 2, "Protocol", "u", 64, "Kept", "u", 1));
    DbusPropertyMap props{{"Kept", std::string("before")}};
    m.read(props);
    const DbusPropertyMap expected{
        {"Attributes", uint16_t{2}},     {"Fqdd", std::string("DRIVE-SAS-3")},
        {"Kept", std::string("before")}, {"Path", std::string()},
        {"Protocol", uint32_t{32}},
    };
    EXPECT_EQ(props, expected);
}

struct WrongTypeCase
{
    const char* name;
    RawWriter write;
    std::function<void(sdbusplus::message_t&)> read;
    const char* context; // what() starts with it
};

auto readAs(auto prototype)
{
    return [prototype](sdbusplus::message_t& m) mutable { m.read(prototype); };
}

// The context names the sd-bus call and the reader that made it; every
// mismatch is ENXIO.
TEST_F(SdbusplusTest, ReadOfWrongTypeNamesCallAndReader)
{
    auto none = [](sd_bus_message*) { return 0; };
    const char* basic = "sd_bus_message_read_basic fundamental";
    const char* string = "sd_bus_message_read_basic string";
    const char* sequence =
        "sd_bus_message_enter_container emplace_back_container";
    const char* tuple = "sd_bus_message_enter_container tuple";
    const char* byteArray = "sd_bus_message_read_array";
    const char* dictionary = "sd_bus_message_enter_container emplace_container";
    const std::vector<WrongTypeCase> table = {
        {"u for s", put("s", "x"), readAs(uint32_t{}), basic},
        {"s past the end", none, readAs(std::string()), string},
        {"as for s", put("s", "x"), readAs(std::vector<std::string>()),
         sequence},
        {"ay for as", put("as", 1, "x"), readAs(std::vector<uint8_t>()),
         byteArray},
        {"ay past the end", none, readAs(std::vector<uint8_t>()), byteArray},
        {"(tt) for (tu)", put("(tu)", uint64_t{0}, 1),
         readAs(std::tuple<uint64_t, uint64_t>()), tuple},
        {"(tt) for ay", put("ay", 0), readAs(std::tuple<uint64_t, uint64_t>()),
         tuple},
        {"a{sv} for a{ss}", put("a{ss}", 1, "k", "v"),
         readAs(DbusPropertyMap()), dictionary},
        {"v past the end", none, readAs(DbusBasicVariant()),
         "sd_bus_message_skip variant"},
    };
    for (const auto& c : table)
    {
        SCOPED_TRACE(c.name);
        auto m = rawMessage(c.write);
        auto error = failureOf([&] { c.read(m); });
        EXPECT_EQ(error.what(), std::string(c.context) +
                                    ": System.Error.ENXIO: No such device or "
                                    "address");
        EXPECT_EQ(error.get_errno(), ENXIO);
    }
}

// Default connections are per thread, so a thread of its own starts from
// none whatever other tests left behind.
TEST_F(SdbusplusTest, DroppingOneDefaultHandleLeavesTheSharedConnectionOpen)
{
    std::thread([] {
        auto echo = [](sdbusplus::bus_t& on) {
            auto m = callTo(on, "Echo");
            on.call(m);
        };
        auto first = sdbusplus::bus::new_default();
        {
            auto system = sdbusplus::bus::new_default_system();
            EXPECT_EQ(system.get_unique_name(), first.get_unique_name());
        }
        EXPECT_NO_THROW(echo(first));
        auto system = sdbusplus::bus::new_default_system();
        {
            auto dropped = std::move(first);
        }
        EXPECT_NO_THROW(echo(system));
    }).join();
}

// With no bus at the address both of the collector's ways to a handle throw
// at once, with the library's context: the function's full signature.
// Threads of their own, so no default connection of another test is handed
// back.
TEST_F(SdbusplusTest, NoBusThrowsWhereTheHandleIsMade)
{
    const auto address = daemon->address();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
    const std::vector<std::pair<std::function<void()>, std::string>> table = {
        {[] { sdbusplus::bus::new_default(); },
         "sdbusplus::bus::bus sdbusplus::bus::new_default()"},
        {[] { sdbusplus::bus::new_default_system(); },
         "sdbusplus::bus::bus sdbusplus::bus::new_default_system()"},
    };
    for (const auto& row : table)
    {
        std::thread([&row] {
            auto error = failureOf(row.first);
            EXPECT_EQ(error.what(),
                      row.second + ": org.freedesktop.DBus.Error.FileNotFound: "
                                   "No such file or directory");
        }).join();
    }
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
}

// A handle is made once the bus has greeted the connection. A signal that
// cuts that wait fails the handshake, and the library then throws
// std::logic_error, not one of its own exceptions.
TEST_F(SdbusplusTest, HandleWaitsForTheBusGreeting)
{
    struct sigaction action
    {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr); // no SA_RESTART
    daemon->pause();
    std::string failure = "none";
    std::thread making([&failure] {
        try
        {
            sdbusplus::bus::new_system();
        }
        catch (const std::logic_error& e)
        {
            failure = e.what();
        }
    });
    std::this_thread::sleep_for(300ms);
    pthread_kill(making.native_handle(), SIGUSR1);
    std::this_thread::sleep_for(100ms);
    daemon->resume(); // a handle that did not fail gets its greeting now
    making.join();
    EXPECT_EQ(failure, "basic_string: construction from null is not valid");
}

} // namespace
