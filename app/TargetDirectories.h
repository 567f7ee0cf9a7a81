#pragma once

#include "common/misc.h"

#include <sys/stat.h>

#include <string>
#include <unordered_map>
#include <utility>

namespace tarvik {

/**
 * The directories that an installation put something into, by what they are and not only by their
 * names: the web server's account may write in some of them, and may put a link to another
 * application in the place of one.
 */
class TargetDirectories {
public:
    /// @param appDir  the application directory, borrowed. Whatever it is, it is the site's choice.
    explicit TargetDirectories(const std::string& appDir);

    /// Takes what is at `path` for what belongs there, links followed, if it is a directory; the
    /// first one counts. @param path  the application directory, or below it.
    void remember(const std::string& path);
    /// The same for a directory that has been examined.
    void remember(const std::string& path, const struct stat& status);

    bool knows(const std::string& path) const;

    /// What was at `path` has been removed again.
    void forget(const std::string& path);

    /// @return whether another directory than this one is known by that path.
    bool is_another(const std::string& path, const struct stat& status) const;

    /**
     * Opens a directory as a place (O_PATH). One that is known must still be what it was, however
     * its path leads there; below the last known one no link is followed.
     * @return none with `errno`, which is ESTALE where another directory has taken its place.
     */
    TDescriptor open(const std::string& path) const;

private:
    using Identity = std::pair<dev_t, ino_t>;

    TDescriptor open_known(const std::string& key) const;

    std::string appKey_;
    std::unordered_map<std::string, Identity> known_;  ///< by `path_key`
};

/// A path by its elements, "." skipped, each ended by a NUL: what lies in a directory starts with
/// the directory's key. Thousands of mappings are compared by their keys, made once for each.
std::string path_key(const std::string& path);

}  // namespace tarvik
