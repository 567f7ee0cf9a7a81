#include "ctl/Deployment.h"

#include "app/InstallPlan.h"
#include "app/SiteUser.h"
#include "ctl/Child.h"
#include "ctl/InstalledPaths.h"
#include "ctl/Manifest.h"
#include "ctl/Output.h"
#include "ctl/PackageCheck.h"
#include "ctl/Preview.h"
#include "ctl/QuietErrors.h"
#include "ctl/Trouble.h"

#include <boost/algorithm/string/replace.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <iostream>
#include <list>
#include <optional>
#include <tuple>
#include <utility>

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

/// The plan without a word: the extraction itself says them.
InstallPlan plan_quietly(const PackageSource& package, const Site& site,
                         const FSAMetaDataReader& metadata)
{
    const QuietErrors quiet;
    const std::string appDir = site.application_dir();
    return plan_install(package.directory, appDir, metadata);
}

bool is_same_plan(const Release& a, const Release& b)
{
    const auto all = [](const Release& release) {
        return std::tie(release.name, release.version, release.release, release.packageDir,
                        release.options, release.writableDirs, release.otherDirs);
    };
    return all(a) == all(b)
        && std::equal(a.files.begin(), a.files.end(), b.files.begin(), b.files.end(),
                      [](const auto& one, const auto& other) { return one.path == other.path; });
}

std::string as_lines(const std::vector<Foreseen>& failures)
{
    std::string lines;
    for (const auto& [path, reason] : failures)
        lines += "fail " + printable(path) + ": " + printable(reason) + '\n';
    return lines;
}

}  // namespace

void require_sound(const PackageSource& package)
{
    bool sound = true;
    for (const auto& [severity, where, text] : look_over(package)) {
        const bool error = severity == Severity::Error;
        sound = sound && !error;
        std::cerr << (error ? "error " : "warning ") << printable(where) << ": " << printable(text)
                  << '\n';
    }
    if (!sound)
        throw Trouble("the package has mistakes; --force goes on with them");
}

void require_feasible(const PackageSource& package, const Site& site, const DeployOptions& options)
{
    std::string report = as_lines(host_failures(site));
    if (report.empty()) {
        const FSAMetaDataReader metadata = read_metadata(package);
        report = ask_as(site.userName, [&] {
            const InstallPlan plan = plan_quietly(package, site, metadata);
            return as_lines(preview_extraction(plan, package.directory, site.application_dir(),
                                               options.skipWebserverWrite)
                                .failures);
        });
    }
    std::cerr << report;
    if (!report.empty())
        throw Trouble("the extraction would fail; --force tries it all the same");
}

Planning::Planning(const PackageSource& package, const Site& site, const DeployOptions& options)
    : metadata_(read_metadata(package)), options_(options), packageDir_(package.directory),
      question_(site.userName, [&] {
          const std::string appDir = site.application_dir();
          const InstallPlan plan = plan_quietly(package, site, metadata_);
          std::vector<std::string> paths;
          for (InstalledPath& installed : installed_paths(plan)) {
              const bool named = installed.file != nullptr && !installed.file->sourcePath.empty();
              sources_.push_back(named ? installed.file->sourcePath : ".");
              paths.push_back(std::move(installed.path));
          }
          say(joined(paths));
          say(joined(sources_));
          say(joined(below(appDir, plan.writableDirs)));
          say(joined(below(appDir, plan.otherDirs)));
          return std::string();
      })
{
}

std::string Planning::full_version() const
{
    return metadata_.name() + " " + metadata_.version() + "-" + metadata_.release();
}

Release Planning::release()
{
    Release release;
    for (std::string& path : told())
        release.files.push_back({std::move(path), false, 0, ""});
    sources_ = told();
    release.writableDirs = told();
    release.otherDirs = told();
    static_cast<void>(question_.answer());
    release.name = metadata_.name();
    release.version = metadata_.version();
    release.release = metadata_.release();
    release.packageDir = packageDir_;
    release.installed = now();
    release.options = options_;
    return release;
}

std::vector<std::string> Planning::told()
{
    const std::optional<std::string> text = question_.hear();
    return split(text ? *text : question_.answer());  // which throws what was wrong
}

void complete(Release& release, const Site& site, const PackageSources& sources,
              const std::vector<std::string>& changed)
{
    const std::vector<std::string> told = split(ask_as(site.userName, [&] {
        std::vector<std::string> texts;
        for (InstalledFile& file :
             installed_files(release.files, site.application_dir(), sources, changed)) {
            texts.push_back(std::to_string(file.mode));
            texts.push_back(std::move(file.sha256));
        }
        return joined(texts);
    }));
    std::size_t next = 0;
    for (RecordedFile& file : release.files) {
        const auto mode = static_cast<mode_t>(std::stoul(told.at(next++)));
        file.directory = S_ISDIR(mode);
        file.mode = mode & kModeBits;
        file.sha256 = told.at(next++);
    }
    release.filesId.clear();
}

bool is_installed_already(const Release& current, const Release& next, const Site& site,
                          const PackageSources& sources)
{
    if (!is_same_plan(current, next))
        return false;
    const std::string answer = ask_as(site.userName, [&] {
        const bool is = is_as_package_has_it(site.application_dir(), current, sources);
        return std::string(is ? "yes" : "");
    });
    return !answer.empty();
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
