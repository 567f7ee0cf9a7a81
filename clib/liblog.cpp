#include "clib/liblog.h"

#include "clib/malloc_text.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

const char* PROGNAME = nullptr;

namespace {

constexpr std::size_t kFirstSize = 4096;

using Text = MallocText;

/// A formatted message in a buffer that may have room to spare.
struct Message {
    Text text;
    std::size_t size = 0;
};

/// @return the message; no text at all without memory, a truncated one without enough of it.
Message format_message(const char* format, va_list arguments)
{
    Message message = {Text(static_cast<char*>(std::malloc(kFirstSize))), kFirstSize};
    if (!message.text)
        return message;
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(message.text.get(), kFirstSize, format, arguments);
    if (length < 0)
        *message.text = '\0';
    if (length >= static_cast<int>(kFirstSize)) {
        const std::size_t needed = static_cast<std::size_t>(length) + 1;
        if (Text whole {static_cast<char*>(std::malloc(needed))}) {
            static_cast<void>(std::vsnprintf(whole.get(), needed, format, again));
            message = {std::move(whole), needed};
        }
    }
    va_end(again);
    return message;
}

/// Appends the system error's text if it fits as a whole; a message that fills its buffer goes
/// without.
void append_system_error(Message& message, int error)
{
    const std::size_t length = std::strlen(message.text.get());
    const std::size_t room = message.size - length;
    char* const end = message.text.get() + length;
    const int needed =
        std::snprintf(end, room, "\nSystem error %d: %s", error, std::strerror(error));
    if (needed < 0 || static_cast<std::size_t>(needed) >= room)
        *end = '\0';
}

const char* program_name()
{
    if (PROGNAME == nullptr)
        return "";
    const char* const slash = std::strrchr(PROGNAME, '/');
    return slash == nullptr ? PROGNAME : slash + 1;
}

void print(FILE* stream, const char* message)
{
    if (*program_name() != '\0')
        std::fprintf(stream, "%s: ", program_name());
    std::fputs(message, stream);
    const std::size_t length = std::strlen(message);
    if (length == 0 || message[length - 1] != '\n')
        std::fputc('\n', stream);
    std::fflush(stream);
}

}  // namespace

void messlog2(int status, int flag, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vmesslog2(status, flag, format, arguments);
    va_end(arguments);
}

void vmesslog2(int status, int flag, const char* format, va_list arguments)
{
    const int error = errno;
    Message message = format_message(format, arguments);
    if (!message.text) {
        ex_messlog("Can't allocate memory for error message", status, flag);
        return;
    }
    errno = error;
    if (error != 0)
        append_system_error(message, error);
    ex_messlog(message.text.get(), status, flag);
}

int ex_messlog(const char* message, int status, int /*flag*/)
{
    print(stderr, message);
    print(stdout, message);
    if (status != 0)
        std::exit(status);
    return 0;
}
