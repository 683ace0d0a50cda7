#include "testService.hpp"

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace sdbustest
{
namespace
{

void require(int r, const char* what)
{
    if (r < 0)
    {
        throw std::runtime_error(std::string(what) + ": " + strerror(-r));
    }
}

int answer(sd_bus_message* call, sd_bus_error* error)
{
    const char* member = sd_bus_message_get_member(call);
    if (member == nullptr)
    {
        return 0;
    }
    if (strcmp(member, "Echo") == 0)
    {
        sdbusplus::message_t request(call);
        auto reply = request.new_method_return();
        require(sd_bus_message_copy(reply.get(), call, true),
                "sd_bus_message_copy");
        reply.method_return();
        return 1;
    }
    if (strcmp(member, "Fail") == 0)
    {
        return sd_bus_error_set(error, "com.example.Error.Broken",
                                "broken on purpose");
    }
    // "Hang" and anything else: taken, never answered.
    return 1;
}

// Called from C: nothing may unwind through sd-bus.
int handleCall(sd_bus_message* call, void*, sd_bus_error* error) noexcept
{
    try
    {
        return answer(call, error);
    }
    catch (const std::exception&)
    {
        return sd_bus_error_set_errno(error, EIO);
    }
}

} // namespace

sdbusplus::bus_t connectTo(const std::string& address)
{
    sd_bus* raw = nullptr;
    require(sd_bus_new(&raw), "sd_bus_new");
    sdbusplus::bus_t bus(raw, std::false_type{});
    require(sd_bus_set_address(raw, address.c_str()), "sd_bus_set_address");
    require(sd_bus_set_bus_client(raw, true), "sd_bus_set_bus_client");
    require(sd_bus_start(raw), "sd_bus_start");
    return bus;
}

TestService::TestService(const std::string& address) :
    connection(connectTo(address))
{
    sd_bus_slot* raw = nullptr;
    require(sd_bus_add_object(connection.get(), &raw, objectPath, handleCall,
                              nullptr),
            "sd_bus_add_object");
    slot.reset(raw);
    connection.request_name(serviceName);
    ownName = connection.get_unique_name();
    worker = std::thread([this] { serve(); });
}

TestService::~TestService()
{
    stopping = true;
    worker.join();
}

void TestService::serve()
{
    while (!stopping)
    {
        int r = sd_bus_process(connection.get(), nullptr);
        if (r < 0)
        {
            return;
        }
        if (r == 0)
        {
            sd_bus_wait(connection.get(), 50'000);
        }
    }
}

} // namespace sdbustest
