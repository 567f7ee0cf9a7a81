#include "common/misc.h"

#include "common/ExSystemError.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <istream>

namespace tarvik {

namespace {

constexpr std::size_t kReadChunk = 64 * 1024;

}  // namespace

void TDescriptor::reset(int fd) noexcept
{
    if (fd_ >= 0)
        static_cast<void>(::close(fd_));
    fd_ = fd;
}

bool TDescriptor::close() noexcept
{
    return ::close(release()) == 0 || errno == EINTR;  // interrupted, it is closed all the same
}

std::string descriptor_path(int descriptor)
{
    return "/proc/self/fd/" + std::to_string(descriptor);
}

void occupy_standard_descriptors()
{
    for (int number = STDIN_FILENO; number <= STDERR_FILENO; ++number) {
        if (::fcntl(number, F_GETFD) < 0)
            static_cast<void>(::open("/dev/null", O_RDWR));  // takes the lowest free number
    }
}

PathAt LastDirectory::at(const std::string& path)
{
    const PathAt whole = {AT_FDCWD, path.c_str()};
    const std::size_t slash = path.rfind('/');
    const bool splits = slash != std::string::npos && slash > 0 && slash + 1 < path.size();
    if (!splits || path.size() >= PATH_MAX)
        return whole;
    if (!descriptor_ || path.compare(0, slash, directory_) != 0) {
        directory_ = path.substr(0, slash);
        descriptor_.reset(::open(directory_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    return descriptor_ ? PathAt {descriptor_.get(), path.c_str() + slash + 1} : whole;
}

ssize_t read_fully(int file, char* to, std::size_t size)
{
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = retried([&] { return ::read(file, to + done, size - done); });
        if (count < 0)
            return -1;
        if (count == 0)
            break;
        done += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(done);
}

std::string readFile(std::istream& in)
{
    std::string content;
    for (;;) {
        const std::size_t had = content.size();
        content.resize(had + kReadChunk);
        in.read(&content[had], static_cast<std::streamsize>(kReadChunk));
        content.resize(had + static_cast<std::size_t>(in.gcount()));
        if (!in)
            return content;
    }
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::in | std::ios::binary);
    if (!in)
        throwSystemError(path + ": open failed", errno);
    errno = 0;
    std::string content = readFile(in);
    if (in.bad())
        throwSystemError(path + ": read failed", errno == 0 ? EIO : errno);
    return content;
}

}  // namespace tarvik
