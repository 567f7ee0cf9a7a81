#pragma once

#include "ctl/Package.h"
#include "ctl/Site.h"

#include <string>
#include <vector>

/// Running zendrel itself for what changes a site. It lies in this program's directory; what it
/// says goes where this program's words go.
namespace tarvik::ctl {

/// @return zendrel's exit status; -1 when a signal ended it. @throws Trouble when it cannot run.
int run_zendrel(const std::vector<std::string>& words, const std::string& inputFile = "/dev/null");

int extract(const PackageSource& package, const Site& site, bool skipWebserverWrite);
/// @param list  a file with the instance's file list.
int delete_files(const Site& site, const std::string& list);
/// @param action  such as "install". @param language  for packages that leave it to the caller.
/// @param parameters  handed to the script.
int run_script(const PackageSource& package, const Site& site, const std::string& action,
               const std::string& language, const std::vector<std::string>& parameters);
int install_apache_conf(const PackageSource& package, const Site& site, const std::string& name);
int remove_apache_conf(const Site& site, const std::string& name);

}  // namespace tarvik::ctl
