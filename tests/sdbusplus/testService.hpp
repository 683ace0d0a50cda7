#pragma once

#include <systemd/sd-bus.h>

#include <sdbusplus/bus.hpp>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace sdbustest
{

inline constexpr const char* serviceName = "com.example.Test";
inline constexpr const char* objectPath = "/com/example/test";
inline constexpr const char* interfaceName = "com.example.Test";

// A private connection to the bus at `address`, independent of the
// environment and of the per-thread default connections.
sdbusplus::bus_t connectTo(const std::string& address);

// A D-Bus service on its own connection and thread, owning serviceName.
// On objectPath it answers "Echo" with the arguments it was sent, "Fail"
// with the error com.example.Error.Broken "broken on purpose", and never
// answers "Hang".
class TestService
{
public:
    explicit TestService(const std::string& address);
    ~TestService();
    TestService(const TestService&) = delete;
    TestService& operator=(const TestService&) = delete;

    const std::string& uniqueName() const
    {
        return ownName;
    }

private:
    struct SlotUnref
    {
        void operator()(sd_bus_slot* s) const noexcept
        {
            sd_bus_slot_unref(s);
        }
    };

    void serve();

    sdbusplus::bus_t connection;
    std::unique_ptr<sd_bus_slot, SlotUnref> slot;
    std::string ownName;
    std::atomic<bool> stopping{false};
    std::thread worker;
};

} // namespace sdbustest
