#include "common/misc.h"
#include "common/signals.h"
#include "ctl/Output.h"
#include "ctl/Trouble.h"
#include "ctl/commands.h"

#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <string>

namespace tarvik::ctl {

namespace {

struct Command {
    const char* word;
    const char* operands;
    const char* summary;
    int (*run)(int argc, char** argv);
};

constexpr Command kCommands[] = {
    {"check", "PACKAGE", "look a package over for mistakes", check_package},
    {"plan", "PACKAGE SITE", "show what deploying would do, touching nothing", plan},
    {"deploy", "PACKAGE SITE", "install a package and record it", deploy},
    {"upgrade", "PACKAGE SITE", "exchange an instance for a newer one at a stroke", upgrade},
    {"rollback", "SITE", "go back to what the last upgrade replaced", rollback},
    {"remove", "SITE", "remove an instance", remove},
    {"verify", "[SITE]", "compare what is installed with what was", verify},
    {"list", "PACKAGE", "print the list of files that a package installs", list},
    {"instances", "", "show what is installed where", instances},
    {"apache", "PACKAGE SITE", "print directives for PHP 8", apache},
    {"check-host", "", "look this host over for what is missing", check_host},
};

void print_usage(std::ostream& out)
{
    out << "usage: zendrelctl COMMAND [ARGUMENT...]\n\n";
    for (const Command& command : kCommands) {
        const std::string words = std::string(command.word) + " " + command.operands;
        out << "  " << std::left << std::setw(22) << words << command.summary << '\n';
    }
    out << "\nSITE is --vhost-path=DIR --www-root=DIR --user-name=USER\n"
           "--application-subdirectory=DIR or, once recorded, --instance=NAME.\n"
           "\"zendrelctl COMMAND --help\" tells the rest. Exit status: 0 done, 1 trouble,\n"
           "2 differences or mistakes found.\n";
}

int dispatch(int argc, char** argv)
{
    const std::string word = argc < 2 ? "" : argv[1];
    if (word == "--help" || word == "-h") {
        print_usage(std::cout);
        return kDone;
    }
    if (word == "--version") {
        std::cout << "zendrelctl " << ZENDREL_VERSION << '\n';
        return kDone;
    }
    const auto* const command =
        std::find_if(std::begin(kCommands), std::end(kCommands),
                     [&word](const Command& candidate) { return candidate.word == word; });
    if (command == std::end(kCommands))
        throw Trouble((word.empty() ? "no command given" : "no such command: " + word)
                      + "; see zendrelctl --help");
    return command->run(argc - 1, argv + 1);
}

/// What a script reads has to have arrived.
int flushed(int status)
{
    if (!std::cout.flush())
        throw Trouble("standard output cannot be written");
    return status;
}

}  // namespace

}  // namespace tarvik::ctl

int main(int argc, char** argv)
{
    using namespace tarvik;
    occupy_standard_descriptors();
    ignore_write_signals();
    ::umask(022);
    try {
        return ctl::flushed(ctl::dispatch(argc, argv));
    } catch (const std::exception& e) {
        std::cout.flush();
        std::cerr << "zendrelctl: " << ctl::printable(e.what()) << std::endl;
        return ctl::kTrouble;
    }
}
