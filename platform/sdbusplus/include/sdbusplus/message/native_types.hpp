#pragma once

#include <compare>
#include <string>
#include <utility>

namespace sdbusplus::message
{
namespace details
{

// A string that travels under its own D-Bus type code, so overloads and
// variants can tell it from a plain `s` string.
template <char Code>
struct StringWrapper
{
    std::string str;

    StringWrapper() = default;
    StringWrapper(std::string value) : str(std::move(value)) {}
    StringWrapper(const char* value) : str(value != nullptr ? value : "") {}

    operator const std::string&() const noexcept
    {
        return str;
    }

    auto operator<=>(const StringWrapper&) const = default;
    bool operator==(const StringWrapper&) const = default;
};

} // namespace details

using object_path = details::StringWrapper<'o'>;
using signature = details::StringWrapper<'g'>;

} // namespace sdbusplus::message
