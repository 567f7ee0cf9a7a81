#include "ctl/TreeTakeover.h"

#include "app/SiteUser.h"
#include "clib/tarvik_ugid.h"
#include "ctl/Child.h"
#include "ctl/Trouble.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

namespace tarvik::ctl {

namespace {

/// What a killed run leaves is taken for nobody's file.
constexpr char kTemporary[] = ".zendrelctl.takeover";

constexpr int kPlace = O_PATH | O_NOFOLLOW | O_CLOEXEC;

bool belongs_to_another(const struct stat& status)
{
    static const uid_t webServer = tarvik_ugid(kWebServerUser, 0);
    return status.st_uid == webServer && ::geteuid() != webServer;
}

/// Bits that give away an owner's rights are the owner's to set, and do not pass to a new one.
mode_t mode_for_copy(const struct stat& status)
{
    const mode_t rights = status.st_uid == ::geteuid() ? 0 : S_ISUID | S_ISGID;
    return status.st_mode & kModeBits & ~rights;
}

bool is_newer(const struct stat& a, const struct stat& b)
{
    return a.st_mtim.tv_sec != b.st_mtim.tv_sec ? a.st_mtim.tv_sec > b.st_mtim.tv_sec
                                                : a.st_mtim.tv_nsec > b.st_mtim.tv_nsec;
}

/// @return false with `errno`.
bool copy_content(int in, int out)
{
    std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t count = retried([&] { return ::read(in, buffer.data(), buffer.size()); });
        if (count <= 0)
            return count == 0;
        for (ssize_t done = 0; done < count;) {
            const auto left = static_cast<std::size_t>(count - done);
            const ssize_t written =
                retried([&] { return ::write(out, buffer.data() + done, left); });
            if (written < 0)
                return false;
            done += written;
        }
    }
}

/// Copies a file with its mode and times. @return false with `errno`.
bool copy_file(const TreeEntry& entry, int directory)
{
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const TDescriptor in(::openat(entry.directory, entry.name, flags));
    if (!in)
        return false;
    TDescriptor out(::openat(directory, kTemporary, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    const timespec times[] = {entry.status.st_atim, entry.status.st_mtim};
    return out && copy_content(in.get(), out.get())
        && ::fchmod(out.get(), mode_for_copy(entry.status)) == 0
        && ::futimens(out.get(), times) == 0 && out.close();
}

bool copy_link(const TreeEntry& entry, int directory)
{
    std::array<char, PATH_MAX> target;
    const ssize_t length =
        ::readlinkat(entry.directory, entry.name, target.data(), target.size() - 1);
    if (length < 0)
        return false;
    target[static_cast<std::size_t>(length)] = '\0';
    return ::symlinkat(target.data(), directory, kTemporary) == 0;
}

bool is_refusal(int error)
{
    return error == EPERM || error == EACCES || error == EXDEV || error == EMLINK;
}

using Paths = std::vector<std::string>;

}  // namespace

void Takeover::take(const std::string& path)
{
    const TreeVisitor visitor = {
        [this](const TreeEntry& entry) { return take_entry(entry); },
        {},
        rules_.pass_over,
        [this](const std::string& refused, int error) { leave_to_others(refused, error); }};
    if (!path.empty()) {
        const TDescriptor parent(
            DirectoryChain(from_).open(parent_path(path), ".", O_PATH | O_CLOEXEC));
        const std::string name = last_name(path);
        struct stat status;
        if (!parent || ::fstatat(parent.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            return leave_to_others(path, errno);
        if (!take_entry({path, parent.get(), name.c_str(), status}) || !S_ISDIR(status.st_mode))
            return settle_modes();
    }
    walk_tree(from_, path, visitor);
    settle_modes();
}

/// @return whether to look at what is in it.
bool Takeover::take_entry(const TreeEntry& entry)
{
    const Take how = rules_.decide(entry.path, entry.status);
    if (how == Take::Skip || std::strcmp(entry.name, kTemporary) == 0)
        return true;
    if (!S_ISDIR(entry.status.st_mode)) {
        take_file(entry, how);
        return false;
    }
    if (belongs_to_another(entry.status) && !rules_.last) {
        left_.push_back(entry.path);
        return false;
    }
    return how == Take::IfNeeded || provide_directory(entry.path);
}

void Takeover::take_file(const TreeEntry& entry, Take how)
{
    if (!provide_directory(parent_path(entry.path)))
        return;
    const PathAt target = {targets_.at(parent_path(entry.path)), entry.name};
    const bool copied = how == Take::Copy && S_ISREG(entry.status.st_mode);
    const bool taken = target.directory >= 0
        && (copied
                ? copy(entry, target)
                : link(entry, target) || (rules_.last && is_refusal(errno) && copy(entry, target)));
    if (!taken)
        leave_to_others(entry.path, errno);
}

bool Takeover::link(const TreeEntry& entry, const PathAt& target)
{
    if (::linkat(entry.directory, entry.name, target.directory, target.name, 0) == 0)
        return true;
    if (errno != EEXIST)
        return false;
    if (!gives_way(entry, target))
        return true;
    static_cast<void>(::unlinkat(target.directory, kTemporary, 0));
    return ::linkat(entry.directory, entry.name, target.directory, kTemporary, 0) == 0
        && put_in_place(target);
}

bool Takeover::copy(const TreeEntry& entry, const PathAt& target)
{
    if (!gives_way(entry, target))
        return true;
    static_cast<void>(::unlinkat(target.directory, kTemporary, 0));
    const bool copied = S_ISLNK(entry.status.st_mode) ? copy_link(entry, target.directory)
        : S_ISREG(entry.status.st_mode)               ? copy_file(entry, target.directory)
                                                      : (errno = EOPNOTSUPP, false);
    return copied && put_in_place(target);
}

bool Takeover::put_in_place(const PathAt& target) const
{
    const unsigned flags = rules_.existing == Existing::Stays ? RENAME_NOREPLACE : 0;
    if (::renameat2(target.directory, kTemporary, target.directory, target.name, flags) != 0
        && errno != EEXIST)
        return false;
    // Of two names of one file a rename leaves both.
    static_cast<void>(::unlinkat(target.directory, kTemporary, 0));
    return true;
}

/// @return whether there is nothing in the way, or nothing that stays there.
bool Takeover::gives_way(const TreeEntry& entry, const PathAt& target) const
{
    struct stat there;
    if (::fstatat(target.directory, target.name, &there, AT_SYMLINK_NOFOLLOW) != 0)
        return true;
    if (S_ISDIR(there.st_mode) || there.st_ino == entry.status.st_ino)
        return false;
    return rules_.existing == Existing::Goes
        || (rules_.existing == Existing::StaysUnlessOlder && is_newer(entry.status, there));
}

/// Makes a directory, with those above it, where the other tree has one.
/// @return false when that was left to others.
bool Takeover::provide_directory(const std::string& path)
{
    if (targets_.at(path) >= 0)
        return true;
    int error = errno;
    struct stat status;
    if (error == ENOENT && provide_directory(parent_path(path))) {
        const TDescriptor source(DirectoryChain(from_).open(path, ".", kPlace));
        const int parent = targets_.at(parent_path(path));
        if (source && ::fstat(source.get(), &status) == 0 && parent >= 0
            && ::mkdirat(parent, last_name(path).c_str(), 0700) == 0) {
            made_.push_back({path, mode_for_copy(status)});
            return true;
        }
        error = errno;
    }
    leave_to_others(path, error);
    return false;
}

void Takeover::leave_to_others(const std::string& path, int error)
{
    if (error == ENOENT || error == ENOTDIR)  // it has gone meanwhile
        return;
    if (rules_.last || !is_refusal(error))
        throw Trouble(path + " cannot be taken over: " + std::strerror(error));
    left_.push_back(path);
}

Paths take_over(const std::string& from, const std::string& to, const TakeoverRules& rules,
                const Paths& paths)
{
    const TDescriptor source(::open(from.c_str(), kPlace | O_DIRECTORY));
    const TDescriptor target(::open(to.c_str(), kPlace | O_DIRECTORY));
    if (!source || !target)
        throw Trouble((source ? to : from) + ": " + std::strerror(errno));
    return take_over(source.get(), target.get(), rules, paths);
}

Paths take_over(int from, int to, const TakeoverRules& rules, const Paths& paths)
{
    Takeover takeover(from, to, rules);
    for (const std::string& path : paths)
        takeover.take(path);
    return takeover.left();
}

Paths take_over_as(const std::string& user, const std::string& from, const std::string& to,
                   const TakeoverRules& rules, const Paths& paths)
{
    if (paths.empty())
        return {};
    return split(ask_as(user, [&] { return joined(take_over(from, to, rules, paths)); }));
}

void take_over_rest(const std::string& siteUser, const std::string& from, const std::string& to,
                    Existing existing, const Paths& left)
{
    // What was left has been decided about, with all that is below it.
    TakeoverRules rules = {[](const std::string&, const struct stat&) { return Take::Link; }};
    rules.existing = existing;
    const Paths refused = take_over_as(kWebServerUser, from, to, rules, left);
    rules.last = true;
    static_cast<void>(take_over_as(siteUser, from, to, rules, refused));
}

void Takeover::settle_modes()
{
    for (auto made = made_.rbegin(); made != made_.rend(); ++made) {
        const TDescriptor directory(targets_.open(made->path, ".", kPlace));
        struct stat status;
        if (!directory || ::fstat(directory.get(), &status) != 0)
            throw Trouble(made->path + ": " + std::strerror(errno));
        const mode_t bits = rules_.bits ? rules_.bits(made->path, status) : 0;
        if (::chmod(descriptor_path(directory.get()).c_str(), made->mode | bits) != 0)
            throw Trouble(made->path + ": " + std::strerror(errno));
    }
    made_.clear();
}

}  // namespace tarvik::ctl
