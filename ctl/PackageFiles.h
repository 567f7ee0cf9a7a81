#pragma once

#include "app/fsappmetadata.h"
#include "ctl/Findings.h"

#include <string>

/// What is looked over of a package beside its metadata. A package belongs to others than the
/// site's user, who can do with it what everyone can.
namespace tarvik::ctl {

/**
 * Looks over what would be installed: what the site's user cannot reach or read, what cannot be
 * copied, what does not arrive as it lies there.
 * @param directory  of the package, without links in it.
 */
void check_files(const std::string& directory, const FSAMetaDataReader& metadata,
                 Findings& findings);

/// Looks over the script, unless file and language are left to whoever runs it.
void check_script(const std::string& directory, const FSAMetaDataReader& metadata,
                  Findings& findings);

}  // namespace tarvik::ctl
