#pragma once

#include <exception>
#include <stdexcept>
#include <string>

namespace tarvik {

/// Printed bare, without a prefix, by the program's top level.
class TarvikUtilException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Base of the deployment errors: one ready-made message.
class FSACommonException : public std::exception {
public:
    explicit FSACommonException(const std::string& message) : message_(message) { }
    const char* what() const noexcept override { return message_.c_str(); }

private:
    std::string message_;
};

/// Unreadable or malformed package metadata.
class FSAXMLException : public FSACommonException {
public:
    using FSACommonException::FSACommonException;
};

/// A file or directory of a deployment could not be handled.
class FSAFileException : public FSACommonException {
public:
    using FSACommonException::FSACommonException;
};

/// A failed system call: a message (which may be empty) and the error number.
class SystemError : public std::runtime_error {
public:
    SystemError(const std::string& message, int errorNumber);

    /// The message, ": " unless the message is empty, and the system's text for the error number.
    /// Built on the first call; owned by the object. Falls back to the bare message without memory.
    const char* what() const noexcept override;

    int errorNumber() const noexcept { return errorNumber_; }

private:
    int errorNumber_;
    mutable std::string fullText_;
};

/// The error numbers that callers catch by type; `throwSystemError` picks the class.
template <int N>
class ExSystemError : public SystemError {
public:
    explicit ExSystemError(const std::string& message) : SystemError(message, N) { }
};

/**
 * @param message      what failed, without the system's text; may be empty.
 * @param errorNumber  an `errno` value.
 * @throws ExSystemError<errorNumber> for EPERM, ENOENT, EINTR, ECHILD and EAGAIN, else SystemError.
 */
[[noreturn]] void throwSystemError(const std::string& message, int errorNumber);

}  // namespace tarvik
