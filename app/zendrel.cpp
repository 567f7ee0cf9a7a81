#include "app/zendrel.h"

#include "app/application.h"
#include "app/fsascript.h"
#include "app/webserverconfig.h"
#include "common/ExSystemError.h"
#include "common/UtilityErrorStream.h"
#include "common/misc.h"
#include "common/signals.h"

#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>
#include <string>

namespace tarvik {

namespace {

constexpr char kUsage[] =
    "  --run-application-script --application-full-name=<application full name> "
    "--script-name=<action to execute> --user-name=<user name> "
    "--script-file-name=<script file name> --script-language=<script language> "
    "[--php-cli=<php>] --script-params=<script parameters>\n"
    "        run package script for doing corresponding action with site application in virtual "
    "host\n"
    "  --extract-application --application-full-name=< application full name > "
    "--vhost-path=< path to vhost root directory >  --user-name=< user name > "
    "--application-subdirectory=< application subdirectory inside documents directory > "
    "[--metadata-file=<path to generated Veska 1.0 APP-META.xml file with URL mappings (required "
    "for Veska 1.1 support in Orsa)>][--skip-webserver-write]\n"
    "        extract site application archives into virtual host\n"
    "  --delete-application --application-full-name=< application full name > "
    "--vhost-path=< path to vhost root directory >  --user-name=< user name > "
    "--application-subdirectory=< application subdirectory inside documents directory >\n"
    "        erase installed site application files\n"
    "  --install-apache-conf --vhost-path=< path to vhost root directory > "
    "--metadata-file=<path to APP-META.xml of siteapp instance> "
    "--application-subdirectory=< application subdirectory inside documents directory > "
    "--config-file-name=<name of config file>  [--disable-php-support] "
    "[--disable-cgi-support]\n"
    "        install apache configuration file for given application\n"
    "  --remove-apache-conf --vhost-path=< path to vhost root directory > "
    "--config-file-name=<name of config file> \n"
    "        remove apache configuration file for given application\n"
    "  -h, --help\n"
    "        display this help\n";

using CommandHandler = int (*)(int argc, char** argv);

}  // namespace

int do_main(int argc, char** argv)
{
    if (argc < 2) {
        std::cerr << "No command specified" << std::endl;
        helpCommand(argc, argv);
    }
    const std::string word = argv[1];
    const std::map<std::string, CommandHandler> commands = {
        {"--help", helpCommand},
        {"-h", helpCommand},
        {"--run-application-script", runApplicationScript},
        {"--extract-application", extractApplication},
        {"--delete-application", deleteApplication},
        {"--install-apache-conf", installWebserverConfig},
        {"--remove-apache-conf", removeWebserverConfig},
    };
    const auto command = commands.find(word);
    if (command == commands.end()) {
        std::cerr << "Invalid command specified: " << word << std::endl;
        helpCommand(argc, argv);
    }
    return command->second(argc - 1, argv + 1);
}

int helpCommand(int /*argc*/, char** /*argv*/)
{
    std::cerr << kUsage << std::endl;
    std::exit(1);
}

}  // namespace tarvik

int main(int argc, char** argv)
{
    tarvik::occupy_standard_descriptors();
    tarvik::ignore_write_signals();  // an installation that cannot report is still to be undone
    try {
        return tarvik::do_main(argc, argv);
    } catch (const tarvik::TarvikUtilException& e) {
        std::cerr << e.what() << std::endl;
        return 1;
    } catch (const std::exception& e) {
        tarvik::reportException(e);
        return 1;
    } catch (...) {
        tarvik::reportUntypedException();
        return 2;
    }
}
