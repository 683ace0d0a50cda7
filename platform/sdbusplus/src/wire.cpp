#include <sdbusplus/exception.hpp>
#include <sdbusplus/message/wire.hpp>

#include <cerrno>

namespace sdbusplus::message::details
{
namespace
{

void check(int r, const char* function)
{
    if (r < 0)
    {
        throw exception::SdBusError(-r, function);
    }
}

// sd-bus answers 0 instead of an error for some reads at the end of a
// container; for a typed read that is a mismatch all the same.
void checkRead(int r, const char* function)
{
    check(r, function);
    if (r == 0)
    {
        throw exception::SdBusError(ENXIO, function);
    }
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

void readBasic(sd_bus_message* m, char type, void* value)
{
    checkRead(sd_bus_message_read_basic(m, type, value),
              "sd_bus_message_read_basic");
}

std::pair<const void*, std::size_t> readArray(sd_bus_message* m, char type)
{
    const void* data = nullptr;
    std::size_t bytes = 0;
    check(sd_bus_message_read_array(m, type, &data, &bytes),
          "sd_bus_message_read_array");
    return {data, bytes};
}

void enterContainer(sd_bus_message* m, char type, const char* contents)
{
    checkRead(sd_bus_message_enter_container(m, type, contents),
              "sd_bus_message_enter_container");
}

void exitContainer(sd_bus_message* m)
{
    check(sd_bus_message_exit_container(m), "sd_bus_message_exit_container");
}

void skipVariant(sd_bus_message* m)
{
    checkRead(sd_bus_message_skip(m, "v"), "sd_bus_message_skip");
}

std::string_view variantContents(sd_bus_message* m)
{
    char type = 0;
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(m, &type, &contents);
    check(r, "sd_bus_message_peek_type");
    if (r == 0 || type != 'v' || contents == nullptr)
    {
        return {};
    }
    return contents;
}

bool atEnd(sd_bus_message* m)
{
    int r = sd_bus_message_at_end(m, false);
    check(r, "sd_bus_message_at_end");
    return r > 0;
}

bool nextIs(sd_bus_message* m, char type, const char* contents)
{
    int r = sd_bus_message_verify_type(m, type, contents);
    check(r, "sd_bus_message_verify_type");
    return r > 0;
}

} // namespace sdbusplus::message::details
