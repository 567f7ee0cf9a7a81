#pragma once

#include <string>

namespace tarvik {

struct InstallPlan;
class TargetDirectories;

/**
 * Removes every target of a plan, with whatever lies below it, from the last to the first; ends
 * without a word at the first one that cannot be removed. What has been put in the place of a
 * directory meanwhile is left alone.
 * @param directories  what the installation put something into.
 */
void remove_targets(const InstallPlan& plan, const std::string& appDir,
                    const TargetDirectories& directories);

}  // namespace tarvik
