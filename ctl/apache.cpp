#include "app/webserverconfig.h"
#include "common/ExSystemError.h"
#include "ctl/ApachePhp.h"
#include "ctl/CommandLine.h"
#include "ctl/InstanceStore.h"
#include "ctl/Output.h"
#include "ctl/Program.h"
#include "ctl/ServerFile.h"
#include "ctl/Trouble.h"
#include "ctl/commands.h"

#include <iostream>

namespace po = boost::program_options;

namespace tarvik::ctl {

namespace {

constexpr char kSummary[] =
    "Writes what Apache 2.4 has to be told of PHP 8 in one application, beside the file that\n"
    "\"zendrel --install-apache-conf\" writes: to standard output, to a file, or to a file in\n"
    "the configuration of the host, which is kept only if Apache accepts it. The server is not\n"
    "told: that is \"apache2ctl graceful\". \"zendrel --remove-apache-conf\" removes such a file.";

struct Options {
    PackageSource package;
    SiteOptions site;
    std::string php;
    std::string output;
    std::string fileName;
    std::string test;
    bool runInWritable = false;
};

bool parse(int argc, char** argv, Options& options)
{
    CommandLine line("apache PACKAGE SITE --php=mod|fpm:SOCKET [OPTION...]", kSummary);
    line.package(options.package);
    line.site(options.site);
    auto add = line.add();
    add("php", po::value(&options.php),
        "what runs PHP: mod, the server's own module, or fpm: and the path of the socket that "
        "processes of their own listen on");
    add("run-in-writable", flag(options.runInWritable),
        "let PHP run also where the web server may write, as the package's handlers have it");
    add("output", po::value(&options.output), "write to this file");
    add("config-file-name", po::value(&options.fileName),
        "write to the file of this name in the configuration of the host");
    add("configtest", po::value(&options.test),
        "command that tells whether the server accepts its configuration; blanks separate its "
        "words, and no shell is asked. Without it \"apache2ctl configtest\"");
    if (!line.parse(argc, argv))
        return false;
    if (options.php.empty())
        throw Trouble("no --php given");
    if (!options.output.empty() && !options.fileName.empty())
        throw Trouble("--output and --config-file-name exclude each other");
    if (!options.test.empty() && options.fileName.empty())
        throw Trouble("--configtest tests what --config-file-name names");
    return true;
}

std::vector<std::string> test_words(const std::string& option)
{
    if (std::vector<std::string> words = words_of(option); !words.empty())
        return words;
    const std::string program = find_program("apache2ctl");
    if (program.empty())
        throw Trouble("there is no apache2ctl to test the file with; name a command with "
                      "--configtest");
    return {program, "configtest"};
}

void put_in_place(const std::string& text, const Site& site, const Options& options)
{
    const std::vector<std::string> test = test_words(options.test);
    const std::string path = apache_config_path(site.vhostPath, options.fileName);
    if (!provide_apache_config_directory(path))
        throw Trouble("cannot create the directory of " + path);
    write_tested_file(path, apache_config_temporary(path), text, [&] { return succeeds(test); });
    std::cout << printable(path) << " is in place. For the server to read it:\n"
              << "apache2ctl graceful\n";
}

void write(const std::string& text, const Site& site, const Options& options)
{
    if (!options.fileName.empty())
        put_in_place(text, site, options);
    else if (!options.output.empty())
        write_file(options.output, text);
    else
        std::cout << text;
}

}  // namespace

int apache(int argc, char** argv)
{
    Options options;
    if (!parse(argc, argv, options))
        return kDone;
    const PhpRunner runner = php_runner(options.php);
    const Site site = site_of(options.site);
    const PackageSource package = settled(options.package);
    const FSAMetaDataReader metadata = read_metadata(package);
    write(apache_php_text(metadata, package.directory, site, runner, options.runInWritable), site,
          options);
    return kDone;
}

}  // namespace tarvik::ctl
