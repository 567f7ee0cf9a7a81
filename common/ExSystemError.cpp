#include "common/ExSystemError.h"

#include <cerrno>
#include <cstring>

namespace tarvik {

SystemError::SystemError(const std::string& message, int errorNumber)
    : std::runtime_error(message), errorNumber_(errorNumber)
{
}

const char* SystemError::what() const noexcept
{
    const char* const message = std::runtime_error::what();
    try {
        if (fullText_.empty()) {
            std::string text(message);
            if (!text.empty())
                text += ": ";
            text += std::strerror(errorNumber_);
            fullText_.swap(text);
        }
        return fullText_.c_str();
    } catch (const std::exception&) {
        return message;
    }
}

void throwSystemError(const std::string& message, int errorNumber)
{
    switch (errorNumber) {
    case EPERM:
        throw ExSystemError<EPERM>(message);
    case ENOENT:
        throw ExSystemError<ENOENT>(message);
    case EINTR:
        throw ExSystemError<EINTR>(message);
    case ECHILD:
        throw ExSystemError<ECHILD>(message);
    case EAGAIN:
        throw ExSystemError<EAGAIN>(message);
    default:
        throw SystemError(message, errorNumber);
    }
}

}  // namespace tarvik
