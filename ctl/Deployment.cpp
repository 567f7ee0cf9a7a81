#include "ctl/Deployment.h"

#include "app/InstallPlan.h"
#include "ctl/Child.h"
#include "ctl/InstalledPaths.h"
#include "ctl/Manifest.h"
#include "ctl/QuietErrors.h"
#include "ctl/Trouble.h"

#include <boost/algorithm/string/replace.hpp>

#include <array>
#include <ctime>
#include <list>

namespace tarvik::ctl {

namespace {

constexpr char kApplication[] = "{application}";

std::string now()
{
    const std::time_t time = std::time(nullptr);
    std::tm parts = {};
    std::array<char, sizeof "9999-12-31T23:59:59Z"> text = {};
    static_cast<void>(::gmtime_r(&time, &parts));
    static_cast<void>(std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &parts));
    return text.data();
}

/// Destinations of mappings, as the plan spells them, below the application's directory.
std::vector<std::string> below(const std::string& appDir, const std::list<std::string>& directories)
{
    std::vector<std::string> paths;
    for (const std::string& directory : directories)
        paths.push_back(plain_path(directory.substr(appDir.size())));
    return paths;
}

template <class Describe>
Release release_as_user(const PackageSource& package, const Site& site,
                        const DeployOptions& options, const Describe& describe)
{
    const FSAMetaDataReader metadata = read_metadata(package);
    Release release;
    release.name = metadata.name();
    release.version = metadata.version();
    release.release = metadata.release();
    release.packageDir = package.directory;
    release.installed = now();
    release.options = options;
    return release_from(ask_as(site.userName, [&] {
        const std::string appDir = site.application_dir();
        const QuietErrors quiet;  // the extraction itself says them
        const InstallPlan plan = plan_install(package.directory, appDir, metadata);
        release.writableDirs = below(appDir, plan.writableDirs);
        release.otherDirs = below(appDir, plan.otherDirs);
        release.files = describe(plan);
        return release_text(release);
    }));
}

}  // namespace

Release planned_release(const PackageSource& package, const Site& site,
                        const DeployOptions& options)
{
    return release_as_user(package, site, options, planned_files);
}

Release installed_release(const PackageSource& package, const Site& site,
                          const DeployOptions& options)
{
    return release_as_user(package, site, options, [&](const InstallPlan& plan) {
        return installed_files(package, plan, site.application_dir());
    });
}

PackageSource package_of(const Release& release)
{
    return {release.packageDir, release.options.metadataFile};
}

void run_release_script(const Release& release, const Site& site, const std::string& action)
{
    const PackageSource package = package_of(release);
    std::vector<std::string> parameters = release.options.scriptParameters;
    for (std::string& parameter : parameters)
        boost::replace_all(parameter, kApplication, site.application_dir());
    const std::string language = read_metadata(package).configurationScriptLanguage();
    const int status = run_script(package, site, action, language, parameters);
    if (status != 0)
        throw Trouble("the package's script ended " + action + " with status "
                      + std::to_string(status));
}

void configure_apache(const Release& release, const Site& site)
{
    const std::string& name = release.options.apacheConf;
    if (!name.empty() && install_apache_conf(package_of(release), site, name) != 0)
        throw Trouble("the Apache file " + name + " was not written");
}

void deconfigure_apache(const Release& release, const Site& site)
{
    const std::string& name = release.options.apacheConf;
    if (!name.empty() && remove_apache_conf(site, name) != 0)
        throw Trouble("the Apache file " + name + " was not removed");
}

std::string full_version(const Release& release)
{
    return release.name + " " + release.version + "-" + release.release;
}

}  // namespace tarvik::ctl
