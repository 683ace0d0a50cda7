#pragma once

#include <sdbusplus/message/types.hpp>

#include <list>
#include <map>
#include <string_view>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

namespace sdbusplus::message::details
{

// Arrays: std::vector and std::list, read by appending to what the
// container already holds.
template <typename Container>
struct SequenceTraits
{
    using Element = typename Container::value_type;
    using ElementTraits = Traits<Element>;

    static constexpr auto sig = joinSig(sigChar('a'), ElementTraits::sig);
    static constexpr bool isBasic = false;
    static constexpr bool isBlockCopyable = false;
    // Large byte arrays (raw SMART data runs to megabytes) are copied in one
    // block instead of one sd-bus call per element.
    static constexpr bool useBlock =
        ElementTraits::isBlockCopyable &&
        std::is_same_v<Container, std::vector<Element>>;

    static void append(sd_bus_message* m, const Container& values)
    {
        if constexpr (useBlock)
        {
            appendArray(m, ElementTraits::code, values.data(),
                        values.size() * sizeof(Element));
        }
        else
        {
            openContainer(m, 'a', ElementTraits::sig.c_str());
            for (const auto& value : values)
            {
                ElementTraits::append(m, value);
            }
            closeContainer(m);
        }
    }

    static void read(sd_bus_message* m, Container& values)
    {
        if constexpr (useBlock)
        {
            // As in the library: one sd_bus_message_read_array, whose own
            // error (ENXIO for another type or the end of the message) is
            // the one reported.
            readBlock(m, values);
            return;
        }
        enterContainer(m, 'a', ElementTraits::sig.c_str(), reader::sequence);
        while (!atEnd(m, reader::sequence))
        {
            Element value{};
            ElementTraits::read(m, value);
            values.push_back(std::move(value));
        }
        exitContainer(m, reader::sequence);
    }

    static void readBlock(sd_bus_message* m, Container& values)
    {
        auto [data, bytes] = readArray(m, ElementTraits::code);
        const std::size_t oldSize = values.size();
        values.resize(oldSize + bytes / sizeof(Element));
        if (bytes != 0)
        {
            std::memcpy(values.data() + oldSize, data, bytes);
        }
    }
};

template <typename T, typename A>
struct Traits<std::vector<T, A>> : SequenceTraits<std::vector<T, A>>
{};
template <typename T, typename A>
struct Traits<std::list<T, A>> : SequenceTraits<std::list<T, A>>
{};

// Dictionary entry, the element type of a dictionary.
template <typename K, typename V>
struct Traits<std::pair<K, V>>
{
    static_assert(Traits<K>::isBasic, "a dictionary key must be a basic type");

    static constexpr auto contents = joinSig(Traits<K>::sig, Traits<V>::sig);
    static constexpr auto sig = joinSig(sigChar('{'), contents, sigChar('}'));
    static constexpr bool isBasic = false;
    static constexpr bool isBlockCopyable = false;

    static void append(sd_bus_message* m, const std::pair<K, V>& entry)
    {
        appendEntry(m, entry.first, entry.second);
    }
    static void appendEntry(sd_bus_message* m, const K& key, const V& value)
    {
        openContainer(m, 'e', contents.c_str());
        Traits<K>::append(m, key);
        Traits<V>::append(m, value);
        closeContainer(m);
    }
    static void read(sd_bus_message* m, std::pair<K, V>& entry)
    {
        enterContainer(m, 'e', contents.c_str(), reader::dictionary);
        Traits<K>::read(m, entry.first);
        Traits<V>::read(m, entry.second);
        exitContainer(m, reader::dictionary);
    }
};

// Dictionary. Reading inserts: a key already present keeps its value.
template <typename K, typename V, typename C, typename A>
struct Traits<std::map<K, V, C, A>>
{
    using Entry = Traits<std::pair<K, V>>;

    static constexpr auto sig = joinSig(sigChar('a'), Entry::sig);
    static constexpr bool isBasic = false;
    static constexpr bool isBlockCopyable = false;

