#pragma once

#include <sys/types.h>

#include <list>
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

/// Command handler: parses the options that follow the command word, returns the exit status.
/// Throws the option library's errors.
int runApplicationScript(int argc, char** argv);

/**
 * Runs a package's own script for an action. The process becomes the site user for good and waits.
 * Packages of the standards 1.1 and 1.2 leave language and script file to the caller; others name
 * the language themselves and call the file "configure".
 * @param php_cli            a PHP to try before the configured one; may be empty.
 * @param additional_params  further arguments of the script, borrowed; may be null.
 * @return the script's exit code; 0 also when there is no such script; 1 when the action is not
 *         allowed or the scripts directory cannot be entered; -1 when the script cannot be run or
 *         did not end by itself. Failures are reported on standard error.
 */
int fsa_run_configure_script(const std::string& application_full_name,
                             const std::string& script_name, const std::string& user_name,
                             const std::string& script_file_name,
                             const std::string& script_language, const std::string& php_cli,
                             const std::list<std::string>* additional_params);

/// @return the package directory in an application full name; empty, with a message, without one.
std::string get_package_script_path(const char* application_full_name);

/// @return whether everybody may read and execute `path`, links followed.
bool fsa_is_file_executable(const std::string& path);

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
