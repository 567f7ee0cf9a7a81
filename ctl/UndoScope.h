#pragma once

#include "ctl/Preview.h"
#include "ctl/SourceCheck.h"

namespace tarvik {

class TargetDirectories;

namespace ctl {

/**
 * Finds what `remove_targets` would remove of what is there now, without removing it, and tells of
 * it in `preview`.
 * @param known  what the installation has put something into by then.
 */
void find_at_stake(const PlannedFiles& files, const std::string& appDir,
                   const TargetDirectories& known, Preview& preview);

}  // namespace ctl

}  // namespace tarvik