    static void append(sd_bus_message* m, const std::map<K, V, C, A>& values)
    {
        openContainer(m, 'a', Entry::sig.c_str());
        for (const auto& [key, value] : values)
        {
            Entry::appendEntry(m, key, value);
        }
        closeContainer(m);
    }
    static void read(sd_bus_message* m, std::map<K, V, C, A>& values)
    {
        enterContainer(m, 'a', Entry::sig.c_str(), reader::dictionary);
        while (!atEnd(m, reader::dictionary))
        {
            std::pair<K, V> entry{};
            Entry::read(m, entry);
            values.emplace(std::move(entry));
        }
        exitContainer(m, reader::dictionary);
    }
};

// Structure.
template <typename... Ts>
struct Traits<std::tuple<Ts...>>
{
    static_assert(sizeof...(Ts) > 0, "a structure needs at least one member");

    static constexpr auto contents = joinSig(Traits<Ts>::sig...);
    static constexpr auto sig = joinSig(sigChar('('), contents, sigChar(')'));
    static constexpr bool isBasic = false;
    static constexpr bool isBlockCopyable = false;

    static void append(sd_bus_message* m, const std::tuple<Ts...>& values)
    {
        openContainer(m, 'r', contents.c_str());
        std::apply([m](const Ts&... v) { (Traits<Ts>::append(m, v), ...); },
                   values);
        closeContainer(m);
    }
    static void read(sd_bus_message* m, std::tuple<Ts...>& values)
    {
        enterContainer(m, 'r', contents.c_str(), reader::tuple);
        std::apply([m](Ts&... v) { (Traits<Ts>::read(m, v), ...); }, values);
        exitContainer(m, reader::tuple);
    }
};

// Variant. A value read from D-Bus takes the first alternative, in index
// order, whose signature equals the value's exactly; a value that matches
// none is skipped and leaves alternative 0 value-initialised, so one
// unexpected property does not spoil a whole property map.
template <typename... Ts>
struct Traits<std::variant<Ts...>>
{
    using Variant = std::variant<Ts...>;

    static constexpr auto sig = sigChar('v');
    static constexpr bool isBasic = false;
    static constexpr bool isBlockCopyable = false;

    static void append(sd_bus_message* m, const Variant& value)
    {
        std::visit(
            [m](const auto& held) {
            using Held = std::remove_cvref_t<decltype(held)>;
            openContainer(m, 'v', Traits<Held>::sig.c_str());
            Traits<Held>::append(m, held);
            closeContainer(m);
            },
            value);
    }

    // The held type is looked up once and compared with each alternative's
    // signature, instead of asking sd-bus about every alternative.
    static void read(sd_bus_message* m, Variant& value)
    {
        const std::string_view held = variantContents(m);
        if (held.empty() || !readAlternative<0>(m, held, value))
        {
            skipVariant(m);
            value = Variant{};
        }
    }

    template <std::size_t I>
    static bool readAlternative(sd_bus_message* m, std::string_view held,
                                Variant& value)
    {
        if constexpr (I == sizeof...(Ts))
        {
            return false;
        }
        else
        {
            using Alt = std::variant_alternative_t<I, Variant>;
            const char* altSig = Traits<Alt>::sig.c_str();
            if (held != altSig)
            {
                return readAlternative<I + 1>(m, held, value);
            }
            Alt held{};
            enterContainer(m, 'v', altSig, reader::variant);
            Traits<Alt>::read(m, held);
            exitContainer(m, reader::variant);
            // By index: two alternatives of one type must not be ambiguous.
            value.template emplace<I>(std::move(held));
            return true;
        }
    }
};

template <typename Arg>
void appendOne(sd_bus_message* m, Arg&& arg)
{
    Traits<std::decay_t<Arg>>::append(m, arg);
}

template <typename Arg>
void readOne(sd_bus_message* m, Arg& arg)
{
    Traits<std::remove_cvref_t<Arg>>::read(m, arg);
}

} // namespace sdbusplus::message::details
