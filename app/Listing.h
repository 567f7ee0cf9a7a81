#pragma once

#include "common/misc.h"

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

/// Trees of files, walked by descriptors: whoever swaps a directory for a link meanwhile leads
/// nobody out of the tree.
namespace tarvik {

/// What a directory listing says of an entry; Unknown where the file system does not tell.
enum class EntryType { Unknown, Directory, Regular, Other };

struct ListedEntry {
    std::string path;  ///< relative to the listed directory, which is itself the empty path
    EntryType type;    ///< links are not followed
};

/**
 * The open directories along one path below a directory, so that a walk resolves no name twice.
 * Only so many are held; those above them are opened again when the walk comes back.
 */
class DirectoryChain {
public:
    /// @param top  the directory that all paths start from, borrowed.
    explicit DirectoryChain(int top) : top_(top) { }

    /**
     * @param path  names below the top with one separator between; the empty path is the top.
     * @return the directory's descriptor, good for the *at() calls and valid until the next call;
     *         -1 with `errno`, for a link as well.
     */
    int at(const std::string& path);

    /// Opens `name` in the directory at `path`. @return none with `errno`.
    TDescriptor open(const std::string& path, const char* name, int flags);

private:
    struct Level {
        std::size_t length;  ///< of the part of the path that leads here
        TDescriptor directory;
    };

    int top_;
    std::string path_;           ///< of the deepest level
    std::vector<Level> levels_;  ///< without gaps, the deepest last
};

/// @return the path of `name` in a directory, as chains and listings have it.
std::string path_below(const std::string& directory, const std::string& name);

/// The entries of one directory, as the system returns them; their paths are their names.
/// @param path  what it is called in errors.
/// @throws boost::filesystem::filesystem_error when it cannot be read; `directory` may be none,
/// with `errno`.
std::vector<ListedEntry> read_directory(TDescriptor directory, const std::string& path);

/// Asked for each directory below the first: whether to list what is in it.
using EnterDirectory = std::function<bool(const std::string& path, int descriptor)>;

/**
 * Lists the tree under `dir`, the directory itself first, parents before their contents, in the
 * order in which the system returns them. A link is listed but not entered; so is `dir` itself.
 * Entries that cannot be examined, or whose path is too long, are reported on standard error and
 * not entered.
 * @throws boost::filesystem::filesystem_error for a directory that cannot be opened or read.
 */
std::vector<ListedEntry> list_tree(const std::string& dir, const EnterDirectory& enter = {});

/**
 * The same for a directory that is open.
 * @param top  its descriptor, borrowed; O_PATH will do. @param name  what it is called in messages.
 */
std::vector<ListedEntry> list_tree(int top, const std::string& name, const EnterDirectory& enter);

}  // namespace tarvik
