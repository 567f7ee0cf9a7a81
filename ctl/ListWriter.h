#pragma once

#include <string>
#include <vector>

namespace tarvik::ctl {

/// @return whether an instance file list can hold a path: names that are not UTF-8 or have control
///         characters cannot stand in one.
bool fits_a_list(const std::string& path);

/**
 * @param paths  in the application's directory; an empty one is left out.
 * @return an instance file list, as `--delete-application` takes it.
 * @throws Trouble when a path does not fit.
 */
std::string instance_list(const std::vector<std::string>& paths);

}  // namespace tarvik::ctl
