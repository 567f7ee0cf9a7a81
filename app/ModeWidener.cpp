#include "app/ModeWidener.h"

#include "app/InstallPlan.h"
#include "app/Listing.h"
#include "app/SiteUser.h"
#include "app/TargetDirectories.h"
#include "clib/tarvik_ugid.h"
#include "common/ExSystemError.h"

#include <boost/filesystem/path.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <iostream>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace fs = boost::filesystem;

namespace tarvik {

namespace {

constexpr int kPlace = O_PATH | O_NOFOLLOW | O_CLOEXEC;

enum class Owner { WebServer, SiteUser, Other };

/// The group through which an owner and the web server meet decides, where there is one.
enum class Group { Shared, Another, Any };

struct RequiredBits {
    Owner owner;
    Group group;
    mode_t file;
    mode_t directory;
};

// clang-format off
constexpr RequiredBits kRequiredBits[] = {
    // owner           group           file  directory
    {Owner::WebServer, Group::Shared,  0660, 0770},
    {Owner::WebServer, Group::Another, 0606, 0707},
    {Owner::SiteUser,  Group::Shared,  0660, 0770},
    {Owner::SiteUser,  Group::Another, 0606, 0707},
    {Owner::Other,     Group::Any,     0666, 0777},
};
// clang-format on

/// @param entry  what `path` names, opened as a place.
/// @return false with `errno` when the mode had to be changed and could not be.
bool makeWritableByWebserver(const std::string& path, int entry, const struct stat& status,
                             uid_t siteUser)
{
    if (!S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode))
        throw FSAFileException("Unknown type of file `" + path + "`. Unable to change file mode.");
    const mode_t mode = status.st_mode & kModeBits;
    const mode_t widened = mode | required_bits(status, siteUser);
    return widened == mode || ::chmod(descriptor_path(entry).c_str(), widened) == 0;
}

/// Compares keys. A directory is inside itself.
bool isSubdir(const std::string& child, const std::string& parent)
{
    return child.compare(0, parent.size(), parent) == 0;
}

[[noreturn]] void throw_unable_to_stat(const std::string& path)
{
    throw FSAFileException("Unable to stat file  " + path + " mode: " + std::strerror(errno));
}

class ModeWidener {
public:
    ModeWidener(const std::string& appDir, const TargetDirectories& directories,
                const std::list<std::string>& otherDirs, uid_t siteUser)
        : appDir_(appDir), directories_(directories), siteUser_(siteUser),
          others_(mapping_keys(otherDirs))
    {
    }

    void widen(const std::string& dir)
    {
        const TDescriptor top = open_destination(dir);
        const int error = errno;
        if (!top && error != ENOENT)
            std::cerr << dir << ": " << std::strerror(error) << '\n';
        const std::vector<ListedEntry> entries = list(dir, top.get());
        Exclusions exclusions(dir, others_);
        DirectoryChain chain(top.get());
        for (const ListedEntry& entry : entries) {
            if (exclusions.cover(entry.path))
                continue;
            errno = error;
            if (entry.path.empty())
                widen_entry(dir, top.get(), true);
            else
                widen_entry(join(dir, entry.path), open_entry(chain, dir, entry.path).get(), false);
        }
    }

private:
    /// The destination as it is spelled: only with a separator at its end is a link followed.
    TDescriptor open_destination(const std::string& dir) const
    {
        if (dir == appDir_ || dir.size() >= PATH_MAX)
            return TDescriptor(::open(dir.c_str(), kPlace));
        if (dir.back() == '/')
            return directories_.open(dir);
        const TDescriptor parent = directories_.open(fs::path(dir).parent_path().native());
        const std::string name = dir.substr(dir.rfind('/') + 1);
        return TDescriptor(parent ? ::openat(parent.get(), name.c_str(), kPlace) : -1);
    }

    static TDescriptor open_entry(DirectoryChain& chain, const std::string& dir,
                                  const std::string& path)
    {
        if (dir.size() + 1 + path.size() >= PATH_MAX) {
            errno = ENAMETOOLONG;
            return TDescriptor();
        }
        const std::size_t slash = path.rfind('/');
        return slash == std::string::npos
            ? chain.open("", path.c_str(), kPlace)
            : chain.open(path.substr(0, slash), path.c_str() + slash + 1, kPlace);
    }

