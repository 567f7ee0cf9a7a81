#pragma once

#include "app/FileList.h"
#include "common/misc.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace tarvik {

/// One planned step: a file or directory of the package and the place it goes to.
struct FSAInstallFileinfo {
    std::string sourcePath;  ///< relative to the package directory
    std::string targetPath;  ///< relative to the application directory
    bool executable = false;
    EntryType type = EntryType::Unknown;  ///< of the source, as far as its listing told
};

/**
 * Copies planned files, parents before their contents. What holds for all files of one directory is
 * found out once for each run of files in it.
 */
class FileCopier {
public:
    /// All three are borrowed for the copier's life. @param userName  the site's system user.
    FileCopier(const std::string& packageDir, const std::string& appDir,
               const std::string& userName);

    /**
     * Creates a directory unless it is there, or a file in place of what is there, with its mode.
     * Links in the package are followed; a link where a file goes is replaced. The directory that
     * receives it is opened to the site's people; failing to is reported on standard error only.
     * @throws FSAFileException when it cannot be done.
     */
    void install(const FSAInstallFileinfo& file);

private:
    void enter_parent(const std::string& target);
    void copy_file(const std::string& source, const std::string& target,
                   const FSAInstallFileinfo& file);
    TDescriptor create_in_place_of(const std::string& target, mode_t mode);
    TDescriptor open_source(const std::string& source, EntryType type);
    bool copy_content(int in, int out);
    bool write_all(int out, std::size_t size);

    const std::string& packageDir_;
    const std::string& appDir_;
    const std::string& userName_;
    std::string source_, target_;
    LastDirectory sources_;
    LastDirectory targets_;
    std::string settledParent_;           ///< its mode is as wanted
    bool modesHold_[2] = {false, false};  ///< files created in it have the mode asked for
    std::vector<char> buffer_;
};

}  // namespace tarvik
