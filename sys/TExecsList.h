#pragma once

#include "sys/TExec.h"
#include "sys/exec_strategy.h"

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace tarvik::sys {

/**
 * Invocations to run one after the other: a sequence, or a pipeline where they do not wait for each
 * other. A value like its elements; where a list is asked for, an invocation is a list of one.
 */
class TExecsList {
public:
    TExecsList() = default;
    TExecsList(const TExec& exec) : execs_ {exec} { }

    bool empty() const noexcept { return execs_.empty(); }
    std::size_t size() const noexcept { return execs_.size(); }
    TExec& front() { return execs_.front(); }
    TExec& back() { return execs_.back(); }
    auto begin() noexcept { return execs_.begin(); }
    auto end() noexcept { return execs_.end(); }

    /**
     * Runs each in order. One that could not be started and only says so does not stop the next.
     * In the end the caller has no pipe of the list open, also when this throws.
     * @return what came of the last one; (0, 0) for an empty list.
     * @throws what TExec::execute does; that ends the run, and what runs by then goes on unwaited.
     */
    TSLProcess execute();
    /// The same. @param unwaited  each child that nobody has waited for is appended, in order, also
    /// when this throws: for wait_process, which gives its raw status.
    TSLProcess execute(std::vector<pid_t>& unwaited);

private:
    friend TExecsList operator,(TExecsList left, const TExecsList& right);
    friend TExecsList operator|(TExecsList left, TExecsList right);

    std::vector<TExec> execs_;
    std::vector<Handle<TPipe>> pipes_;  // between those, shared with their hooks
};

/// A sequence: those of the left, then those of the right. Binds weaker than `<<=`.
TExecsList operator,(TExecsList left, const TExecsList& right);

/**
 * A pipeline: the last of the left writes to the first of the right. The first of the left is not
 * waited for, so in a longer chain write `a | (b | c)`: in `(a | b) | c`, b is waited for before c
 * starts to read. With nothing on one side, there is no pipe.
 */
TExecsList operator|(TExecsList left, TExecsList right);

/// These attach their hook to the last invocation; an empty list stays as it is.
TExecsList& operator+=(TExecsList& list, const Handle<TExec::TPrepare>& prepare);
TExecsList operator<(TExecsList list, const std::string& path);
TExecsList operator>(TExecsList list, const std::string& path);
TExecsList operator>>(TExecsList list, const std::string& path);
TExecsList operator<<(TExecsList list, const std::string& text);
TExecsList operator&(TExecsList list, const TRedirect& redirect);
TExecsList operator&(TExecsList list, const TRedirectToFile& redirect);

/**
 * Runs a copy of the list, all at a time, and reads what its last program prints until that closes
 * its standard output; then waits for that one program.
 * @param output  replaced by what was printed. @param status  receives the raw wait status. An
 * empty list changes neither.
 * @throws what TExec::execute and wait_process do.
 */
void execGetOutput(std::string& output, int& status, const TExecsList& list);
/// The same. @param unwaited  as in TExecsList::execute; the last program is one if it has stopped.
void execGetOutput(std::string& output, int& status, const TExecsList& list,
                   std::vector<pid_t>& unwaited);

/**
 * Runs with the output captured into `output`, which has it also when this throws.
 * @return output
 * @throws std::runtime_error with the output when the last program did not exit with 0; else as
 *         execGetOutput. An empty list changes nothing.
 */
std::string& operator<<=(std::string& output, const TExecsList& list);

}  // namespace tarvik::sys
