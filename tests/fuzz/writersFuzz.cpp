// The report writers with names, tags, values, buffers and lengths from the
// fuzz input. The dump's buffer is a heap block of exactly the octets handed
// over, so a read past it is an AddressSanitizer report; the dump must also
// show exactly the first `length` octets, row by row.

#include "fuzzInput.hpp"
#include "qvDbusCollectSmartData.hpp"

#include <fcntl.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <span>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using fuzzing::finding;
using fuzzing::FuzzInput;

// What the dump of `shown` must read: rows of 16 octets, each with its
// offset (six hex digits at least), blanks after the last octet.
std::string expectedDump(std::span<const uint8_t> shown)
{
    std::string text;
    for (size_t offset = 0; offset < shown.size(); offset += 16)
    {
        std::array<char, 32> head{};
        std::snprintf(head.data(), head.size(), "\"%06zx\": \"", offset);
        text += head.data();
        for (size_t i = offset; i < offset + 16; ++i)
        {
            std::array<char, 4> octet{' ', ' ', ' ', '\0'};
            if (i < shown.size())
            {
                std::snprintf(octet.data(), octet.size(), "%02x ", shown[i]);
            }
            text += octet.data();
        }
        text += '"';
        if (offset + 16 < shown.size())
        {
            text += ",\n";
        }
    }
    return text;
}

// The length handed to hexdump: usually the whole buffer, sometimes less
// than it holds, zero or negative. Never more: that would be the caller's
// fault, not the dump's.
int dumpLength(uint8_t mode, size_t available)
{
    const int whole = static_cast<int>(available);
    const std::array<int, 4> lengths{whole, whole / 2, 0, -1 - whole};
    return lengths.at(mode % lengths.size());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    setenv("DLOG_FILE", "/dev/null", 1);
    // hexdump announces every buffer on standard error.
    std::cerr.rdbuf(nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput in(data, size);
    const std::string group = in.text();
    const std::string tag = in.text();
    const auto value = in.value<uint64_t>();
    const uint8_t mode = in.byte();
    const auto rest = in.remaining();
    // Exactly the octets handed over, on the heap.
    const std::vector<uint8_t> buffer(rest.begin(), rest.end());

    // The writers need an open file stream; its output is redirected into
    // memory so that the dump can be checked without touching the disk.
    std::stringbuf captured;
    ReportStream stream;
    stream.attach(open("/dev/null", O_WRONLY | O_CLOEXEC));
    stream.std::ios::rdbuf(&captured);

    jsonAddStartDataGroup(stream, group);
    jsonAddTagAndValueInt64(stream, tag, value);
    const size_t before = captured.str().size();
    const int length = dumpLength(mode, buffer.size());
    hexdump(buffer.data(), length, stream);

    const std::string dump = captured.str().substr(before);
    const auto shown =
        std::span(buffer).first(length > 0 ? static_cast<size_t>(length) : 0);
    if (dump != expectedDump(shown))
    {
        finding("the dump does not show exactly the octets it was given");
    }
    return 0;
}
