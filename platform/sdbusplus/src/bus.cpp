#include <sdbusplus/bus.hpp>

#include <stdexcept>

namespace sdbusplus::bus
{

namespace
{

// The library waits for the bus's answer to Hello while it makes a handle
// and does not look at the result: a handshake that fails (a signal cut the
// wait, the bus went away) leaves no unique name, and building a string from
// that null pointer throws std::logic_error with the standard library's
// text. Not an SdBusError, so a handler for the binding's exceptions alone
// does not see it.
void awaitHello(sd_bus* b)
{
    if (b == nullptr)
    {
        return;
    }
    const char* unique = nullptr;
    static_cast<void>(sd_bus_get_unique_name(b, &unique));
    if (unique == nullptr)
    {
        throw std::logic_error(
            "basic_string: construction from null is not valid");
    }
}

// A bus the library could not reach throws at once; the context is the
// function's full signature, as the library spells it.
sd_bus* connected(int r, sd_bus* b, const char* context)
{
    if (r < 0)
    {
        throw exception::SdBusError(-r, context);
    }
    return b;
}

} // namespace

bus::bus(sd_bus* b) : handle(sd_bus_ref(b))
{
    awaitHello(b);
}

bus::bus(sd_bus* b, std::false_type /*adopt*/) : handle(b)
{
    awaitHello(b);
}

message_t bus::new_method_call(const char* service, const char* objpath,
                               const char* interf, const char* method)
{
    sd_bus_message* m = nullptr;
    int r = sd_bus_message_new_method_call(get(), &m, service, objpath, interf,
                                           method);
    if (r < 0)
    {
        throw exception::SdBusError(-r, "sd_bus_message_new_method_call");
    }
    return message_t(m, std::false_type{});
}

namespace
{

[[noreturn]] void throwCallError(sd_bus_error& error, int r, const char* prefix)
{
    // Local failures (no connection, local timeout) may come back as a bare
    // errno without an error name.
    if (sd_bus_error_is_set(&error) == 0)
    {
        sd_bus_error_set_errno(&error, -r);
    }
    throw exception::SdBusError(&error, prefix);
}

} // namespace

message_t bus::call(message_t& m, uint64_t timeout_us)
{
    sd_bus_error error{}; // SD_BUS_ERROR_NULL, without its C compound literal
    sd_bus_message* reply = nullptr;
    int r = sd_bus_call(get(), m.get(), timeout_us, &error, &reply);
    if (r < 0)
    {
        throwCallError(error, r, "sd_bus_call");
    }
    return message_t(reply, std::false_type{});
}

void bus::call_noreply(message_t& m, uint64_t timeout_us)
{
    sd_bus_error error{}; // SD_BUS_ERROR_NULL, without its C compound literal
    int r = sd_bus_call(get(), m.get(), timeout_us, &error, nullptr);
    if (r < 0)
    {
        throwCallError(error, r, "sd_bus_call noreply");
    }
}

std::string bus::get_unique_name()
{
    const char* unique = nullptr;
    int r = sd_bus_get_unique_name(get(), &unique);
    if (r < 0)
    {
        throw exception::SdBusError(-r, "sd_bus_get_unique_name");
    }
    return unique != nullptr ? unique : "";
}

bus new_default()
{
    sd_bus* b = nullptr;
    const int r = sd_bus_default(&b);
    return bus(connected(r, b, __PRETTY_FUNCTION__), std::false_type{});
}

bus new_default_system()
{
    sd_bus* b = nullptr;
    const int r = sd_bus_default_system(&b);
    return bus(connected(r, b, __PRETTY_FUNCTION__), std::false_type{});
}

bus new_system()
{
    sd_bus* b = nullptr;
    const int r = sd_bus_open_system(&b);
    return bus(connected(r, b, __PRETTY_FUNCTION__), std::false_type{});
}

} // namespace sdbusplus::bus
