#include "encoder.hpp"

#include <cstring>
#include <limits>
#include <utility>

namespace storagesim
{
namespace
{

constexpr std::string_view basicTypes = "ybnqiuxtdsog";

bool isBasic(char code)
{
    return basicTypes.find(code) != std::string_view::npos;
}

// Length of the complete type that starts at signature[pos].
std::size_t typeLength(std::string_view signature, std::size_t pos)
{
    if (pos >= signature.size())
    {
        throw EncodeError("signature \"" + std::string(signature) +
                          "\" ends inside a type");
    }
    char code = signature[pos];
    if (isBasic(code) || code == 'v')
    {
        return 1;
    }
    if (code == 'a')
    {
        if (pos + 1 < signature.size() && signature[pos + 1] == '{')
        {
            std::size_t at = pos + 2;
            if (at >= signature.size() || !isBasic(signature[at]))
            {
                throw EncodeError("dictionary key in \"" +
                                  std::string(signature) +
                                  "\" is not a basic type");
            }
            at += 1;
            at += typeLength(signature, at);
            if (at >= signature.size() || signature[at] != '}')
            {
                throw EncodeError("dictionary entry in \"" +
                                  std::string(signature) +
                                  "\" needs exactly one key and one value");
            }
            return at + 1 - pos;
        }
        return 1 + typeLength(signature, pos + 1);
    }
    if (code == '(')
    {
        std::size_t at = pos + 1;
        while (at < signature.size() && signature[at] != ')')
        {
            at += typeLength(signature, at);
        }
        if (at >= signature.size() || at == pos + 1)
        {
            throw EncodeError("structure in \"" + std::string(signature) +
                              "\" is empty or not closed");
        }
        return at + 1 - pos;
    }
    if (code == 'h')
    {
        throw EncodeError("file descriptors (h) cannot be simulated");
    }
    throw EncodeError("unknown type code '" + std::string(1, code) + "' in \"" +
                      std::string(signature) + "\"");
}

[[noreturn]] void mismatch(std::string_view type, const Json& value,
                           const char* expected)
{
    throw EncodeError("value " + value.dump() + " for type " +
                      std::string(type) + ": expected " + expected);
}

void check(int result, std::string_view type, const Json& value)
{
    if (result < 0)
    {
        throw EncodeError("value " + value.dump() + " for type " +
                          std::string(type) +
                          " refused by sd-bus: " + std::strerror(-result));
    }
}

template <typename T>
T toInteger(std::string_view type, const Json& value)
{
    bool fits = false;
    if (value.is_number_unsigned())
    {
        fits = std::in_range<T>(value.get<uint64_t>());
    }
    else if (value.is_number_integer())
    {
        fits = std::in_range<T>(value.get<int64_t>());
    }
    else
    {
        mismatch(type, value, "an integer");
    }
    if (!fits)
    {
        mismatch(type, value, "an integer in the type's range");
    }
    return value.is_number_unsigned() ? static_cast<T>(value.get<uint64_t>())
                                      : static_cast<T>(value.get<int64_t>());
}

template <typename T>
void appendInteger(sd_bus_message* message, char code, const Json& value)
{
    std::string_view type(&code, 1);
    T number = toInteger<T>(type, value);
    check(sd_bus_message_append_basic(message, code, &number), type, value);
}

void appendBasic(sd_bus_message* message, char code, const Json& value)
{
    std::string_view type(&code, 1);
    switch (code)
    {
        case 'y':
            return appendInteger<uint8_t>(message, code, value);
        case 'n':
            return appendInteger<int16_t>(message, code, value);
        case 'q':
            return appendInteger<uint16_t>(message, code, value);
        case 'i':
            return appendInteger<int32_t>(message, code, value);
        case 'u':
            return appendInteger<uint32_t>(message, code, value);
        case 'x':
            return appendInteger<int64_t>(message, code, value);
        case 't':
            return appendInteger<uint64_t>(message, code, value);
        case 'b':
        {
            if (!value.is_boolean())
            {
                mismatch(type, value, "true or false");
            }
            int flag = value.get<bool>() ? 1 : 0;
            return check(sd_bus_message_append_basic(message, code, &flag),
                         type, value);
        }
        case 'd':
        {
            if (!value.is_number())
            {
                mismatch(type, value, "a number");
            }
            double number = value.get<double>();
            return check(sd_bus_message_append_basic(message, code, &number),
                         type, value);
        }
        default:
        {
            if (!value.is_string())
            {
                mismatch(type, value, "a string");
            }
            const auto& text = value.get_ref<const std::string&>();
            return check(
                sd_bus_message_append_basic(message, code, text.c_str()), type,
                value);
        }
    }
}

// Opens a container, fills it with `fill` and closes it again.
template <typename Fill>
void inContainer(sd_bus_message* message, char kind,
                 const std::string& contents, const Json& value, Fill fill)
{
    std::string type = std::string(1, kind) + contents;
    check(sd_bus_message_open_container(message, kind, contents.c_str()), type,
          value);
    fill();
    check(sd_bus_message_close_container(message), type, value);
}

// Dictionary keys written as JSON object member names are text; numeric and
// boolean key types take the text's JSON meaning ("12", "true").
Json keyFromName(char keyCode, const std::string& name)
{
    if (keyCode == 's' || keyCode == 'o' || keyCode == 'g')
    {
        return name;
    }
    Json key = Json::parse(name, nullptr, false);
    if (key.is_discarded())
    {
        throw EncodeError("dictionary key \"" + name + "\" is not a " +
                          std::string(1, keyCode) + " value");
    }
    return key;
}

void appendDictionary(sd_bus_message* message, std::string_view entryType,
                      const Json& value)
{
    // entryType is "{kv}".
    std::string inner(entryType.substr(1, entryType.size() - 2));
    std::string valueType = inner.substr(1);
    auto appendEntry = [&](const Json& key, const Json& item) {
        inContainer(message, 'e', inner, item, [&] {
            appendBasic(message, inner[0], key);
            appendValue(message, valueType, item);
        });
    };
    if (value.is_object())
    {
        inContainer(message, 'a', std::string(entryType), value, [&] {
            for (const auto& [name, item] : value.items())
            {
                appendEntry(keyFromName(inner[0], name), item);
            }
        });
        return;
    }
    if (!value.is_array())
    {
        mismatch("a" + std::string(entryType), value,
                 "an object or an array of [key, value] pairs");
    }
    inContainer(message, 'a', std::string(entryType), value, [&] {
        for (const auto& pair : value)
        {
            if (!pair.is_array() || pair.size() != 2)
            {
                mismatch("a" + std::string(entryType), pair,
                         "a [key, value] pair");
            }
            appendEntry(pair[0], pair[1]);
        }
    });
}

void appendArray(sd_bus_message* message, std::string_view type,
                 const Json& value)
{
    std::string_view element = type.substr(1);
    if (element.front() == '{')
    {
        return appendDictionary(message, element, value);
    }
    if (element == "y" && value.is_string())
    {
        auto bytes = decodeHex(value.get_ref<const std::string&>());
        return check(sd_bus_message_append_array(message, 'y', bytes.data(),
                                                 bytes.size()),
                     type, value);
    }
    if (!value.is_array())
    {
        mismatch(type, value, "an array");
    }
    inContainer(message, 'a', std::string(element), value, [&] {
        for (const auto& item : value)
        {
            appendValue(message, element, item);
        }
    });
}

void appendStruct(sd_bus_message* message, std::string_view type,
                  const Json& value)
{
    std::string contents(type.substr(1, type.size() - 2));
    auto members = splitSignature(contents);
    if (!value.is_array() || value.size() != members.size())
    {
        mismatch(type, value,
                 ("an array of " + std::to_string(members.size()) + " members")
                     .c_str());
    }
    inContainer(message, 'r', contents, value, [&] {
        for (std::size_t i = 0; i < members.size(); ++i)
        {
            appendValue(message, members[i], value[i]);
        }
    });
}

void appendVariant(sd_bus_message* message, const Json& value)
{
    if (!value.is_array() || value.size() != 2 || !value[0].is_string())
    {
        mismatch("v", value, "a [signature, value] pair");
    }
    const auto& contents = value[0].get_ref<const std::string&>();
    if (splitSignature(contents).size() != 1)
    {
        mismatch("v", value, "a signature of one complete type");
    }
    inContainer(message, 'v', contents, value,
                [&] { appendValue(message, contents, value[1]); });
}

int hexDigit(char c)
{
    if (c >= '0' && c <= '9')
    {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f')
    {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F')
    {
        return c - 'A' + 10;
    }
    return -1;
}

bool isSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

} // namespace

std::vector<std::string> splitSignature(std::string_view signature)
{
    std::vector<std::string> types;
    std::size_t pos = 0;
    while (pos < signature.size())
    {
        std::size_t length = typeLength(signature, pos);
        types.emplace_back(signature.substr(pos, length));
        pos += length;
    }
    return types;
}

void appendValue(sd_bus_message* message, std::string_view type,
                 const Json& value)
{
    if (type.empty() || typeLength(type, 0) != type.size())
    {
        throw EncodeError("\"" + std::string(type) +
                          "\" is not one complete type");
    }
    switch (type.front())
    {
        case 'a':
            return appendArray(message, type, value);
        case '(':
            return appendStruct(message, type, value);
        case 'v':
            return appendVariant(message, value);
        default:
            return appendBasic(message, type.front(), value);
    }
}

void appendValues(sd_bus_message* message, std::string_view signature,
                  const Json& values)
{
    auto types = splitSignature(signature);
    if (!values.is_array() || values.size() != types.size())
    {
        throw EncodeError(
            "signature \"" + std::string(signature) + "\" needs an array of " +
            std::to_string(types.size()) + " values, got " + values.dump());
    }
    for (std::size_t i = 0; i < types.size(); ++i)
    {
        appendValue(message, types[i], values[i]);
    }
}

std::vector<uint8_t> decodeHex(std::string_view text)
{
    std::vector<uint8_t> bytes;
    bytes.reserve(text.size() / 2);
    std::size_t pos = 0;
    while (pos < text.size())
    {
        if (isSpace(text[pos]))
        {
            ++pos;
            continue;
        }
        int high = hexDigit(text[pos]);
        int low = pos + 1 < text.size() ? hexDigit(text[pos + 1]) : -1;
        if (high < 0 || low < 0)
        {
            throw EncodeError("hex data has a bad digit pair at offset " +
                              std::to_string(pos));
        }
        bytes.push_back(static_cast<uint8_t>(high * 16 + low));
        pos += 2;
    }
    return bytes;
}

} // namespace storagesim
