#pragma once

#include "sys/Handle.h"

#include <exception>
#include <string>

namespace tarvik {

/// Base of what the process library throws by itself: one ready-made message.
class TError : public std::exception {
public:
    explicit TError(std::string message);
    const char* what() const noexcept override;

private:
    std::string message_;
    Handle<TError> cause_;  // the error behind this one; nothing sets it yet
};

namespace sys {

/// What went wrong in describing or running a program.
class TSysErr : public TError {
public:
    using TError::TError;
};

/// A failed system call; the message is the system's text for the error number.
class TSysCallErr : public TSysErr {
public:
    /// @param errorNumber  an `errno` value.
    explicit TSysCallErr(int errorNumber);
    int errorNumber() const noexcept { return errorNumber_; }

private:
    int errorNumber_;
};

/// @return the number as decimal text.
std::string xtos(unsigned long number);

}  // namespace sys
}  // namespace tarvik
