#include "sys/TExec.h"

#include "common/misc.h"
#include "sys/cpp_syscall.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace tarvik::sys {

namespace {

constexpr TSLProcess kNoProcess = {-1, 0};

/// Without hooks nothing happens between fork and exec that a caller had to be copied for.
/// @return the child; -1 when that failed, so that a fork meets what went wrong.
pid_t start_without_hooks(const TExec& exec)
{
    return spawn_v(exec.args(), (exec.mode() & path_mode).any());
}

/// @return the exit code of a child that ends; -1 when it does not exit by itself.
int wait_exit_code(pid_t child)
{
    int status = 0;
    if (retried([&] { return ::waitpid(child, &status, 0); }) < 0)
        throw TSysCallErr(errno);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

void TExec::TPrepare::bef_fork(TExec&) { }

bool TExec::TPrepare::fork_failed(TExec&)
{
    return true;
}

void TExec::TPrepare::aft_fork4p(TExec&) { }

void TExec::TPrepare::aft_fork4d(TExec&) { }

void TExec::TPrepare::bef_exec(TExec&) { }

bool TExec::TPrepare::exec_failed(TExec&)
{
    return true;
}

TExec::TExec(const TEArgs& args, TMode mode, const Handle<TPrepare>& prepare)
    : args_(args), mode_(mode), prepare_(prepare)
{
}

TSLProcess TExec::replace_image(TPrepare& hooks)
{
    hooks.bef_exec(*this);
    static_cast<void>(exec_v(args_, (mode_ & path_mode).any()));
    const int error = errno;  // the hook may change it
    if (hooks.exec_failed(*this))
        throw TSysCallErr(error);
    return kNoProcess;
}

TSLProcess TExec::execute()
{
    if (args_.empty())
        throw TEArgs::TEArgsError(bad_args_m, args_);
    const Handle<TPrepare> kept = prepare_;  // a hook may replace the hooks, for the next run
    TPrepare none;
    TPrepare& hooks = kept ? *kept : none;
    if ((mode_ & fork_mode).none())
        return replace_image(hooks);

    hooks.bef_fork(*this);
    pid_t child = kept ? -1 : start_without_hooks(*this);
    if (child < 0)
        child = ::fork();
    if (child < 0) {
        const int error = errno;
        if (hooks.fork_failed(*this))
            throw TSysCallErr(error);
        return kNoProcess;
    }
    if (child == 0) {
        hooks.aft_fork4d(*this);
        return replace_image(hooks);
    }
    hooks.aft_fork4p(*this);
    return {child, (mode_ & wait_mode).any() ? wait_exit_code(child) : 0};
}

TExec operator&(const TExec& exec, TExec::TMode bits)
{
    return exec * (exec.mode_ & bits);
}

TExec operator|(const TExec& exec, TExec::TMode bits)
{
    return exec * (exec.mode_ | bits);
}

TExec operator^(const TExec& exec, TExec::TMode bits)
{
    return exec * (exec.mode_ ^ bits);
}

TExec operator*(TExec exec, TExec::TMode bits)
{
    exec.mode_ = bits;
    return exec;
}

TExec operator*(TExec exec, const Handle<TExec::TPrepare>& prepare)
{
    exec.prepare_ = prepare;
    return exec;
}

}  // namespace tarvik::sys
