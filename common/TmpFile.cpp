#include "common/TmpFile.h"

#include "common/ExSystemError.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string_view>
#include <utility>

namespace tarvik {

namespace {

constexpr char kUnique[] = "XXXXXX";
constexpr std::size_t kUniqueLength = sizeof kUnique - 1;

/**
 * Creates and locks a file. Until it has its lock, somebody else may take it for a stray one.
 * @param name  in: a template ending in six X; out: the name of the file created.
 */
TDescriptor create_unique(std::string& name)
{
    for (;;) {
        TDescriptor file(::mkostemp(name.data(), O_CLOEXEC));
        if (!file)
            throwSystemError("mkstemp() failed: ", errno);
        // Where there are no locks, nobody gets one to remove the file.
        static_cast<void>(retried([&file] { return ::flock(file.get(), LOCK_EX); }));
        struct stat status = {};
        if (::fstat(file.get(), &status) != 0 || status.st_nlink != 0)
            return file;
        name.replace(name.size() - kUniqueLength, kUniqueLength, kUnique);
    }
}

bool is_unique_name(std::string_view name, std::string_view stem)
{
    return name.size() == stem.size() + kUniqueLength && name.substr(0, stem.size()) == stem
        && std::all_of(name.begin() + stem.size(), name.end(),
                       [](unsigned char byte) { return std::isalnum(byte) != 0; });
}

void remove_if_stray(int directory, const char* name)
{
    const TDescriptor file(
        ::openat(directory, name, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status = {};
    if (!file || ::flock(file.get(), LOCK_EX | LOCK_NB) != 0 || ::fstat(file.get(), &status) != 0)
        return;
    // Under the lock, so that who has just created the file finds out before using it.
    if (S_ISREG(status.st_mode) && status.st_nlink != 0)
        static_cast<void>(::unlinkat(directory, name, 0));
}

}  // namespace

DescriptorBuffer::DescriptorBuffer(TDescriptor file) noexcept : file_(std::move(file))
{
    setp(buffer_.begin(), buffer_.end());
}

bool DescriptorBuffer::write_out() noexcept
{
    const char* next = pbase();
    const char* const end = pptr();
    setp(buffer_.begin(), buffer_.end());  // what cannot be written is lost, and not tried again
    while (next != end) {
        const ssize_t written = retried(
            [&] { return ::write(file_.get(), next, static_cast<std::size_t>(end - next)); });
        if (written <= 0)
            return false;
        next += written;
    }
    return true;
}

bool DescriptorBuffer::close()
{
    // Closing any descriptor of a file reports what has been lost; closing the last one unlocks it.
    if (!write_out())
        return false;
    TDescriptor copy(::fcntl(file_.get(), F_DUPFD_CLOEXEC, 0));
    return copy && copy.close();
}

DescriptorBuffer::int_type DescriptorBuffer::overflow(int_type next)
{
    if (!write_out())
        return traits_type::eof();
    if (!traits_type::eq_int_type(next, traits_type::eof()))
        sputc(traits_type::to_char_type(next));
    return traits_type::not_eof(next);
}

TmpFileBase::TmpFileBase(const std::string& prefix)
    : name_(prefix + kUnique), buffer_(create_unique(name_))
{
}

TmpFile::TmpFile(const std::string& prefix, bool autoclean)
    : TmpFileBase(prefix), std::ostream(&buffer_), autoclean_(autoclean)
{
}

TmpFile::~TmpFile()
{
    if (autoclean_ && ::unlink(name_.c_str()) != 0 && errno != ENOENT)
        std::cerr << "TmpFile autoclean failed: " << std::strerror(errno) << '\n';
}

void remove_stray_files(const std::string& prefix)
{
    const std::size_t stem = prefix.rfind('/') + 1;  // npos + 1 is 0
    const std::string path = stem == 0 ? "." : prefix.substr(0, stem);
    const DirectoryStream directory(::opendir(path.c_str()));
    if (!directory)
        return;
    while (const dirent* const entry = ::readdir(directory.get())) {
        if (is_unique_name(entry->d_name, std::string_view(prefix).substr(stem)))
            remove_if_stray(::dirfd(directory.get()), entry->d_name);
    }
}

}  // namespace tarvik
