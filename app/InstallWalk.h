#pragma once

#include <sys/types.h>

#include <string>

namespace tarvik {

struct InstallPlan;
class TargetDirectories;

/**
 * Installs a plan's targets. All comes out as if they were installed one after the other in the
 * plan's order, up to the first that fails; files in new directories are copied by several threads,
 * where there are enough of them.
 * @param directories  learns the directories that something is put into.
 * @throws FSAFileException when a target cannot be installed: those before it are there, and of
 *         those after it nothing is.
 */
void install_targets(const InstallPlan& plan, const std::string& packageDir,
                     const std::string& appDir, uid_t siteUser, TargetDirectories& directories);

}  // namespace tarvik
