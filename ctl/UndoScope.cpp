#include "ctl/UndoScope.h"

#include "app/InstallPlan.h"
#include "app/Listing.h"
#include "app/TargetDirectories.h"
#include "common/misc.h"

#include <boost/filesystem/exception.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_set>
#include <utility>

namespace fs = boost::filesystem;

namespace tarvik::ctl {

namespace {

/// What this process may remove from one directory.
struct Rights {
    /// @return why it cannot remove an entry; 0: it can.
    int denial_of(int place, const char* name) const
    {
        struct stat status;
        if (denial != 0 || !sticky)
            return denial;
        const bool found = ::fstatat(place, name, &status, AT_SYMLINK_NOFOLLOW) == 0;
        return found && status.st_uid != ::geteuid() ? EPERM : 0;
    }

    int denial = 0;       ///< of all of it
    bool sticky = false;  ///< it may only remove what is its own
};

/// A directory of its own that the installation puts something into is opened by that.
Rights rights_in(int place, const std::string& path, const TargetDirectories& known)
{
    Rights rights;
    struct stat status;
    if (place < 0 || ::fstat(place, &status) != 0)
        return {errno, false};
    if (::access(descriptor_path(place).c_str(), W_OK | X_OK) != 0)
        rights.denial = errno;
    if (status.st_uid == ::geteuid())
        return {known.knows(path) ? 0 : rights.denial, false};
    rights.sticky = (status.st_mode & S_ISVTX) != 0;
    return rights;
}

/// Lists the tree below one directory, as far as it can be removed.
class TreeScope {
public:
    /// @param top  the directory. @param listed  learns the paths of directories, as `path` begins.
    TreeScope(TDescriptor top, const TargetDirectories& known, Preview& preview,
              std::unordered_set<std::string>& listed)
        : top_(std::move(top)), chain_(top_.get()), known_(known), preview_(preview),
          listed_(listed)
    {
    }

    /// @param below  the path from the top. @param path  what it is called in listed paths, and
    /// @param shown  in the preview. @return whether all that is in it can be removed.
    bool add(const std::string& below, const std::string& path, const std::string& shown)
    try {
        const int place = chain_.at(below);
        const Rights rights = rights_in(place, path, known_);
        const std::string opened = descriptor_path(place);
        const auto entries = read_directory(
            TDescriptor(place < 0 ? -1
                                  : ::open(opened.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
            path);
        listed_.insert(path);
        bool all = rights.denial == 0 || entries.empty();
        if (!all)
            preview_.removalEnds.push_back(
                {shown.empty() ? "." : shown, std::strerror(rights.denial)});
        for (const ListedEntry& entry : entries)
            all = add_entry(below, path, path_below(shown, entry.path), entry, rights) && all;
        return all;
    } catch (const fs::filesystem_error& e) {
        if (e.code().value() == EACCES && known_.knows(path)) {  // opened by then
            preview_.warnings.push_back({shown.empty() ? "." : shown, kHidden});
            return true;
        }
        preview_.removalEnds.push_back({shown.empty() ? "." : shown, e.code().message()});
        return false;
    }

private:
    bool add_entry(const std::string& below, const std::string& path, std::string shown,
                   const ListedEntry& entry, const Rights& rights)
    {
        const std::string& name = entry.path;
        const int denial =
            rights.sticky ? rights.denial_of(chain_.at(below), name.c_str()) : rights.denial;
        if (denial != rights.denial)
            preview_.removalEnds.push_back({shown, std::strerror(denial)});
        if (!is_directory(below, name, entry.type)) {
            preview_.atStake.push_back(denial == 0 ? std::move(shown) : "");
            return denial == 0;
        }
        const std::size_t index = preview_.atStake.size();
        preview_.atStake.push_back(denial == 0 ? shown : "");
        if (add(path_below(below, name), join(path, name), shown))
            return denial == 0;
        preview_.atStake[index].clear();
        return false;
    }

    bool is_directory(const std::string& below, const std::string& name, EntryType type)
    {
        struct stat status;
        if (type != EntryType::Unknown)
            return type == EntryType::Directory;
        return ::fstatat(chain_.at(below), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0
            && S_ISDIR(status.st_mode);
    }

    TDescriptor top_;
    DirectoryChain chain_;
    const TargetDirectories& known_;
    Preview& preview_;
    std::unordered_set<std::string>& listed_;
};

/// Lists the targets with what is below them, each entry once.
class Scope {
public:
    Scope(const std::string& appDir, const TargetDirectories& known, Preview& preview)
        : appDir_(appDir), known_(known), preview_(preview)
    {
    }

    /// Targets come with parents first.
    void add(const std::string& target)
    {
        const std::size_t end = target.rfind('/', target.find_last_not_of('/'));
        if (!parent_ && end == lastEnd_ && target.compare(0, end, lastTarget_, 0, end) == 0)
            return;  // as the last one, it is in nothing, or in what is listed already
        lastTarget_ = target;
        lastEnd_ = end;
        const std::string path = target.empty() ? appDir_ : join(appDir_, target);
        const std::size_t slash = path.rfind('/', path.find_last_not_of('/'));
        enter(path.substr(0, slash));
        const std::string name = path.substr(slash + 1);
        struct stat status;
        if (!parent_ || ::fstatat(parent_.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            return;
        // At the application's directory a link is followed, and stays.
        const bool followed = target.empty() && S_ISLNK(status.st_mode);
        const std::size_t index = preview_.atStake.size();
        preview_.atStake.push_back(target.empty() ? "." : target);
        const int denial = rights_.denial_of(parent_.get(), name.c_str());
        bool goes = denial == 0 && !followed && name != "..";
        if (S_ISDIR(status.st_mode) || followed)
            goes = add_tree(target, path) && goes;
        else if (denial != 0)
            preview_.removalEnds.push_back({target, std::strerror(denial)});
        if (!goes)
            preview_.atStake[index].clear();
    }

private:
    void enter(const std::string& path)
    {
        if (path == parentPath_)
            return;
        parentPath_ = path;
        struct stat status;
        const bool looked_for = listed_.count(path) == 0 && ::stat(path.c_str(), &status) == 0;
        parent_ = looked_for ? known_.open(path) : TDescriptor();
        rights_ = parent_ ? rights_in(parent_.get(), path, known_) : Rights();
    }

    bool add_tree(const std::string& target, const std::string& path)
    {
        TDescriptor top = known_.open(path);
        return top && TreeScope(std::move(top), known_, preview_, listed_).add("", path, target);
    }

    const std::string& appDir_;
    const TargetDirectories& known_;
    Preview& preview_;
    std::unordered_set<std::string> listed_;  ///< directories with all that is in them
    std::string lastTarget_;
    std::size_t lastEnd_ = 0;  ///< of its parent
    std::string parentPath_;
    TDescriptor parent_;  ///< none when what is in it is listed, or is not there
    Rights rights_;       ///< in it
};

}  // namespace

void find_at_stake(const PlannedFiles& files, const std::string& appDir,
                   const TargetDirectories& known, Preview& preview)
{
    Scope scope(appDir, known, preview);
    for (const FSAInstallFileinfo* const file : files)
        scope.add(file->targetPath);
    std::vector<std::string>& all = preview.atStake;
    all.erase(std::remove(all.begin(), all.end(), ""), all.end());
}

}  // namespace tarvik::ctl
