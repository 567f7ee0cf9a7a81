#include "sys/cpp_syscall.h"

#include "common/ExSystemError.h"
#include "sys/TEArgs.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

namespace tarvik::sys {

namespace {

/// The copies of the strings that exec may write to, ended by a null.
class Words {
public:
    explicit Words(const TEArgs& args) : copies_(args.begin(), args.end())
    {
        for (std::string& copy : copies_)
            words_.push_back(copy.data());
        words_.push_back(nullptr);
    }
    Words(const Words&) = delete;
    Words& operator=(const Words&) = delete;
    char* const* get() const { return words_.data(); }

private:
    TEArgs::TRep copies_;
    std::vector<char*> words_;
};

}  // namespace

int exec_v(const TEArgs& args, bool path_search)
{
    const Words words(args);
    return (path_search ? ::execvp : ::execv)(*words.get(), words.get());
}

pid_t spawn_v(const TEArgs& args, bool path_search)
{
    const Words words(args);
    pid_t child = -1;
    const int error = (path_search ? ::posix_spawnp : ::posix_spawn)(&child, *words.get(), nullptr,
                                                                     nullptr, words.get(), environ);
    return error == 0 ? child : -1;
}

int wait_process(pid_t process)
{
    for (;;) {
        try {
            int status = 0;
            if (::waitpid(process, &status, WUNTRACED) < 0)
                throwSystemError("waitpid() failed", errno);
            return status;
        } catch (const ExSystemError<EINTR>&) {
            continue;
        } catch (const ExSystemError<ECHILD>&) {
            return 0;
        }
    }
}

}  // namespace tarvik::sys
