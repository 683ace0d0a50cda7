#pragma once

#include <systemd/sd-bus.h>

#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

namespace sdbusplus
{
namespace bus
{

// Owns one reference to an sd-bus connection. Releasing it only drops that
// reference, never closes the connection: the default connections are
// per-thread objects that other handles (and sd-bus itself) share, and
// closing one would cut every other user of it.
struct bus
{
    bus() = delete;
    bus(const bus&) = delete;
    bus& operator=(const bus&) = delete;
    bus(bus&&) noexcept = default;
    bus& operator=(bus&&) noexcept = default;
    ~bus() = default;

    // Takes a new reference to `b`.
    explicit bus(sd_bus* b);
    // Adopts the caller's reference to `b`.
    bus(sd_bus* b, std::false_type /*adopt*/);

    message_t new_method_call(const char* service, const char* objpath,
                              const char* interf, const char* method);

    // Blocking call. A timeout of 0 means the sd-bus default, which
    // SYSTEMD_BUS_TIMEOUT can shorten. An error reply, a timeout or a
    // transport failure throws exception::SdBusError.
    message_t call(message_t& m, uint64_t timeout_us = 0);
    void call_noreply(message_t& m, uint64_t timeout_us = 0);

    std::string get_unique_name();

  protected:
    // Protected, as in the library this stands in for: code written against
    // this surface must not reach the raw connection.
    sd_bus* get() const noexcept
    {
        return handle.get();
    }

  private:
    struct Unref
    {
        void operator()(sd_bus* b) const noexcept
        {
            sd_bus_unref(b);
        }
    };

    std::unique_ptr<sd_bus, Unref> handle;
};

// The calling thread's default connection: the system bus for a system
// service, otherwise the user bus (DBUS_STARTER_BUS_TYPE decides first).
bus new_default();
// The calling thread's default system-bus connection.
bus new_default_system();
// A new private connection to the system bus.
bus new_system();

} // namespace bus

using bus_t = bus::bus;

} // namespace sdbusplus
