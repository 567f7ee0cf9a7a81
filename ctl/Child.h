#pragma once

#include "common/misc.h"

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Work in child processes. All that looks at or changes a site is done by its own user, never by
/// root: whatever the user or the web server swaps meanwhile, it is done with no more rights than
/// theirs.
namespace tarvik::ctl {

/**
 * Runs `work` in a child and waits for it. The child keeps this process' descriptors, and with them
 * its locks, until the work is over, also when this process is killed.
 * @return what it returned; kTrouble, reported on standard error, for what it threw or died of.
 */
int run_in_child(const std::function<int()>& work);

/// The same, as that user, with no descriptor but the standard streams, working in the user's home
/// directory. @throws Trouble when there is no such user, or it is root.
int run_as(const std::string& user, const std::function<int()>& work);

/// In place of a return from the work, ends its process without giving back what it has allocated:
/// of large work that would take a tenth of the time.
[[noreturn]] void end_child(int status);

/// Work that has an answer, done as that user while this process goes on. Nothing else may be
/// written on standard output in it.
class Question {
public:
    /// @throws Trouble as `run_as` does.
    Question(const std::string& user, const std::function<std::string()>& work);
    Question(const Question&) = delete;
    Question& operator=(const Question&) = delete;
    /// Waits for the work, whose answer nobody wants any more.
    ~Question();

    /// Tells work that waits in `told_to_go` that it is time.
    void go();
    /// Waits for what the work says next. @return none when it has ended instead: the answer tells
    /// why.
    std::optional<std::string> hear();
    /// Waits for the answer. Work that still waits to be told to go is told that there is no more.
    /// @throws Trouble with the text of what the work threw.
    std::string answer();

private:
    std::string user_;
    TDescriptor to_child_, from_child_;
    std::string heard_;  ///< of the answer
    pid_t keeper_ = -1;
};

/// For work that is asked for in steps: waits. @return false when there are no more.
bool told_to_go();
/// Says something before the answer. Who asked has to hear it. @throws Trouble
void say(std::string_view text);

/// Several texts in one, for what one process tells another. None of them holds a NUL.
std::string joined(const std::vector<std::string>& texts);
std::vector<std::string> split(const std::string& text);

/// Asks and waits.
std::string ask_as(const std::string& user, const std::function<std::string()>& work);

}  // namespace tarvik::ctl
