#pragma once

#include "sys/Handle.h"
#include "sys/TEArgs.h"

#include <bitset>
#include <cstdint>

namespace tarvik::sys {

/// What came of a run.
struct TSLProcess {
    std::int32_t pid = 0;  ///< the child; -1 when none was started
    std::int32_t exit_code =
        0;  ///< -1 when it did not exit by itself, 0 when it was not waited for
};

/**
 * One invocation of a program, as a value: the operators here and in exec_strategy.h give new ones,
 * which share the arguments and hooks of the old. Only `execute` runs anything.
 */
class TExec {
public:
    using TMode = std::bitset<3>;

    static constexpr TMode fork_mode {1};  ///< run in a child; else the caller itself is replaced
    static constexpr TMode wait_mode {2};  ///< wait for the child and collect its exit code
    static constexpr TMode path_mode {4};  ///< look the program up along the search path
    static constexpr TMode def_mode {7};

    static constexpr const char* bad_args_m = "Bad execute arguments";

    /**
     * Hooks around fork and exec. `execute` calls, in this order:
     *   bef_fork, then in the parent aft_fork4p, and in the child aft_fork4d, bef_exec;
     *   fork_failed or exec_failed only when that happens. Without fork: bef_exec, exec_failed.
     * A hook may change the invocation; hooks that it replaces see the run to its end all the same.
     * What one throws leaves `execute` in the process it was thrown in.
     */
    class TPrepare {
    public:
        TPrepare() = default;
        TPrepare(const TPrepare&) = default;
        TPrepare& operator=(const TPrepare&) = default;
        virtual ~TPrepare() = default;
        virtual void bef_fork(TExec& exec);
        /// @return whether the failure is to be thrown.
        virtual bool fork_failed(TExec& exec);
        virtual void aft_fork4p(TExec& exec);
        virtual void aft_fork4d(TExec& exec);
        virtual void bef_exec(TExec& exec);
        /// Runs in the child if there is one, where the caller's code goes on if this returns.
        /// @return whether the failure is to be thrown.
        virtual bool exec_failed(TExec& exec);
    };

    explicit TExec(const TEArgs& args, TMode mode = def_mode,
                   const Handle<TPrepare>& prepare = Handle<TPrepare>());

    const TEArgs& args() const noexcept { return args_; }
    TMode mode() const noexcept { return mode_; }
    const Handle<TPrepare>& prepare() const noexcept { return prepare_; }

    /**
     * Runs the program. When the exec fails in a child, the exception, or the return with process
     * id -1, happens in that child: there the caller's code goes on a second time, unless a hook
     * ends the child in `exec_failed`.
     * @return the child and its exit code.
     * @throws TEArgs::TEArgsError `bad_args_m` for no arguments, before any hook.
     * @throws TSysCallErr when fork, exec or the wait fails, as far as the hooks let it. The wait
     *         fails with ECHILD, once the child has ended, where SIGCHLD is ignored.
     */
    TSLProcess execute();

    friend TExec operator&(const TExec& exec, TMode bits);
    /// A number would be taken for bits, where `2` is meant as a descriptor, as in "2>&1".
    friend TExec operator&(const TExec& exec, int bits) = delete;
    friend TExec operator|(const TExec& exec, TMode bits);
    friend TExec operator^(const TExec& exec, TMode bits);
    /// Replaces the mode.
    friend TExec operator*(TExec exec, TMode bits);
    /// Replaces the hooks.
    friend TExec operator*(TExec exec, const Handle<TPrepare>& prepare);

private:
    TSLProcess replace_image(TPrepare& hooks);

    TEArgs args_;
    TMode mode_;
    Handle<TPrepare> prepare_;
};

constexpr TExec::TMode fork_mode = TExec::fork_mode;
constexpr TExec::TMode wait_mode = TExec::wait_mode;
constexpr TExec::TMode path_mode = TExec::path_mode;

}  // namespace tarvik::sys
