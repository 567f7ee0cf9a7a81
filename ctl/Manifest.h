#pragma once

#include "ctl/InstalledFiles.h"
#include "ctl/Record.h"

#include <string>
#include <vector>

/// What an installation has put into a tree, and what has become of it. All of this is done as the
/// site's user.
namespace tarvik::ctl {

/**
 * Looks at what was installed.
 * @param directory  the tree. @param sources  what the package has for each planned file.
 * @param changed    paths whose content is the site's own, whatever the package has.
 * @return what is there, for each planned file; the digests are those of the package.
 * @throws Trouble when something planned is not there, or is not what the package has.
 */
std::vector<InstalledFile> installed_files(const std::vector<RecordedFile>& files,
                                           const std::string& directory,
                                           const PackageSources& sources,
                                           const std::vector<std::string>& changed);

/// What is not as it was recorded.
struct Difference {
    const char* kind;    ///< such as "missing"
    std::string detail;  ///< such as "0644 -> 0666"; may be empty
    std::string path;
};

/**
 * Compares a tree with what was installed there.
 * @param directory  the tree. @param ignored  paths in it that are not looked at for extra files:
 *        other instances, and what upgrades keep.
 * @return missing and changed entries, other modes and owners than recorded, and what is there
 *         besides, the writable mappings not looked at for that.
 */
std::vector<Difference> differences(const std::string& directory, const Release& release,
                                    const std::vector<std::string>& ignored);

/**
 * @param sources  what the package has for each of the release's paths.
 * @return whether what was installed in a tree is all there, and the package still has the same.
 * The site may have changed what is its own to change, and added to it.
 */
bool is_as_package_has_it(const std::string& directory, const Release& release,
                          const PackageSources& sources);

/// Tells what is inside the writable mappings of an installation: mappings that are not writable,
/// nested in them, are not.
class WritableArea {
public:
    explicit WritableArea(const Release& release);
    bool has(const std::string& path) const;

private:
    std::vector<std::string> writable_, others_;  ///< by their keys
};

}  // namespace tarvik::ctl
