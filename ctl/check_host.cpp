#include "ctl/CommandLine.h"
#include "ctl/HostCheck.h"
#include "ctl/Output.h"
#include "ctl/commands.h"

namespace po = boost::program_options;

namespace tarvik::ctl {

namespace {

constexpr char kSummary[] = "Looks this host over for what zendrel needs: accounts, directories, "
                            "the panel's file of paths,\nthe interpreters of scripts and the "
                            "server's configuration. It changes nothing: each line says\nwhat is "
                            "missing and which command cures it.";

}  // namespace

int check_host(int argc, char** argv)
{
    HostQuestion question;
    CommandLine line("check-host [OPTION...]", kSummary);
    auto add = line.add();
    add("vhost-path", po::value(&question.vhostPath), "look at this virtual host, too");
    add("user-name", po::value(&question.userName), "look at this site's user, too");
    if (!line.parse(argc, argv))
        return kDone;
    const HostFindings findings = look_at_host(question);
    Rows rows;
    for (const HostFinding& finding : findings)
        rows.add({finding.what, "   cure:", finding.cure}, Tone::Bad);
    return findings.empty() ? kDone : kDifferent;
}

}  // namespace tarvik::ctl
