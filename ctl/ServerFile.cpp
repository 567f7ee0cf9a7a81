#include "ctl/ServerFile.h"

#include "common/TmpFile.h"
#include "common/misc.h"
#include "ctl/Trouble.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace tarvik::ctl {

namespace {

[[noreturn]] void throw_failed(const char* what, const std::string& path)
{
    throw Trouble(what + path + ": " + std::strerror(errno));
}

std::string first_line(const std::string& text)
{
    return text.substr(0, text.find('\n'));
}

/// @return whether there is a file. @throws Trouble when it is something else.
bool is_there(const std::string& path)
{
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0) {
        if (errno != ENOENT)
            throw_failed("cannot write ", path);
        return false;
    }
    if (!S_ISREG(status.st_mode))
        throw Trouble("cannot write " + path + ": there is something that is no file");
    return true;
}

void write_out(TmpFile& file, const std::string& path, const std::string& text)
{
    file << text << std::flush;
    const TDescriptor written(::open(file.name().c_str(), O_RDONLY | O_CLOEXEC));
    if (!file || !file.close() || !written || ::fsync(written.get()) != 0)
        throw_failed("cannot write ", path);
}

/// Puts a file in the place of another one, and that in its own, or where there is none.
void exchange(const std::string& from, const std::string& to, bool both)
{
    const unsigned flags = both ? RENAME_EXCHANGE : RENAME_NOREPLACE;
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), flags) != 0)
        throw_failed("cannot exchange ", to);
}

/// Those that people and systems end a process with wait as long as this lives.
class SignalsHeld {
public:
    SignalsHeld()
    {
        sigset_t signals;
        ::sigemptyset(&signals);
        for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
            ::sigaddset(&signals, signal);
        ::sigprocmask(SIG_BLOCK, &signals, &before_);
    }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;
    ~SignalsHeld() { ::sigprocmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_ {};
};

/// So that of two processes the second tests and puts back what the first has left.
TDescriptor lock_directory_of(const std::string& path)
{
    const std::string directory = path.substr(0, path.rfind('/') + 1);
    TDescriptor lock(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock || retried([&lock] { return ::flock(lock.get(), LOCK_EX); }) != 0)
        throw_failed("cannot write to ", directory);
    return lock;
}

void require_own_file(const std::string& path, const std::string& text)
{
    if (first_line(readFile(path)) != first_line(text))
        throw Trouble(path + " was written by something else; choose another name");
}

}  // namespace

void write_file(const std::string& path, const std::string& text)
{
    is_there(path);
    TmpFile file(path + ".new", true);
    write_out(file, path, text);
    if (::rename(file.name().c_str(), path.c_str()) != 0)
        throw_failed("cannot write ", path);
}

void write_tested_file(const std::string& path, const std::string& temporary,
                       const std::string& text, const std::function<bool()>& test)
{
    const TDescriptor lock = lock_directory_of(path);
    const bool replaced = is_there(path);
    if (replaced)
        require_own_file(path, text);
    remove_stray_files(temporary);
    const SignalsHeld held;
    TmpFile file(temporary, true);
    write_out(file, path, text);
    const TDescriptor old(replaced ? ::open(path.c_str(), O_RDONLY | O_CLOEXEC) : -1);
    if (old)  // during the test it has a temporary file's name, and would be taken for a stray one
        static_cast<void>(::flock(old.get(), LOCK_EX));
    exchange(file.name(), path, replaced);
    std::string reason;
    try {
        if (test())
            return;
    } catch (const std::exception& e) {
        reason = std::string(": ") + e.what();
    }
    exchange(path, file.name(), replaced);
    throw Trouble(path + " did not pass the test and was not kept" + reason);
}

}  // namespace tarvik::ctl
