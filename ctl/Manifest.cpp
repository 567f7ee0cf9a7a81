#include "ctl/Manifest.h"

#include "app/SiteUser.h"
#include "app/TargetDirectories.h"
#include "ctl/Digest.h"
#include "ctl/InstalledPaths.h"
#include "ctl/TreeWalk.h"
#include "ctl/Trouble.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <sstream>
#include <unordered_set>

namespace tarvik::ctl {

namespace {

std::string octal(mode_t mode)
{
    char text[8];
    static_cast<void>(std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode)));
    return text;
}

std::string owner_name(uid_t user)
{
    const passwd* const entry = ::getpwuid(user);
    return entry == nullptr ? std::to_string(user) : entry->pw_name;
}

TDescriptor open_tree(const std::string& directory)
{
    TDescriptor tree(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!tree && errno != ENOENT && errno != ENOTDIR && errno != ELOOP)
        throw Trouble(directory + ": " + std::strerror(errno));
    return tree;
}

/// Compares one tree.
class Comparison {
public:
    Comparison(const std::string& directory, const Release& release)
        : directory_(directory), release_(release), tree_(open_tree(directory)), chain_(tree_.get())
    {
    }

    std::vector<Difference> run(const std::vector<std::string>& ignored)
    {
        for (const RecordedFile& file : release_.files)
            examine(file);
        compare_contents();
        if (tree_)
            find_extra(ignored);
        return std::move(found_);
    }

private:
    void examine(const RecordedFile& file)
    {
        struct stat status;
        if (!look_up(file.path, status))
            return add("missing", "", file.path);
        if (S_ISDIR(status.st_mode) != file.directory
            || (!file.directory && !S_ISREG(status.st_mode)))
            return add("type", file.directory ? "is no directory" : "is no file", file.path);
        const mode_t mode = status.st_mode & kModeBits;
        if (mode != file.mode)
            add("mode", octal(file.mode) + " -> " + octal(mode), file.path);
        if (status.st_uid != ::geteuid())
            add("owner", owner_name(status.st_uid), file.path);
        if (!file.directory)
            files_.push_back(&file);
    }

    bool look_up(const std::string& path, struct stat& status)
    {
        if (!tree_)
            return false;
        if (path.empty())
            return ::fstat(tree_.get(), &status) == 0;
        const int parent = chain_.at(parent_path(path));
        return parent >= 0
            && ::fstatat(parent, last_name(path).c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    }

    void compare_contents()
    {
        std::vector<std::string> paths;
        for (const RecordedFile* file : files_)
            paths.push_back(file->path);
        const std::vector<Digest> read = digests(directory_, paths);
        for (std::size_t i = 0; i < read.size(); ++i) {
            if (read[i].error != 0)
                add("unreadable", std::strerror(read[i].error), paths[i]);
            else if (read[i].sha256 != files_[i]->sha256)
                add("changed", "", paths[i]);
        }
    }

    void find_extra(const std::vector<std::string>& ignored)
    {
        const WritableArea writable(release_);
        std::unordered_set<std::string> known(ignored.begin(), ignored.end());
        std::unordered_set<std::string> ours;
        for (const RecordedFile& file : release_.files)
            ours.insert(file.path);
        walk_tree(tree_.get(), "",
                  {[&](const TreeEntry& entry) {
                       if (known.count(entry.path) != 0)
                           return false;
                       if (ours.count(entry.path) != 0)
                           return true;
                       if (writable.has(entry.path))
                           return true;  // a mapping that is not writable may lie below
                       add("extra", owner_name(entry.status.st_uid), entry.path);
                       return false;
                   },
                   {},
                   {},
                   [&](const std::string& path, int error) {
                       if (!writable.has(path))
                           add("unreadable", std::strerror(error), path);
                   }});
    }

    void add(const char* kind, std::string detail, const std::string& path)
    {
        found_.push_back({kind, std::move(detail), path});
    }

    const std::string& directory_;
    const Release& release_;
    const TDescriptor tree_;
    DirectoryChain chain_;
    std::vector<const RecordedFile*> files_;
    std::vector<Difference> found_;
};

/// The length of the longest of these directories that a path is in, and 1; 0 for none.
std::size_t depth_in(const std::string& path, const std::vector<std::string>& directories)
{
    std::size_t depth = 0;
    for (const std::string& directory : directories) {
        if (path.compare(0, directory.size(), directory) == 0)
            depth = std::max(depth, directory.size() + 1);
    }
    return depth;
}

std::vector<std::string> keys(const std::vector<std::string>& paths)
{
    std::vector<std::string> result;
    std::transform(paths.begin(), paths.end(), std::back_inserter(result), path_key);
    return result;
}

}  // namespace

