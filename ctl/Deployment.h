#pragma once

#include "ctl/Child.h"
#include "ctl/InstalledFiles.h"
#include "ctl/Package.h"
#include "ctl/Record.h"
#include "ctl/Zendrel.h"

#include <string>
#include <vector>

/// The steps that deploying, upgrading and removing have in common.
namespace tarvik::ctl {

/// Refuses a package with mistakes, which are reported on standard error. @throws Trouble
void require_sound(const PackageSource& package);

/// Refuses an extraction that is known to fail; why is reported on standard error. @throws Trouble
void require_feasible(const PackageSource& package, const Site& site, const DeployOptions& options);

/// What an installation will put where, found out while this process goes on.
class Planning {
public:
    Planning(const PackageSource& package, const Site& site, const DeployOptions& options);
    /// @return name, version and release in one, which are known at once.
    std::string full_version() const;
    /// To be asked for once. @throws Trouble when the plan fails, as the extraction would.
    Release release();
    /// @return what the package has for each of the release's paths; for asking after the release.
    PackageSources sources() const { return {packageDir_, sources_}; }

private:
    std::vector<std::string> told();

    FSAMetaDataReader metadata_;
    DeployOptions options_;
    std::string packageDir_;
    std::vector<std::string> sources_;
    Question question_;
};

/**
 * Completes a planned release, and looks whether the installation has done what it should.
 * @param site     where it was installed. @param sources  what the package has for it.
 * @param changed  paths where the site has content of its own.
 * @throws Trouble
 */
void complete(Release& release, const Site& site, const PackageSources& sources,
              const std::vector<std::string>& changed);

/**
 * @param current  what is installed in the site. @param next  what was planned for it.
 * @param sources  what the package has for it.
 * @return whether that is the same from the same place, file by file, and is all there. The site
 *         may have changed what is its own to change, and added to it.
 * @throws Trouble
 */
bool is_installed_already(const Release& current, const Release& next, const Site& site,
                          const PackageSources& sources);

/// @return the package that a release came from.
PackageSource package_of(const Release& release);

/// Runs a release's script. "{application}" in its parameters is the application's directory.
/// @throws Trouble when it ends with another status than 0.
void run_release_script(const Release& release, const Site& site, const std::string& action);

/// Writes, or removes, the Apache file of an instance, where it has one. @throws Trouble
void configure_apache(const Release& release, const Site& site);
void deconfigure_apache(const Release& release, const Site& site);

/// @return name, version and release in one.
std::string full_version(const Release& release);

}  // namespace tarvik::ctl
