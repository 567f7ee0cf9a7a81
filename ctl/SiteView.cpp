#include "ctl/SiteView.h"

#include "app/InstallPlan.h"
#include "app/Listing.h"
#include "app/SiteUser.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <set>

namespace tarvik::ctl {

namespace {

Attributes attributes_of(const struct stat& status)
{
    return {status.st_mode, status.st_uid, status.st_gid};
}

SiteView::Entry missing(int error)
{
    SiteView::Entry entry;
    entry.error = error;
    return entry;
}

std::string without_slashes_at_the_end(const std::string& path)
{
    return path.substr(0, path.find_last_not_of('/') + 1);
}

bool is_before(const std::pair<std::string_view, SiteView::Entry>& made, std::string_view name)
{
    return made.first < name;
}

std::vector<gid_t> own_groups()
{
    std::vector<gid_t> groups(NGROUPS_MAX);
    const int count = ::getgroups(NGROUPS_MAX, groups.data());
    groups.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
    return groups;
}

}  // namespace

const SiteView::Entry* SiteView::Made::find(std::string_view name) const
{
    if (entries_.empty() || entries_.back().first < name)
        return nullptr;
    const auto found = std::lower_bound(entries_.begin(), entries_.end(), name, is_before);
    return found->first == name ? &found->second : nullptr;
}

void SiteView::Made::set(std::string_view name, const Entry& entry)
{
    if (entries_.empty() || entries_.back().first < name) {
        entries_.emplace_back(name, entry);
        return;
    }
    const auto found = std::lower_bound(entries_.begin(), entries_.end(), name, is_before);
    if (found->first == name)
        found->second = entry;
    else
        entries_.emplace(found, name, entry);
}

struct stat Attributes::status() const
{
    struct stat status = {};
    status.st_mode = mode;
    status.st_uid = owner;
    status.st_gid = group;
    return status;
}

SiteView::SiteView() : user_(::geteuid()), group_(::getegid()), groups_(own_groups()) { }

SiteView::Entry SiteView::at(const std::string& spelled)
{
    const auto found = byPath_.find(spelled);
    if (found != byPath_.end())
        return found->second;
    const std::string path = without_slashes_at_the_end(spelled);
    Entry entry;
    if (path.empty()) {
        struct stat status;
        if (::stat("/", &status) != 0)
            return missing(errno);
        entry.attributes = attributes_of(status);
        entry.directory = &known("/", status);
    } else if (path.size() < spelled.size()) {
        entry = at(path);
    } else {
        const std::size_t slash = path.rfind('/');
        const Entry parent = at(path.substr(0, slash));
        if (parent.directory == nullptr)
            return missing(parent.error != 0 ? parent.error : ENOTDIR);
        entry = at(*parent.directory, path.substr(slash + 1));
    }
    if (entry.directory != nullptr)
        byPath_.emplace(spelled, entry);
    return entry;
}

SiteView::Entry SiteView::at(Directory& directory, std::string_view name)
{
    if (name.empty() || name == "." || (name == ".." && !directory.is_there())) {
        Entry entry;
        entry.directory = name == ".." ? directory.parent : &directory;
        entry.attributes = entry.directory->attributes;
        return entry;
    }
    if (const Entry* const made = directory.made.find(name))
        return *made;
    if (name.size() > NAME_MAX)
        return missing(ENAMETOOLONG);
    return directory.is_there() ? examine(directory, name) : missing(ENOENT);
}

SiteView::Entry SiteView::examine(const Directory& directory, std::string_view name)
{
    struct stat status;
    const int place = open(directory);
    name_ = name;
    if (place < 0 || ::fstatat(place, name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return missing(hides(directory, errno) ? kBlocked : errno);
    Entry entry;
    entry.attributes = attributes_of(status);
    entry.size = status.st_size;
    if (entry.is_link() && ::fstatat(place, name_.c_str(), &status, 0) != 0)
        return entry;
    if (S_ISDIR(status.st_mode))
        entry.directory = &known(join(directory.path == "/" ? "" : directory.path, name_), status);
    return entry;
}

SiteView::Directory& SiteView::known(const std::string& path, const struct stat& status)
{
    Directory*& directory = byIdentity_[{status.st_dev, status.st_ino}];
    if (directory == nullptr)
        directory = &directories_.emplace_back(
            Directory {path, nullptr, attributes_of(status), kNoStep, {}, {}});
    return *directory;
}

int SiteView::open(const Directory& directory)
{
    if (opened_ != &directory) {
        descriptor_.reset(::open(directory.path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        opened_ = descriptor_ ? &directory : nullptr;
    }
    return descriptor_.get();
}

/// @return whether an error is one that is over when the steps have opened the directory.
bool SiteView::hides(const Directory& directory, int error)
{
    if (error != EACCES || !is_opened(directory))
        return false;
    hide(directory);
    return true;
}

std::vector<std::string> SiteView::names(const Directory& directory)
{
    std::set<std::string> names;
    for (const auto& [name, entry] : directory.made.all())
        names.emplace(name);
    if (directory.is_there()) {
        TDescriptor listed(::open(directory.path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (listed || !hides(directory, errno)) {
            for (ListedEntry& entry : read_directory(std::move(listed), directory.path))
                names.insert(std::move(entry.path));
        }
    }
    return {names.begin(), names.end()};
}

int SiteView::denial(const Directory& directory) const
{
    if (!directory.is_there() || ::faccessat(AT_FDCWD, directory.path.c_str(), W_OK | X_OK, 0) == 0)
        return 0;
    const int error = errno;
    return error == EACCES && is_opened(directory) ? 0 : error;
}

bool SiteView::is_protected(const Directory& directory, const Attributes& entry) const
{
    return (directory.attributes.mode & S_ISVTX) != 0 && entry.owner != user_
        && directory.attributes.owner != user_;
}

bool SiteView::is_opened(const Directory& directory) const
{
    return directory.attributes.owner == user_
        && (directory.willBeOpened || (directory.attributes.mode & S_IRWXU) == S_IRWXU);
}

SiteView::Directory& SiteView::make_directory(Directory& in, std::string_view name, mode_t mode,
                                              std::size_t step)
{
    // The bit that hands a group on is itself handed on.
    const mode_t inherited = in.attributes.mode & S_ISGID;
    const Attributes attributes = {S_IFDIR | mode | inherited, user_, group_of_new(in)};
    Directory& made = directories_.emplace_back(Directory {"", &in, attributes, step, {}, {}});
    Entry entry;
    entry.attributes = attributes;
    entry.directory = &made;
    in.made.set(names_.emplace_back(name), entry);
    return made;
}

void SiteView::make_file(Directory& in, std::string_view name, mode_t mode, std::size_t step)
{
    Entry entry;
    entry.attributes = {S_IFREG | mode, user_, group_of_new(in)};
    entry.step = step;
    in.made.set(name, entry);
}

void SiteView::block(Directory& in, std::string_view name)
{
    in.made.set(names_.emplace_back(name), missing(kBlocked));
}

mode_t SiteView::widened(const Attributes& attributes, mode_t bits) const
{
    if ((attributes.mode & bits) == bits || attributes.owner != user_)
        return attributes.mode;
    // Who is not in a file's group cannot keep the bit that acts in its name.
    const bool keeps = (attributes.mode & S_ISGID) == 0 || is_member(attributes.group);
    return (attributes.mode | bits) & ~static_cast<mode_t>(keeps ? 0 : S_ISGID);
}

gid_t SiteView::group_of_new(const Directory& directory) const
{
    return (directory.attributes.mode & S_ISGID) != 0 ? directory.attributes.group : group_;
}

bool SiteView::is_member(gid_t group) const
{
    return group == group_ || std::find(groups_.begin(), groups_.end(), group) != groups_.end();
}

}  // namespace tarvik::ctl
