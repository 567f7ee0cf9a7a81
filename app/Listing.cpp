#include "app/Listing.h"

#include <boost/filesystem/exception.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iostream>
#include <string_view>
#include <utility>

namespace fs = boost::filesystem;

namespace tarvik {

namespace {

constexpr std::size_t kMostLevelsHeld = 6;
constexpr int kEnterFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

[[noreturn]] void throw_filesystem_error(const char* operation, const std::string& path, int error)
{
    throw fs::filesystem_error(operation, path, {error, boost::system::system_category()});
}

EntryType entry_type(mode_t mode)
{
    return S_ISDIR(mode) ? EntryType::Directory
        : S_ISREG(mode)  ? EntryType::Regular
                         : EntryType::Other;
}

EntryType entry_type(const dirent& entry)
{
    return entry.d_type == DT_UNKNOWN ? EntryType::Unknown : entry_type(DTTOIF(entry.d_type));
}

/// The type without following links. A failure other than a missing path is reported.
/// @param directory  -1, with `errno`, where it could not be opened.
EntryType examine(int directory, const char* name, const std::string& path)
{
    struct stat status;
    if (directory != -1 && ::fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0)
        return entry_type(status.st_mode);
    if (errno != ENOENT)
        std::cerr << path << ": " << std::strerror(errno) << '\n';
    return EntryType::Other;
}

/// One walk through a tree.
class TreeListing {
public:
    /// @param top  borrowed. @param name  what it is called in messages.
    TreeListing(int top, const std::string& name, const EnterDirectory& enter)
        : name_(name), enter_(enter), chain_(top)
    {
    }

    std::vector<ListedEntry> list(TDescriptor top)
    {
        listed_.push_back({"", EntryType::Directory});
        list_below("", std::move(top));
        return std::move(listed_);
    }

private:
    void list_below(const std::string& path, TDescriptor directory)
    {
        for (const auto& [name, told] : read_directory(std::move(directory), full_name(path))) {
            std::string below = path_below(path, name);
            const EntryType type = settle_type(path, name, below, told);
            if (type != EntryType::Directory) {
                listed_.push_back({std::move(below), type});
                continue;
            }
            listed_.push_back({below, type});
            enter(path, name, below);
        }
    }

    std::string full_name(const std::string& path) const
    {
        return path.empty() ? name_ : name_ + (name_.back() == '/' ? "" : "/") + path;
    }

    /// A path too long for any call is examined all the same: that is what reports it.
    EntryType settle_type(const std::string& path, const std::string& name,
                          const std::string& below, EntryType told)
    {
        if (name_.size() + 1 + below.size() >= PATH_MAX)
            return examine(AT_FDCWD, full_name(below).c_str(), full_name(below));
        if (told != EntryType::Unknown)
            return told;
        return examine(chain_.at(path), name.c_str(), full_name(below));
    }

    void enter(const std::string& path, const std::string& name, const std::string& below)
    {
        TDescriptor directory = chain_.open(path, name.c_str(), kEnterFlags);
        if (!directory || !enter_ || enter_(below, directory.get()))
            list_below(below, std::move(directory));
    }

    const std::string& name_;
    const EnterDirectory& enter_;
    DirectoryChain chain_;
    std::vector<ListedEntry> listed_;
};

}  // namespace

int DirectoryChain::at(const std::string& path)
{
    const auto leads_to = [&](std::size_t length) {
        return path.compare(0, length, path_, 0, length) == 0
            && (path.size() == length || path[length] == '/');
    };
    while (!levels_.empty() && !leads_to(levels_.back().length))
        levels_.pop_back();
    path_ = path;
    std::size_t done = levels_.empty() ? 0 : levels_.back().length;
    while (done < path.size()) {
        const std::size_t start = done == 0 ? 0 : done + 1;
        const std::size_t end = std::min(path.find('/', start), path.size());
        const int above = levels_.empty() ? top_ : levels_.back().directory.get();
        if (levels_.size() == kMostLevelsHeld)
            levels_.erase(levels_.begin());
        TDescriptor next(::openat(above, path.substr(start, end - start).c_str(),
                                  O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next)
            return -1;
        levels_.push_back({end, std::move(next)});
        done = end;
    }
    return levels_.empty() ? top_ : levels_.back().directory.get();
}

TDescriptor DirectoryChain::open(const std::string& path, const char* name, int flags)
{
    const int directory = at(path);
    return TDescriptor(directory < 0 ? -1 : ::openat(directory, name, flags));
}

std::string path_below(const std::string& directory, const std::string& name)
{
    std::string path;
    path.reserve(directory.size() + 1 + name.size());
    path += directory;
    if (!path.empty())
        path += '/';
    return path += name;
}

std::vector<ListedEntry> read_directory(TDescriptor descriptor, const std::string& path)
{
    const DirectoryStream directory(descriptor ? ::fdopendir(descriptor.get()) : nullptr);
    if (!directory)
        throw_filesystem_error("boost::filesystem::directory_iterator::construct", path, errno);
    const int listed = descriptor.release();  // the stream owns it now

    // Names can be read without a search permission, but then none of them can be examined.
    const bool searchable = ::faccessat(listed, ".", F_OK, 0) == 0;
    std::vector<ListedEntry> entries;
    for (;;) {
        errno = 0;
        const dirent* const entry = ::readdir(directory.get());
        if (entry == nullptr)
            break;
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            entries.push_back(
                {std::string(name), searchable ? entry_type(*entry) : EntryType::Unknown});
    }
    if (errno != 0)
        throw_filesystem_error("boost::filesystem::directory_iterator::operator++", path, errno);
    return entries;
}

std::vector<ListedEntry> list_tree(const std::string& dir, const EnterDirectory& enter)
{
    const EntryType type = examine(AT_FDCWD, dir.c_str(), dir);
    if (type != EntryType::Directory)
        return {{"", type}};
    const TDescriptor top(::open(dir.c_str(), kEnterFlags));
    TDescriptor readable(top ? ::fcntl(top.get(), F_DUPFD_CLOEXEC, 0) : -1);
    return TreeListing(top.get(), dir, enter).list(std::move(readable));
}

std::vector<ListedEntry> list_tree(int top, const std::string& name, const EnterDirectory& enter)
{
    // Opened as what it is, not by a name in it: it need not be searchable.
    TDescriptor readable(::open(descriptor_path(top).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return TreeListing(top, name, enter).list(std::move(readable));
}

}  // namespace tarvik
