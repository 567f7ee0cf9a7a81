#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace tarvik {

/// The argument vector of a new process: owned copies, always ended by a null.
class ArgList {
public:
    ArgList();
    ArgList(const ArgList&) = delete;
    ArgList& operator=(const ArgList&) = delete;
    ~ArgList();

    /// Appends a copy.
    void append(const std::string& text);
    /// As exec takes it; owned by this object and valid until the next `append`.
    char* const* get() const { return arguments_.data(); }

private:
    std::vector<char*> arguments_;
};

/**
 * Starts a program in a child with these streams and no other descriptor open, in this process'
 * group but without its terminal and the keys of its session. SIGPIPE and SIGXFSZ are as this
 * process was started with them.
 * @param input, output, error  -1 stands for "/dev/null". @param program  without a separator it is
 *        looked up along the search path. @param userName  the child becomes this user, unless it
 *        is empty. @param environment  variables to set in the child, replacing those of its name.
 * @return the child's process id, for the caller to wait for.
 * @throws SystemError when there is no child; what goes wrong in the child is printed there,
 * status 1.
 */
pid_t forkExecvPipes(int input, int output, int error, const std::string& program,
                     const ArgList& arguments, const std::string& userName,
                     const std::map<std::string, std::string>& environment);

}  // namespace tarvik
