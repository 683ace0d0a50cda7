#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

namespace fuzzing
{

// Ends the run on a finding: libFuzzer keeps the input as a reproducer.
[[noreturn]] inline void finding(std::string_view what)
{
    std::fprintf(stderr, "finding: %.*s\n", static_cast<int>(what.size()),
                 what.data());
    std::abort();
}

// Hands out the fuzz input piece by piece; once it runs dry every value
// reads as zero, so any input drives the target to the end.
class FuzzInput
{
  public:
    FuzzInput(const uint8_t* data, size_t size) : rest(data, size) {}

    uint8_t byte()
    {
        if (rest.empty())
        {
            return 0;
        }
        const uint8_t value = rest.front();
        rest = rest.subspan(1);
        return value;
    }

    template <typename T>
    T value()
    {
        T result{};
        for (size_t i = 0; i < sizeof(T); ++i)
        {
            result = static_cast<T>((result << 8) | byte());
        }
        return result;
    }

    // Up to `limit` octets, fewer when the input ends first.
    std::span<const uint8_t> take(size_t limit)
    {
        const auto taken = rest.first(std::min(limit, rest.size()));
        rest = rest.subspan(taken.size());
        return taken;
    }

    // A string whose length comes first, as one octet.
    std::string text()
    {
        const auto chars = take(byte());
        return {chars.begin(), chars.end()};
    }

    std::span<const uint8_t> remaining() const
    {
        return rest;
    }

  private:
    std::span<const uint8_t> rest;
};

} // namespace fuzzing
