#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

#include <sdbusplus/exception.hpp>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace
{

using sdbusplus::exception::SdBusError;

struct ErrnoCase
{
    int given;
    int expectedErrno;
    const char* expectedName;
};

TEST(SdBusErrorTest, FromErrnoNamesTheErrorAndKeepsTheNumber)
{
    const std::vector<ErrnoCase> table = {
        {ENOENT, ENOENT, "org.freedesktop.DBus.Error.FileNotFound"},
        {-EACCES, EACCES, "org.freedesktop.DBus.Error.AccessDenied"},
        {ETIMEDOUT, ETIMEDOUT, "org.freedesktop.DBus.Error.Timeout"},
        {ENXIO, ENXIO, "System.Error.ENXIO"},
        {0, EIO, "org.freedesktop.DBus.Error.IOError"},
    };
    for (const auto& c : table)
    {
        SCOPED_TRACE(c.given);
        SdBusError error(c.given, "some_call");
        EXPECT_EQ(error.get_errno(), c.expectedErrno);
        EXPECT_STREQ(error.name(), c.expectedName);
        EXPECT_STREQ(error.description(), strerror(c.expectedErrno));
        EXPECT_EQ(std::string(error.what()), std::string("some_call: ") +
                                                 c.expectedName + ": " +
                                                 strerror(c.expectedErrno));
    }
}

TEST(SdBusErrorTest, TakesOverAnSdBusError)
{
    sd_bus_error source = SD_BUS_ERROR_NULL;
    sd_bus_error_setf(&source, "com.example.Error.Odd", "odd value %d", 7);
    SdBusError error(&source, "sd_bus_call");
    EXPECT_FALSE(sd_bus_error_is_set(&source));
    EXPECT_STREQ(error.what(),
                 "sd_bus_call: com.example.Error.Odd: odd value 7");
    EXPECT_STREQ(error.get_error()->message, "odd value 7");

    sd_bus_error unset = SD_BUS_ERROR_NULL;
    SdBusError fallback(&unset, "sd_bus_call");
    EXPECT_EQ(fallback.get_errno(), EIO);
    SdBusError fromNull(nullptr, "sd_bus_call");
    EXPECT_EQ(fromNull.get_errno(), EIO);
}

SdBusError makeOwnedError()
{
    sd_bus_error source = SD_BUS_ERROR_NULL;
    sd_bus_error_setf(&source, "com.example.Error.Owned", "owned %s", "text");
    return SdBusError(&source, "prefix");
}

// Run under the address sanitizer, these also catch double frees and reads
// of freed error text.
TEST(SdBusErrorTest, CopiesAndMovesOwnTheirText)
{
    const std::string expected = "prefix: com.example.Error.Owned: owned text";
    std::vector<SdBusError> copies;
    {
        SdBusError original = makeOwnedError();
        copies.push_back(original);
        SdBusError assigned(EINVAL, "other");
        assigned = original;
        copies.push_back(assigned);
    }
    for (const auto& copy : copies)
    {
        EXPECT_EQ(copy.what(), expected);
        EXPECT_STREQ(copy.description(), "owned text");
    }

    SdBusError moved(std::move(copies.front()));
    EXPECT_EQ(moved.what(), expected);
    SdBusError target(EINVAL, "other");
    target = std::move(moved);
    EXPECT_EQ(target.what(), expected);
    EXPECT_STREQ(target.name(), "com.example.Error.Owned");
    auto& self = target;
    target = self;
    EXPECT_EQ(target.what(), expected);
}

} // namespace
