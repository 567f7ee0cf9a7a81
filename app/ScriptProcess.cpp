#include "app/ScriptProcess.h"

#include "clib/forkexec.h"
#include "clib/liblog.h"
#include "clib/libuser.h"
#include "common/ExSystemError.h"
#include "common/UtilityErrorStream.h"
#include "common/misc.h"
#include "common/signals.h"

#include <fcntl.h>
#include <linux/keyctl.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

namespace tarvik {

namespace {

bool give_up(int terminal)
{
    return ::ioctl(terminal, TIOCNOTTY) == 0;
}

/// What keeps this process from the terminal keeps the script from it, which is the same user.
bool is_lasting(int failure)
{
    return failure == ENXIO || failure == ENOENT || failure == EACCES;
}

/// The site user's script must not type into the terminal of the caller. A session of its own would
/// see to that, too, but take it out of the process group that callers send their signals to.
void give_up_terminal()
{
    const TDescriptor terminal(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (terminal && give_up(terminal.get()))
        return;
    const int failure = errno;
    if (give_up(STDIN_FILENO) || give_up(STDOUT_FILENO) || give_up(STDERR_FILENO))
        return;  // "/dev/tty" may be missing or locked
    if (terminal || !is_lasting(failure))
        throwSystemError("forkExecvPipes: giving up the terminal failed", failure);
}

/// The caller's keys stay with the caller. Where a kernel has no keyrings or a container refuses
/// them, the script cannot use any either. A full quota is no excuse: the site user could fill it
/// to get at the keys.
void give_up_keys()
{
    if (::syscall(SYS_keyctl, KEYCTL_JOIN_SESSION_KEYRING, nullptr) < 0 && errno != ENOSYS
        && errno != EPERM && errno != EACCES)
        throwSystemError("forkExecvPipes: giving up the keys failed", errno);
}

[[noreturn]] void exec_child(int input, int output, int error, const std::string& program,
                             const ArgList& arguments, const std::string& userName,
                             const std::map<std::string, std::string>& environment)
{
    if (dup2_streams(input, output, error) != 0)
        throwSystemError("dup2Custom failed", errno);
    ::closefrom(STDERR_FILENO + 1);
    if (!userName.empty() && p_setuid(userName.c_str()) != 0)
        throwSystemError("forkExecvPipes: p_setuid() to '" + userName + "' failed", errno);
    give_up_terminal();
    give_up_keys();
    for (const auto& [name, value] : environment) {
        if (::setenv(name.c_str(), value.c_str(), 1) != 0)
            throwSystemError("forkExecvPipes: setenv() falied", errno);
    }
    restore_write_signals();
    ::execvp(program.c_str(), arguments.get());
    const int failure = errno;
    messlog2(1, 1, "forkExecvPipes: execv() failed: %s\n", std::strerror(failure));
    std::abort();  // not reached: the message ends the process
}

}  // namespace

ArgList::ArgList() : arguments_(1, nullptr) { }

ArgList::~ArgList()
{
    for (char* const argument : arguments_)
        std::free(argument);
}

void ArgList::append(const std::string& text)
{
    arguments_.reserve(arguments_.size() + 1);  // so that nothing fails once the copy is made
    char* const copy = ::strdup(text.c_str());
    if (copy == nullptr)
        throw std::bad_alloc();
    arguments_.back() = copy;
    arguments_.push_back(nullptr);
}

pid_t forkExecvPipes(int input, int output, int error, const std::string& program,
                     const ArgList& arguments, const std::string& userName,
                     const std::map<std::string, std::string>& environment)
{
    const pid_t child = ::fork();
    if (child < 0)
        throwSystemError("forkExecvPipes: fork() failed", errno);
    if (child == 0) {
        try {  // the caller's own code must not go on in the child
            exec_child(input, output, error, program, arguments, userName, environment);
        } catch (const std::exception& e) {
            reportException(e);
            std::exit(1);
        }
    }
    return child;
}

}  // namespace tarvik
