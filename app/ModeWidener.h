#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

namespace tarvik {

struct InstallPlan;
class TargetDirectories;

/// @return the permission bits that a file or directory in a writable mapping has to have.
/// @param status  of it, as it is now.
mode_t required_bits(const struct stat& status, uid_t siteUser);

/**
 * Lets the web server write in the writable mappings of an installation, except where another
 * mapping lies in them. Modes only gain bits, and only those of what was examined: every entry is
 * reached by descriptors, and no directory is walked twice.
 * @param directories  what the installation put something into; learns where mappings lie that it
 *        put nothing into.
 * @throws FSAFileException for what cannot be examined, is neither file nor directory, or is the
 *         directory of a mapping and cannot be changed.
 * @throws boost::filesystem::filesystem_error for a directory that cannot be listed.
 */
void widen_writable_mappings(const InstallPlan& plan, const std::string& appDir,
                             TargetDirectories& directories, uid_t siteUser);

}  // namespace tarvik
