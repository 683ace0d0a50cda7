#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <string_view>
#include <utility>

// Thin checked wrappers over the sd-bus message calls. Each throws
// exception::SdBusError whose context names the sd-bus function that failed
// and, for reads, the reader that called it ("sd_bus_message_read_basic
// fundamental", "sd_bus_message_enter_container tuple"), so a failure deep
// in a nested read still says where it happened.
namespace sdbusplus::message::details
{

// The readers, as their errors name them.
namespace reader
{
inline constexpr const char* fundamental = "fundamental";
inline constexpr const char* string = "string";
inline constexpr const char* sequence = "emplace_back_container";
inline constexpr const char* dictionary = "emplace_container";
inline constexpr const char* tuple = "tuple";
inline constexpr const char* variant = "variant";
} // namespace reader

void appendBasic(sd_bus_message* m, char type, const void* value);
void appendArray(sd_bus_message* m, char type, const void* data,
                 std::size_t bytes);
void openContainer(sd_bus_message* m, char type, const char* contents);
void closeContainer(sd_bus_message* m);

// Reading past the end of the message or its current container fails too:
// a reply shorter than expected does not match.
void readBasic(sd_bus_message* m, char type, void* value, const char* by);
// Whole array of a fixed-size type in one step.
std::pair<const void*, std::size_t> readArray(sd_bus_message* m, char type);
void enterContainer(sd_bus_message* m, char type, const char* contents,
                    const char* by);
void exitContainer(sd_bus_message* m, const char* by);
void skipVariant(sd_bus_message* m);
// The signature a variant up next holds; empty when no variant is next.
std::string_view variantContents(sd_bus_message* m);

// True when the current container has no further element.
bool atEnd(sd_bus_message* m, const char* by);

} // namespace sdbusplus::message::details
