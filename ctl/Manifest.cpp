#include "ctl/Manifest.h"

#include "app/SiteUser.h"
#include "app/TargetDirectories.h"
#include "ctl/Digest.h"
#include "ctl/TreeWalk.h"
#include "ctl/Trouble.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>
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

std::vector<std::string> paths_of(const std::vector<RecordedFile>& files)
{
    std::vector<std::string> paths;
    paths.reserve(files.size());
    for (const RecordedFile& file : files)
        paths.push_back(file.path);
    return paths;
}

/// Compares one tree.
class Comparison {
public:
    Comparison(const std::string& directory, const Release& release,
               const PackageSources* sources = nullptr)
        : directory_(directory), release_(release),
          present_(look_at_installed(directory, paths_of(release.files), sources))
    {
        for (std::size_t i = 0; i < present_.size(); ++i)
            compare_kind(release_.files[i], present_[i]);
        for (std::size_t i = 0; i < present_.size(); ++i)
            compare_content(release_.files[i], present_[i]);
    }

    std::vector<Difference> take() { return std::move(found_); }

    void find_extra(const std::vector<std::string>& ignored)
    {
        const WritableArea writable(release_);
        std::unordered_set<std::string> known(ignored.begin(), ignored.end());
        std::unordered_set<std::string_view> ours;
        for (const RecordedFile& file : release_.files)
            ours.insert(file.path);
        const TDescriptor tree(
            ::open(directory_.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!tree)
            return;
        walk_tree(tree.get(), "",
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
                   [&](const std::string& path, EntryType type) {
                       return type == EntryType::Regular && ours.count(path) != 0;
                   },
                   [&](const std::string& path, int error) {
                       if (!writable.has(path))
                           add("unreadable", std::strerror(error), path);
                   }});
    }

    /// What has been read tells of the package what it is the same as; only the rest is read.
    bool package_is_as_recorded(const PackageSources& sources) const
    {
        std::vector<std::string> paths;
        std::vector<const RecordedFile*> files;
        for (std::size_t i = 0; i < present_.size(); ++i) {
            const RecordedFile& file = release_.files[i];
            if (present_[i].isSource && present_[i].sha256 == file.sha256)
                continue;
            paths.push_back(sources.paths[i]);
            files.push_back(&file);
        }
        const std::vector<Digest> read = digests(sources.directory, paths);
        return std::equal(read.begin(), read.end(), files.begin(),
                          [](const Digest& digest, const RecordedFile* file) {
                              return digest.sha256 == file->sha256;
                          });
    }

private:
    void compare_kind(const RecordedFile& file, const InstalledFile& present)
    {
        if (present.mode == 0)
            return add("missing", "", file.path);
        if (S_ISDIR(present.mode) != file.directory || !(file.directory || S_ISREG(present.mode)))
            return add("type", file.directory ? "is no directory" : "is no file", file.path);
        const mode_t mode = present.mode & kModeBits;
        if (mode != file.mode)
            add("mode", octal(file.mode) + " -> " + octal(mode), file.path);
        if (present.owner != ::geteuid())
            add("owner", owner_name(present.owner), file.path);
    }

    void compare_content(const RecordedFile& file, const InstalledFile& present)
    {
        if (file.directory || !S_ISREG(present.mode))
            return;
        if (present.error != 0)
            add("unreadable", std::strerror(present.error), file.path);
        else if (present.sha256 != file.sha256)
            add("changed", "", file.path);
    }

    void add(const char* kind, std::string detail, const std::string& path)
    {
        found_.push_back({kind, std::move(detail), path});
    }

    const std::string& directory_;
    const Release& release_;
    const std::vector<InstalledFile> present_;
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

/// In writable mappings the site makes files its own.
bool is_fault(const Difference& difference, const WritableArea& theirs)
{
    const std::string_view kind = difference.kind;
    return kind == "missing" || kind == "type" || !theirs.has(difference.path);
}

}  // namespace

std::vector<InstalledFile> installed_files(const std::vector<RecordedFile>& files,
                                           const std::string& directory,
                                           const PackageSources& sources,
                                           const std::vector<std::string>& changed)
{
    const std::unordered_set<std::string_view> theirs(changed.begin(), changed.end());
    std::vector<InstalledFile> installed = look_at_installed(directory, paths_of(files), &sources);
    std::vector<std::size_t> numbers;
    std::vector<std::string> paths;
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::string& path = files[i].path;
        if (installed[i].mode == 0)
            throw Trouble(path_below(directory, path) + ": " + std::strerror(installed[i].error));
        if (S_ISDIR(installed[i].mode) || installed[i].isSource)
            continue;
        if (theirs.count(path) == 0)
            throw Trouble(path + " was not installed as the package has it");
        numbers.push_back(i);
        paths.push_back(sources.paths[i]);
    }
    std::vector<Digest> read = digests(sources.directory, paths);
    for (std::size_t i = 0; i < read.size(); ++i)
        installed[numbers[i]].sha256 = std::move(read[i].sha256);
    return installed;
}

std::vector<Difference> differences(const std::string& directory, const Release& release,
                                    const std::vector<std::string>& ignored)
{
    Comparison comparison(directory, release);
    comparison.find_extra(ignored);
    return comparison.take();
}

bool is_as_package_has_it(const std::string& directory, const Release& release,
                          const PackageSources& sources)
{
    Comparison comparison(directory, release, &sources);
    const WritableArea theirs(release);
    const std::vector<Difference> found = comparison.take();
    return std::none_of(found.begin(), found.end(),
                        [&](const Difference& difference) { return is_fault(difference, theirs); })
        && comparison.package_is_as_recorded(sources);
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
