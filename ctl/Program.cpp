#include "ctl/Program.h"

#include "common/signals.h"
#include "ctl/Output.h"
#include "sys/TExecsList.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <sstream>

namespace tarvik::ctl {

namespace {

constexpr char kPathOfRoot[] = "/usr/local/sbin:/usr/sbin:/sbin:/usr/local/bin:/usr/bin:/bin";

/// The program is to find the signals as this one was started with, and its errors are wanted with
/// what else it writes.
class AsOneStream : public sys::TExec::TPrepare {
public:
    void bef_exec(sys::TExec& /*exec*/) override
    {
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        restore_write_signals();
        ::dup2(STDOUT_FILENO, STDERR_FILENO);  // by now, this is where the output goes
    }
};

void show(const std::string& text)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        std::cerr << printable(line) << '\n';
    std::cerr.flush();
}

}  // namespace

std::string find_program(const std::string& name)
{
    const char* const path = std::getenv("PATH");
    std::istringstream directories((path == nullptr ? "" : path + std::string(":")) + kPathOfRoot);
    for (std::string directory; std::getline(directories, directory, ':');) {
        if (directory.empty())
            continue;
        directory.append("/").append(name);
        if (::access(directory.c_str(), X_OK) == 0)
            return directory;
    }
    return "";
}

std::vector<std::string> words_of(const std::string& command)
{
    std::istringstream text(command);
    std::vector<std::string> words;
    for (std::string word; text >> word;)
        words.push_back(word);
    return words;
}

bool succeeds(const std::vector<std::string>& words)
{
    using namespace sys;
    TEArgs args;
    for (const std::string& word : words)
        args.push_back({word});
    TExec exec = TExec(args) < "/dev/null";
    exec += make_prepare<AsOneStream>();
    exec += exit_without_program();
    constexpr int kNoProgram = 127;
    std::string output;
    int status = 0;
    execGetOutput(output, status, exec);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return true;
    show(output);
    if (WIFEXITED(status) && WEXITSTATUS(status) == kNoProgram)
        show(words.front() + " cannot be run");
    return false;
}

}  // namespace tarvik::ctl
