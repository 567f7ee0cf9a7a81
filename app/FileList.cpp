#include "app/FileList.h"

#include "app/InstanceList.h"
#include "common/UtilityErrorStream.h"
#include "common/misc.h"

#include <boost/filesystem/operations.hpp>
#include <boost/format.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <iostream>
#include <tuple>

namespace fs = boost::filesystem;

const char* const skeldir[] = {"httpdocs",   "conf",       "cgi-bin", "anon_ftp",
                               "error_docs", "statistics", nullptr};

namespace tarvik {

namespace {

constexpr char kDocumentRoot[] = "httpdocs";
constexpr char kCgiBin[] = "cgi-bin";
constexpr char kPrivate[] = "private";
constexpr char kErrorDocs[] = "error_docs";

void report(const char* format, const std::string& path, int error)
{
    std::cerr << boost::format(format) % path % std::strerror(error);
}

/// `p` without its first `count` elements.
fs::path without_leading(const fs::path& p, unsigned count)
{
    fs::path rest;
    for (const fs::path& element : p) {
        if (count > 0)
            --count;
        else
            rest /= element;
    }
    return rest;
}

void remove_directory(const std::string& path)
{
    if (::rmdir(path.c_str()) != 0)
        report("rmdir(\"%1%\"): %2%\n", path, errno);
}

void remove_other(const std::string& path)
{
    if (::unlink(path.c_str()) != 0)
        report("unlink(\"%1%\"): %2%\n", path, errno);
}

/// Removes what is at `path`; nothing there is fine.
void remove_entry(const std::string& path)
{
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0) {
        if (errno != ENOENT)
            report("lstat(\"%1%\"): %2%\n", path, errno);
    } else if (S_ISDIR(status.st_mode)) {
        remove_directory(path);
    } else {
        remove_other(path);
    }
}

bool is_protected(const fs::path& rel)
{
    const std::list<fs::path>& kept = vhostAllDirs();
    return std::find(kept.begin(), kept.end(), rel) != kept.end();
}

const char* section_directory(InstallSection section)
{
    return section == Htdocs ? kDocumentRoot : kCgiBin;
}

/// Removes an instance's files, a run of files in one directory without resolving its path anew.
class InstanceRemover {
public:
    InstanceRemover(const fs::path& vhost, const ExtractParams& params, const fs::path& prefix)
        : delete_(vhost, params)
    {
        for (const InstallSection section : {CgiBin, Htdocs}) {
            Place& place = places_[section];
            place.rel = section_directory(section);
            if (prefix != ".")
                place.rel /= prefix;
            place.real = delete_.location(place.rel);
        }
    }

    void remove(const InstanceFile& file)
    {
        const Place& place = places_[file.section()];
        if (unlink_at_once(file, place))
            return;
        std::string path;
        file.append_path(path);
        delete_(place.rel / path);
    }

private:
    /// Where the files of one section are installed.
    struct Place {
        fs::path rel;                  ///< relative to the virtual host
        std::optional<fs::path> real;  ///< none when the section is kept
    };

    /// Nearly every entry is a file that is there: one call. @return false for whatever it is not.
    bool unlink_at_once(const InstanceFile& file, const Place& place)
    {
        if (!file.plain() || !place.real)
            return false;
        target_ = place.real->native();
        if (!target_.empty())
            target_ += '/';
        file.append_path(target_);
        const PathAt file_at = directory_.at(target_);
        return ::unlinkat(file_at.directory, file_at.name, 0) == 0;
    }

    DeleteDirEntry delete_;
    Place places_[2];
    LastDirectory directory_;
    std::string target_;
};

/// Appends the tree under `dir`, with `dir` itself called `name`.
void list_as(const std::string& name, const std::string& dir, std::list<fs::path>& out)
{
    for (const ListedEntry& entry : list_tree(dir))
        out.push_back(fs::path(name) / entry.path);
}

}  // namespace

const std::list<fs::path>& vhostAllDirs()
{
    static const std::list<fs::path> directories = {kCgiBin, kPrivate, "httpsdocs", kDocumentRoot};
    return directories;
}

