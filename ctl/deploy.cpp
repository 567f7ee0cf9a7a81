#include "ctl/CommandLine.h"
#include "ctl/Deployment.h"
#include "ctl/InstanceStore.h"
#include "ctl/Output.h"
#include "ctl/Trouble.h"
#include "ctl/commands.h"

#include <iostream>

namespace po = boost::program_options;

namespace tarvik::ctl {

namespace {

constexpr char kSummary[] =
    "Installs a package and records the instance. A package with mistakes, and one whose\n"
    "extraction is known to fail, are refused before anything is touched. After a failure of the\n"
    "script, or a kill, the same command goes on.";

struct Words {
    PackageSource package;
    SiteOptions site;
    DeployOptions options;
    bool force = false;
    unsigned wait = 0;
};

bool parse(int argc, char** argv, Words& words)
{
    CommandLine line("deploy PACKAGE SITE [--instance=NAME]", kSummary);
    line.package(words.package);
    line.site(words.site);
    line.add()("skip-webserver-write", flag(words.options.skipWebserverWrite),
               "keep the modes of writable mappings");
    line.add()("script", flag(words.options.script), "run the package's script, here and later");
    line.add()("script-parameter", po::value(&words.options.scriptParameters),
               "a word for the script; \"{application}\" in it is the application's directory");
    line.add()("apache-conf", po::value(&words.options.apacheConf),
               "write the Apache file of that name");
    line.add()("force", flag(words.force),
               "go on with mistakes of the package, and with an extraction that will fail");
    line.wait(words.wait);
    return line.parse(argc, argv);
}

/// @return whether a run that did not finish has begun it: it may have left something in the site.
/// @throws Trouble when the name stands for something else.
bool was_begun(const std::string& name, const Site& site)
{
    const std::optional<InstanceRecord> known = find_instance(name);
    if (known && known->state != State::Deploying)
        throw Trouble("instance " + name + " is recorded as " + state_name(known->state));
    if (known && known->site.application_dir() != site.application_dir())
        throw Trouble("instance " + name + " is being deployed to "
                      + known->site.application_dir());
    return known.has_value();
}

/// @throws Trouble with nothing recorded any more, where nothing is left in the site.
void extract_or_forget(const InstanceRecord& record, bool begunBefore, const PackageSource& package)
{
    const DeployOptions& options = record.current.options;
    const int status = extract(package, record.site, options.skipWebserverWrite);
    if (status == 0)
        return;
    if (status != 1 || begunBefore)
        throw Trouble("zendrel ended with status " + std::to_string(status)
                      + "; the same command goes on");
    forget(record.name);
    throw Trouble("the package was not extracted; nothing is recorded");
}

}  // namespace

int deploy(int argc, char** argv)
{
    Words words;
    if (!parse(argc, argv, words))
        return kDone;
    words.package = settled(words.package);
    if (!words.force)
        require_sound(words.package);
    words.options.metadataFile = words.package.metadataFile;
    const Site site = settled(words.site.site);
    const std::string name =
        words.site.instance.empty() ? usual_instance_name(site) : words.site.instance;
    const InstanceLock lock(name, argv[0], words.wait);
    const bool begunBefore = was_begun(name, site);
    if (!words.force)
        require_feasible(words.package, site, words.options);
    Planning planning(words.package, site, words.options);
    InstanceRecord record;
    record.name = name;
    record.site = site;
    record.current = planning.release();
    if (begunBefore)
        save(record);
    else
        save_new(record);
    extract_or_forget(record, begunBefore, words.package);
    complete(record.current, site, planning.sources(), {});
    save(record);
    if (words.options.script)
        run_release_script(record.current, site, "install");
    configure_apache(record.current, site);
    record.state = State::Installed;
    save(record);
    std::cout << "installed " << printable(full_version(record.current)) << " in "
              << printable(site.application_dir()) << " as " << name << '\n';
    return kDone;
}

}  // namespace tarvik::ctl
