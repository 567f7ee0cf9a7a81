#include "app/FileList.h"

#include "app/Listing.h"
#include "common/UtilityErrorStream.h"

#include <algorithm>
#include <functional>
#include <iterator>

namespace fs = boost::filesystem;

const char* const skeldir[] = {"httpdocs",   "conf",       "cgi-bin", "anon_ftp",
                               "error_docs", "statistics", nullptr};

namespace tarvik {

namespace {

/// Appends the tree under `dir`, with `dir` itself called `name`.
void list_as(const std::string& name, const std::string& dir, std::list<fs::path>& out)
{
    for (const ListedEntry& entry : list_tree(dir))
        out.push_back(fs::path(name) / entry.path);
}

}  // namespace

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

void cleanDirContent(std::list<fs::path>* paths, const fs::path& root, const ExtractParams& params)
{
    paths->sort(std::greater<>());  // every child before its parent
    std::for_each(paths->begin(), paths->end(), DeleteDirEntry(root, params));
}

}  // namespace tarvik

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
