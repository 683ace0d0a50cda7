#include "simClient.hpp"

#include <stdexcept>
#include <system_error>

namespace simtest
{
namespace
{

void check(int result, const char* what)
{
    if (result < 0)
    {
        throw std::system_error(-result, std::generic_category(), what);
    }
}

template <typename T>
Json readBasic(sd_bus_message* message, char type)
{
    T value{};
    check(sd_bus_message_read_basic(message, type, &value), "read basic");
    return value;
}

Json readHex(sd_bus_message* message)
{
    const void* data = nullptr;
    size_t size = 0;
    check(sd_bus_message_read_array(message, 'y', &data, &size), "read ay");
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i)
    {
        auto octet = static_cast<const uint8_t*>(data)[i];
        text += digits[octet >> 4];
        text += digits[octet & 0xf];
    }
    return text;
}

Json readValue(sd_bus_message* message);

Json readContainer(sd_bus_message* message, char type, const char* contents)
{
    check(sd_bus_message_enter_container(message, type, contents), "enter");
    Json items = Json::array();
    if (type == 'v')
    {
        items.push_back(contents);
    }
    while (sd_bus_message_at_end(message, 0) == 0)
    {
        items.push_back(readValue(message));
    }
    check(sd_bus_message_exit_container(message), "exit");
    return items;
}

Json readValue(sd_bus_message* message)
{
    char type = 0;
    const char* contents = nullptr;
    check(sd_bus_message_peek_type(message, &type, &contents), "peek");
    switch (type)
    {
        case 'a':
            return std::string(contents) == "y"
                       ? readHex(message)
                       : readContainer(message, type, contents);
        case 'r':
        case 'e':
        case 'v':
            return readContainer(message, type, contents);
        case 'y':
            return readBasic<uint8_t>(message, type);
        case 'b':
            return readBasic<int>(message, type).get<int>() != 0;
        case 'n':
            return readBasic<int16_t>(message, type);
        case 'q':
            return readBasic<uint16_t>(message, type);
        case 'i':
            return readBasic<int32_t>(message, type);
        case 'u':
            return readBasic<uint32_t>(message, type);
        case 'x':
            return readBasic<int64_t>(message, type);
        case 't':
            return readBasic<uint64_t>(message, type);
        case 'd':
            return readBasic<double>(message, type);
        default:
            return readBasic<const char*>(message, type);
    }
}

} // namespace

Json decodeBody(sd_bus_message* message)
{
    Json values = Json::array();
    while (sd_bus_message_at_end(message, 1) == 0)
    {
        values.push_back(readValue(message));
    }
    return values;
}

Client::Client(const std::string& address)
{
    check(sd_bus_new(&bus), "sd_bus_new");
    check(sd_bus_set_address(bus, address.c_str()), "sd_bus_set_address");
    check(sd_bus_set_bus_client(bus, 1), "sd_bus_set_bus_client");
    check(sd_bus_start(bus), "sd_bus_start");
}

Client::~Client()
{
    sd_bus_flush_close_unref(bus);
}

MessagePtr Client::newCall(const std::string& destination,
                           const std::string& path,
                           const std::string& interface,
                           const std::string& member) const
{
    sd_bus_message* message = nullptr;
    check(sd_bus_message_new_method_call(bus, &message, destination.c_str(),
                                         path.c_str(), interface.c_str(),
                                         member.c_str()),
          "new method call");
    return MessagePtr(message);
}

Reply Client::call(sd_bus_message* request,
                   std::chrono::microseconds timeout) const
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* answer = nullptr;
    Reply reply;
    reply.result = sd_bus_call(bus, request, timeout.count(), &error, &answer);
    MessagePtr owned(answer);
    if (reply.result < 0)
    {
        reply.errorName = error.name != nullptr ? error.name : "";
        reply.errorMessage = error.message != nullptr ? error.message : "";
    }
    else
    {
        reply.signature = sd_bus_message_get_signature(answer, 1);
        reply.body = decodeBody(answer);
    }
    sd_bus_error_free(&error);
    return reply;
}

Reply Client::getSubTree(const std::string& root, int32_t depth,
                         const std::vector<std::string>& filter,
                         const std::string& destination,
                         std::chrono::microseconds timeout) const
{
    auto request = newCall(destination, "/xyz/openbmc_project/object_mapper",
                           "xyz.openbmc_project.ObjectMapper", "GetSubTree");
    check(sd_bus_message_append(request.get(), "si", root.c_str(), depth),
          "append");
    check(sd_bus_message_open_container(request.get(), 'a', "s"), "open");
    for (const auto& name : filter)
    {
        check(sd_bus_message_append_basic(request.get(), 's', name.c_str()),
              "append");
    }
    check(sd_bus_message_close_container(request.get()), "close");
    return call(request.get(), timeout);
}

Reply Client::getAll(const std::string& path, const std::string& interface,
                     const std::string& destination,
                     std::chrono::microseconds timeout) const
{
    auto request =
        newCall(destination, path, "org.freedesktop.DBus.Properties", "GetAll");
    check(sd_bus_message_append(request.get(), "s", interface.c_str()),
          "append");
    return call(request.get(), timeout);
}

Reply Client::getProperty(const std::string& path, const std::string& interface,
                          const std::string& property) const
{
    auto request =
        newCall(storage, path, "org.freedesktop.DBus.Properties", "Get");
    check(sd_bus_message_append(request.get(), "ss", interface.c_str(),
                                property.c_str()),
          "append");
    return call(request.get());
}

Reply Client::drive(const std::string& member, const std::string& fqdd,
                    std::chrono::microseconds timeout) const
{
    auto request = newCall(storage, "/com/kest/omrix/storage/drive",
                           "com.kest.omrix.storage.drive.service", member);
    check(sd_bus_message_append(request.get(), "s", fqdd.c_str()), "append");
    return call(request.get(), timeout);
}

void SimTest::serve(const std::string& scenario)
{
    sim = std::make_unique<testsupport::Simulator>(
        testsupport::Simulator::writeScenario(dir, scenario), bus);
    client = std::make_unique<Client>(bus.address());
}

std::vector<std::string> subTreePaths(const Reply& reply)
{
    std::vector<std::string> paths;
    if (reply.body.size() == 1)
    {
        for (const auto& entry : reply.body[0])
        {
            paths.push_back(entry[0].get<std::string>());
        }
    }
    return paths;
}

} // namespace simtest
