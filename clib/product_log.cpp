#include "clib/product_log.h"

#include <strings.h>
#include <syslog.h>

#include <cstdio>

tarvik_log_function tarvik_log = _tarvik_utility_log;
tarvik_logv_function tarvik_logv = _tarvik_utility_logv;
int LogLevel = 6;
int LogEnabled = 1;
int LogFacility = LOG_MAIL;

namespace {

constexpr char kConsole[] = "console";

void write_line(FILE* stream, const char* format, va_list arguments)
{
    std::vfprintf(stream, format, arguments);
    std::fputc('\n', stream);
    std::fflush(stream);
}

}  // namespace

void tarvik_log_init(const char* destination, int level, int facility, int options,
                     const char* identity)
{
    LogFacility = facility;
    LogEnabled = level >= 1 ? 1 : 0;
    LogLevel = level >= 1 ? level : 0;
    if (destination != nullptr) {
        tarvik_log = _tarvik_utility_log;
        tarvik_logv = _tarvik_utility_logv;
        if (strncasecmp(destination, kConsole, sizeof kConsole - 1) != 0)
            LogEnabled = 0;
    } else {
        closelog();
        openlog(identity, options | LOG_PID, LogFacility);
        tarvik_log = syslog;
        tarvik_logv = vsyslog;
    }
}

void _tarvik_utility_log(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    _tarvik_utility_logv(priority, format, arguments);
    va_end(arguments);
}

void _tarvik_utility_logv(int priority, const char* format, va_list arguments)
{
    if (LogLevel < priority)
        return;
    va_list again;
    va_copy(again, arguments);
    write_line(stderr, format, arguments);
    write_line(stdout, format, again);
    va_end(again);
}
