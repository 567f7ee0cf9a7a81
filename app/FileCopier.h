#pragma once

#include "app/InstallPlan.h"
#include "app/TargetDirectories.h"
#include "common/misc.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <memory>
#include <string>

namespace tarvik {

/// The umask that installations are made with, and the mode of new directories under it.
constexpr mode_t kInstallUmask = 022;
constexpr mode_t kDirectoryMode = 0777 & ~kInstallUmask;

/// @return the mode that a planned file is created with.
mode_t installed_mode(const FSAInstallFileinfo& file);

/// @param clients  the group `kClientsGroup`.
/// @return the bits that a directory is given which something is put into, for the site's people.
mode_t site_bits(const struct stat& directory, uid_t siteUser, gid_t clients);

/// @return whether the site's people may work in a directory, so that its mode can stay.
bool is_open_to_site(const struct stat& directory, uid_t siteUser);

/**
 * Copies planned files, parents before their contents. What holds for all files of one directory is
 * found out once for each run of files in it.
 */
class FileCopier {
public:
    /// The texts are borrowed for the copier's life.
    /// @param known  learns the directories that something is put into; borrowed.
    FileCopier(const std::string& packageDir, const std::string& appDir, uid_t siteUser,
               TargetDirectories& known);

    /**
     * Creates a directory unless it is there, or a file in place of what is there, with its mode.
     * Links in the package are followed; a link where a file goes is replaced. The directory that
     * receives it is opened to the site's people; failing to is reported on standard error only.
     * @throws FSAFileException when it cannot be done.
     */
    void install(const FSAInstallFileinfo& file);

    /**
     * Copies a file to where nothing is yet, in a directory that needs no change; looks at nothing
     * else and prints nothing, so that several copiers can do it side by side.
     * @return false, with nothing left behind, when something stands there, or when something has
     *         run out that other copiers may have taken.
     * @throws FSAFileException when it cannot be done.
     */
    bool copy_new(const FSAInstallFileinfo& file);

private:
    void enter_parent(const std::string& target);
    void set_paths(const FSAInstallFileinfo& file);
    bool is_settled(const std::string& target) const;
    void copy_file(const FSAInstallFileinfo& file);
    TDescriptor create(mode_t mode);
    TDescriptor create_in_place(mode_t mode);
    void fill(TDescriptor in, TDescriptor out, const FSAInstallFileinfo& file);
    TDescriptor open_source(EntryType type);
    bool copy_content(int in, int out);
    bool write_all(int out, std::size_t size);
    bool copy_sparse(int in, int out, off_t start, off_t size);
    bool copy_range(int in, int out, off_t start, off_t end);

    const std::string& packageDir_;
    const std::string& appDir_;
    const uid_t siteUser_;
    TargetDirectories& known_;
    std::string source_, target_;  ///< written over what was allocated for the last file
    LastDirectory sources_;
    LastDirectory targets_;
    std::string settledParent_;           ///< its mode is as wanted
    bool modesHold_[2] = {false, false};  ///< files created in it have the mode asked for
    std::unique_ptr<char[]> buffer_;
};

}  // namespace tarvik