    /// All of it before any mode is changed; without what has been walked already.
    std::vector<ListedEntry> list(const std::string& dir, int top)
    {
        Exclusions exclusions(dir, others_);
        const bool excluded = exclusions.cover("");
        if (!first_visit(top, excluded))
            return {{"", EntryType::Unknown}};
        return list_tree(top, dir, [&](const std::string& path, int directory) {
            return first_visit(directory, exclusions.cover(path));
        });
    }

    /// @return whether `entry` is a directory that has to be walked. One that was excluded in
    /// another mapping may not be in this one.
    bool first_visit(int entry, bool excluded)
    {
        struct stat status;
        if (entry < 0 || ::fstat(entry, &status) != 0 || !S_ISDIR(status.st_mode))
            return false;
        const std::pair<dev_t, ino_t> identity(status.st_dev, status.st_ino);
        return walked_[false].count(identity) == 0 && walked_[excluded].insert(identity).second;
    }

    /// @param entry  -1, with `errno`, for what could not be opened.
    void widen_entry(const std::string& path, int entry, bool isDestination) const
    {
        struct stat status;
        if (entry < 0 || ::fstat(entry, &status) != 0)
            throw_unable_to_stat(path);
        if (S_ISDIR(status.st_mode) && directories_.is_another(path, status)) {
            errno = ESTALE;
            throw_unable_to_stat(path);
        }
        const bool widened = makeWritableByWebserver(path, entry, status, siteUser_);
        if (!widened && isDestination)  // below it, a foreign file may well stay as it is
            throw FSAFileException("Unable to change mode for: " + path
                                   + " Error: " + std::strerror(errno));
    }

    const std::string& appDir_;
    const TargetDirectories& directories_;
    const uid_t siteUser_;
    const MappingKeys others_;
    std::set<std::pair<dev_t, ino_t>> walked_[2];  ///< as part of the mapping; while excluded
};

}  // namespace

mode_t required_bits(const struct stat& status, uid_t siteUser)
{
    static const uid_t webServer = tarvik_ugid(kWebServerUser, 0);
    static const gid_t services = get_group_id(kServicesGroup);
    static const gid_t clients = get_group_id(kClientsGroup);
    return web_server_bits(status, {siteUser, webServer, services, clients});
}

mode_t web_server_bits(const struct stat& entry, const SharedAccounts& accounts)
{
    const Owner owner = entry.st_uid == accounts.webServer ? Owner::WebServer
        : entry.st_uid == accounts.siteUser                ? Owner::SiteUser
                                                           : Owner::Other;
    const gid_t shared = owner == Owner::WebServer ? accounts.clients : accounts.services;
    const Group group = entry.st_gid == shared ? Group::Shared : Group::Another;
    const auto* const row = std::find_if(
        std::begin(kRequiredBits), std::end(kRequiredBits), [&](const RequiredBits& bits) {
            return bits.owner == owner && (bits.group == group || bits.group == Group::Any);
        });
    return S_ISDIR(entry.st_mode) ? row->directory : row->file;
}

MappingKeys mapping_keys(const std::list<std::string>& destinations)
{
    MappingKeys keys;
    for (const std::string& destination : destinations)
        keys.insert(path_key(destination));
    return keys;
}

Exclusions::Exclusions(const std::string& dir, const MappingKeys& others)
    : others_(others), key_(path_key(dir))
{
    const auto first = others.lower_bound(key_);
    possible_ = first != others.end() && isSubdir(*first, key_);
}

bool Exclusions::cover(const std::string& path)
{
    if (!possible_)
        return false;
    std::string key = key_ + path;
    std::replace(key.begin() + static_cast<std::ptrdiff_t>(key_.size()), key.end(), '/', '\0');
    if (!path.empty())
        key += '\0';
    if (excluded_ && isSubdir(key, *excluded_))
        return true;
    excluded_.reset();
    if (others_.count(key) != 0)
        excluded_ = std::move(key);
    return excluded_.has_value();
}

void widen_writable_mappings(const InstallPlan& plan, const std::string& appDir,
                             TargetDirectories& directories, uid_t siteUser)
{
    // Before the web server may write anywhere that it could not before.
    for (const std::string& dir : plan.writableDirs) {
        directories.remember(fs::path(dir).parent_path().native());
        directories.remember(dir);
    }
    ModeWidener widener(appDir, directories, plan.otherDirs, siteUser);
    for (const std::string& dir : plan.writableDirs)
        widener.widen(dir);
}

}  // namespace tarvik
