#include "sys/cpp_syscall.h"

#include "common/ExSystemError.h"
#include "sys/TEArgs.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

namespace tarvik::sys {

int exec_v(const TEArgs& args, bool path_search)
{
    TEArgs::TRep copies(args.begin(), args.end());
    std::vector<char*> words;
    for (std::string& copy : copies)
        words.push_back(copy.data());
    words.push_back(nullptr);
    return path_search ? ::execvp(words[0], words.data()) : ::execv(words[0], words.data());
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
