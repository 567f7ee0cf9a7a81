#pragma once

#include <string>

namespace tarvik::ctl {

/// The subdirectory that is the document root.
constexpr char kDocumentRootItself[] = ".";

/// Where an application goes, in the words of zendrel's own options.
struct Site {
    std::string vhostPath;
    std::string wwwRoot;
    std::string userName;
    std::string subdirectory;  ///< in the document root; "." for the root itself

    /// @return the application's directory.
    std::string application_dir() const;
};

/// A site as the command line names it: by its four options or by the instance in it.
struct SiteOptions {
    Site site;
    std::string instance;
};

/**
 * For what is recorded and found again: absolute paths, each directory spelled in one way, and a
 * subdirectory that stays in the document root.
 * @throws Trouble when something is missing or cannot be that.
 */
Site settled(Site site);

/// @return a name to record an instance under when none is given, from host and subdirectory.
std::string usual_instance_name(const Site& site);

/// A directory as zendrel's options take it, and beside it a place for another one.
struct Location {
    std::string parent;
    std::string name;
};

/// @return where the application's directory lies.
Location location_of(const Site& site);

/// @return the same site with the application in the directory `name` beside its own.
Site beside(const Site& site, const std::string& name);

}  // namespace tarvik::ctl
