#pragma once

#include "ctl/Manifest.h"
#include "ctl/Record.h"
#include "ctl/TreeTakeover.h"

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

/// What of one tree of an instance goes into another one that takes its place.
namespace tarvik::ctl {

using Names = std::unordered_set<std::string>;

/// @return installed files in the writable mappings that are not what was installed any more: the
/// site's own by now.
/// @param tree  the directory that the release is in. @throws Trouble
Names changed_by_site(const Site& site, const std::string& tree, const Release& release);

/// Decides it for each entry.
class NextTree {
public:
    /// @param old, next  borrowed, with their files. @param changed  those of the old one by the
    /// site, borrowed.
    NextTree(const Release& old, const Release& next, const Names& changed);

    Take decide(const std::string& path, const struct stat& status) const;

    /// The next release has it, and the site has not changed it.
    bool is_brought(const std::string& path) const;
    /// The old release had it, and the site has not changed it.
    bool is_installed(const std::string& path) const;

    /// @return the bits that a directory there needs for the web server.
    mode_t bits(const std::string& path, const struct stat& made) const;

private:
    bool would_be_touched(const std::string& path, const struct stat& status) const;

    /// By their paths, borrowed.
    using Files = std::unordered_map<std::string_view, const RecordedFile*>;

    static Files by_path(const Release& release);
    bool will_be_made_again(const std::string& path, const struct stat& status) const;

    Files old_, next_;
    const Names& changed_;
    WritableArea area_;
    bool script_, widens_;
};

/// What has come to one tree, or is newer there, and is to be in another one: visitors put files
/// into the writable mappings, and the owner may put them anywhere.
class NewFiles {
public:
    /// All of it is borrowed. @throws Trouble
    NewFiles(const Site& site, const std::string& fromTree, const Release& from,
             const std::string& toTree, const Release& to);
    NewFiles(const NewFiles&) = delete;
    NewFiles& operator=(const NewFiles&) = delete;

    /// @throws Trouble, as those below, for what nobody can take.
    void take_all() const;
    /// A last look at what visitors make as the web server's account, by a process that is it.
    /// @param from, to  the trees, opened as places: they may have changed their names meanwhile.
    void take_web_servers(int from, int to) const;
    /// A last look at what they make as the site's user, by a process that is this user.
    void take_own() const;

private:
    const std::string& user_;
    const std::string& fromTree_;
    const std::string& toTree_;
    const std::vector<std::string>& writable_;
    const Names changed_;
    const NextTree next_;
    TakeoverRules rules_;
};

}  // namespace tarvik::ctl
