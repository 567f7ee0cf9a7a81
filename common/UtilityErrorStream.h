#pragma once

#include <exception>
#include <ostream>
#include <streambuf>
#include <string>

namespace tarvik {

/**
 * Sends every character to standard error at once and repeats what was written since the last
 * flush on standard output, so that a caller that captures only standard output sees it too.
 */
class UtilityErrorStreamBuf : public std::basic_streambuf<char> {
public:
    UtilityErrorStreamBuf() = default;
    UtilityErrorStreamBuf(const UtilityErrorStreamBuf&) = delete;
    UtilityErrorStreamBuf& operator=(const UtilityErrorStreamBuf&) = delete;
    ~UtilityErrorStreamBuf() override;

protected:
    int_type overflow(int_type c) override;
    int sync() override;

private:
    void repeat_on_standard_output();

    std::string pending_;
};

/// The stream that fatal messages are written on; text left unflushed is repeated on destruction.
class UtilityErrorStream : public std::ostream {
public:
    UtilityErrorStream();
    ~UtilityErrorStream() override;

private:
    UtilityErrorStreamBuf buffer_;
};

/// The program's one utility error stream.
extern UtilityErrorStream uerr;

/**
 * Writes "Fatal error: ", the dynamic type's name and the message in parentheses as one line on
 * `uerr`, followed by the traceback if the object carries one.
 */
template <class E>
void reportException(const E& e);
extern template void reportException<std::exception>(const std::exception& e);

/// Writes the line for an exception that is not a `std::exception` on `uerr`.
void reportUntypedException();

/**
 * Terminate handler: prints the active exception on the C standard error stream and exits with 1.
 * Without one there is nothing to print, and it aborts. Unsafe in that the exit runs handlers and
 * destructors of a process that met what nobody expected.
 */
[[noreturn]] void terminateByExceptionUnsafe();

}  // namespace tarvik

/// Installs `terminateByExceptionUnsafe`, for programs that use these functions as a library.
extern "C" void oxa_set_terminate();
