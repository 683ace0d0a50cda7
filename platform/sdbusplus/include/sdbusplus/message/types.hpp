#pragma once

#include <systemd/sd-bus.h>

#include <sdbusplus/message/native_types.hpp>
#include <sdbusplus/message/wire.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

// How each supported C++ type maps onto the D-Bus wire: its signature,
// worked out at compile time, and how to append and read one value.
namespace sdbusplus::message::details
{

// A NUL-terminated signature of N characters, usable as a constant.
template <std::size_t N>
struct SigText
{
    std::array<char, N + 1> chars{};

    constexpr const char* c_str() const
    {
        return chars.data();
    }
    constexpr std::string_view view() const
    {
        return {chars.data(), N};
    }
};

constexpr SigText<1> sigChar(char code)
{
    SigText<1> text;
    text.chars[0] = code;
    return text;
}

template <std::size_t... Ns>
constexpr auto joinSig(const SigText<Ns>&... parts)
{
    SigText<(std::size_t{0} + ... + Ns)> joined;
    std::size_t pos = 0;
    auto put = [&](std::string_view part) {
        for (char c : part)
        {
            joined.chars[pos++] = c;
        }
    };
    (put(parts.view()), ...);
    return joined;
}

// Given below for every supported type; using any other type is a
// compile error.
template <typename T>
struct Traits;

template <typename T>
inline constexpr auto signatureOf = Traits<std::remove_cvref_t<T>>::sig;

// Types sd-bus reads and writes as one value of a fixed size. Wire is the
// C type sd-bus uses for it (int for booleans).
template <typename T, char Code, typename Wire = T>
struct FixedTraits
{
    static constexpr auto sig = sigChar(Code);
    static constexpr char code = Code;
    static constexpr bool isBasic = true;
    // Arrays of these can be copied in one block; bool cannot, its wire
    // form is wider than the C++ type.
    static constexpr bool isBlockCopyable = std::is_same_v<T, Wire>;

    static void append(sd_bus_message* m, const T& value)
    {
        const Wire wire = static_cast<Wire>(value);
        appendBasic(m, Code, &wire);
    }
    static void read(sd_bus_message* m, T& value)
    {
        Wire wire{};
        readBasic(m, Code, &wire, reader::fundamental);
        value = static_cast<T>(wire);
    }
};

template <>
struct Traits<bool> : FixedTraits<bool, 'b', int>
{};
template <>
struct Traits<uint8_t> : FixedTraits<uint8_t, 'y'>
{};
template <>
struct Traits<int16_t> : FixedTraits<int16_t, 'n'>
{};
template <>
struct Traits<uint16_t> : FixedTraits<uint16_t, 'q'>
{};
template <>
struct Traits<int32_t> : FixedTraits<int32_t, 'i'>
{};
template <>
struct Traits<uint32_t> : FixedTraits<uint32_t, 'u'>
{};
template <>
struct Traits<int64_t> : FixedTraits<int64_t, 'x'>
{};
template <>
struct Traits<uint64_t> : FixedTraits<uint64_t, 't'>
{};
template <>
struct Traits<double> : FixedTraits<double, 'd'>
{};

// Strings travel as a pointer to NUL-terminated text.
template <char Code>
struct TextTraits
{
    static constexpr auto sig = sigChar(Code);
    static constexpr bool isBasic = true;
    static constexpr bool isBlockCopyable = false;

    static void appendText(sd_bus_message* m, const char* text)
    {
        appendBasic(m, Code, text);
    }
    static std::string readText(sd_bus_message* m)
    {
        const char* text = nullptr;
        readBasic(m, Code, &text, reader::string);
        return text != nullptr ? text : "";
    }
};

template <>
struct Traits<std::string> : TextTraits<'s'>
{
    static void append(sd_bus_message* m, const std::string& value)
    {
        appendText(m, value.c_str());
    }
    static void read(sd_bus_message* m, std::string& value)
    {
        value = readText(m);
    }
};

// Append only: there is nothing to own the text that would be read.
template <>
struct Traits<const char*> : TextTraits<'s'>
{
    static void append(sd_bus_message* m, const char* value)
    {
        appendText(m, value);
    }
};
template <>
struct Traits<char*> : Traits<const char*>
{};
template <>
struct Traits<std::string_view> : TextTraits<'s'>
{
    static void append(sd_bus_message* m, std::string_view value)
    {
        appendText(m, std::string(value).c_str());
    }
};

template <char Code>
struct Traits<StringWrapper<Code>> : TextTraits<Code>
{
    static void append(sd_bus_message* m, const StringWrapper<Code>& value)
    {
        TextTraits<Code>::appendText(m, value.str.c_str());
    }
    static void read(sd_bus_message* m, StringWrapper<Code>& value)
    {
        value.str = TextTraits<Code>::readText(m);
    }
};

} // namespace sdbusplus::message::details
