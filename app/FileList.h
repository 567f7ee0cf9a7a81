#pragma once

#include "app/DeleteDirEntry.h"
#include "app/InstanceRemoval.h"

#include <boost/filesystem/path.hpp>

#include <list>

extern "C" {

/// Directories of a virtual host's skeleton, null-terminated.
extern const char* const skeldir[];

/**
 * Removes everything below the application directories of a virtual host, keeping the directories.
 * @return 0
 * @throws boost::filesystem::filesystem_error for a directory that cannot be listed, with nothing
 *         removed.
 */
int clean_docroot(const char* vhost_dir, const extract_params_t* params);

/// Initialisation for programs that use these functions as a library: the terminate handler.
void sapp_cpp_init(...);
}

namespace tarvik {

enum SetupSkeletonMode { AllDirs = 0, ApplicationDirs = 1, AllButHttpdocs = 2 };

std::list<boost::filesystem::path> vhostUsedDirs(SetupSkeletonMode mode);

/// @return the number of elements of `p`, a trailing separator not counted.
int pathLength(const boost::filesystem::path& p);

/// The paths of `list_tree`.
std::list<boost::filesystem::path> readDirContent(const boost::filesystem::path& dir);
/// Appends the tree under `dir` to `out`, each path without its first `skip` elements. @return 0
int readDirContent(std::list<boost::filesystem::path>* out, const boost::filesystem::path& dir,
                   unsigned skip);

/// Appends the tree under a path to a list, dropping leading elements.
class readDirEntry {
public:
    /// @param out  borrowed. @param skip  number of leading path elements to drop.
    readDirEntry(std::list<boost::filesystem::path>* out, unsigned skip)
        : out_(out), skip_(skip) { }
    void operator()(const boost::filesystem::path& p) const;

private:
    std::list<boost::filesystem::path>* out_;
    unsigned skip_;
};

/// Sorts `paths` in descending order and removes each as `DeleteDirEntry` does.
void cleanDirContent(std::list<boost::filesystem::path>* paths, const boost::filesystem::path& root,
                     const ExtractParams& params);

}  // namespace tarvik
