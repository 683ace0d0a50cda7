#include <sdbusplus/exception.hpp>
#include <sdbusplus/message/wire.hpp>

#include <cerrno>
#include <string>

namespace sdbusplus::message::details
{
namespace
{

// The context is put together only when there is an error to name.
void check(int r, const char* function, const char* by = nullptr)
{
    if (r >= 0)
    {
        return;
    }
    if (by == nullptr)
    {
        throw exception::SdBusError(-r, function);
    }
    const std::string context = std::string(function) + " " + by;
    throw exception::SdBusError(-r, context.c_str());
}

// sd-bus answers 0 instead of an error for a read at the end of an array;
// for a typed read that is a mismatch all the same.
void checkRead(int r, const char* function, const char* by)
{
    check(r == 0 ? -ENXIO : r, function, by);
}

} // namespace

void appendBasic(sd_bus_message* m, char type, const void* value)
{
    check(sd_bus_message_append_basic(m, type, value),
          "sd_bus_message_append_basic");
}

void appendArray(sd_bus_message* m, char type, const void* data,
                 std::size_t bytes)
{
    check(sd_bus_message_append_array(m, type, data, bytes),
          "sd_bus_message_append_array");
}

void openContainer(sd_bus_message* m, char type, const char* contents)
{
    check(sd_bus_message_open_container(m, type, contents),
          "sd_bus_message_open_container");
}

void closeContainer(sd_bus_message* m)
{
    check(sd_bus_message_close_container(m), "sd_bus_message_close_container");
}

void readBasic(sd_bus_message* m, char type, void* value, const char* by)
{
    checkRead(sd_bus_message_read_basic(m, type, value),
              "sd_bus_message_read_basic", by);
}

std::pair<const void*, std::size_t> readArray(sd_bus_message* m, char type)
{
    const void* data = nullptr;
    std::size_t bytes = 0;
    check(sd_bus_message_read_array(m, type, &data, &bytes),
          "sd_bus_message_read_array");
    return {data, bytes};
}

void enterContainer(sd_bus_message* m, char type, const char* contents,
                    const char* by)
{
    checkRead(sd_bus_message_enter_container(m, type, contents),
              "sd_bus_message_enter_container", by);
}

void exitContainer(sd_bus_message* m, const char* by)
{
    check(sd_bus_message_exit_container(m), "sd_bus_message_exit_container",
          by);
}

void skipVariant(sd_bus_message* m)
{
    checkRead(sd_bus_message_skip(m, "v"), "sd_bus_message_skip",
              reader::variant);
}

std::string_view variantContents(sd_bus_message* m)
{
    char type = 0;
    const char* contents = nullptr;
    const int r = sd_bus_message_peek_type(m, &type, &contents);
    check(r, "sd_bus_message_peek_type", reader::variant);
    if (r == 0 || type != 'v' || contents == nullptr)
    {
        return {};
    }
    return contents;
}

bool atEnd(sd_bus_message* m, const char* by)
{
    const int r = sd_bus_message_at_end(m, 0);
    check(r, "sd_bus_message_at_end", by);
    return r > 0;
}

} // namespace sdbusplus::message::details
