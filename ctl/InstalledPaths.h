#pragma once

#include "app/InstallPlan.h"

#include <string>
#include <vector>

namespace tarvik::ctl {

std::string plain_path(const std::string& path);
std::vector<std::string> installed_paths(const InstallPlan& plan);

}  // namespace tarvik::ctl