std::vector<RecordedFile> planned_files(const InstallPlan& plan)
{
    std::vector<RecordedFile> files;
    for (const std::string& path : installed_paths(plan))
        files.push_back({path, false, 0, ""});
    return files;
}

std::string package_digests(const PackageSource& package, const InstallPlan& plan)
{
    std::map<std::string, std::string> sources;
    for (const auto& [target, file] : plan.files)
        sources[plain_path(target)] = file.sourcePath;
    std::vector<std::string> paths;
    for (const std::string& path : installed_paths(plan))
        paths.push_back(sources[path].empty() ? "." : sources[path]);
    std::string lines;
    for (const Digest& digest : digests(package.directory, paths))
        lines.append(digest.sha256) += '\n';
    return lines;
}

std::string installed_modes(const std::vector<RecordedFile>& files, const std::string& directory,
                            const std::string& digests, const std::vector<std::string>& changed)
{
    const TDescriptor tree = open_tree(directory);
    DirectoryChain chain(tree.get());
    std::istringstream lines(digests);
    std::string modes;
    std::vector<std::string> paths;
    std::vector<std::string> wanted;
    for (const RecordedFile& file : files) {
        struct stat status;
        const int parent = tree ? chain.at(parent_path(file.path)) : -1;
        const std::string name = file.path.empty() ? "." : last_name(file.path);
        if (parent < 0 || ::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            throw Trouble(directory + "/" + file.path + ": " + std::strerror(errno));
        modes += std::to_string(status.st_mode) + '\n';
        std::string digest;
        std::getline(lines, digest);
        if (!S_ISDIR(status.st_mode)
            && std::find(changed.begin(), changed.end(), file.path) == changed.end()) {
            paths.push_back(file.path);
            wanted.push_back(std::move(digest));
        }
    }
    const std::vector<Digest> found = ctl::digests(directory, paths);
    for (std::size_t i = 0; i < found.size(); ++i) {
        if (found[i].sha256.empty() || found[i].sha256 != wanted[i])
            throw Trouble(paths[i] + " was not installed as the package has it");
    }
    return modes;
}

void complete_files(std::vector<RecordedFile>& files, const std::string& digests,
                    const std::string& modes)
{
    std::istringstream digest_lines(digests);
    std::istringstream mode_lines(modes);
    for (RecordedFile& file : files) {
        mode_t mode = 0;
        mode_lines >> mode;
        file.directory = S_ISDIR(mode);
        file.mode = mode & kModeBits;
        std::getline(digest_lines, file.sha256);
        if (file.directory)
            file.sha256.clear();
    }
}

std::vector<Difference> differences(const std::string& directory, const Release& release,
                                    const std::vector<std::string>& ignored)
{
    return Comparison(directory, release).run(ignored);
}

WritableArea::WritableArea(const Release& release)
    : writable_(keys(release.writableDirs)), others_(keys(release.otherDirs))
{
}

bool WritableArea::has(const std::string& path) const
{
    // The nearest mapping around it decides.
    const std::string key = path_key(path);
    return depth_in(key, writable_) > depth_in(key, others_);
}

}  // namespace tarvik::ctl
