#include "app/InstallUndo.h"

#include "app/InstallPlan.h"
#include "app/Listing.h"
#include "app/TargetDirectories.h"

#include <boost/filesystem/exception.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <utility>

namespace tarvik {

namespace {

constexpr std::size_t kRootLength = 1;

/// @return whether there is nothing to remove: no such path, or something else in its place.
bool is_gone(int error)
{
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ESTALE;
}

/// @param name  separators at its end are not looked at.
bool is_parent(const std::string& name)
{
    return name.compare(0, name.find_last_not_of('/') + 1, "..") == 0;
}

bool remove_name(int directory, const char* name, bool isDirectory)
{
    return ::unlinkat(directory, name, isDirectory ? AT_REMOVEDIR : 0) == 0 || is_gone(errno);
}

TDescriptor open_place(int place)
{
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    return TDescriptor(::open(descriptor_path(place).c_str(), flags));
}

/// Empties one directory.
class TreeRemoval {
public:
    /// @param top  the directory. @param name  what it is called, for the length of paths.
    TreeRemoval(TDescriptor top, const std::string& name)
        : nameLength_(name.size()), top_(std::move(top)), chain_(top_.get())
    {
    }

    /// @param path  below the top. @return false with `errno` at the first failure.
    bool empty(const std::string& path)
    {
        const int place = chain_.at(path);
        if (place < 0)
            return is_gone(errno);
        for (const auto& [name, told] : read_directory(open_place(place), path)) {
            if (!remove(path, name))
                return false;
        }
        return true;
    }

private:
    bool remove(const std::string& path, const std::string& name)
    {
        const std::string below = path_below(path, name);
        struct stat status;
        if (nameLength_ + 1 + below.size() >= PATH_MAX)  // also bounds how deep this calls itself
            return false;
        int place = chain_.at(path);
        if (place < 0 || ::fstatat(place, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            return is_gone(errno);
        const bool isDirectory = S_ISDIR(status.st_mode);
        if (isDirectory && !empty(below))
            return false;
        place = chain_.at(path);  // the way back may be another one
        return place < 0 ? is_gone(errno) : remove_name(place, name.c_str(), isDirectory);
    }

    std::size_t nameLength_;
    TDescriptor top_;
    DirectoryChain chain_;
};

/// Removes targets, a run of them in one directory without opening it anew.
class TargetRemoval {
public:
    TargetRemoval(const std::string& appDir, const TargetDirectories& directories)
        : appDir_(appDir), directories_(directories)
    {
    }

    /// @return false at a failure, which ends the undo.
    bool remove(const std::string& target)
    {
        const std::string path = join(appDir_, target);
        if (path.size() >= PATH_MAX)
            return false;
        if (target.empty())
            return empty(path) && (::rmdir(path.c_str()) == 0 || is_gone(errno));
        const std::size_t slash = path.rfind('/', path.find_last_not_of('/'));
        if (!enter(path.substr(0, std::max(slash, kRootLength))))
            return is_gone(errno);
        const char* const name = path.c_str() + slash + 1;
        struct stat status;
        if (::fstatat(parent_.get(), name, &status, AT_SYMLINK_NOFOLLOW) != 0)
            return is_gone(errno);
        const bool isDirectory = S_ISDIR(status.st_mode);
        if (isDirectory && !empty(path))
            return false;
        // By way of a directory that has gone with the rest there is nothing left to remove.
        return is_parent(name) || remove_name(parent_.get(), name, isDirectory);
    }

private:
    bool enter(const std::string& path)
    {
        if (parent_ && path == parentPath_)
            return true;
        parentPath_ = path;
        parent_ = directories_.open(path);
        return static_cast<bool>(parent_);
    }

    bool empty(const std::string& path) const
    {
        TDescriptor directory = directories_.open(path);
        if (!directory)
            return is_gone(errno);
        return TreeRemoval(std::move(directory), path).empty("");
    }

    const std::string& appDir_;
    const TargetDirectories& directories_;
    std::string parentPath_;
    TDescriptor parent_;
};

}  // namespace

void remove_targets(const InstallPlan& plan, const std::string& appDir,
                    const TargetDirectories& directories)
{
    TargetRemoval removal(appDir, directories);
    try {
        auto file = plan.files.rbegin();
        while (file != plan.files.rend() && removal.remove(file->first))
            ++file;
    } catch (const boost::filesystem::filesystem_error&) {
        return;  // a directory that cannot be read ends the undo likewise
    }
}

}  // namespace tarvik
