#pragma once

#include <cstdarg>

/**
 * Messages for the operator that may end the process. Each is printed on standard error and on
 * standard output, followed by the text of the current system error if `errno` is set.
 */
extern "C" {

/// When set, its last path component and ": " come before each message. Borrowed; initially NULL.
extern const char* PROGNAME;

/**
 * @param status  exit status; 0 means a warning, after which the call returns.
 * @param flag    ignored.
 */
void messlog2(int status, int flag, const char* format, ...) __attribute__((format(printf, 3, 4)));
void vmesslog2(int status, int flag, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

/**
 * Prints a finished message, with a newline added if it lacks one, and exits if status is not 0.
 * @return 0
 */
int ex_messlog(const char* message, int status, int flag);
}
