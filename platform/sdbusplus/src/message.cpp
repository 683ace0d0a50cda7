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

} // namespace sdbusplus::message
