#pragma once

#include <systemd/sd-bus.h>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace storagesim
{

// Scenario files keep their member order: replies follow it.
using Json = nlohmann::ordered_json;

// A value that does not fit its D-Bus type, or a malformed signature.
class EncodeError : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

// The complete types of a signature, in order: "(tt)ay" gives "(tt)" and
// "ay".
std::vector<std::string> splitSignature(std::string_view signature);

// Appends `value` as one value of the complete type `type`.
void appendValue(sd_bus_message* message, std::string_view type,
                 const Json& value);

// Appends one value per complete type of `signature`; `values` is a JSON
// array of exactly that many elements.
void appendValues(sd_bus_message* message, std::string_view signature,
                  const Json& values);

// Hex digit pairs to bytes; white space between pairs is ignored.
std::vector<uint8_t> decodeHex(std::string_view text);

} // namespace storagesim
