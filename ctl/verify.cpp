#include "ctl/Child.h"
#include "ctl/CommandLine.h"
#include "ctl/InstanceStore.h"
#include "ctl/Manifest.h"
#include "ctl/Output.h"
#include "ctl/commands.h"

#include <boost/algorithm/string/predicate.hpp>

namespace tarvik::ctl {

namespace {

constexpr char kSummary[] =
    "Compares what is installed with what was: missing and changed files, other modes and owners,\n"
    "and, outside of writable mappings, what is there besides. Without SITE all instances are\n"
    "compared. The packages are not needed. Exit status 2 when something differs.";

/// What in an instance's directory belongs to other instances, or is kept of them.
std::vector<std::string> foreign(const InstanceRecord& record,
                                 const std::vector<InstanceRecord>& all)
{
    const std::string start = record.site.application_dir() + "/";
    std::vector<std::string> paths;
    for (const InstanceRecord& other : all) {
        const std::string parent = location_of(other.site).parent + "/";
        std::vector<std::string> places = {other.site.application_dir()};
        for (const KeptRelease& kept : other.kept)
            places.push_back(parent + kept.directory);
        if (other.exchange)
            places.push_back(parent + other.exchange->directory);
        for (const std::string& place : places) {
            if (boost::starts_with(place, start))
                paths.push_back(place.substr(start.size()));
        }
    }
    return paths;
}

int verify_one(InstanceRecord record, const std::vector<std::string>& ignored)
{
    if (record.state != State::Installed) {
        Rows().add({record.name, "unfinished", state_name(record.state)}, Tone::Bad);
        return kDifferent;
    }
    load_files(record.name, record.current);
    return run_as(record.site.userName, [&] {
        Rows rows;
        const std::vector<Difference> found =
            differences(record.site.application_dir(), record.current, ignored);
        for (const auto& [kind, detail, path] : found) {
            const std::string_view shown = path.empty() ? "." : std::string_view(path);
            if (detail.empty())
                rows.add({record.name, kind, shown}, Tone::Bad);
            else
                rows.add({record.name, kind, detail, shown}, Tone::Bad);
        }
        return found.empty() ? kDone : kDifferent;
    });
}

}  // namespace

int verify(int argc, char** argv)
{
    SiteOptions options;
    CommandLine line("verify [SITE]", kSummary);
    line.site(options);
    if (!line.parse(argc, argv))
        return kDone;
    const std::vector<InstanceRecord> all = all_instances();
    const Site& site = options.site;
    const bool one = !options.instance.empty() || !site.wwwRoot.empty() || !site.vhostPath.empty()
        || !site.userName.empty() || !site.subdirectory.empty();
    const std::vector<InstanceRecord> chosen =
        one ? std::vector<InstanceRecord> {require_instance(options)} : all;
    int worst = kDone;
    for (const InstanceRecord& record : chosen) {
        const int status = verify_one(record, foreign(record, all));
        if (status == kTrouble || worst == kDone)
            worst = status;
    }
    return worst;
}

}  // namespace tarvik::ctl
