#include "common/TmpFile.h"
#include "ctl/CommandLine.h"
#include "ctl/Deployment.h"
#include "ctl/InstanceStore.h"
#include "ctl/KeptTrees.h"
#include "ctl/ListWriter.h"
#include "ctl/Output.h"
#include "ctl/TreeExchange.h"
#include "ctl/Trouble.h"
#include "ctl/commands.h"

#include <iostream>
#include <set>
#include <utility>

namespace po = boost::program_options;

namespace tarvik::ctl {

namespace {

constexpr char kSummary[] =
    "Puts a newer package in an instance's place at a stroke. It is installed into a copy beside "
    "the\n"
    "running tree, which keeps what the site has put into writable mappings; whatever fails "
    "before\n"
    "the exchange leaves the running application as it is. The old tree is kept for rollback.";

struct Words {
    PackageSource package;
    SiteOptions site;
    bool script = false;
    std::vector<std::string> parameters;
    bool inPlace = false;
    unsigned keep = 1;
    bool force = false;
    unsigned wait = 0;
};

bool parse(int argc, char** argv, Words& words)
{
    CommandLine line("upgrade PACKAGE SITE", kSummary);
    line.package(words.package);
    line.site(words.site);
    line.add()("script", flag(words.script),
               "run the package's script, also when the deployment did not");
    line.add()(
        "script-parameter", po::value(&words.parameters),
        "a word for the script, in place of those given at the deployment; \"{application}\" "
        "in it is the application's directory, here the copy's");
    line.add()("in-place", flag(words.inPlace),
               "install over the running tree where it cannot be exchanged; nothing is kept");
    line.add()("keep", po::value(&words.keep), "how many old trees are kept (1)");
    line.add()(
        "force", flag(words.force),
        "go on with mistakes of the package, and with an extraction that will fail; put a package "
        "also in the place of the same one");
    line.wait(words.wait);
    return line.parse(argc, argv);
}

DeployOptions next_options(const Words& words, const InstanceRecord& record)
{
    DeployOptions options = record.current.options;
    options.metadataFile = words.package.metadataFile;
    options.script = options.script || words.script;
    if (!words.parameters.empty())
        options.scriptParameters = words.parameters;
    return options;
}

/// Looks the package over, at most once.
class LookOver {
public:
    explicit LookOver(const Words& words) : package_(words.package), done_(words.force) { }

    /// @throws Trouble when the package has mistakes.
    void require_sound()
    {
        if (!std::exchange(done_, true))
            ctl::require_sound(package_);
    }
    /// What a step fails on is told better by looking the package over.
    template <class Step>
    auto explained(const Step& step)
    try {
        return step();
    } catch (const Trouble&) {
        require_sound();
        throw;
    }

private:
    const PackageSource& package_;
    bool done_;
};

/// Makes the tree to come. @throws Trouble with the running one as it was.
void prepare(InstanceRecord& record, const Words& words, Release next,
             const PackageSources& sources)
{
    const Site copy = beside(record.site, record.exchange->directory);
    const Pending pending = copy_beside(record, next);
    if (extract(words.package, copy, next.options.skipWebserverWrite) != 0)
        throw Trouble("the package was not extracted; the running application is as it was");
    complete_copy(record, pending);
    complete(next, copy, sources, pending.changed);
    if (next.options.script)
        run_release_script(next, copy, "upgrade");
    record.exchange->release = std::move(next);
}

void upgrade_by_exchange(InstanceRecord& record, const Words& words, const Release& next,
                         const PackageSources& sources)
{
    require_exchangeable(record.site);
    record.exchange = begun_exchange(record, "upgrade", next_name(location_of(record.site).name));
    save(record);
    try {
        prepare(record, words, next, sources);
        exchange(record);
    } catch (...) {
        settle_exchange(record);
        throw;
    }
}

/// What only the old release had, as a list in a file of its own.
void delete_stale(const InstanceRecord& record, const Release& next)
{
    std::set<std::string> ours;
    for (const RecordedFile& file : next.files)
        ours.insert(file.path);
    std::vector<std::string> stale;
    for (const RecordedFile& file : record.current.files) {
        if (ours.count(file.path) == 0)
            stale.push_back(file.path);
    }
    if (stale.empty())
        return;
    TmpFile list(list_path(record.name) + ".", true);
    list << instance_list(stale) << std::flush;
    if (!list || !list.close())
        throw Trouble("a list of files cannot be written");
    const Site& site = record.site;
    // As a document root, which is not removed when it is empty.
    const Site itself = {site.vhostPath, site.application_dir(), site.userName,
                         kDocumentRootItself};
    if (delete_files(itself, list.name()) != 0)
        throw Trouble("files of the old release were not removed; the same command goes on");
}

void upgrade_in_place(InstanceRecord& record, const Words& words, Release next,
                      const PackageSources& sources)
{
    if (extract(words.package, record.site, next.options.skipWebserverWrite) != 0)
        throw Trouble("the package was not extracted");
    complete(next, record.site, sources, {});
    delete_stale(record, next);
    if (next.options.script)
        run_release_script(next, record.site, "upgrade");
    record.current = std::move(next);
    save(record);
}

bool is_of_one_package(const Release& a, const Release& b)
{
    return a.packageDir == b.packageDir && full_version(a) == full_version(b);
}

/// @param settled  whether a killed run has just been brought to its end: it may have been this
/// one.
void upgrade_to(InstanceRecord& record, const Words& words, const Release& next,
                const PackageSources& sources, bool settled)
{
    if (words.inPlace && !words.force)
        require_feasible(words.package, record.site, next.options);
    if (words.inPlace)
        upgrade_in_place(record, words, next, sources);
    else if (!settled || !is_of_one_package(record.current, next))
        upgrade_by_exchange(record, words, next, sources);
}

}  // namespace

int upgrade(int argc, char** argv)
{
    Words words;
    if (!parse(argc, argv, words))
        return kDone;
    words.package = settled(words.package);
    LockedInstance instance(words.site, argv[0], words.wait);
    InstanceRecord& record = instance.record();
    const std::string& name = record.name;
    if (record.state != State::Installed)
        throw Trouble("instance " + name + " is recorded as " + state_name(record.state));
    const std::string before = full_version(record.current);
    LookOver lookOver(words);
    Planning planning = lookOver.explained(
        [&] { return Planning(words.package, record.site, next_options(words, record)); });
    if (planning.full_version() != before)
        lookOver.require_sound();  // while the plan is made
    load_files(name, record.current);
    const Release next = lookOver.explained([&] { return planning.release(); });
    const PackageSources sources = planning.sources();
    const bool settled = settle_exchange(record);
    const bool done = !words.force && !words.script
        && is_installed_already(record.current, next, record.site, sources);
    // Of a package that is there already nothing is used but what goes into an Apache file.
    if (!done || !record.current.options.apacheConf.empty())
        lookOver.require_sound();
    if (!done)
        upgrade_to(record, words, next, sources, settled);
    configure_apache(record.current, record.site);
    if (!words.inPlace)
        drop_kept(record, words.keep);
    const std::string after = full_version(record.current);
    if (done && !settled)
        std::cout << name << " is " << printable(after) << " already\n";
    else
        std::cout << "upgraded " << name << " from " << printable(before) << " to "
                  << printable(after) << '\n';
    return kDone;
}

}  // namespace tarvik::ctl
