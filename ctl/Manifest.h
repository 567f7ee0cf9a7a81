#pragma once

#include "app/InstallPlan.h"
#include "ctl/Package.h"
#include "ctl/Record.h"

#include <string>
#include <vector>

/// What an installation has put into a tree, and what has become of it. All of this is done as the
/// site's user.
namespace tarvik::ctl {

/**
 * Describes what was installed, to be recorded: kinds and modes as they are in the tree, digests of
 * the package's files, so that a later comparison also tells whether the copies were right.
 * @param directory  the tree.
 * @throws Trouble when something planned is not there, or a file of the package cannot be read.
 */
std::vector<RecordedFile> installed_files(const PackageSource& package, const InstallPlan& plan,
                                          const std::string& directory);

/// @return the same from the plan alone: the paths, for a record that is made beforehand.
std::vector<RecordedFile> planned_files(const InstallPlan& plan);

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
