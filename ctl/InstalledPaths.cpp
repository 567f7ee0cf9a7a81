#include "ctl/InstalledPaths.h"

#include "app/InstallPlan.h"

#include <algorithm>
#include <unordered_set>

namespace tarvik::ctl {

namespace {

/// @return the path of the directory that a plain path is in.
std::string directory_of(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return path.substr(0, slash == std::string::npos ? 0 : slash);
}

bool ends_in_parent(const std::string& path)
{
    constexpr char kParent[] = "..";
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

std::vector<std::string> installed_paths(const InstallPlan& plan)
{
    std::unordered_set<std::string> found;
    for (const auto& [target, file] : plan.files) {
        std::string path = plain_path(target);
        while (found.insert(path).second && !path.empty())
            path = directory_of(path);
    }
    std::vector<std::string> paths(found.begin(), found.end());
    paths.erase(std::remove_if(paths.begin(), paths.end(), ends_in_parent), paths.end());
    std::sort(paths.begin(), paths.end());
    return paths;
}

}  // namespace tarvik::ctl
