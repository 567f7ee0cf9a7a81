#pragma once

#include "ctl/Findings.h"
#include "ctl/Package.h"

#include <vector>

namespace tarvik::ctl {

/**
 * Looks a package over, without a site and without changing anything: the metadata, what its
 * mappings would install, and the script. Of the package's files only the script is opened, for its
 * first line. Metadata that cannot be read ends it early.
 * @param package  settled.
 * @return what is wrong, the metadata first; nothing for a package without mistakes.
 * @throws Trouble when there is no metadata file.
 */
std::vector<Finding> look_over(const PackageSource& package);

}  // namespace tarvik::ctl
