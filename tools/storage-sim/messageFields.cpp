#include "messageFields.hpp"

#include "sdBusHandles.hpp"

namespace storagesim
{

std::string nullSafe(const char* text)
{
    return text == nullptr ? std::string() : std::string(text);
}

std::vector<std::string> readStrings(sd_bus_message* call)
{
    std::vector<std::string> strings;
    checked(sd_bus_message_enter_container(call, 'a', "s"), "reading as");
    const char* item = nullptr;
    while (checked(sd_bus_message_read_basic(call, 's', &item), "reading as") >
           0)
    {
        strings.emplace_back(item);
    }
    checked(sd_bus_message_exit_container(call), "reading as");
    return strings;
}

std::string readString(sd_bus_message* call)
{
    const char* text = nullptr;
    checked(sd_bus_message_read_basic(call, 's', &text), "reading s");
    return text;
}

} // namespace storagesim