std::list<fs::path> vhostUsedDirs(SetupSkeletonMode mode)
{
    std::list<fs::path> directories;
    if (mode == ApplicationDirs)
        return {kDocumentRoot, kCgiBin, kPrivate};
    if (mode == AllDirs || mode == AllButHttpdocs)
        directories.assign(std::begin(skeldir), std::end(skeldir) - 1);
    if (mode == AllButHttpdocs)
        directories.remove(kDocumentRoot);
    return directories;
}

int pathLength(const fs::path& p)
{
    const auto count = std::distance(p.begin(), p.end());
    return static_cast<int>(p.filename() == "." ? count - 1 : count);
}

std::list<fs::path> readDirContent(const fs::path& dir)
{
    std::list<fs::path> paths;
    for (const ListedEntry& entry : list_tree(dir.native()))
        paths.emplace_back(entry.path);
    return paths;
}

int readDirContent(std::list<fs::path>* out, const fs::path& dir, unsigned skip)
{
    readDirEntry(out, skip)(dir);
    return 0;
}

void readDirEntry::operator()(const fs::path& p) const
{
    for (const ListedEntry& entry : list_tree(p.native()))
        out_->push_back(without_leading(p / entry.path, skip_));
}

ExtractParams::ExtractParams(const extract_params_t& params)
    : htdocs_dir(params.htdocs_dir == nullptr ? "" : params.htdocs_dir),
      extra_flag(params.extra_flag != 0), keep_error_docs(params.keep_error_docs != 0),
      keep_cgi_bin(params.keep_cgi_bin != 0),
      cgi_bin_dir(params.cgi_bin_dir == nullptr ? "" : params.cgi_bin_dir)
{
}

DeleteDirEntry::DeleteDirEntry(const fs::path& root, const ExtractParams& params)
    : root_(root), params_(params)
{
}

void DeleteDirEntry::operator()(const fs::path& rel) const
{
    if (is_protected(rel))
        return;
    if (const auto target = location(rel))
        remove_entry(target->native());
}

std::optional<fs::path> DeleteDirEntry::location(const fs::path& rel) const
{
    const fs::path first = rel.empty() ? fs::path() : *rel.begin();
    if (first == kDocumentRoot)
        return params_.htdocs_dir / without_leading(rel, 1);
    if (first == kCgiBin) {
        if (params_.keep_cgi_bin)
            return std::nullopt;
        return params_.cgi_bin_dir / without_leading(rel, 1);
    }
    if (first == kErrorDocs && params_.keep_error_docs)
        return std::nullopt;
    return root_ / rel;
}

void cleanDirContent(std::list<fs::path>* paths, const fs::path& root, const ExtractParams& params)
{
    paths->sort(std::greater<>());  // every child before its parent
    std::for_each(paths->begin(), paths->end(), DeleteDirEntry(root, params));
}

}  // namespace tarvik

void sapp_delete_instance(const char* vhost_dir, const extract_params_t* params, const char* prefix)
{
    using namespace tarvik;
    InstanceFiles files = parse_instance_list(std::cin);
    if (std::strcmp(prefix, ".") != 0 && std::strcmp(prefix, "/") != 0)
        files.add(Htdocs, "");  // the prefix directory itself, once empty
    std::sort(files.begin(), files.end(), [](const InstanceFile& a, const InstanceFile& b) {
        return std::tuple(b.section(), b.key()) < std::tuple(a.section(), a.key());
    });
    InstanceRemover remover(vhost_dir, ExtractParams(*params), prefix);
    for (const InstanceFile& file : files)
        remover.remove(file);
}

int clean_docroot(const char* vhost_dir, const extract_params_t* params)
{
    using namespace tarvik;
    const fs::path root(vhost_dir);
    const ExtractParams owned(*params);
    std::list<fs::path> paths;
    for (const fs::path& directory : vhostUsedDirs(ApplicationDirs)) {
        if (directory == kDocumentRoot)
            list_as(kDocumentRoot, owned.htdocs_dir, paths);
        else if (directory == kCgiBin && !owned.keep_cgi_bin)
            list_as(kCgiBin, owned.cgi_bin_dir, paths);
        else if (directory != kCgiBin && !(directory == kErrorDocs && owned.keep_error_docs))
            readDirContent(&paths, root / directory, static_cast<unsigned>(pathLength(root)));
    }
    cleanDirContent(&paths, root, owned);
    return 0;
}

void sapp_cpp_init(...)
{
    oxa_set_terminate();
}
