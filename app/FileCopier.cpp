#include "app/FileCopier.h"

#include "clib/tarvik_ugid.h"
#include "common/ExSystemError.h"

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <sstream>

namespace fs = boost::filesystem;

namespace tarvik {

namespace {

constexpr char kClientsGroup[] = "oxacln";

constexpr mode_t kModeBits = 07777;
constexpr mode_t kFileMode = 0644;
constexpr mode_t kProgramMode = 0755;

// Most files of a web application fit in: one read, one write, and a read that finds the end.
constexpr std::size_t kBufferSize = 128 * 1024;
constexpr std::size_t kKernelStep = std::size_t {1} << 30;
constexpr off_t kWorthReserving = 1024 * 1024;

[[noreturn]] void throw_unable_to_create(const std::string& path, const char* reason = "")
{
    throw FSAFileException("Unable to create directory " + path + reason);
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

/// Lets the site's people work in a directory that the installation puts something into.
/// @return false when the mode had to be changed and could not be, which is reported.
bool makeUserWritableDir(const std::string& dir, const struct stat& status,
                         const std::string& userName)
{
    static const uid_t user = tarvik_ugid(userName.c_str(), 0);
    static const gid_t clients = get_group_id(kClientsGroup);
    const mode_t wanted = status.st_uid == user ? 0700 : status.st_gid == clients ? 0070 : 0007;
    const mode_t mode = status.st_mode & kModeBits;
    if ((mode | wanted) == mode || ::chmod(dir.c_str(), mode | wanted) == 0)
        return true;
    std::cerr << "Unable to change mode for " << dir << ": " << std::strerror(errno) << '\n';
    return false;
}

bool is_directory(const std::string& source, EntryType type)
{
    if (type == EntryType::Directory || type == EntryType::Regular)
        return type == EntryType::Directory;
    return fs::is_directory(source);  // links are followed
}

/// Room taken at once costs a large file far less than room taken page by page. Only an attempt.
void reserve_room(int in, int out)
{
    struct stat status;
    if (::fstat(in, &status) == 0 && status.st_size >= kWorthReserving)
        static_cast<void>(::fallocate(out, FALLOC_FL_KEEP_SIZE, 0, status.st_size));
}

/// Takes a large file as far as the kernel can without the data coming here: to its end, not at
/// all between some file systems, or to an error, which the next read or write then meets.
void copy_in_kernel(int in, int out)
{
    while (::copy_file_range(in, nullptr, out, nullptr, kKernelStep, 0) > 0) { }
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

}  // namespace

FileCopier::FileCopier(const std::string& packageDir, const std::string& appDir,
                       const std::string& userName)
    : packageDir_(packageDir), appDir_(appDir), userName_(userName), buffer_(kBufferSize)
{
}

void FileCopier::install(const FSAInstallFileinfo& file)
{
    // These are written over what was allocated for the last file.
    const std::string& source = source_.assign(packageDir_).append("/").append(file.sourcePath);
    const std::string& target = target_.assign(appDir_).append("/").append(file.targetPath);
    try {
        enter_parent(target);
        if (is_directory(source, file.type))
            create_directories(target);
        else
            copy_file(source, target, file);
    } catch (const fs::filesystem_error& e) {
        std::ostringstream text;
        text << "Filesystem error: " << e.what() << "(" << e.code() << ")" << source << " -> "
             << target;
        throw FSAFileException(text.str());
    }
}

void FileCopier::enter_parent(const std::string& target)
{
    const std::size_t slash = target.rfind('/');
    if (slash == settledParent_.size() && target.compare(0, slash, settledParent_) == 0)
        return;
    const std::string parent = fs::path(target).parent_path().native();
    settledParent_.clear();
    modesHold_[false] = modesHold_[true] = false;
    struct stat status;
    if (::lstat(parent.c_str(), &status) == 0 && S_ISDIR(status.st_mode)
        && makeUserWritableDir(parent, status, userName_))
        settledParent_ = parent;
}

void FileCopier::copy_file(const std::string& source, const std::string& target,
                           const FSAInstallFileinfo& file)
{
    const mode_t mode = file.executable ? kProgramMode : kFileMode;
    TDescriptor out = create_in_place_of(target, mode);
    const bool created = static_cast<bool>(out);
    const TDescriptor in = created ? open_source(source, file.type) : TDescriptor();
    if (in && copy_content(in.get(), out.get())) {
        settle_mode(out.get(), mode, modesHold_[file.executable]);
        if (out.close())  // where some file systems report that a write has failed
            return;
    }
    const int error = errno;
    if (created)
        static_cast<void>(::unlink(target.c_str()));  // the error to report is the first
    throw fs::filesystem_error("boost::filesystem::copy_file", source, target,
                               {error, boost::system::system_category()});
}

/// @return the new file, empty; none with `errno`. Whatever stood there is removed first.
TDescriptor FileCopier::create_in_place_of(const std::string& target, mode_t mode)
{
    const auto create = [this, mode](const std::string& path) {
        const PathAt at = targets_.at(path);
        const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
        return TDescriptor(::openat(at.directory, at.name, flags, mode));
    };
    TDescriptor out = create(target);
    if (!out && (errno == EEXIST || errno == EISDIR)) {
        fs::remove(target);
        out = create(target);
    }
    return out;
}

/// @return the source, open for reading; none with `errno`, also for what is no file.
TDescriptor FileCopier::open_source(const std::string& source, EntryType type)
{
    const PathAt at = sources_.at(source);
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
        const ssize_t count = retried([&] { return ::read(in, buffer_.data(), buffer_.size()); });
        if (count <= 0)
            return count == 0;
        if (!write_all(out, static_cast<std::size_t>(count)))
            return false;
        if (count == static_cast<ssize_t>(buffer_.size())) {
            reserve_room(in, out);
            copy_in_kernel(in, out);
        }
    }
}

bool FileCopier::write_all(int out, std::size_t size)
{
    for (const char* next = buffer_.data(); size > 0;) {
        const ssize_t count = retried([&] { return ::write(out, next, size); });
        if (count < 0)
            return false;
        next += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

}  // namespace tarvik
