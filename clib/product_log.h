#pragma once

#include <cstdarg>

/**
 * The host utility library's diagnostics: one replaceable log function for the whole process, with
 * syslog's priorities. A message is written when `LogLevel` is at least its priority.
 */
extern "C" {

typedef void (*tarvik_log_function)(int priority, const char* format, ...);
typedef void (*tarvik_logv_function)(int priority, const char* format, va_list arguments);

extern tarvik_log_function tarvik_log;    ///< what every routine of the library calls
extern tarvik_logv_function tarvik_logv;  ///< its list-taking twin
extern int LogLevel;                      ///< threshold; initially 6
extern int LogEnabled;   ///< set by tarvik_log_init; the console does not consult it
extern int LogFacility;  ///< facility for the system log; initially mail

/**
 * Chooses the log function and the threshold.
 * @param destination  any text: the console ("console..." in any case also keeps `LogEnabled`);
 *                     NULL: the system log.
 * @param level        threshold; below 1 it becomes 0 and `LogEnabled` is cleared.
 * @param facility     syslog facility.
 * @param options      openlog options; the process id is always added.
 * @param identity     program name in the system log, kept by reference for as long as it is open.
 */
void tarvik_log_init(const char* destination, int level, int facility, int options,
                     const char* identity);

/// Console writer: the formatted text and a newline on standard error, then on standard output.
void _tarvik_utility_log(int priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void _tarvik_utility_logv(int priority, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));
}
