#pragma once

#include "common/misc.h"
#include "sys/TExec.h"

#include <memory>
#include <string>
#include <utility>

/// Redirections: hooks that arrange a child's descriptors, and the operators that attach them.
/// Without `fork_mode` there is no child, and they have no effect.
namespace tarvik::sys {

/// Runs every hook of the first, then of the second; either may be empty. Whether a failure is
/// thrown is the second's answer alone, true without a second.
class TUnionPrep : public TExec::TPrepare {
public:
    TUnionPrep(const Handle<TPrepare>& first, const Handle<TPrepare>& second);
    void bef_fork(TExec& exec) override;
    bool fork_failed(TExec& exec) override;
    void aft_fork4p(TExec& exec) override;
    void aft_fork4d(TExec& exec) override;
    void bef_exec(TExec& exec) override;
    bool exec_failed(TExec& exec) override;

private:
    void both(void (TPrepare::*hook)(TExec&), TExec& exec);
    bool ask_both(bool (TPrepare::*hook)(TExec&), TExec& exec);

    Handle<TPrepare> first_, second_;
};

/// `exec < path`. A failed open leaves descriptor 0 closed and the exec goes ahead.
class TFromFile : public TExec::TPrepare {
public:
    explicit TFromFile(std::string path);
    void aft_fork4d(TExec& exec) override;

private:
    std::string path_;
};

/// `exec N> path`, `exec N>> path`: creates the file with permissions 0664 less the umask. A failed
/// open leaves the descriptor closed and the exec goes ahead.
class TRedirectToFile : public TExec::TPrepare {
public:
    TRedirectToFile(int descriptor, std::string path, bool append = false);
    void aft_fork4d(TExec& exec) override;

private:
    int descriptor_;
    std::string path_;
    bool append_;
};

/// `exec > path`, `exec >> path`
class TToFile : public TRedirectToFile {
public:
    explicit TToFile(std::string path, bool append = false);
};

/// `exec N>&M`. A source that is not open leaves the target closed.
class TRedirect : public TExec::TPrepare {
public:
    TRedirect(int target, int source);
    void aft_fork4d(TExec& exec) override;

private:
    int target_, source_;
};

/// `exec << text`: a process of its own, which nobody waits for, writes the text.
class TReadFromStr : public TExec::TPrepare {
public:
    explicit TReadFromStr(std::string text);
    /// @throws TSysCallErr, in the child.
    void aft_fork4d(TExec& exec) override;

private:
    std::string text_;
};

/// A pipe; both ends are closed with it at the latest.
struct TPipe {
    TDescriptor read_end, write_end;

    /// Replaces it by a new one, out of the way of the descriptors that one redirects by number
    /// unless the limit on descriptors leaves no room there.
    /// @throws TSysCallErr
    void open();
};

/// Connects a program's standard output to the caller.
class TReadOut : public TExec::TPrepare {
public:
    /// @throws TSysCallErr
    void bef_fork(TExec& exec) override;
    void aft_fork4p(TExec& exec) override;
    void aft_fork4d(TExec& exec) override;

    /// @return the descriptor to read the output from, -1 before the run; still owned here.
    int read_end() const noexcept { return pipe_.read_end.get(); }

private:
    TPipe pipe_;
};

/// The left side of `a | b`. The parent keeps both ends for the right side.
class TWriteToPipeline : public TExec::TPrepare {
public:
    explicit TWriteToPipeline(const Handle<TPipe>& pipe);
    /// @throws TSysCallErr
    void bef_fork(TExec& exec) override;
    void aft_fork4d(TExec& exec) override;

private:
    Handle<TPipe> pipe_;
};

/// The right side of `a | b`.
class TReadFromPipeline : public TExec::TPrepare {
public:
    explicit TReadFromPipeline(const Handle<TPipe>& pipe);
    void aft_fork4p(TExec& exec) override;
    void aft_fork4d(TExec& exec) override;

private:
    Handle<TPipe> pipe_;
};

/// @return a new hook of a class, as the operators take it.
template <class Prepare, class... Arguments>
Handle<TExec::TPrepare> make_prepare(Arguments&&... arguments)
{
    return Handle<TExec::TPrepare>(
        std::make_unique<Prepare>(std::forward<Arguments>(arguments)...));
}

/**
 * @return a hook that ends the child with status 127 when its program cannot be started, so that
 *         the caller's code does not go on there. Without `fork_mode` the failure is thrown.
 */
Handle<TExec::TPrepare> exit_without_program();

/// Adds a hook after those that are there, in place.
TExec& operator+=(TExec& exec, const Handle<TExec::TPrepare>& prepare);

TExec operator<(TExec exec, const std::string& path);
TExec operator>(TExec exec, const std::string& path);
TExec operator>>(TExec exec, const std::string& path);
TExec operator<<(TExec exec, const std::string& text);
TExec operator&(TExec exec, const TRedirect& redirect);
TExec operator&(TExec exec, const TRedirectToFile& redirect);

}  // namespace tarvik::sys
