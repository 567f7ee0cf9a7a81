#include "ctl/CommandLine.h"
#include "ctl/Deployment.h"
#include "ctl/InstanceStore.h"
#include "ctl/KeptTrees.h"
#include "ctl/Output.h"
#include "ctl/TreeExchange.h"
#include "ctl/Trouble.h"
#include "ctl/commands.h"

#include <iostream>

namespace tarvik::ctl {

namespace {

constexpr char kCommand[] = "rollback";

constexpr char kSummary[] =
    "Puts the tree that the last upgrade replaced in its place again, at a stroke, with what the "
    "site\n"
    "has put into writable mappings since. The newer tree is kept in turn: a second rollback goes\n"
    "forward again.";

void roll_back(InstanceRecord& record)
{
    KeptRelease& kept = record.kept.front();
    load_files(record.name, kept.release);
    record.exchange = begun_exchange(record, kCommand, kept.directory);
    save(record);
    try {
        open_kept(record);
        record.exchange->release = kept.release;
        exchange(record);
    } catch (...) {
        settle_exchange(record);
        throw;
    }
}

}  // namespace

int rollback(int argc, char** argv)
{
    SiteOptions options;
    unsigned wait = 0;
    CommandLine line("rollback SITE", kSummary);
    line.site(options);
    line.wait(wait);
    if (!line.parse(argc, argv))
        return kDone;
    LockedInstance instance(options, argv[0], wait);
    InstanceRecord& record = instance.record();
    const std::string& name = record.name;
    load_files(name, record.current);
    const std::string before = full_version(record.current);
    const bool wasRollback = record.exchange && record.exchange->command == kCommand;
    if (!settle_exchange(record) || !wasRollback) {
        if (record.kept.empty())
            throw Trouble("nothing is kept of instance " + name);
        roll_back(record);
    }
    configure_apache(record.current, record.site);
    std::cout << "rolled " << name << " back from " << printable(before) << " to "
              << printable(full_version(record.current)) << '\n';
    return kDone;
}

}  // namespace tarvik::ctl
