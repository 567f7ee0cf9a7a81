#include "sys/exec_strategy.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace tarvik::sys {

namespace {

constexpr mode_t kNewFile = 0664;
constexpr int kNotFound = 127;  // as shells say it
constexpr int kFirstAfterStreams = STDERR_FILENO + 1;
constexpr int kFirstOutOfTheWay = 10;  // shells, too, leave the numbers below to redirections

/// Gives a descriptor the number `target`. That is closed first and stays so when there is none.
void move_onto(TDescriptor fd, int target)
{
    if (fd.get() == target) {  // it was free, and opening took it
        static_cast<void>(fd.release());
        return;
    }
    static_cast<void>(::close(target));
    if (fd)
        static_cast<void>(::dup2(fd.get(), target));
}

TDescriptor open_file(const std::string& path, int flags)
{
    return TDescriptor(retried([&] { return ::open(path.c_str(), flags, kNewFile); }));
}

/// As far as the limit on descriptors allows, but never among the standard streams.
TDescriptor out_of_the_way(TDescriptor fd)
{
    for (const int first : {kFirstOutOfTheWay, kFirstAfterStreams}) {
        TDescriptor moved(::fcntl(fd.get(), F_DUPFD_CLOEXEC, first));
        if (moved)
            return moved;
    }
    if (fd.get() < kFirstAfterStreams)
        throw TSysCallErr(errno);
    return fd;
}

void become_input(TPipe& pipe)
{
    pipe.write_end.reset();
    move_onto(std::move(pipe.read_end), STDIN_FILENO);
}

void become_output(TPipe& pipe)
{
    pipe.read_end.reset();
    move_onto(std::move(pipe.write_end), STDOUT_FILENO);
}

class TExitWithoutProgram : public TExec::TPrepare {
public:
    bool exec_failed(TExec& exec) override
    {
        if ((exec.mode() & fork_mode).any())
            ::_exit(kNotFound);
        return true;
    }
};

/// Writes the text to the pipe and ends, without touching what the caller's streams have buffered.
[[noreturn]] void feed(TPipe& pipe, const std::string& text)
{
    become_output(pipe);
    ::closefrom(STDERR_FILENO);  // the end of another pipe would keep its processes waiting
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count =
            retried([&] { return ::write(STDOUT_FILENO, text.data() + done, text.size() - done); });
        if (count < 0)
            break;  // nobody reads any more
        done += static_cast<std::size_t>(count);
    }
    ::_exit(0);
}

}  // namespace

TUnionPrep::TUnionPrep(const Handle<TPrepare>& first, const Handle<TPrepare>& second)
    : first_(first), second_(second)
{
}

void TUnionPrep::both(void (TPrepare::*hook)(TExec&), TExec& exec)
{
    if (first_)
        ((*first_).*hook)(exec);
    if (second_)
        ((*second_).*hook)(exec);
}

bool TUnionPrep::ask_both(bool (TPrepare::*hook)(TExec&), TExec& exec)
{
    if (first_)
        static_cast<void>(((*first_).*hook)(exec));  // the last one added decides
    return second_ ? ((*second_).*hook)(exec) : true;
}

void TUnionPrep::bef_fork(TExec& exec)
{
    both(&TPrepare::bef_fork, exec);
}

bool TUnionPrep::fork_failed(TExec& exec)
{
    return ask_both(&TPrepare::fork_failed, exec);
}

void TUnionPrep::aft_fork4p(TExec& exec)
{
    both(&TPrepare::aft_fork4p, exec);
}

void TUnionPrep::aft_fork4d(TExec& exec)
{
    both(&TPrepare::aft_fork4d, exec);
}

void TUnionPrep::bef_exec(TExec& exec)
{
    both(&TPrepare::bef_exec, exec);
}

bool TUnionPrep::exec_failed(TExec& exec)
{
    return ask_both(&TPrepare::exec_failed, exec);
}

TFromFile::TFromFile(std::string path) : path_(std::move(path)) { }

void TFromFile::aft_fork4d(TExec&)
{
    move_onto(open_file(path_, O_RDONLY), STDIN_FILENO);
}

TRedirectToFile::TRedirectToFile(int descriptor, std::string path, bool append)
    : descriptor_(descriptor), path_(std::move(path)), append_(append)
{
}

void TRedirectToFile::aft_fork4d(TExec&)
{
    move_onto(open_file(path_, O_WRONLY | O_CREAT | (append_ ? O_APPEND : O_TRUNC)), descriptor_);
}

TToFile::TToFile(std::string path, bool append)
    : TRedirectToFile(STDOUT_FILENO, std::move(path), append)
{
}

TRedirect::TRedirect(int target, int source) : target_(target), source_(source) { }

void TRedirect::aft_fork4d(TExec&)
{
    if (target_ == source_)
        return;
    static_cast<void>(::close(target_));
    static_cast<void>(::dup2(source_, target_));
}

TReadFromStr::TReadFromStr(std::string text) : text_(std::move(text)) { }

void TReadFromStr::aft_fork4d(TExec&)
{
    TPipe pipe;
    pipe.open();
    const pid_t feeder = ::fork();
    if (feeder < 0)
        throw TSysCallErr(errno);
    if (feeder == 0)
        feed(pipe, text_);
    become_input(pipe);
}

void TPipe::open()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw TSysCallErr(errno);
    TDescriptor low_read_end(ends[0]);
    TDescriptor low_write_end(ends[1]);
    read_end = out_of_the_way(std::move(low_read_end));
    write_end = out_of_the_way(std::move(low_write_end));
}

void TReadOut::bef_fork(TExec&)
{
    pipe_.open();
}

void TReadOut::aft_fork4p(TExec&)
{
    pipe_.write_end.reset();
}

void TReadOut::aft_fork4d(TExec&)
{
    become_output(pipe_);
}

TWriteToPipeline::TWriteToPipeline(const Handle<TPipe>& pipe) : pipe_(pipe) { }

void TWriteToPipeline::bef_fork(TExec&)
{
    pipe_->open();
}

void TWriteToPipeline::aft_fork4d(TExec&)
{
    become_output(*pipe_);
}

TReadFromPipeline::TReadFromPipeline(const Handle<TPipe>& pipe) : pipe_(pipe) { }

void TReadFromPipeline::aft_fork4p(TExec&)
{
    pipe_->read_end.reset();
    pipe_->write_end.reset();
}

void TReadFromPipeline::aft_fork4d(TExec&)
{
    become_input(*pipe_);
}

Handle<TExec::TPrepare> exit_without_program()
{
    return make_prepare<TExitWithoutProgram>();
}

TExec& operator+=(TExec& exec, const Handle<TExec::TPrepare>& prepare)
{
    exec = exec * make_prepare<TUnionPrep>(exec.prepare(), prepare);
    return exec;
}

TExec operator<(TExec exec, const std::string& path)
{
    return exec += make_prepare<TFromFile>(path);
}

TExec operator>(TExec exec, const std::string& path)
{
    return exec += make_prepare<TToFile>(path);
}

TExec operator>>(TExec exec, const std::string& path)
{
    return exec += make_prepare<TToFile>(path, true);
}

TExec operator<<(TExec exec, const std::string& text)
{
    return exec += make_prepare<TReadFromStr>(text);
}

TExec operator&(TExec exec, const TRedirect& redirect)
{
    return exec += make_prepare<TRedirect>(redirect);
}

TExec operator&(TExec exec, const TRedirectToFile& redirect)
{
    return exec += make_prepare<TRedirectToFile>(redirect);
}

}  // namespace tarvik::sys
