// Replies of every shape the collector reads, built from the fuzz input with
// sd-bus's own append calls (so always well-formed on the wire) and read back
// through the binding into the collector's types. The signature written is
// either one the collector expects or one taken from the input, and the
// reader is chosen independently, so mismatched replies are covered too.
//
// Findings: anything but sdbusplus::exception::exception escaping a read, a
// reply of exactly the expected signature that fails to read or is not read
// to its end, and every sanitizer report.

#include "fuzzInput.hpp"
#include "qvDbusCollectCommon.hpp"

#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <sdbusplus/exception.hpp>
#include <sdbusplus/message.hpp>

#include <array>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace
{

using fuzzing::finding;
using fuzzing::FuzzInput;

// sd-bus makes messages only for a started connection. One end of a socket
// pair is enough: nothing is ever sent, and the peer end stays open for the
// process, as a closed peer would only make sd-bus log a broken connection.
sd_bus* messageFactory()
{
    static sd_bus* const bus = [] {
        std::array<int, 2> fds{};
        sd_bus* raw = nullptr;
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()) <
                0 ||
            sd_bus_new(&raw) < 0 || sd_bus_set_fd(raw, fds[0], fds[0]) < 0 ||
            sd_bus_start(raw) < 0)
        {
            finding("cannot start the message factory");
        }
        return raw;
    }();
    return bus;
}

// Length of the complete type at the start of `sig`; 0 when there is none.
size_t completeTypeLength(std::string_view sig)
{
    if (sig.empty())
    {
        return 0;
    }
    if (sig[0] == 'a')
    {
        const size_t element = completeTypeLength(sig.substr(1));
        return element == 0 ? 0 : element + 1;
    }
    if (sig[0] != '(' && sig[0] != '{')
    {
        return 1;
    }
    const char close = sig[0] == '(' ? ')' : '}';
    size_t pos = 1;
    while (pos < sig.size() && sig[pos] != close)
    {
        const size_t member = completeTypeLength(sig.substr(pos));
        if (member == 0)
        {
            return 0;
        }
        pos += member;
    }
    return pos < sig.size() ? pos + 1 : 0;
}

// Contents a variant gets: the inventory's own property types first, then
// some it never publishes.
constexpr std::array<std::string_view, 31> variantContents = {
    "s",      "b",  "y",  "n",     "q",     "i",      "u",         "x",
    "t",      "d",  "as", "ay",    "an",    "aq",     "ai",        "au",
    "ax",     "at", "ad", "(ys)",  "a(ss)", "a(ssu)", "a(su)",     "a(suuuu)",
    "(yyyy)", "o",  "g",  "a{sv}", "v",     "(ss)",   "a{sa{sas}}"};

constexpr int maxVariantDepth = 6;

class ReplyWriter
{
  public:
    ReplyWriter(sd_bus_message* m, FuzzInput& in) : m(m), in(in) {}

    // False when sd-bus refuses a value (bad UTF-8, a bad object path, too
    // deep): such a reply never reaches the collector.
    bool appendAll(std::string_view sig, int depth = 0)
    {
        while (!sig.empty())
        {
            const size_t length = completeTypeLength(sig);
            if (length == 0 || !appendValue(sig.substr(0, length), depth))
            {
                return false;
            }
            sig.remove_prefix(length);
        }
        return true;
    }

  private:
    bool appendValue(std::string_view type, int depth)
    {
        switch (type[0])
        {
            case 'a':
                return appendArray(type.substr(1), depth);
            case '(':
                return appendMembers('r', type.substr(1, type.size() - 2),
                                     depth);
            case '{':
                return appendMembers('e', type.substr(1, type.size() - 2),
                                     depth);
            case 'v':
                return appendVariant(depth);
            default:
                return appendBasic(type[0]);
        }
    }

    bool appendArray(std::string_view element, int depth)
    {
        if (element == "y")
        {
            // Byte arrays come in one piece and may be long: raw data and
            // pages of any length.
            const auto octets = in.take(in.value<uint16_t>());
            return sd_bus_message_append_array(m, 'y', octets.data(),
                                               octets.size()) >= 0;
        }
        const std::string contents(element);
        if (sd_bus_message_open_container(m, 'a', contents.c_str()) < 0)
        {
            return false;
        }
        for (int count = in.byte() % 6; count > 0; --count)
        {
            if (!appendValue(element, depth))
            {
                return false;
            }
        }
        return sd_bus_message_close_container(m) >= 0;
    }

    bool appendMembers(char kind, std::string_view members, int depth)
    {
        const std::string contents(members);
        return sd_bus_message_open_container(m, kind, contents.c_str()) >= 0 &&
               appendAll(members, depth) &&
               sd_bus_message_close_container(m) >= 0;
    }

