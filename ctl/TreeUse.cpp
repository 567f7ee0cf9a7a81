#include "ctl/TreeUse.h"

#include "common/misc.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <chrono>
#include <climits>

namespace tarvik::ctl {

namespace {

constexpr std::chrono::seconds kPatience {10};
constexpr int kMillisecondsBetweenLooks = 5;

/// @return whether a link in /proc leads into the directory. Processes come and go meanwhile.
bool leads_into(int place, const char* name, const std::string& directory)
{
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlinkat(place, name, target.data(), target.size());
    const std::string path(target.data(), length < 0 ? 0 : static_cast<std::size_t>(length));
    return path.compare(0, directory.size(), directory) == 0
        && (path.size() == directory.size() || path[directory.size()] == '/');
}

/// @param place  of a process. Its open files are links whose modes tell how they were opened.
bool writes_in(int place, const std::string& directory)
{
    const int descriptors = ::openat(place, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const DirectoryStream listing(descriptors < 0 ? nullptr : ::fdopendir(descriptors));
    if (!listing)
        return false;
    while (const dirent* const entry = ::readdir(listing.get())) {
        struct stat status;
        if (leads_into(descriptors, entry->d_name, directory)
            && ::fstatat(descriptors, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0
            && (status.st_mode & S_IWUSR) != 0)
            return true;
    }
    return false;
}

bool is_used(const std::string& directory)
{
    const DirectoryStream processes(::opendir("/proc"));
    if (!processes)
        return false;
    while (const dirent* const entry = ::readdir(processes.get())) {
        if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) == 0)
            continue;
        const int flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
        const TDescriptor process(::openat(::dirfd(processes.get()), entry->d_name, flags));
        if (process
            && (leads_into(process.get(), "cwd", directory) || writes_in(process.get(), directory)))
            return true;
    }
    return false;
}

}  // namespace

bool wait_until_unused(const std::string& directory)
{
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (is_used(directory)) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        static_cast<void>(::poll(nullptr, 0, kMillisecondsBetweenLooks));
    }
    return true;
}

}  // namespace tarvik::ctl
