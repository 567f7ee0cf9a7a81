#pragma once

#include "ctl/Package.h"
#include "ctl/Record.h"
#include "ctl/Zendrel.h"

#include <string>
#include <vector>

/// The steps that deploying, upgrading and removing have in common.
namespace tarvik::ctl {

/// What of a site the web server may write, and what it holds, before anything is installed.
/// @throws Trouble when the plan fails, as the extraction would.
Release planned_release(const PackageSource& package, const Site& site,
                        const DeployOptions& options);

/// The same after the installation, with modes and digests.
Release installed_release(const PackageSource& package, const Site& site,
                          const DeployOptions& options);

/// @return the package that a release came from.
PackageSource package_of(const Release& release);

/// Runs a release's script. "{application}" in its parameters is the application's directory.
/// @throws Trouble when it ends with another status than 0.
void run_release_script(const Release& release, const Site& site, const std::string& action);

/// Writes, or removes, the Apache file of an instance, where it has one. @throws Trouble
void configure_apache(const Release& release, const Site& site);
void deconfigure_apache(const Release& release, const Site& site);

/// @return name, version and release in one.
std::string full_version(const Release& release);

}  // namespace tarvik::ctl
