#include "sys/TExecsList.h"

#include "common/misc.h"
#include "sys/cpp_syscall.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace tarvik::sys {

namespace {

constexpr std::size_t kReadChunk = 1024;

/// @return what can be read to the end, or to an error.
std::string read_all(int fd)
{
    std::string text;
    char chunk[kReadChunk];
    ssize_t count = 0;
    while ((count = retried([&] { return ::read(fd, chunk, sizeof chunk); })) > 0)
        text.append(chunk, static_cast<std::size_t>(count));
    return text;
}

/// Closes the pipes of a run that is over. Where somebody could not be started, they may be open,
/// and who reads or writes the other end would wait for ever.
class ClosedInTheEnd {
public:
    explicit ClosedInTheEnd(const std::vector<Handle<TPipe>>& pipes) : pipes_(pipes) { }
    ClosedInTheEnd(const ClosedInTheEnd&) = delete;
    ClosedInTheEnd& operator=(const ClosedInTheEnd&) = delete;
    ~ClosedInTheEnd()
    {
        for (const Handle<TPipe>& pipe : pipes_)
            *pipe = TPipe();
    }

private:
    const std::vector<Handle<TPipe>>& pipes_;
};

[[noreturn]] void throw_child_failed(const char* what, int value, const std::string& output)
{
    throw std::runtime_error(std::string("child failed (") + what + "=" + std::to_string(value)
                             + "): " + output);
}

}  // namespace

TSLProcess TExecsList::execute()
{
    std::vector<pid_t> unwaited;
    return execute(unwaited);
}

TSLProcess TExecsList::execute(std::vector<pid_t>& unwaited)
{
    unwaited.reserve(unwaited.size() + execs_.size());  // so that no child's name is lost
    const ClosedInTheEnd closed(pipes_);
    TSLProcess last;
    for (TExec& exec : execs_) {
        last = exec.execute();
        if (last.pid > 0 && (exec.mode() & wait_mode).none())
            unwaited.push_back(last.pid);
    }
    return last;
}

TExecsList operator,(TExecsList left, const TExecsList& right)
{
    left.execs_.insert(left.execs_.end(), right.execs_.begin(), right.execs_.end());
    left.pipes_.insert(left.pipes_.end(), right.pipes_.begin(), right.pipes_.end());
    return left;
}

TExecsList operator|(TExecsList left, TExecsList right)
{
    if (!left.empty() && !right.empty()) {
        const Handle<TPipe> pipe(std::make_unique<TPipe>());
        left.back() += make_prepare<TWriteToPipeline>(pipe);
        right.front() += make_prepare<TReadFromPipeline>(pipe);
        left.front() = left.front() & ~wait_mode;  // the first, even where the last one writes
        left.pipes_.push_back(pipe);
    }
    return left, right;
}

TExecsList& operator+=(TExecsList& list, const Handle<TExec::TPrepare>& prepare)
{
    if (!list.empty())
        list.back() += prepare;
    return list;
}

TExecsList operator<(TExecsList list, const std::string& path)
{
    return list += make_prepare<TFromFile>(path);
}

TExecsList operator>(TExecsList list, const std::string& path)
{
    return list += make_prepare<TToFile>(path);
}

TExecsList operator>>(TExecsList list, const std::string& path)
{
    return list += make_prepare<TToFile>(path, true);
}

TExecsList operator<<(TExecsList list, const std::string& text)
{
    return list += make_prepare<TReadFromStr>(text);
}

TExecsList operator&(TExecsList list, const TRedirect& redirect)
{
    return list += make_prepare<TRedirect>(redirect);
}

TExecsList operator&(TExecsList list, const TRedirectToFile& redirect)
{
    return list += make_prepare<TRedirectToFile>(redirect);
}

void execGetOutput(std::string& output, int& status, const TExecsList& list)
{
    std::vector<pid_t> unwaited;
    execGetOutput(output, status, list, unwaited);
}

void execGetOutput(std::string& output, int& status, const TExecsList& list,
                   std::vector<pid_t>& unwaited)
{
    if (list.empty())
        return;
    auto owned = std::make_unique<TReadOut>();
    const TReadOut& read_out = *owned;
    const Handle<TExec::TPrepare> hook(std::move(owned));
    TExecsList copy(list);
    copy += hook;
    for (TExec& exec : copy)
        exec = exec & ~wait_mode;
    const TSLProcess last = copy.execute(unwaited);
    output = read_all(read_out.read_end());  // before the wait: it may be more than a pipe holds
    status = wait_process(last.pid);
    if (!WIFSTOPPED(status))
        unwaited.erase(std::remove(unwaited.begin(), unwaited.end(), last.pid), unwaited.end());
}

std::string& operator<<=(std::string& output, const TExecsList& list)
{
    int status = 0;
    execGetOutput(output, status, list);
    if (!WIFEXITED(status))
        throw_child_failed("status", status, output);
    if (WEXITSTATUS(status) != 0)
        throw_child_failed("exit code", WEXITSTATUS(status), output);
    return output;
}

}  // namespace tarvik::sys
