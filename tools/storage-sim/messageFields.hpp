#pragma once

#include <systemd/sd-bus.h>

#include <string>
#include <vector>

namespace storagesim
{

// A header field sd-bus may leave unset (destination, path, member) as
// text; unset reads as "".
std::string nullSafe(const char* text);

// The call's next argument of type "s", and of type "as".
std::string readString(sd_bus_message* call);
std::vector<std::string> readStrings(sd_bus_message* call);

} // namespace storagesim
