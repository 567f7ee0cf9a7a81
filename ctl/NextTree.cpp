#include "ctl/NextTree.h"

#include "app/ModeWidener.h"
#include "app/SiteUser.h"
#include "ctl/Child.h"
#include "ctl/Digest.h"

#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

namespace tarvik::ctl {

namespace {

/// Compares as the site's user. @return the paths of those that are another content by now.
std::vector<std::string> changed_files(const std::string& tree,
                                       const std::vector<const RecordedFile*>& files)
{
    std::vector<std::string> paths;
    paths.reserve(files.size());
    for (const RecordedFile* const file : files)
        paths.push_back(file->path);
    const std::vector<Digest> read = digests(tree, paths);
    std::vector<std::string> changed;
    for (std::size_t i = 0; i < paths.size(); ++i) {
        if (read[i].error != ENOENT && read[i].sha256 != files[i]->sha256)
            changed.push_back(paths[i]);
    }
    return changed;
}

}  // namespace

Names changed_by_site(const Site& site, const std::string& tree, const Release& release)
{
    const WritableArea area(release);
    std::vector<const RecordedFile*> files;
    for (const RecordedFile& file : release.files) {
        if (!file.directory && area.has(file.path))
            files.push_back(&file);
    }
    Names changed;
    if (files.empty())
        return changed;
    const std::string text =
        ask_as(site.userName, [&] { return joined(changed_files(tree, files)); });
    for (std::string& path : split(text))
        changed.insert(std::move(path));
    return changed;
}

NextTree::NextTree(const Release& old, const Release& next, const Names& changed)
    : old_(by_path(old)), next_(by_path(next)), changed_(changed), area_(next),
      script_(next.options.script), widens_(!next.options.skipWebserverWrite)
{
}

Take NextTree::decide(const std::string& path, const struct stat& status) const
{
    const bool stale = old_.count(path) != 0 && next_.count(path) == 0;
    if (S_ISDIR(status.st_mode))
        return stale || will_be_made_again(path, status) ? Take::IfNeeded : Take::Link;
    if (is_brought(path) || (stale && changed_.count(path) == 0))
        return Take::Skip;
    return would_be_touched(path, status) ? Take::Copy : Take::Link;
}

NextTree::Files NextTree::by_path(const Release& release)
{
    Files files;
    files.reserve(release.files.size());
    for (const RecordedFile& file : release.files)
        files.emplace(file.path, &file);
    return files;
}

/// An installation is quicker where it makes the directories itself. What the site has done to
/// their modes has to be taken over.
bool NextTree::will_be_made_again(const std::string& path, const struct stat& status) const
{
    const auto before = old_.find(path);
    return before != old_.end() && next_.count(path) != 0 && before->second->directory
        && before->second->mode == (status.st_mode & kModeBits) && status.st_uid == ::geteuid();
}

bool NextTree::is_brought(const std::string& path) const
{
    return next_.count(path) != 0 && changed_.count(path) == 0;
}

bool NextTree::is_installed(const std::string& path) const
{
    return old_.count(path) != 0 && changed_.count(path) == 0;
}

mode_t NextTree::bits(const std::string& path, const struct stat& made) const
{
    return widens_ && area_.has(path) ? required_bits(made, ::geteuid()) : 0;
}

/// A link would carry what happens to the next tree over to the running one: the script writes to
/// files, and opening a mapping to the web server changes modes.
bool NextTree::would_be_touched(const std::string& path, const struct stat& status) const
{
    if (!area_.has(path))
        return script_;
    const mode_t bits = S_ISREG(status.st_mode) ? required_bits(status, ::geteuid()) : 0;
    return widens_ && status.st_uid == ::geteuid() && (status.st_mode & bits) != bits;
}

NewFiles::NewFiles(const Site& site, const std::string& fromTree, const Release& from,
                   const std::string& toTree, const Release& to)
    : user_(site.userName), fromTree_(fromTree), toTree_(toTree), writable_(from.writableDirs),
      changed_(changed_by_site(site, fromTree, from)), next_(from, to, changed_)
{
    rules_.decide = [this](const std::string& path, const struct stat& status) {
        if (S_ISDIR(status.st_mode))
            return next_.decide(path, status);
        return next_.is_installed(path) ? Take::Skip : Take::Link;
    };
    rules_.pass_over = [this](const std::string& path, EntryType type) {
        return type == EntryType::Regular && next_.is_installed(path);
    };
    rules_.bits = [this](const std::string& path, const struct stat& made) {
        return next_.bits(path, made);
    };
    rules_.existing = Existing::StaysUnlessOlder;
}

void NewFiles::take_all() const
{
    take_over_rest(user_, fromTree_, toTree_, rules_.existing,
                   take_over_as(user_, fromTree_, toTree_, rules_, {""}));
}

void NewFiles::take_web_servers(int from, int to) const
{
    TakeoverRules own = rules_;
    own.decide = [this](const std::string& path, const struct stat& status) {
        const bool mine = status.st_uid == ::geteuid();
        if (S_ISDIR(status.st_mode))
            return mine ? Take::Link : Take::IfNeeded;
        return mine ? rules_.decide(path, status) : Take::Skip;
    };
    static_cast<void>(take_over(from, to, own, writable_));
}

void NewFiles::take_own() const
{
    static_cast<void>(take_over(fromTree_, toTree_, rules_, writable_));
}

}  // namespace tarvik::ctl
