#include "ctl/InstalledPaths.h"

#include "app/InstallPlan.h"

#include <algorithm>
#include <utility>

namespace tarvik::ctl {

namespace {

/// @return the path of the directory that a plain path is in.
std::string directory_of(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return path.substr(0, slash == std::string::npos ? 0 : slash);
}

void add_with_parents(std::vector<InstalledPath>& paths, std::string directory)
{
    for (; !directory.empty(); directory = directory_of(directory))
        paths.push_back({directory, nullptr});
    paths.push_back({"", nullptr});
}

bool comes_before(const InstalledPath& a, const InstalledPath& b)
{
    const int order = a.path.compare(b.path);
    return order != 0 ? order < 0 : a.file != nullptr && b.file == nullptr;
}

bool is_same(const InstalledPath& a, const InstalledPath& b)
{
    return a.path == b.path;
}

bool ends_in_parent(const InstalledPath& installed)
{
    constexpr char kParent[] = "..";
    const std::string& path = installed.path;
    const std::size_t length = sizeof kParent - 1;
    return path.size() >= length && path.compare(path.size() - length, length, kParent) == 0
        && (path.size() == length || path[path.size() - length - 1] == '/');
}

}  // namespace

std::string plain_path(const std::string& path)
{
    std::string result;
    for (std::size_t start = 0; start < path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (end > start && path.compare(start, end - start, ".") != 0)
            result.append(result.empty() ? "" : "/").append(path, start, end - start);
        start = end + 1;
    }
    return result;
}

std::vector<InstalledPath> installed_paths(const InstallPlan& plan)
{
    std::vector<InstalledPath> paths;
    std::string last;  // directory, whose own are there already
    // Of several targets for one path the last one counts, and any of them more than what is in
    // between: they come first, and the first one stays.
    for (auto next = plan.files.rbegin(); next != plan.files.rend(); ++next) {
        std::string path = plain_path(next->first);
        std::string directory = directory_of(path);
        if (paths.empty() || directory != last) {
            last = directory;
            add_with_parents(paths, std::move(directory));
        }
        paths.push_back({std::move(path), &next->second});
    }
    std::stable_sort(paths.begin(), paths.end(), comes_before);
    paths.erase(std::unique(paths.begin(), paths.end(), is_same), paths.end());
    paths.erase(std::remove_if(paths.begin(), paths.end(), ends_in_parent), paths.end());
    return paths;
}

}  // namespace tarvik::ctl
