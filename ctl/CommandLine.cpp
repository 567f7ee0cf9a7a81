#include "ctl/CommandLine.h"

#include "ctl/Trouble.h"

#include <iostream>
#include <vector>

namespace po = boost::program_options;

namespace tarvik::ctl {

namespace {

constexpr char kWords[] = "operand";

}  // namespace

CommandLine::CommandLine(const char* command, const char* summary)
    : command_(command), summary_(summary)
{
}

void CommandLine::operand(const char* name, std::string& variable)
{
    operands_.push_back({name, &variable});
}

void CommandLine::package(PackageSource& source)
{
    operand("PACKAGE", source.directory);
    add()("metadata-file", po::value(&source.metadataFile),
          "metadata to read in place of the package's own APP-META.xml");
}

void CommandLine::wait(unsigned& seconds)
{
    add()("wait", po::value(&seconds), "seconds to wait for another command at work (0)");
}

void CommandLine::site(SiteOptions& options)
{
    add()("vhost-path", po::value(&options.site.vhostPath), "the virtual host's directory");
    add()("www-root", po::value(&options.site.wwwRoot), "its document root");
    add()("user-name", po::value(&options.site.userName), "the site's system user");
    add()("application-subdirectory", po::value(&options.site.subdirectory),
          "the application's directory in the document root, \".\" for the root itself");
    add()("instance", po::value(&options.instance), "the name that the instance is recorded under");
}

bool CommandLine::parse(int argc, char** argv)
{
    std::vector<std::string> words;
    bool help = false;
    add()("help,h", flag(help), "show this text");
    po::options_description all;
    all.add(options_).add_options()(kWords, po::value(&words), "");
    po::positional_options_description positional;
    positional.add(kWords, static_cast<int>(operands_.size()));

    po::command_line_parser parser(argc, argv);
    const int style = po::command_line_style::unix_style & ~po::command_line_style::allow_guessing;
    po::variables_map values;
    po::store(parser.options(all).positional(positional).style(style).run(), values);
    po::notify(values);
    if (help) {
        print_help();
        return false;
    }
    for (std::size_t i = 0; i < operands_.size(); ++i) {
        if (i >= words.size())
            throw Trouble(std::string("no ") + operands_[i].name + " given; see zendrelctl "
                          + argv[0] + " --help");
        *operands_[i].variable = words[i];
    }
    return true;
}

void CommandLine::print_help() const
{
    std::cout << "usage: zendrelctl " << command_ << "\n\n" << summary_ << "\n\n" << options_;
}

po::typed_value<bool>* flag(bool& variable)
{
    return po::bool_switch(&variable);
}

}  // namespace tarvik::ctl
