#include "ctl/CommandLine.h"
#include "ctl/Output.h"
#include "ctl/PackageCheck.h"
#include "ctl/commands.h"

namespace tarvik::ctl {

int check_package(int argc, char** argv)
{
    PackageSource package;
    CommandLine line(
        "check PACKAGE [OPTION...]",
        "Looks a package over for mistakes, and prints one a line: errors, and warnings\n"
        "for what works but is mostly not meant. Nothing is changed, and no site is\n"
        "needed. Exit status: 0 nothing found, 2 something found, 1 trouble.");
    line.package(package);
    if (!line.parse(argc, argv))
        return kDone;
    const std::vector<Finding> findings = look_over(settled(package));
    Rows rows;
    for (const Finding& finding : findings) {
        const bool error = finding.severity == Severity::Error;
        rows.add({error ? "error" : "warning", finding.where + ":", finding.text},
                 error ? Tone::Bad : Tone::Notice);
    }
    return findings.empty() ? kDone : kDifferent;
}

}  // namespace tarvik::ctl
