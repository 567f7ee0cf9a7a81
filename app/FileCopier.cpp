#include "app/FileCopier.h"

#include "app/SiteUser.h"
#include "clib/tarvik_ugid.h"
#include "common/ExSystemError.h"

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <limits>
#include <sstream>
#include <utility>

namespace fs = boost::filesystem;

namespace tarvik {

namespace {

constexpr mode_t kFileMode = 0644;
constexpr mode_t kProgramMode = 0755;

// Most files of a web application fit in: one read, one write, and a read that finds the end.
constexpr std::size_t kBufferSize = 128 * 1024;
constexpr off_t kKernelStep = off_t {1} << 30;
constexpr off_t kToTheEnd = std::numeric_limits<off_t>::max();
constexpr off_t kWorthReserving = 1024 * 1024;
constexpr off_t kBlockSize = 512;  // of st_blocks

[[noreturn]] void throw_unable_to_create(const std::string& path, const char* reason = "")
{
    throw FSAFileException("Unable to create directory " + path + reason);
}

[[noreturn]] void throw_unable_to_copy(const std::string& source, const std::string& target,
                                       int error)
{
    throw fs::filesystem_error("boost::filesystem::copy_file", source, target,
                               {error, boost::system::system_category()});
}

bool create_directories(const std::string& path)
{
    if (path.empty())
        return false;
    if (::mkdir(path.c_str(), 0777) == 0)  // nearly always: parents come first
        return true;
    const fs::file_status status = fs::status(path);
    if (fs::is_directory(status))
        return false;
    if (fs::exists(status))
        throw_unable_to_create(path, " - filename occupied");
    create_directories(fs::path(path).parent_path().native());
    boost::system::error_code error;
    fs::create_directory(path, error);
    if (error)
        throw_unable_to_create(path);
    return true;
}

/// The same as `site_bits`, without looking the group up where the owner decides.
mode_t bits_for_site(const struct stat& directory, uid_t siteUser)
{
    if (directory.st_uid == siteUser)
        return site_bits(directory, siteUser, 0);
    static const gid_t clients = get_group_id(kClientsGroup);
    return site_bits(directory, siteUser, clients);
}

/// Lets the site's people work in a directory that the installation puts something into.
/// @param directory  `dir`, opened as a place.
/// @return false when the mode had to be changed and could not be, which is reported.
bool makeUserWritableDir(const std::string& dir, int directory, const struct stat& status,
                         uid_t siteUser)
{
    const mode_t mode = (status.st_mode & kModeBits) | bits_for_site(status, siteUser);
    if (is_open_to_site(status, siteUser) || ::chmod(descriptor_path(directory).c_str(), mode) == 0)
        return true;
    std::cerr << "Unable to change mode for " << dir << ": " << std::strerror(errno) << '\n';
    return false;
}

/// @return whether `path` names this directory itself, not a link to it.
bool is_itself(const std::string& path, const struct stat& directory)
{
    struct stat status;
    return ::lstat(path.c_str(), &status) == 0 && status.st_dev == directory.st_dev
        && status.st_ino == directory.st_ino;
}

/// Removes one file, link or empty directory, whatever is at the place.
void remove_one(const PathAt& at, const std::string& path)
{
    struct stat status;
    const bool isDirectory = ::fstatat(at.directory, at.name, &status, AT_SYMLINK_NOFOLLOW) == 0
        && S_ISDIR(status.st_mode);
    if (::unlinkat(at.directory, at.name, isDirectory ? AT_REMOVEDIR : 0) != 0 && errno != ENOENT
        && errno != ENOTDIR)
        throw fs::filesystem_error("boost::filesystem::remove", path,
                                   {errno, boost::system::system_category()});
}

bool is_directory(const std::string& source, EntryType type)
{
    if (type == EntryType::Directory || type == EntryType::Regular)
        return type == EntryType::Directory;
    return fs::is_directory(source);  // links are followed
}

/// Room taken at once costs a large file far less than room taken page by page. Only an attempt.
void reserve_room(int out, off_t size)
{
    if (size >= kWorthReserving)
        static_cast<void>(::fallocate(out, FALLOC_FL_KEEP_SIZE, 0, size));
}

/// Fewer blocks than its size takes: a file of terabytes may hold next to nothing.
bool is_sparse(const struct stat& status)
{
    return status.st_blocks < status.st_size / kBlockSize;
}

/// Takes a large file as far as the kernel can without the data coming here: to the end asked for,
/// not at all between some file systems, or to an error, which the next read or write then meets.
/// @return the number of bytes taken.
off_t copy_in_kernel(int in, int out, off_t size)
{
    off_t taken = 0;
    while (taken < size) {
        const auto step = static_cast<std::size_t>(std::min(kKernelStep, size - taken));
        const ssize_t count = ::copy_file_range(in, nullptr, out, nullptr, step, 0);
        if (count <= 0)
            break;
        taken += count;
    }
    return taken;
}

/// The mode asked for on creation holds unless the umask, a default ACL or the file system takes
/// bits away, which is the same for all files of a directory: the first one shows it.
void settle_mode(int out, mode_t mode, bool& holds)
{
    struct stat status;
    if (holds)
        return;
    holds = ::fstat(out, &status) == 0 && (status.st_mode & kModeBits) == mode;
    if (!holds)
        static_cast<void>(::fchmod(out, mode));  // the content is there all the same
}

/// @return whether it may go well as soon as nobody else takes of what there is.
bool is_shortage(int error)
{
    return error == ENOSPC || error == EDQUOT || error == EMFILE || error == ENFILE
        || error == ENOMEM;
}

[[noreturn]] void throw_failure(const fs::filesystem_error& e, const std::string& source,
                                const std::string& target)
{
    std::ostringstream text;
    text << "Filesystem error: " << e.what() << "(" << e.code() << ")" << source << " -> "
         << target;
    throw FSAFileException(text.str());
}

}  // namespace

mode_t installed_mode(const FSAInstallFileinfo& file)
{
    return file.executable ? kProgramMode : kFileMode;
}

mode_t site_bits(const struct stat& directory, uid_t siteUser, gid_t clients)
{
    return directory.st_uid == siteUser ? 0700 : directory.st_gid == clients ? 0070 : 0007;
}

bool is_open_to_site(const struct stat& directory, uid_t siteUser)
{
    const mode_t wanted = bits_for_site(directory, siteUser);
    return (directory.st_mode & wanted) == wanted;
}

FileCopier::FileCopier(const std::string& packageDir, const std::string& appDir, uid_t siteUser,
                       TargetDirectories& known)
    : packageDir_(packageDir), appDir_(appDir), siteUser_(siteUser), known_(known),
      buffer_(new char[kBufferSize])
{
}

void FileCopier::set_paths(const FSAInstallFileinfo& file)
{
    source_.assign(packageDir_).append("/").append(file.sourcePath);
    target_.assign(appDir_).append("/").append(file.targetPath);
}

void FileCopier::install(const FSAInstallFileinfo& file)
{
    set_paths(file);
    try {
        enter_parent(target_);
        if (!is_directory(source_, file.type))
            copy_file(file);
        else if (struct stat made; create_directories(target_)
                 && ::lstat(target_.c_str(), &made) == 0 && S_ISDIR(made.st_mode))
            known_.remember(target_, made);
    } catch (const fs::filesystem_error& e) {
        throw_failure(e, source_, target_);
    }
}

bool FileCopier::copy_new(const FSAInstallFileinfo& file)
{
    set_paths(file);
    try {
        if (!is_settled(target_)) {
            settledParent_.assign(target_, 0, target_.rfind('/'));
            modesHold_[false] = modesHold_[true] = false;
        }
        TDescriptor in = open_source(file.type);
        if (!in)
            throw_unable_to_copy(source_, target_, errno);
        TDescriptor out = create(installed_mode(file));
        if (!out && errno == EEXIST)
            return false;
        fill(std::move(in), std::move(out), file);
    } catch (const fs::filesystem_error& e) {
        if (is_shortage(e.code().value()))
            return false;
        throw_failure(e, source_, target_);
    }
    return true;
}

bool FileCopier::is_settled(const std::string& target) const
{
    const std::size_t slash = target.rfind('/');
    return slash > 0 && slash == settledParent_.size()
        && target.compare(0, slash, settledParent_) == 0;
}

void FileCopier::enter_parent(const std::string& target)
{
    if (is_settled(target))
        return;
    const std::string parent = fs::path(target).parent_path().native();
    settledParent_.clear();
    modesHold_[false] = modesHold_[true] = false;
    if (target.back() == '/')  // the parent is then the target itself
        known_.remember(fs::path(parent).parent_path().native());
    const TDescriptor directory(::open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    if (!directory || ::fstat(directory.get(), &status) != 0)
        return;  // it is made now, or what is made in it meets the error
    known_.remember(parent, status);
    if (is_itself(parent, status)
        && makeUserWritableDir(parent, directory.get(), status, siteUser_))
        settledParent_ = parent;
}

void FileCopier::copy_file(const FSAInstallFileinfo& file)
{
    TDescriptor in = open_source(file.type);
    if (!in) {
        const int error = errno;
        remove_one(targets_.at(target_), target_);  // what stands there goes first all the same
        throw_unable_to_copy(source_, target_, error);
    }
    TDescriptor out = create_in_place(installed_mode(file));
    fill(std::move(in), std::move(out), file);
}

/// @param out  the new file; none, with `errno`, where it could not be created.
void FileCopier::fill(TDescriptor in, TDescriptor out, const FSAInstallFileinfo& file)
{
    if (!out)
        throw_unable_to_copy(source_, target_, errno);
    if (copy_content(in.get(), out.get())) {
        settle_mode(out.get(), installed_mode(file), modesHold_[file.executable]);
        if (out.close())  // where some file systems report that a write has failed
            return;
    }
    const int error = errno;  // the error to report is the first
    const PathAt at = targets_.at(target_);
    static_cast<void>(::unlinkat(at.directory, at.name, 0));
    throw_unable_to_copy(source_, target_, error);
}

/// @return the new file, empty; none with `errno`, also where something stands.
TDescriptor FileCopier::create(mode_t mode)
{
    const PathAt at = targets_.at(target_);
    const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
    return TDescriptor(::openat(at.directory, at.name, flags, mode));
}

/// The same, but whatever stands there is removed first.
TDescriptor FileCopier::create_in_place(mode_t mode)
{
    TDescriptor out = create(mode);
    if (!out && (errno == EEXIST || errno == EISDIR)) {
        remove_one(targets_.at(target_), target_);
        out = create(mode);
    }
    return out;
}

/// @return the source, open for reading; none with `errno`, also for what is no file.
TDescriptor FileCopier::open_source(EntryType type)
{
    const PathAt at = sources_.at(source_);
    const int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;  // a named pipe must not block
    TDescriptor in(::openat(at.directory, at.name, flags));
    struct stat status;
    if (in && type != EntryType::Regular
        && (::fstat(in.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
        in.reset();
        errno = EOPNOTSUPP;
    }
    return in;
}

/// @return false with `errno`.
bool FileCopier::copy_content(int in, int out)
{
    for (;;) {
        const ssize_t count = retried([&] { return ::read(in, buffer_.get(), kBufferSize); });
        if (count <= 0)
            return count == 0;
        if (!write_all(out, static_cast<std::size_t>(count)))
            return false;
        struct stat status;
        if (count < static_cast<ssize_t>(kBufferSize) || ::fstat(in, &status) != 0)
            continue;
        if (is_sparse(status))
            return copy_sparse(in, out, count, status.st_size);
        reserve_room(out, status.st_size);
        copy_in_kernel(in, out, kToTheEnd);
    }
}

bool FileCopier::write_all(int out, std::size_t size)
{
    for (const char* next = buffer_.get(); size > 0;) {
        const ssize_t count = retried([&] { return ::write(out, next, size); });
        if (count < 0)
            return false;
        next += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

/// Copies what holds data, from `start` on. @return false with `errno`.
bool FileCopier::copy_sparse(int in, int out, off_t start, off_t size)
{
    while (start < size) {
        off_t data = ::lseek(in, start, SEEK_DATA);
        if (data < 0 && errno == ENXIO)  // nothing but a hole is left
            break;
        off_t hole = data < 0 ? -1 : ::lseek(in, data, SEEK_HOLE);
        if (hole < 0) {  // the file system cannot tell
            data = start;
            hole = size;
        }
        if (!copy_range(in, out, data, std::min(hole, size)))
            return false;
        start = hole;
    }
    return ::ftruncate(out, size) == 0;
}

bool FileCopier::copy_range(int in, int out, off_t start, off_t end)
{
    if (::lseek(in, start, SEEK_SET) < 0 || ::lseek(out, start, SEEK_SET) < 0)
        return false;
    start += copy_in_kernel(in, out, end - start);
    while (start < end) {
        const auto left = static_cast<std::size_t>(end - start);
        const std::size_t size = std::min(kBufferSize, left);
        const ssize_t count = retried([&] { return ::read(in, buffer_.get(), size); });
        if (count <= 0)
            return count == 0;
        if (!write_all(out, static_cast<std::size_t>(count)))
            return false;
        start += count;
    }
    return true;
}

}  // namespace tarvik
