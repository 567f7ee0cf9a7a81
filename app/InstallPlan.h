#pragma once

#include "app/Listing.h"

#include <cstddef>
#include <list>
#include <map>
#include <string>

namespace tarvik {

class FSAMetaDataReader;
class FSAMetaDataWebContent;

/// One planned step: a file or directory of the package and the place it goes to.
struct FSAInstallFileinfo {
    std::string sourcePath;  ///< relative to the package directory
    std::string targetPath;  ///< relative to the application directory
    bool executable = false;
    EntryType type = EntryType::Unknown;  ///< of the source, as far as its listing told
};

/// What an installation will do, decided before anything is touched.
struct InstallPlan {
    std::map<std::string, FSAInstallFileinfo> files;  ///< by target, so parents come first
    std::list<std::string> writableDirs;  ///< destinations of writable mappings, in metadata order
    std::list<std::string> otherDirs;     ///< destinations of the others
};

/// @return whether the CGI handlers of a mapping make a program of a file in it.
bool makes_program(const FSAMetaDataWebContent& mapping, const std::string& path);

/// Paths are joined as they are spelled.
std::string join(const std::string& directory, const std::string& path);

/**
 * Plans the mappings in metadata order; of two that lead to one target the later one counts. A
 * mapping without a source is reported on standard error.
 * @throws FSAXMLException when a mapping leads out of the application, or when the mappings make so
 *         much of the package that the plan would take more than about half a gigabyte.
 * @throws boost::filesystem::filesystem_error when the package cannot be listed.
 */
InstallPlan plan_install(const std::string& packageDir, const std::string& appDir,
                         const FSAMetaDataReader& metadata);

}  // namespace tarvik
