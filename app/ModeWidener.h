#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <list>
#include <optional>
#include <set>
#include <string>

namespace tarvik {

struct InstallPlan;
class TargetDirectories;

/// @return the permission bits that a file or directory in a writable mapping has to have.
/// @param status  of it, as it is now.
mode_t required_bits(const struct stat& status, uid_t siteUser);

/// Whom the modes of a writable mapping depend on; an id of 0 stands for an account that is
/// missing.
struct SharedAccounts {
    uid_t siteUser;
    uid_t webServer;
    gid_t services;
    gid_t clients;
};

/// The same for accounts that are known.
mode_t web_server_bits(const struct stat& entry, const SharedAccounts& accounts);

/// Destinations of mappings, by `path_key`.
using MappingKeys = std::set<std::string>;
MappingKeys mapping_keys(const std::list<std::string>& destinations);

/// Tells in one walk through a writable mapping what belongs to another one that is not writable.
class Exclusions {
public:
    /// @param dir  the writable mapping's. @param others  those of the others, borrowed.
    Exclusions(const std::string& dir, const MappingKeys& others);

    /// @param path  as a listing names it; asked for in the listing's order, so that what lies in
    /// an excluded directory follows it.
    bool cover(const std::string& path);

private:
    const MappingKeys& others_;
    std::string key_;
    bool possible_;
    std::optional<std::string> excluded_;  ///< the directory last found to be
};

/**
 * Lets the web server write in the writable mappings of an installation, except where another
 * mapping lies in them. Modes only gain bits, and only those of what was examined: every entry is
 * reached by descriptors, and no directory is walked twice.
 * @param directories  what the installation put something into; learns where mappings lie that it
 *        put nothing into.
 * @throws FSAFileException for what cannot be examined, is neither file nor directory, or is the
 *         directory of a mapping and cannot be changed.
 * @throws boost::filesystem::filesystem_error for a directory that cannot be listed.
 */
void widen_writable_mappings(const InstallPlan& plan, const std::string& appDir,
                             TargetDirectories& directories, uid_t siteUser);

}  // namespace tarvik
