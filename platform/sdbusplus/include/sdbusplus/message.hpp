#pragma once

#include <systemd/sd-bus.h>

#include <sdbusplus/exception.hpp>
#include <sdbusplus/message/containers.hpp>
#include <sdbusplus/message/native_types.hpp>
#include <sdbusplus/message/types.hpp>

#include <memory>
#include <type_traits>
#include <utility>

namespace sdbusplus
{
namespace message
{

// Owns one reference to an sd-bus message.
class message
{
  public:
    // An empty handle, false when tested.
    message() = default;
    // Takes a new reference to `m`.
    explicit message(sd_bus_message* m);
    // Adopts the caller's reference to `m`.
    message(sd_bus_message* m, std::false_type /*adopt*/) noexcept;

    message(const message& other);
    message& operator=(const message& other);
    message(message&&) noexcept = default;
    message& operator=(message&&) noexcept = default;
    ~message() = default;

    explicit operator bool() const noexcept
    {
        return static_cast<bool>(msg);
    }

    // Appends each argument in turn, the D-Bus type following from the
    // C++ type.
    template <typename... Args>
    void append(Args&&... args)
    {
        (details::appendOne(get(), std::forward<Args>(args)), ...);
    }

    // Reads the next fields into the arguments, in order. Containers are
    // added to, not replaced.
    template <typename... Args>
    void read(Args&&... args)
    {
        (details::readOne(get(), args), ...);
    }

    const char* get_signature() const;

    sd_bus_message* get() const noexcept
    {
        return msg.get();
    }

  private:
    struct Unref
    {
        void operator()(sd_bus_message* m) const noexcept
        {
            sd_bus_message_unref(m);
        }
    };

    std::unique_ptr<sd_bus_message, Unref> msg;
};

using message_t = message;

} // namespace message

using message_t = message::message;

} // namespace sdbusplus
