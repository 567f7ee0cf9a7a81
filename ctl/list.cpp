#include "app/InstallPlan.h"
#include "app/InstanceList.h"
#include "ctl/CommandLine.h"
#include "ctl/InstalledPaths.h"
#include "ctl/ListWriter.h"
#include "ctl/Trouble.h"
#include "ctl/commands.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <unordered_set>
#include <utility>

namespace tarvik::ctl {

namespace {

constexpr char kSummary[] =
    "Prints what PACKAGE installs, as the list that zendrel --delete-application takes.\n\n"
    "With --not-in, only what another such list does not have. What an upgrade leaves over is "
    "what\n"
    "the old package has and the new one has not:\n\n"
    "  zendrelctl list NEW >new.xml\n"
    "  zendrelctl list OLD --not-in new.xml | zendrel --delete-application ...";

std::unordered_set<std::string> listed_paths(const std::string& fileName)
try {
    std::ifstream in(fileName, std::ios::binary);
    if (!in)
        throw Trouble(std::strerror(errno));
    std::unordered_set<std::string> paths;
    for (const InstanceFile& file : parse_instance_list(in)) {
        std::string path;
        file.append_path(path);
        if (file.section() == Htdocs)
            paths.insert(plain_path(path));
    }
    return paths;
} catch (const std::runtime_error& e) {
    throw Trouble(fileName + ": " + e.what());
}

}  // namespace

int list(int argc, char** argv)
{
    CommandLine line("list PACKAGE [OPTION...]", kSummary);
    PackageSource package;
    std::string other;
    line.package(package);
    line.add()("not-in", boost::program_options::value(&other)->value_name("FILE"),
               "leave out what this list has");
    if (!line.parse(argc, argv))
        return kDone;

    package = settled(package);
    const InstallPlan plan = plan_install(package.directory, "", read_metadata(package));
    std::unordered_set<std::string> listed;
    if (!other.empty())
        listed = listed_paths(other);
    std::vector<std::string> paths;
    for (InstalledPath& installed : installed_paths(plan)) {
        if (listed.count(installed.path) == 0)
            paths.push_back(std::move(installed.path));
    }
    std::cout << instance_list(paths);
    return kDone;
}

}  // namespace tarvik::ctl
