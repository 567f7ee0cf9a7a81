#include "ctl/CommandLine.h"
#include "ctl/Deployment.h"
#include "ctl/InstanceStore.h"
#include "ctl/KeptTrees.h"
#include "ctl/Output.h"
#include "ctl/TreeExchange.h"
#include "ctl/Trouble.h"
#include "ctl/commands.h"

#include <iostream>

namespace po = boost::program_options;

namespace tarvik::ctl {

namespace {

constexpr char kSummary[] = "Removes an instance: its script is run if that was asked for at its "
                            "deployment, its Apache file\n"
                            "is removed, then its files, what upgrades have kept of it, and its "
                            "record. What visitors or the\n"
                            "site's owner have put there stays, and is shown with whose it is.";

}  // namespace

int remove(int argc, char** argv)
{
    SiteOptions options;
    std::vector<std::string> parameters;
    bool skipScript = false;
    unsigned wait = 0;
    CommandLine line("remove SITE", kSummary);
    line.site(options);
    line.add()("skip-script", flag(skipScript), "do not run the package's script");
    line.add()("script-parameter", po::value(&parameters),
               "a word for the script, in place of those given at the deployment");
    line.wait(wait);
    if (!line.parse(argc, argv))
        return kDone;
    LockedInstance instance(options, argv[0], wait);
    InstanceRecord& record = instance.record();
    const std::string& name = record.name;
    load_files(name, record.current);
    settle_exchange(record);

    if (record.state == State::Installed && record.current.options.script && !skipScript) {
        Release release = record.current;
        if (!parameters.empty())
            release.options.scriptParameters = parameters;
        run_release_script(release, record.site, "remove");
    }
    record.state = State::Removing;
    save(record);
    deconfigure_apache(record.current, record.site);
    if (const int status = delete_files(record.site, list_path(name)); status != 0)
        throw Trouble("zendrel ended with status " + std::to_string(status)
                      + "; the same command goes on");
    drop_kept(record, 0);
    print_left(record);
    forget(name);
    std::cout << "removed " << printable(full_version(record.current)) << " from "
              << printable(record.site.application_dir()) << '\n';
    return kDone;
}

}  // namespace tarvik::ctl
