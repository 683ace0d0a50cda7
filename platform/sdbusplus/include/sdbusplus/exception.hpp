#pragma once

#include <systemd/sd-bus.h>

#include <exception>
#include <string>

namespace sdbusplus
{
namespace exception
{

// Root of every error the binding raises; callers catch this one type to
// cover all D-Bus failures.
struct exception : public std::exception
{
    virtual const char* name() const noexcept = 0;
    virtual const char* description() const noexcept = 0;
    virtual int get_errno() const noexcept = 0;
};

struct internal_exception : public exception
{};

// A failed sd-bus call. what() reads "<context>: <error name>: <message>"
// so a single log line tells which call failed and why. It owns an
// sd_bus_error, so it moves but does not copy.
class SdBusError final : public internal_exception
{
  public:
    // From an errno value (sign ignored; 0 counts as EIO).
    SdBusError(int errnoValue, const char* context);
    // Takes over the contents of `source`, which is left empty. An unset
    // error counts as EIO.
    SdBusError(sd_bus_error* source, const char* context);

    SdBusError(const SdBusError&) = delete;
    SdBusError& operator=(const SdBusError&) = delete;
    SdBusError(SdBusError&& other) noexcept;
    SdBusError& operator=(SdBusError&& other) noexcept;
    ~SdBusError() override;

    const char* name() const noexcept override;
    const char* description() const noexcept override;
    const char* what() const noexcept override;
    int get_errno() const noexcept override;
    const sd_bus_error* get_error() const noexcept;

  private:
    void compose(const char* context);

    sd_bus_error error{}; // SD_BUS_ERROR_NULL, without its C compound literal
    std::string fullMessage;
};

} // namespace exception

using exception_t = exception::exception;

} // namespace sdbusplus
