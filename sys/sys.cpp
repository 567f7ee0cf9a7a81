#include "sys/sys.h"

#include <cstring>
#include <utility>

namespace tarvik {

TError::TError(std::string message) : message_(std::move(message)) { }

const char* TError::what() const noexcept
{
    return message_.c_str();
}

namespace sys {

TSysCallErr::TSysCallErr(int errorNumber)
    : TSysErr(std::strerror(errorNumber)), errorNumber_(errorNumber)
{
}

std::string xtos(unsigned long number)
{
    return std::to_string(number);
}

}  // namespace sys
}  // namespace tarvik
