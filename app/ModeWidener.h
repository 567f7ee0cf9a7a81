#pragma once

#include <sys/types.h>

#include <string>

namespace tarvik {

struct InstallPlan;
class TargetDirectories;

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
