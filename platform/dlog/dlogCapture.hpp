#pragma once

#include <string>
#include <vector>

namespace dlog
{

struct Record
{
    int level;
    int module;
    // The formatted message exactly as the caller produced it, trailing
    // newline included.
    std::string text;
};

// Test hook: while a capture is alive, dlog_printf hands its records here
// instead of writing them out. Captures nest; the newest one receives.
class Capture
{
  public:
    Capture();
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    const std::vector<Record>& records() const;
    void clear();

  private:
    friend void deliver(Record record);

    std::vector<Record> captured;
    Capture* previous;
};

} // namespace dlog
