#include "ctl/InstalledPaths.h"

#include "ctl/TreeWalk.h"

#include <set>
#include <sstream>

namespace tarvik::ctl {

std::string plain_path(const std::string& path)
{
    std::string result;
    std::istringstream elements(path);
    for (std::string element; std::getline(elements, element, '/');) {
        if (!element.empty() && element != ".")
            result += (result.empty() ? "" : "/") + element;
    }
    return result;
}

std::vector<std::string> installed_paths(const InstallPlan& plan)
{
    std::set<std::string> paths;
    for (const auto& [target, file] : plan.files) {
        std::string path = plain_path(target);
        while (paths.insert(path).second && !path.empty())
            path = parent_path(path);
    }
    return {paths.begin(), paths.end()};
}

}  // namespace tarvik::ctl
