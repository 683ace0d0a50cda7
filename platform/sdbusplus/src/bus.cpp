#include <sdbusplus/bus.hpp>

namespace sdbusplus::bus
{

bus::bus(sd_bus* b) : handle(sd_bus_ref(b)) {}

bus::bus(sd_bus* b, std::false_type /*adopt*/) : handle(b) {}

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
    sd_bus_default(&b);
    return bus(b, std::false_type{});
}

bus new_default_system()
{
    sd_bus* b = nullptr;
    sd_bus_default_system(&b);
    return bus(b, std::false_type{});
}

bus new_system()
{
    sd_bus* b = nullptr;
    sd_bus_open_system(&b);
    return bus(b, std::false_type{});
}

} // namespace sdbusplus::bus
