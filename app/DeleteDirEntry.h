#pragma once

#include <boost/filesystem/path.hpp>

#include <list>
#include <optional>
#include <string>

/// Parameters of document-root cleaning and instance removal; borrowed for the call.
struct extract_params_t {
    const char* htdocs_dir;   ///< the directory that stands for "httpdocs"; may be NULL
    int extra_flag;           ///< carried only
    int keep_error_docs;      ///< not 0: nothing of "error_docs" is removed
    int keep_cgi_bin;         ///< not 0: nothing under "cgi-bin" is removed or listed
    const char* cgi_bin_dir;  ///< the directory that stands for "cgi-bin"; may be NULL
};

namespace tarvik {

/// Directories of a virtual host.
constexpr char kDocumentRoot[] = "httpdocs";
constexpr char kCgiBin[] = "cgi-bin";
constexpr char kPrivate[] = "private";
constexpr char kErrorDocs[] = "error_docs";

/// @return `p` without its first `count` elements.
boost::filesystem::path without_leading(const boost::filesystem::path& p, unsigned count);

/// The top-level directories of a virtual host that are never removed.
const std::list<boost::filesystem::path>& vhostAllDirs();

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

}  // namespace tarvik
