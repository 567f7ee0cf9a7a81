#include "app/TargetDirectories.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

namespace tarvik {

namespace {

constexpr int kPlace = O_PATH | O_DIRECTORY | O_CLOEXEC;

/// The path that a key stands for. A separator more at the root changes nothing.
std::string path_of(std::string key)
{
    std::replace(key.begin(), key.end(), '\0', '/');
    return key.empty() ? "." : key;
}

/// @return the length of `key` without its last element.
std::size_t parent_length(const std::string& key, std::size_t length)
{
    const std::size_t end = length < 2 ? std::string::npos : key.rfind('\0', length - 2);
    return end == std::string::npos ? 0 : end + 1;
}

/// Goes down from a directory, element by element.
TDescriptor open_below(TDescriptor directory, const std::string& key, std::size_t start)
{
    while (directory && start < key.size()) {
        directory = TDescriptor(::openat(directory.get(), &key[start], kPlace | O_NOFOLLOW));
        start = key.find('\0', start) + 1;
    }
    return directory;
}

}  // namespace

TargetDirectories::TargetDirectories(const std::string& appDir) : appKey_(path_key(appDir)) { }

void TargetDirectories::remember(const std::string& path)
{
    struct stat status;
    if (::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode))
        remember(path, status);
}

void TargetDirectories::remember(const std::string& path, const struct stat& status)
{
    known_.insert({path_key(path), {status.st_dev, status.st_ino}});
}

bool TargetDirectories::knows(const std::string& path) const
{
    return known_.count(path_key(path)) != 0;
}

void TargetDirectories::forget(const std::string& path)
{
    known_.erase(path_key(path));
}

bool TargetDirectories::is_another(const std::string& path, const struct stat& status) const
{
    const auto known = known_.find(path_key(path));
    return known != known_.end() && known->second != Identity(status.st_dev, status.st_ino);
}

TDescriptor TargetDirectories::open(const std::string& path) const
{
    const std::string key = path_key(path);
    std::size_t length = key.size();
    while (length > appKey_.size() && known_.count(key.substr(0, length)) == 0)
        length = parent_length(key, length);
    return open_below(open_known(key.substr(0, length)), key, length);
}

TDescriptor TargetDirectories::open_known(const std::string& key) const
{
    TDescriptor directory(::open(path_of(key).c_str(), kPlace));
    const auto known = known_.find(key);
    struct stat status;
    if (!directory || known == known_.end())
        return directory;
    if (::fstat(directory.get(), &status) != 0)
        return TDescriptor();
    if (known->second == Identity(status.st_dev, status.st_ino))
        return directory;
    directory.reset();
    errno = ESTALE;
    return directory;
}

std::string path_key(const std::string& path)
{
    std::string key = path.compare(0, 1, "/") == 0 ? std::string("/\0", 2) : "";
    for (std::size_t start = 0; start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (end > start && path.compare(start, end - start, ".") != 0)
            key.append(path, start, end - start) += '\0';
        start = end + 1;
    }
    return key;
}

}  // namespace tarvik
