#include "privateBus.hpp"
#include "testService.hpp"

#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <sdbusplus/bus.hpp>
#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <variant>
#include <vector>

namespace
{

using namespace sdbustest;

// The property value type of the collector's inventory reader, repeated
// here so that these tests do not depend on the collector.
using DbusBasicVariant = std::variant<
    std::string, bool, uint8_t, int16_t, uint16_t, int32_t, uint32_t, int64_t,
    uint64_t, double, std::vector<std::string>, std::vector<uint8_t>,
    std::vector<int16_t>, std::vector<uint16_t>, std::vector<int32_t>,
    std::vector<uint32_t>, std::vector<int64_t>, std::vector<uint64_t>,
    std::vector<double>, std::tuple<uint8_t, std::string>,
    std::vector<std::tuple<std::string, std::string>>,
    std::vector<std::tuple<std::string, std::string, uint32_t>>,
    std::vector<std::tuple<std::string, uint32_t>>,
    std::vector<
        std::tuple<std::string, uint32_t, uint32_t, uint32_t, uint32_t>>,
    std::tuple<uint8_t, uint8_t, uint8_t, uint8_t>>;
using DbusPropertyMap = std::map<std::string, DbusBasicVariant>;
using DbusSubTree =
    std::map<std::string, std::map<std::string, std::list<std::string>>>;

// Writes message content with sd-bus directly, independent of the code
// under test.
using RawWriter = std::function<int(sd_bus_message*)>;

class MessageTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        daemon = std::make_unique<testsupport::PrivateBus>();
    }
    static void TearDownTestSuite()
    {
        daemon.reset();
    }

    sdbusplus::message_t newMessage()
    {
        return bus.new_method_call(serviceName, objectPath, interfaceName,
                                   "Echo");
    }

    // Makes a built message readable from its first field, the state a
    // received message is in.
    static void seal(sdbusplus::message_t& m)
    {
        static uint64_t cookie = 1;
        if (sd_bus_message_seal(m.get(), cookie++, 0) < 0 ||
            sd_bus_message_rewind(m.get(), true) < 0)
        {
            throw std::runtime_error("cannot seal the test message");
        }
    }

    sdbusplus::message_t rawMessage(const RawWriter& write)
    {
        auto m = newMessage();
        if (write(m.get()) < 0)
        {
            throw std::runtime_error("cannot build the test message");
        }
        seal(m);
        return m;
    }

    // Appends `value` and a trailing string, checks the signature, reads
    // both back and compares.
    template <typename T>
    void expectRoundTrip(const T& value, const std::string& sig)
    {
        SCOPED_TRACE("signature " + sig);
        auto m = newMessage();
        m.append(value, std::string("end"));
        EXPECT_EQ(m.get_signature(), sig + "s");
        seal(m);
        T back{};
        std::string tail;
        m.read(back, tail);
        EXPECT_EQ(back, value);
        EXPECT_EQ(tail, "end");
    }

    static inline std::unique_ptr<testsupport::PrivateBus> daemon;
    sdbusplus::bus_t bus = connectTo(daemon->address());
};

TEST_F(MessageTest, EveryTypeTravelsUnderItsSignature)
{
    expectRoundTrip(true, "b");
    expectRoundTrip(false, "b");
    expectRoundTrip(uint8_t{0xfe}, "y");
    expectRoundTrip(std::numeric_limits<int16_t>::min(), "n");
    expectRoundTrip(std::numeric_limits<uint16_t>::max(), "q");
    expectRoundTrip(std::numeric_limits<int32_t>::min(), "i");
    expectRoundTrip(std::numeric_limits<uint32_t>::max(), "u");
    expectRoundTrip(std::numeric_limits<int64_t>::min(), "x");
    expectRoundTrip(std::numeric_limits<uint64_t>::max(), "t");
    expectRoundTrip(-1.25, "d");
    expectRoundTrip(std::string("DRIVE-SAS-3 \xc3\xa4"), "s");
    expectRoundTrip(std::string(), "s");
    expectRoundTrip(sdbusplus::message::object_path("/com/kest/d0"), "o");
    expectRoundTrip(sdbusplus::message::signature("a{sv}"), "g");
    expectRoundTrip(std::vector<uint8_t>{0, 1, 0xff}, "ay");
    expectRoundTrip(std::vector<uint8_t>{}, "ay");
    expectRoundTrip(std::vector<int64_t>{-1, 1LL << 40}, "ax");
    expectRoundTrip(std::vector<double>{0.5, -2.0}, "ad");
    expectRoundTrip(std::vector<bool>{true, false, true}, "ab");
    expectRoundTrip(std::vector<std::string>{"a", "", "c"}, "as");
    expectRoundTrip(std::list<std::string>{"x", "y"}, "as");
    expectRoundTrip(std::list<uint8_t>{7, 8}, "ay");
    expectRoundTrip(std::map<uint32_t, std::string>{{2, "b"}, {1, "a"}},
                    "a{us}");
    expectRoundTrip(DbusSubTree{{"/d/0", {{"svc", {"i1", "i2"}}}},
                                {"/d/1", {{"svc", {}}, {"other", {"i3"}}}}},
                    "a{sa{sas}}");
    expectRoundTrip(std::tuple<uint64_t, uint64_t>{0, 7}, "(tt)");
    expectRoundTrip(
        std::tuple<uint8_t, std::tuple<std::string, bool>>{1, {"in", true}},
        "(y(sb))");
    expectRoundTrip(std::variant<std::string, bool>{true}, "v");
    expectRoundTrip(
        std::vector<std::variant<uint16_t, std::string>>{uint16_t{3},
                                                         std::string("s")},
        "av");
}

