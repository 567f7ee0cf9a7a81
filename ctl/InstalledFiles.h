#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tarvik::ctl {

/// What stands where an installation has put something.
struct InstalledFile {
    mode_t mode = 0;  ///< with its kind, links not followed; 0 when nothing was found
    uid_t owner = 0;
    std::string sha256;     ///< of a file, as `Digest` has it
    int error = 0;          ///< why it was not found or not read; an `errno` value
    bool isSource = false;  ///< the package has the same content for it
};

/// What a package has for each of several paths, by paths in its directory. Borrowed.
struct PackageSources {
    const std::string& directory;
    const std::vector<std::string>& paths;
};

/**
 * Looks at what was installed, and reads the files, side by side; a process that has done so must
 * not fork any more.
 * @param directory  the tree; there is nothing where it is no directory.
 * @param paths      in it. No link is followed.
 * @param sources    compared with, one for each path, unless null; links to them are followed.
 * @return what was found, in the order of the paths. @throws Trouble when the tree cannot be
 * opened.
 */
std::vector<InstalledFile> look_at_installed(const std::string& directory,
                                             const std::vector<std::string>& paths,
                                             const PackageSources* sources = nullptr);

}  // namespace tarvik::ctl
