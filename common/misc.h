#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <iosfwd>
#include <memory>
#include <string>
#include <utility>

namespace tarvik {

/// Owns one file descriptor; -1 means none. Errors of close are ignored but by `close`.
class TDescriptor {
public:
    explicit TDescriptor(int fd = -1) noexcept : fd_(fd) { }
    TDescriptor(TDescriptor&& other) noexcept : fd_(other.release()) { }
    TDescriptor& operator=(TDescriptor&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~TDescriptor() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept;
    /// For a file that was written. @return false with `errno` when what was written may be lost.
    bool close() noexcept;

private:
    int fd_;
};

struct CloseDirectory {
    void operator()(DIR* directory) const noexcept { static_cast<void>(::closedir(directory)); }
};
/// Owns a directory stream.
using DirectoryStream = std::unique_ptr<DIR, CloseDirectory>;

/// @return a path that leads to an open file, also to one that was opened as a place only (O_PATH).
std::string descriptor_path(int descriptor);

/// Opens "/dev/null" in place of standard streams that are missing: else a file that is opened
/// under the number of one would receive what is written on it.
void occupy_standard_descriptors();

/// Makes a system call until no signal interrupts it. @return its last result, with `errno`.
template <class Call>
auto retried(Call call)
{
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR)
            return result;
    }
}

/// Where a path leads, as the *at() calls take it. The name borrows from the path.
struct PathAt {
    int directory;
    const char* name;
};

/**
 * Keeps the directory of the last path open, so that a run of paths in one directory is resolved
 * once and not once for each.
 */
class LastDirectory {
public:
    /**
     * @return the last component in its open directory, valid until the next call; the whole path
     *         where that would not do, so that the call made with it meets and reports what is
     * wrong.
     */
    PathAt at(const std::string& path);

private:
    std::string directory_;
    TDescriptor descriptor_;
};

/// @return how many bytes of a file were read; fewer than asked for at its end, -1 with `errno` for
/// an error.
ssize_t read_fully(int file, char* to, std::size_t size);

/// @return everything left in `in`; empty when nothing is left.
std::string readFile(std::istream& in);

/**
 * @param path  the file to read, in binary mode.
 * @return its whole content.
 * @throws SystemError (or ExSystemError<N>) when the file cannot be opened or read.
 */
std::string readFile(const std::string& path);

}  // namespace tarvik
