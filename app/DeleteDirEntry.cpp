#include "app/DeleteDirEntry.h"

#include <boost/format.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>

namespace fs = boost::filesystem;

namespace tarvik {

namespace {

void report(const char* format, const std::string& path, int error)
{
    std::cerr << boost::format(format) % path % std::strerror(error);
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

}  // namespace

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

const std::list<fs::path>& vhostAllDirs()
{
    static const std::list<fs::path> directories = {kCgiBin, kPrivate, "httpsdocs", kDocumentRoot};
    return directories;
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

}  // namespace tarvik
