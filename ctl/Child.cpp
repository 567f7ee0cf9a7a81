#include "ctl/Child.h"

#include "app/SiteUser.h"
#include "clib/libuser.h"
#include "clib/tarvik_ugid.h"
#include "common/misc.h"
#include "ctl/Output.h"
#include "ctl/Trouble.h"
#include "ctl/commands.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <utility>

namespace tarvik::ctl {

namespace {

/// Exit status of a child that has written, in place of an answer, what was wrong.
constexpr int kComplaint = 3;

/// What begins something said before the answer; its size follows. No answer and no complaint
/// begins with it.
constexpr char kSaid = '\0';

[[noreturn]] void throw_failed(const char* what)
{
    throw Trouble(std::string(what) + ": " + std::strerror(errno));
}

void require_user(const std::string& user)
{
    const passwd* const entry = ::getpwnam(user.c_str());
    if (entry == nullptr)
        throw Trouble("no such user: " + user);
    if (entry->pw_uid == 0)
        throw Trouble("a site cannot belong to root: " + user);
}

void become(const std::string& user)
{
    if (user != kWebServerUser)
        return become_site_user(user);
    // Its home is the server's business and may not be there.
    ::closefrom(STDERR_FILENO + 1);
    p_setuid_ex(kWebServerUser, 0, 0);
}

int report(const char* text)
{
    std::cerr << "zendrelctl: " << printable(text) << std::endl;
    return kTrouble;
}

template <class Work>
int guarded(const Work& work)
try {
    const int status = work();
    return std::cout.flush() ? status : report("standard output cannot be written");
} catch (const std::exception& e) {
    return report(e.what());
}

template <class Body>
pid_t start(const Body& body)
{
    std::cout.flush();
    const pid_t child = ::fork();
    if (child < 0)
        throw_failed("cannot start a process");
    if (child == 0)
        ::_exit(body());  // what this process does at its end is not the child's to do
    return child;
}

int wait_for(pid_t child)
{
    int status = 0;
    if (retried([&] { return ::waitpid(child, &status, 0); }) != child)
        throw_failed("cannot wait for a process");
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    return report(("a process was ended by signal " + std::to_string(WTERMSIG(status))).c_str());
}

std::string read_all(int descriptor)
{
    std::string text;
    std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t count =
            retried([&] { return ::read(descriptor, buffer.data(), buffer.size()); });
        if (count < 0)
            throw_failed("cannot read from a process");
        if (count == 0)
            return text;
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

/// @return whether all of it came.
bool hear_bytes(int descriptor, char* to, std::size_t size)
{
    return read_fully(descriptor, to, size) == static_cast<ssize_t>(size);
}

bool write_all(std::string_view text)
{
    while (!text.empty()) {
        const ssize_t count =
            retried([&] { return ::write(STDOUT_FILENO, text.data(), text.size()); });
        if (count < 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

int answer_with(const std::function<std::string()>& work)
{
    std::string text;
    int status = kDone;
    try {
        text = work();
    } catch (const std::exception& e) {
        text = e.what();
        status = kComplaint;
    }
    return write_all(text) ? status : kTrouble;
}

}  // namespace

int run_in_child(const std::function<int()>& work)
{
    return wait_for(start([&] { return guarded(work); }));
}

int run_as(const std::string& user, const std::function<int()>& work)
{
    require_user(user);
    return run_in_child([&] {
        return run_in_child([&] {
            become(user);
            return work();
        });
    });
}

void end_child(int status)
{
    ::_exit(guarded([status] { return status; }));
}

Question::Question(const std::string& user, const std::function<std::string()>& work) : user_(user)
{
    require_user(user);
    int input[2];
    if (::pipe2(input, O_CLOEXEC) != 0)
        throw_failed("cannot open a pipe");
    const TDescriptor from_parent(input[0]);
    to_child_.reset(input[1]);
    int output[2];
    if (::pipe2(output, O_CLOEXEC) != 0)
        throw_failed("cannot open a pipe");
    from_child_.reset(output[0]);
    const TDescriptor to_parent(output[1]);
    keeper_ = start([&] {
        to_child_.reset();  // or nobody would notice that the parent has gone
        return guarded([&] {
            return wait_for(start([&] {
                if (::dup2(from_parent.get(), STDIN_FILENO) < 0
                    || ::dup2(to_parent.get(), STDOUT_FILENO) < 0)
                    return report(std::strerror(errno));
                become(user);
                return answer_with(work);
            }));
        });
    });
}

Question::~Question()
{
    to_child_.reset();
    from_child_.reset();
    if (keeper_ > 0)
        static_cast<void>(retried([this] { return ::waitpid(keeper_, nullptr, 0); }));
}

void Question::go()
{
    // Whoever has ended meanwhile is heard of soon.
    static_cast<void>(retried([this] { return ::write(to_child_.get(), &kSaid, 1); }));
}

std::optional<std::string> Question::hear()
{
    char byte = 0;
    if (!hear_bytes(from_child_.get(), &byte, 1))
        return std::nullopt;
    if (byte != kSaid) {
        heard_ += byte;
        return std::nullopt;
    }
    std::size_t size = 0;
    std::string text;
    if (!hear_bytes(from_child_.get(), reinterpret_cast<char*>(&size), sizeof size))
        return std::nullopt;
    text.resize(size);
    if (!hear_bytes(from_child_.get(), text.data(), size))
        return std::nullopt;
    return text;
}

std::string Question::answer()
{
    to_child_.reset();
    std::string text = heard_ + read_all(from_child_.get());
    const int status = wait_for(std::exchange(keeper_, -1));
    if (status == kComplaint)
        throw Trouble(text);
    if (status != kDone)
        throw Trouble("the work of " + user_ + " was not done");
    return text;
}

bool told_to_go()
{
    char byte = 0;
    return retried([&byte] { return ::read(STDIN_FILENO, &byte, 1); }) == 1;
}

void say(std::string_view text)
{
    std::string message(1, kSaid);
    const std::size_t size = text.size();
    message.append(reinterpret_cast<const char*>(&size), sizeof size).append(text);
    if (!write_all(message))
        throw_failed("cannot reach a process");
}

std::string joined(const std::vector<std::string>& texts)
{
    std::string all;
    for (const std::string& text : texts)
        all.append(text) += '\0';
    return all;
}

std::vector<std::string> split(const std::string& text)
{
    std::vector<std::string> texts;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = text.find('\0', start);
        texts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return texts;
}

std::string ask_as(const std::string& user, const std::function<std::string()>& work)
{
    return Question(user, work).answer();
}

}  // namespace tarvik::ctl
