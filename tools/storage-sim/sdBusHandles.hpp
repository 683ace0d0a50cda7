#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <string>
#include <system_error>

namespace storagesim
{

struct BusRelease
{
    void operator()(sd_bus* bus) const
    {
        sd_bus_flush_close_unref(bus);
    }
};

struct MessageRelease
{
    void operator()(sd_bus_message* message) const
    {
        sd_bus_message_unref(message);
    }
};

struct SlotRelease
{
    void operator()(sd_bus_slot* slot) const
    {
        sd_bus_slot_unref(slot);
    }
};

struct EventRelease
{
    void operator()(sd_event* event) const
    {
        sd_event_unref(event);
    }
};

struct EventSourceRelease
{
    void operator()(sd_event_source* source) const
    {
        sd_event_source_unref(source);
    }
};

using BusPtr = std::unique_ptr<sd_bus, BusRelease>;
using MessagePtr = std::unique_ptr<sd_bus_message, MessageRelease>;
using SlotPtr = std::unique_ptr<sd_bus_slot, SlotRelease>;
using EventPtr = std::unique_ptr<sd_event, EventRelease>;
using EventSourcePtr = std::unique_ptr<sd_event_source, EventSourceRelease>;

// sd-bus and sd-event report failures as negative errno values.
inline int checked(int result, const std::string& what)
{
    if (result < 0)
    {
        throw std::system_error(-result, std::generic_category(), what);
    }
    return result;
}

} // namespace storagesim
