#include <sdbusplus/exception.hpp>

#include <cerrno>
#include <cstdlib>
#include <utility>

namespace sdbusplus::exception
{

SdBusError::SdBusError(int errnoValue, const char* context)
{
    errnoValue = std::abs(errnoValue);
    sd_bus_error_set_errno(&error, errnoValue != 0 ? errnoValue : EIO);
    compose(context);
}

SdBusError::SdBusError(sd_bus_error* source, const char* context)
{
    if (source != nullptr && sd_bus_error_is_set(source) != 0)
    {
        sd_bus_error_move(&error, source);
    }
    else
    {
        sd_bus_error_set_errno(&error, EIO);
    }
    compose(context);
}

// The bases hold nothing to move.
SdBusError::SdBusError(SdBusError&& other) noexcept :
    fullMessage(std::move(other.fullMessage))
{
    sd_bus_error_move(&error, &other.error);
}

SdBusError& SdBusError::operator=(SdBusError&& other) noexcept
{
    if (this != &other)
    {
        sd_bus_error_free(&error);
        sd_bus_error_move(&error, &other.error);
        fullMessage = std::move(other.fullMessage);
    }
    return *this;
}

SdBusError::~SdBusError()
{
    sd_bus_error_free(&error);
}

const char* SdBusError::name() const noexcept
{
    return error.name != nullptr ? error.name : "";
}

const char* SdBusError::description() const noexcept
{
    return error.message != nullptr ? error.message : "";
}

const char* SdBusError::what() const noexcept
{
    return fullMessage.c_str();
}

int SdBusError::get_errno() const noexcept
{
    return sd_bus_error_get_errno(&error);
}

const sd_bus_error* SdBusError::get_error() const noexcept
{
    return &error;
}

void SdBusError::compose(const char* context)
{
    fullMessage = context != nullptr ? context : "";
    fullMessage += ": ";
    fullMessage += name();
    if (error.message != nullptr)
    {
        fullMessage += ": ";
        fullMessage += error.message;
    }
}

} // namespace sdbusplus::exception
