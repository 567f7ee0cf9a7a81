#include "app/RemovalOrder.h"

#include "app/InstanceList.h"
#include "common/misc.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

namespace tarvik {

namespace {

constexpr std::size_t kMostFilesAPiece = 64;

bool lies_in(std::string_view key, std::string_view directory)
{
    return key.size() > directory.size() && key[directory.size()] == '\0'
        && key.compare(0, directory.size(), directory) == 0;
}

/// The key of the directory that an entry lies in, with the NUL at its end; empty at the top.
std::string_view directory_key(std::string_view key)
{
    return key.substr(0, key.rfind('\0') + 1);
}

/// @return whether an element is "." or "..".
bool has_dots(std::string_view key)
{
    for (std::size_t start = 0; start < key.size();) {
        const std::size_t end = std::min(key.find('\0', start), key.size());
        const std::string_view element = key.substr(start, end - start);
        if (element == "." || element == "..")
            return true;
        start = end + 1;
    }
    return false;
}

/// Tells of directories whether a link or a mount is on the way to them.
class Directories {
public:
    explicit Directories(const std::string& top)
        : top_(::open(top.empty() ? "." : top.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC))
    {
    }

    bool is_straight(std::string_view key)
    {
        path_.assign(key.empty() ? "." : key);
        std::replace(path_.begin(), path_.end(), '\0', '/');
        open_how how = {};
        how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
        how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
        const TDescriptor directory(
            static_cast<int>(::syscall(SYS_openat2, top_.get(), path_.c_str(), &how, sizeof how)));
        // Where no way leads, nothing can be removed. Other errors may be due to a link, or to a
        // system that does not have the call.
        return directory || errno == ENOENT || errno == EACCES || errno == ENAMETOOLONG;
    }

private:
    TDescriptor top_;
    std::string path_;
};

}  // namespace

bool holds_the_one_before(const InstanceFiles& files, std::size_t index)
{
    return index > 0 && files[index - 1].section() == files[index].section()
        && lies_in(files[index - 1].key(), files[index].key());
}

RemovalPieces removal_pieces(const InstanceFiles& files, const std::string& top)
{
    RemovalPieces pieces;
    pieces.inAnyOrder.assign(files.size(), false);
    Directories directories(top);
    std::string_view last;
    for (std::size_t index = 0; index < files.size(); ++index) {
        const std::string_view key = files[index].key();
        if (key.empty())  // the top itself, which comes last
            continue;
        if (!files[index].plain() || has_dots(key))
            return {};
        if (holds_the_one_before(files, index))
            continue;
        const std::string_view directory = directory_key(key);
        const bool isNew = pieces.starts.empty() || directory != last;
        if (isNew && !directories.is_straight(directory))
            return {};
        if (isNew || index - pieces.starts.back() >= kMostFilesAPiece)
            pieces.starts.push_back(index);
        pieces.inAnyOrder[index] = true;
        last = directory;
    }
    return pieces;
}

}  // namespace tarvik
