#pragma once

#include "ctl/Package.h"
#include "ctl/Site.h"

#include <boost/program_options.hpp>

#include <string>

namespace tarvik::ctl {

/**
 * The words of one command: operands by their place, then options, with --help in each. Options and
 * operands are given variables, which have to outlive `parse`.
 */
class CommandLine {
public:
    /// @param command  the word, then its operands, as the usage shows them.
    /// @param summary  what it does, in a sentence or more.
    CommandLine(const char* command, const char* summary);

    /// The option library's way to add options: add()("name", value(&variable), "what it is").
    boost::program_options::options_description_easy_init add() { return options_.add_options(); }
    /// A word that has to be there.
    void operand(const char* name, std::string& variable);
    /// The operand PACKAGE and the option that goes with it.
    void package(PackageSource& source);
    /// The option for commands that change an instance. @param seconds  0 unless it is given.
    void wait(unsigned& seconds);
    /// The options that name a site.
    void site(SiteOptions& options);

    /**
     * @return false when the help was asked for and has been printed.
     * @throws Trouble for a missing operand, the option library's errors for the rest.
     */
    bool parse(int argc, char** argv);

private:
    void print_help() const;

    struct Operand {
        const char* name;
        std::string* variable;
    };

    const char* command_;
    const char* summary_;
    boost::program_options::options_description options_ {"Options"};
    std::vector<Operand> operands_;
};

/// @return a switch: true when it is given.
boost::program_options::typed_value<bool>* flag(bool& variable);

}  // namespace tarvik::ctl
