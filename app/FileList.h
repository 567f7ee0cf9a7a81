#pragma once

#include "app/Listing.h"

#include <boost/filesystem/path.hpp>

#include <list>
#include <optional>
#include <string>
#include <vector>

/// Parameters of document-root cleaning and instance removal; borrowed for the call.
struct extract_params_t {
    const char* htdocs_dir;   ///< the directory that stands for "httpdocs"; may be NULL
    int extra_flag;           ///< carried only
    int keep_error_docs;      ///< not 0: nothing of "error_docs" is removed
    int keep_cgi_bin;         ///< not 0: nothing under "cgi-bin" is removed or listed
    const char* cgi_bin_dir;  ///< the directory that stands for "cgi-bin"; may be NULL
};

extern "C" {

/// Directories of a virtual host's skeleton, null-terminated.
extern const char* const skeldir[];

/**
 * Removes the files of one instance, as the instance file list on standard input names them:
 * children before their parents, a directory only if it is empty by then. What cannot be removed is
 * reported on standard error, a line each, and left.
 * @param vhost_dir  the virtual host's directory.
 * @param prefix     installation directory inside the document root; "." is the document root
 * itself.
 * @throws std::runtime_error on a malformed list, with nothing removed.
 */
void sapp_delete_instance(const char* vhost_dir, const extract_params_t* params,
                          const char* prefix);

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

/// Section of a listed file. The values take part in the order of removal.
enum InstallSection { CgiBin = 0, Htdocs = 1 };

/// The top-level directories of a virtual host that are never removed.
const std::list<boost::filesystem::path>& vhostAllDirs();
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

/// The owned copy of an `extract_params_t`; null texts become empty.
struct ExtractParams {
    explicit ExtractParams(const extract_params_t& params);

    std::string htdocs_dir;
    bool extra_flag;
    bool keep_error_docs;
    bool keep_cgi_bin;
    std::string cgi_bin_dir;
};

/**
 * Removes one file, link or empty directory, given by its path relative to the virtual host. The
 * top-level directories and what the parameters keep stay; a path that is already missing is fine;
 * other failures are reported on standard error.
 */
class DeleteDirEntry {
public:
    DeleteDirEntry(const boost::filesystem::path& root, const ExtractParams& params);
    void operator()(const boost::filesystem::path& rel) const;

    /// @return the real place of `rel`; none when the parameters keep it.
    std::optional<boost::filesystem::path> location(const boost::filesystem::path& rel) const;

private:
    boost::filesystem::path root_;
    ExtractParams params_;
};

/// Sorts `paths` in descending order and removes each as `DeleteDirEntry` does.
void cleanDirContent(std::list<boost::filesystem::path>* paths, const boost::filesystem::path& root,
                     const ExtractParams& params);

}  // namespace tarvik
