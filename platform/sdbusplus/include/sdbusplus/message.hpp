#pragma once

#include <systemd/sd-bus.h>

#include <sdbusplus/exception.hpp>
#include <sdbusplus/message/containers.hpp>
#include <sdbusplus/message/native_types.hpp>
#include <sdbusplus/message/types.hpp>

#include <memory>
#include <tuple>
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

    // Reads and returns one value, or a tuple of several.
    template <typename... Ts>
    auto unpack()
    {
        if constexpr (sizeof...(Ts) == 0)
        {
            return;
        }
        else if constexpr (sizeof...(Ts) == 1)
        {
            std::tuple_element_t<0, std::tuple<Ts...>> value{};
            read(value);
            return value;
        }
        else
        {
            std::tuple<Ts...> values{};
            std::apply([this](auto&... v) { read(v...); }, values);
            return values;
        }
    }

    const char* get_signature() const;
    const char* get_path() const;
    const char* get_interface() const;
    const char* get_member() const;
    const char* get_destination() const;
    const char* get_sender() const;
    bool is_method_error() const;
    int get_errno() const;

    message new_method_return() const;
    // Sends this message on the bus it was made for.
    void method_return() const;

    sd_bus_message* get() const noexcept
    {
        return msg.get();
    }
    sd_bus_message* release() noexcept
    {
        return msg.release();
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
