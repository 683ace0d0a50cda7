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

// A failed sd-bus call. what() reads "<prefix>: <error name>: <message>" so
// a single log line tells which sd-bus function failed and why.
class SdBusError final : public internal_exception
{
public:
    // From an errno value (sign ignored; 0 counts as EIO).
    SdBusError(int error, const char* prefix);
    // Takes over the contents of `error`, which is left empty. An unset
    // error counts as EIO.
    SdBusError(sd_bus_error* error, const char* prefix);

    SdBusError(const SdBusError& other);
    SdBusError& operator=(const SdBusError& other);
    SdBusError(SdBusError&& other) noexcept;
    SdBusError& operator=(SdBusError&& other) noexcept;
    ~SdBusError() override;

    const char* name() const noexcept override;
    const char* description() const noexcept override;
    const char* what() const noexcept override;
    int get_errno() const noexcept override;
    const sd_bus_error* get_error() const noexcept;

private:
    void compose(const char* prefix);

    sd_bus_error error = SD_BUS_ERROR_NULL;
    std::string fullMessage;
};

} // namespace exception

using exception_t = exception::exception;

} // namespace sdbusplus
