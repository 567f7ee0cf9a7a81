#pragma once

#include <string>
#include <vector>

namespace tarvik {

struct FSAInstallFileinfo;
struct InstallPlan;

namespace ctl {

/// @return a relative path without empty and "." elements; empty for the directory that it starts
///         from. ".." stays: what it leads to depends on links.
std::string plain_path(const std::string& path);

/// Where an installation leaves something.
struct InstalledPath {
    std::string path;                          ///< plainly spelled
    const FSAInstallFileinfo* file = nullptr;  ///< of the plan; none for a directory in between
};

/**
 * What an installation leaves in the application's directory, the directory itself as the empty
 * path: its targets and the directories above them, which it makes where they are missing. Each
 * path once, parents first. A directory that is named by way of ".." is there by a name of its own.
 */
std::vector<InstalledPath> installed_paths(const InstallPlan& plan);

}  // namespace ctl

}  // namespace tarvik
