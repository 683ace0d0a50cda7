#include <sdbusplus/message.hpp>

namespace sdbusplus::message
{

message::message(sd_bus_message* m) : msg(sd_bus_message_ref(m)) {}

message::message(sd_bus_message* m, std::false_type /*adopt*/) noexcept : msg(m)
{}

message::message(const message& other) :
    msg(sd_bus_message_ref(other.msg.get()))
{}

message& message::operator=(const message& other)
{
    if (this != &other)
    {
        msg.reset(sd_bus_message_ref(other.msg.get()));
    }
    return *this;
}

const char* message::get_signature() const
{
    return sd_bus_message_get_signature(get(), 1);
}

const char* message::get_path() const
{
    return sd_bus_message_get_path(get());
}

const char* message::get_interface() const
{
    return sd_bus_message_get_interface(get());
}

const char* message::get_member() const
{
    return sd_bus_message_get_member(get());
}

const char* message::get_destination() const
{
    return sd_bus_message_get_destination(get());
}

const char* message::get_sender() const
{
    return sd_bus_message_get_sender(get());
}

bool message::is_method_error() const
{
    return sd_bus_message_is_method_error(get(), nullptr) > 0;
}

int message::get_errno() const
{
    return sd_bus_message_get_errno(get());
}

message message::new_method_return() const
{
    sd_bus_message* reply = nullptr;
    int r = sd_bus_message_new_method_return(get(), &reply);
    if (r < 0)
    {
        throw exception::SdBusError(-r, "sd_bus_message_new_method_return");
    }
    return message(reply, std::false_type{});
}

void message::method_return() const
{
    int r = sd_bus_send(nullptr, get(), nullptr);
    if (r < 0)
    {
        throw exception::SdBusError(-r, "sd_bus_send");
    }
}

} // namespace sdbusplus::message