TEST_F(MessageTest, TextAppendsAsString)
{
    auto m = newMessage();
    const char* pointer = "pointer";
    m.append("literal", pointer, std::string_view("view-and-more", 4));
    EXPECT_STREQ(m.get_signature(), "sss");
    seal(m);
    auto [a, b, c] = m.unpack<std::string, std::string, std::string>();
    EXPECT_EQ(a, "literal");
    EXPECT_EQ(b, "pointer");
    EXPECT_EQ(c, "view");
}

struct VariantCase
{
    const char* name;
    RawWriter write;
    DbusBasicVariant expected;
};

// Each value is followed by "su" fields that must still read correctly.
TEST_F(MessageTest, VariantTakesFirstExactMatchOrBecomesEmptyString)
{
    using Tuple5 =
        std::tuple<std::string, uint32_t, uint32_t, uint32_t, uint32_t>;
    auto put = [](auto... args) {
        return [=](sd_bus_message* m) {
            return sd_bus_message_append(m, args...);
        };
    };
    const std::vector<VariantCase> table = {
        {"s", put("v", "s", "text"), std::string("text")},
        {"b", put("v", "b", 1), true},
        {"y", put("v", "y", 200), uint8_t{200}},
        {"n", put("v", "n", -300), int16_t{-300}},
        {"q", put("v", "q", 7), uint16_t{7}},
        {"i", put("v", "i", -7), int32_t{-7}},
        {"u", put("v", "u", 7), uint32_t{7}},
        {"x", put("v", "x", int64_t{-9}), int64_t{-9}},
        {"t", put("v", "t", uint64_t{9}), uint64_t{9}},
        {"d", put("v", "d", 2.5), 2.5},
        {"as", put("v", "as", 2, "a", "b"), std::vector<std::string>{"a", "b"}},
        {"ay", put("v", "ay", 2, 1, 2), std::vector<uint8_t>{1, 2}},
        {"an", put("v", "an", 1, -1), std::vector<int16_t>{-1}},
        {"aq", put("v", "aq", 1, 1), std::vector<uint16_t>{1}},
        {"ai", put("v", "ai", 1, -1), std::vector<int32_t>{-1}},
        {"au", put("v", "au", 1, 3), std::vector<uint32_t>{3}},
        {"ax", put("v", "ax", 1, int64_t{-4}), std::vector<int64_t>{-4}},
        {"at", put("v", "at", 1, uint64_t{5}), std::vector<uint64_t>{5}},
        {"ad", put("v", "ad", 1, 0.5), std::vector<double>{0.5}},
        {"(ys)", put("v", "(ys)", 1, "x"),
         std::tuple<uint8_t, std::string>{1, "x"}},
        {"a(ss)", put("v", "a(ss)", 1, "a", "b"),
         std::vector<std::tuple<std::string, std::string>>{{"a", "b"}}},
        {"a(ssu)", put("v", "a(ssu)", 1, "a", "b", 1),
         std::vector<std::tuple<std::string, std::string, uint32_t>>{
             {"a", "b", 1}}},
        {"a(su)", put("v", "a(su)", 1, "a", 2),
         std::vector<std::tuple<std::string, uint32_t>>{{"a", 2}}},
        {"a(suuuu)", put("v", "a(suuuu)", 1, "a", 1, 2, 3, 4),
         std::vector<Tuple5>{{"a", 1, 2, 3, 4}}},
        {"(yyyy)", put("v", "(yyyy)", 1, 2, 3, 4),
         std::tuple<uint8_t, uint8_t, uint8_t, uint8_t>{1, 2, 3, 4}},
        {"o", put("v", "o", "/a/b"), std::string()},
        {"g", put("v", "g", "a{sv}"), std::string()},
        {"a{sv}", put("v", "a{sv}", 1, "k", "s", "x"), std::string()},
        {"v in v", put("v", "v", "u", 7), std::string()},
        {"(ss)", put("v", "(ss)", "a", "b"), std::string()},
        {"ab", put("v", "ab", 1, 1), std::string()},
        {"(yyy)", put("v", "(yyy)", 1, 2, 3), std::string()},
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

TEST_F(MessageTest, VariantWithRepeatedSignatureTakesTheFirstMatch)
{
    auto m = rawMessage([](sd_bus_message* raw) {
        return sd_bus_message_append(raw, "vv", "s", "x", "u", 7);
    });
    std::variant<std::string, std::string> text;
    std::variant<uint32_t, int32_t, uint32_t> number;
    m.read(text, number);
    EXPECT_EQ(text.index(), 0U);
    EXPECT_EQ(std::get<0>(text), "x");
    EXPECT_EQ(number.index(), 0U);
    EXPECT_EQ(std::get<0>(number), 7U);
}

TEST_F(MessageTest, PropertyMapKeepsKnownValuesAndFirstOfDuplicates)
{
    auto m = rawMessage([](sd_bus_message* raw) {
        return sd_bus_message_append(raw, "a{sv}", 6, "Protocol", "u", 32,
                                     "Fqdd", "s", "DRIVE-SAS-3", "Path", "o",
                                     "/com/kest/x", "Attributes", "q", 2,
                                     "Protocol", "u", 64, "Kept", "u", 1);
    });
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
    const char* failingCall;
};

TEST_F(MessageTest, ReadOfWrongTypeNamesTheFailingCall)
{
    auto put = [](auto... args) {
        return [=](sd_bus_message* m) {
            return sd_bus_message_append(m, args...);
        };
    };
    auto none = [](sd_bus_message*) { return 0; };
    auto readAs = [](auto prototype) {
        return
            [prototype](sdbusplus::message_t& m) mutable { m.read(prototype); };
    };
    using Status = std::tuple<uint64_t, uint64_t>;
    const std::vector<WrongTypeCase> table = {
        {"u for s", put("s", "x"), readAs(uint32_t{}),
         "sd_bus_message_read_basic"},
        {"s for u", put("u", 1), readAs(std::string()),
         "sd_bus_message_read_basic"},
        {"b for y", put("y", 1), readAs(false), "sd_bus_message_read_basic"},
        {"u for q", put("q", 1), readAs(uint32_t{}),
         "sd_bus_message_read_basic"},
        {"past the end", none, readAs(std::string()),
         "sd_bus_message_read_basic"},
        {"as for s", put("s", "x"), readAs(std::vector<std::string>()),
         "sd_bus_message_enter_container"},
        {"ay for as", put("as", 1, "x"), readAs(std::vector<uint8_t>()),
         "sd_bus_message_enter_container"},
        {"ay for ai", put("ai", 1, 1), readAs(std::vector<uint8_t>()),
         "sd_bus_message_enter_container"},
        {"ay past the end", none, readAs(std::vector<uint8_t>()),
         "sd_bus_message_enter_container"},
        {"(tt) for (tu)", put("(tu)", uint64_t{0}, 1), readAs(Status()),
         "sd_bus_message_enter_container"},
        {"(t) for (tt)", put("(tt)", uint64_t{0}, uint64_t{0}),
         readAs(std::tuple<uint64_t>()), "sd_bus_message_enter_container"},
        {"a{sv} for a{ss}", put("a{ss}", 1, "k", "v"),
         readAs(DbusPropertyMap()), "sd_bus_message_enter_container"},
        {"v for s", put("s", "x"), readAs(DbusBasicVariant()),
         "sd_bus_message_skip"},
        {"v past the end", none, readAs(DbusBasicVariant()),
         "sd_bus_message_skip"},
    };
    for (const auto& c : table)
    {
        SCOPED_TRACE(c.name);
        auto m = rawMessage(c.write);
        try
        {
            c.read(m);
            ADD_FAILURE() << "read did not throw";
        }
        catch (const sdbusplus::exception::SdBusError& e)
        {
            EXPECT_EQ(std::string(e.what()).rfind(
                          std::string(c.failingCall) + ": ", 0),
                      0U)
                << e.what();
            EXPECT_GT(e.get_errno(), 0);
        }
    }
}

TEST_F(MessageTest, FieldsBehindTheLastOneReadAreIgnored)
{
    auto m = rawMessage([](sd_bus_message* raw) {
        return sd_bus_message_append(raw, "(tt)ayus", uint64_t{1}, uint64_t{2},
                                     3, 0xa, 0xb, 0xc, 5, "extra");
    });
    std::tuple<uint64_t, uint64_t> status;
    std::vector<uint8_t> data;
    m.read(status, data);
    EXPECT_EQ(status, std::make_tuple(uint64_t{1}, uint64_t{2}));
    EXPECT_EQ(data, (std::vector<uint8_t>{0xa, 0xb, 0xc}));
}

// Vectors of fixed-size numbers are read in one block, lists element by
// element; the results must not differ.
TEST_F(MessageTest, BlockReadsMatchElementReads)
{
    auto m = rawMessage([](sd_bus_message* raw) {
        return sd_bus_message_append(raw, "ayayadad", 3, 1, 2, 3, 0, 2, 0.5,
                                     -1.0, 0);
    });
    std::vector<uint8_t> bytesBlock{9};
    std::vector<uint8_t> emptyBlock{4};
    std::vector<double> doublesBlock{7.0};
    std::vector<double> noDoublesBlock;
    m.read(bytesBlock, emptyBlock, doublesBlock, noDoublesBlock);
    EXPECT_EQ(bytesBlock, (std::vector<uint8_t>{9, 1, 2, 3}));
    EXPECT_EQ(emptyBlock, (std::vector<uint8_t>{4}));
    EXPECT_EQ(doublesBlock, (std::vector<double>{7.0, 0.5, -1.0}));
    EXPECT_TRUE(noDoublesBlock.empty());

    sd_bus_message_rewind(m.get(), true);
    std::list<uint8_t> bytesEach{9};
    std::list<uint8_t> emptyEach{4};
    std::list<double> doublesEach{7.0};
    std::list<double> noDoublesEach;
    m.read(bytesEach, emptyEach, doublesEach, noDoublesEach);
    EXPECT_TRUE(std::equal(bytesBlock.begin(), bytesBlock.end(),
                           bytesEach.begin(), bytesEach.end()));
    EXPECT_TRUE(std::equal(emptyBlock.begin(), emptyBlock.end(),
                           emptyEach.begin(), emptyEach.end()));
    EXPECT_TRUE(std::equal(doublesBlock.begin(), doublesBlock.end(),
                           doublesEach.begin(), doublesEach.end()));
    EXPECT_TRUE(noDoublesEach.empty());
}

TEST_F(MessageTest, SixteenMebibyteArrayIsQuick)
{
    std::vector<uint8_t> big(16u << 20);
    for (std::size_t i = 0; i < big.size(); ++i)
    {
        big[i] = static_cast<uint8_t>(i * 131 + (i >> 16));
    }
    auto started = std::chrono::steady_clock::now();
    auto m = newMessage();
    m.append(std::tuple<uint64_t, uint64_t>{0, 0}, big);
    seal(m);
    auto [status, back] =
        m.unpack<std::tuple<uint64_t, uint64_t>, std::vector<uint8_t>>();
    auto elapsed = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(status, std::make_tuple(uint64_t{0}, uint64_t{0}));
    EXPECT_TRUE(back == big);
    EXPECT_LT(elapsed, std::chrono::milliseconds(500));
}

TEST_F(MessageTest, HandlesShareOneMessage)
{
    auto m = newMessage();
    m.append(uint32_t{5});
    sdbusplus::message_t copy(m);
    EXPECT_EQ(copy.get(), m.get());
    sdbusplus::message_t moved(std::move(m));
    EXPECT_FALSE(m);
    EXPECT_EQ(moved.get(), copy.get());
    moved = sdbusplus::message_t();
    seal(copy);
    EXPECT_EQ(copy.unpack<uint32_t>(), 5U);
    EXPECT_STREQ(copy.get_member(), "Echo");
    EXPECT_STREQ(copy.get_interface(), interfaceName);
    EXPECT_STREQ(copy.get_path(), objectPath);
    EXPECT_STREQ(copy.get_destination(), serviceName);
    EXPECT_FALSE(copy.is_method_error());
}

} // namespace