    bool appendVariant(int depth)
    {
        const uint8_t choice = in.byte();
        const std::string contents = choice < variantContents.size()
                                         ? std::string(variantContents[choice])
                                         : in.text();
        if (depth >= maxVariantDepth || contents.empty() ||
            completeTypeLength(contents) != contents.size() ||
            sd_bus_message_open_container(m, 'v', contents.c_str()) < 0)
        {
            return false;
        }
        return appendValue(contents, depth + 1) &&
               sd_bus_message_close_container(m) >= 0;
    }

    bool appendBasic(char type)
    {
        switch (type)
        {
            case 'y':
                return put(type, in.byte());
            case 'b':
                return put(type, static_cast<int>(in.byte() & 1));
            case 'n':
            case 'q':
                return put(type, in.value<uint16_t>());
            case 'i':
            case 'u':
                return put(type, in.value<uint32_t>());
            case 'x':
            case 't':
            case 'd':
                return put(type, in.value<uint64_t>());
            case 's':
            case 'o':
            case 'g':
            {
                const std::string text = in.text();
                return sd_bus_message_append_basic(m, type, text.c_str()) >= 0;
            }
            default:
                // Unix descriptors and anything unknown.
                return false;
        }
    }

    template <typename T>
    bool put(char type, T value)
    {
        return sd_bus_message_append_basic(m, type, &value) >= 0;
    }

    sd_bus_message* m;
    FuzzInput& in;
};

// The reads below are the collector's, in its order and into its types.
void readProperties(sdbusplus::message_t& reply)
{
    DbusPropertyMap properties;
    reply.read(properties);
    for (const auto& [name, value] : properties)
    {
        if (value.valueless_by_exception())
        {
            finding("a property read left its variant empty");
        }
    }
}

template <size_t Pages>
void readHardDrive(sdbusplus::message_t& reply)
{
    std::tuple<uint64_t, uint64_t> status{};
    uint8_t octet = 0;
    uint32_t word = 0;
    uint32_t protocol = 0;
    uint64_t wide = 0;
    uint32_t attributes = 0;
    std::string first;
    std::string second;
    reply.read(status, octet, word, protocol, wide, attributes, first, second);
    for (size_t page = 0; page < Pages; ++page)
    {
        std::vector<uint8_t> data;
        uint8_t code = 0;
        uint16_t length = 0;
        reply.read(data, code, length);
    }
}

struct Shape
{
    std::string_view signature;
    void (*read)(sdbusplus::message_t&);
};

constexpr std::string_view sataSignature = "(tt)yuutussayyqayyqayyqayyqayyq";
constexpr std::string_view sasSignature =
    "(tt)yuutussayyqayyqayyqayyqayyqayyqayyq";

constexpr std::array<Shape, 5> shapes = {{
    {"a{sa{sas}}",
     [](sdbusplus::message_t& reply) {
    DbusSubTree subTree;
    reply.read(subTree);
     }},
    {"a{sv}", readProperties},
    {"(tt)ay",
     [](sdbusplus::message_t& reply) {
    std::tuple<uint64_t, uint64_t> status{};
    std::vector<uint8_t> data;
    reply.read(status, data);
     }},
                                         {sataSignature, readHardDrive<5>},
                                         {sasSignature, readHardDrive<7>},
}};

// A sealed message holding what the input describes, rewound for reading.
// Empty when sd-bus refused to build it.
sdbusplus::message_t buildReply(std::string_view signature, FuzzInput& in)
{
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(messageFactory(), &raw, "org.fuzz",
                                       "/org/fuzz", "org.fuzz", "Reply") < 0)
    {
        finding("cannot create a message");
    }
    sdbusplus::message_t reply(raw, std::false_type{});
    static uint64_t cookie = 0;
    if (!ReplyWriter(raw, in).appendAll(signature) ||
        sd_bus_message_seal(raw, ++cookie, 0) < 0 ||
        sd_bus_message_rewind(raw, true) < 0)
    {
        return sdbusplus::message_t();
    }
    return reply;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The binding's failures are expected here; keep the log quiet.
    setenv("DLOG_FILE", "/dev/null", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput in(data, size);
    const Shape& reader = shapes[in.byte() % shapes.size()];
    const uint8_t writerChoice = in.byte();
    const std::string signature =
        writerChoice < 0x80
            ? std::string(shapes[writerChoice % shapes.size()].signature)
            : in.text();
    auto reply = buildReply(signature, in);
    if (!reply)
    {
        return -1; // never a reply; keep it out of the corpus
    }
    const bool expected = signature == reader.signature;
    try
    {
        reader.read(reply);
    }
    catch (const sdbusplus::exception::exception&)
    {
        if (expected)
        {
            finding("a reply of the expected signature failed to read: " +
                    signature);
        }
        return 0;
    }
    if (expected && sd_bus_message_at_end(reply.get(), true) <= 0)
    {
        finding("a reply of the expected signature was not read to its end: " +
                signature);
    }
    return 0;
}
