#include "ctl/CommandLine.h"
#include "ctl/Output.h"
#include "ctl/PackageCheck.h"
#include "ctl/Trouble.h"
#include "ctl/commands.h"

#include <nlohmann/json.hpp>

#include <iostream>

namespace tarvik::ctl {

namespace {

const char* word_of(Severity severity)
{
    return severity == Severity::Error ? "error" : "warning";
}

void show(const std::vector<Finding>& findings)
{
    Rows rows;
    for (const Finding& finding : findings)
        rows.add({word_of(finding.severity), finding.where + ":", finding.text},
                 finding.severity == Severity::Error ? Tone::Bad : Tone::Notice);
}

void print_json(const PackageSource& package, const std::vector<Finding>& findings)
{
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    try {
        const FSAMetaDataReader metadata = read_metadata(package);
        json["package"] = metadata.name();
        json["version"] = metadata.version();
        json["release"] = metadata.release();
    } catch (const Trouble&) {
        // is one of the findings
    }
    json["findings"] = nlohmann::ordered_json::array();
    for (const Finding& finding : findings)
        json["findings"].push_back({{"severity", word_of(finding.severity)},
                                    {"where", finding.where},
                                    {"text", finding.text}});
    std::cout << json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
}

}  // namespace

int check_package(int argc, char** argv)
{
    PackageSource package;
    bool json = false;
    CommandLine line(
        "check PACKAGE [OPTION...]",
        "Looks a package over for mistakes, and prints one a line: errors, and warnings\n"
        "for what works but is mostly not meant. Nothing is changed, and no site is\n"
        "needed. Exit status: 0 nothing found, 2 something found, 1 trouble.");
    line.package(package);
    line.add()("json", flag(json),
               "for programs: an object with name, version and release, unless they cannot be "
               "read, and the findings");
    if (!line.parse(argc, argv))
        return kDone;
    package = settled(package);
    const std::vector<Finding> findings = look_over(package);
    if (json)
        print_json(package, findings);
    else
        show(findings);
    return findings.empty() ? kDone : kDifferent;
}

}  // namespace tarvik::ctl
