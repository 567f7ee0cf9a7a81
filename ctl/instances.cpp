#include "ctl/CommandLine.h"
#include "ctl/Deployment.h"
#include "ctl/InstanceStore.h"
#include "ctl/Output.h"
#include "ctl/commands.h"

#include <nlohmann/json.hpp>

#include <iostream>

namespace tarvik::ctl {

namespace {

constexpr char kSummary[] = "Shows what is installed where: name, package, state, directory.";

/// What a person or a program wants to know; an exchange that was begun comes first.
std::string state_of(const InstanceRecord& record)
{
    return record.exchange ? record.exchange->command + " interrupted" : state_name(record.state);
}

nlohmann::ordered_json described(const DeployOptions& options)
{
    return {{"metadata-file", options.metadataFile},
            {"skip-webserver-write", options.skipWebserverWrite},
            {"script", options.script},
            {"script-parameters", options.scriptParameters},
            {"apache-conf", options.apacheConf}};
}

nlohmann::ordered_json described(const InstanceRecord& record)
{
    nlohmann::ordered_json kept = nlohmann::ordered_json::array();
    for (const KeptRelease& each : record.kept)
        kept.push_back({{"directory", location_of(record.site).parent + "/" + each.directory},
                        {"version", each.release.version},
                        {"release", each.release.release}});
    return {{"instance", record.name},
            {"package", record.current.name},
            {"version", record.current.version},
            {"release", record.current.release},
            {"state", state_of(record)},
            {"installed", record.current.installed},
            {"directory", record.site.application_dir()},
            {"vhost-path", record.site.vhostPath},
            {"www-root", record.site.wwwRoot},
            {"user-name", record.site.userName},
            {"application-subdirectory", record.site.subdirectory},
            {"package-directory", record.current.packageDir},
            {"options", described(record.current.options)},
            {"kept", kept}};
}

}  // namespace

int instances(int argc, char** argv)
{
    bool json = false;
    CommandLine line("instances [--json]", kSummary);
    line.add()("json", flag(json), "for programs: an array of objects");
    if (!line.parse(argc, argv))
        return kDone;
    const std::vector<InstanceRecord> all = all_instances();
    if (json) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const InstanceRecord& record : all)
            list.push_back(described(record));
        std::cout << list.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
        return kDone;
    }
    Rows rows;
    for (const InstanceRecord& record : all) {
        const bool whole = record.state == State::Installed && !record.exchange;
        rows.add({record.name, record.current.name,
                  record.current.version + "-" + record.current.release, state_of(record),
                  record.site.application_dir()},
                 whole ? Tone::Plain : Tone::Notice);
    }
    return kDone;
}

}  // namespace tarvik::ctl
