#pragma once

#include "app/Listing.h"

#include <sys/stat.h>

#include <functional>
#include <string>

/// Trees of a site while the site is in use: by descriptors, and past what cannot be read.
namespace tarvik::ctl {

/// What a walk has come to. Descriptor and name are for the *at() calls, and good only in the call
/// that is given them.
struct TreeEntry {
    const std::string& path;  ///< below the directory where the walk began
    int directory;
    const char* name;
    const struct stat& status;  ///< of the entry itself, links not followed
};

struct TreeVisitor {
    /// Called for each entry, parents first. @return whether to enter it, if it is a directory.
    std::function<bool(const TreeEntry& entry)> visit;
    /// Called for a directory when what is in it has been visited; may be empty.
    std::function<void(const TreeEntry& entry)> leave = {};
    /// Asked for each entry by what the listing tells of it: those passed over are not even
    /// examined; may be empty.
    std::function<bool(const std::string& path, EntryType type)> pass_over = {};
    /// Called for what cannot be examined or read, with an `errno` value; may be empty.
    std::function<void(const std::string& path, int error)> refused = {};
};

/**
 * Walks what is below a directory. Entries that go while they are looked at are passed over.
 * @param top    the directory, O_PATH will do. @param start  where in it to begin; empty for all.
 */
void walk_tree(int top, const std::string& start, const TreeVisitor& visitor);

/// @return the path of the directory that an entry is in, and the entry's name.
std::string parent_path(const std::string& path);
std::string last_name(const std::string& path);

}  // namespace tarvik::ctl
