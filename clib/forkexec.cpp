#include "clib/forkexec.h"

#include "clib/liblog.h"
#include "clib/product_log.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kLogError = 3;
constexpr int kLogWarning = 4;

[[noreturn]] void run_child(int input, int output, int error, const char* path,
                            char* const arguments[])
{
    if (dup2_streams(input, output, error) == 0) {
        closefrom(STDERR_FILENO + 1);
        errno = 0;
        execv(path, arguments);
        dprintf(STDERR_FILENO, "fork_execv: execv(\"%s\") failed: %s\n", path, strerror(errno));
    } else {
        dprintf(STDERR_FILENO, "fork_execv: dup() failed: %s\n", strerror(errno));
    }
    _exit(-1);
}

}  // namespace

int fork_exec_waitpid(pid_t pid, const char* label, int* status)
{
    if (label == nullptr)
        label = "<unknown>";
    if (pid < 0) {
        tarvik_log(kLogError, "fork before spawning '%s' failed", label);
        return -1;
    }

    int own_status = 0;
    int* const raw = status == nullptr ? &own_status : status;
    errno = 0;
    const long waited = waitpid(pid, raw, WUNTRACED);
    const long child = pid;
    if (waited < 0) {
        tarvik_log(kLogError, "waitpid(%ld) for '%s' process failed: %s (%d)", child, label,
                   strerror(errno), errno);
    } else if (waited == 0) {
        tarvik_log(kLogError, "waitpid(%ld) for '%s' process returned unexpected 0 code", child,
                   label);
    } else if (WIFEXITED(*raw)) {
        return WEXITSTATUS(*raw);
    } else if (WIFSIGNALED(*raw)) {
        tarvik_log(kLogWarning, "waitpid(%ld)=%ld: process '%s' killed by signal %d", child, waited,
                   label, WTERMSIG(*raw));
    } else if (WIFSTOPPED(*raw)) {
        tarvik_log(kLogWarning, "waitpid(%ld)=%ld: process '%s' stopped by signal %d", child,
                   waited, label, WSTOPSIG(*raw));
    } else if (WIFCONTINUED(*raw)) {
        tarvik_log(kLogWarning, "waitpid(%ld)=%ld: process '%s' continued", child, waited, label);
    }
    return -1;
}

int dup2_custom(int source, int target)
{
    if (source == target)
        return 0;
    if (source == -1) {
        source = open("/dev/null", O_RDWR);
        if (source == target)  // the number was free, and the open took it
            return 0;
        if (source < 0)
            return -1;
    }
    if (dup2(source, target) < 0)
        return -1;
    static_cast<void>(close(source));
    return 0;
}

int dup2_streams(int input, int output, int error)
{
    int sources[] = {input, output, error};
    for (int target = STDIN_FILENO; target <= STDERR_FILENO; ++target) {
        int& source = sources[target];
        if (source == -1 || source == target)
            continue;
        source =
            fcntl(source, F_DUPFD, STDERR_FILENO + 1);  // a move closes or replaces the others'
        if (source < 0)
            return -1;
    }
    for (int target = STDIN_FILENO; target <= STDERR_FILENO; ++target) {
        if (dup2_custom(sources[target], target) != 0)
            return -1;
    }
    return 0;
}

pid_t fork_execv_pipes(int input, int output, int error, const char* path, char* const arguments[])
{
    const pid_t pid = fork();
    if (pid < 0)
        messlog2(1, 1, "fork_execv_pipes: fork() failed");
    if (pid == 0)
        run_child(input, output, error, path, arguments);
    return pid;
}
