#pragma once

#include <boost/program_options.hpp>

#include <string>

namespace tarvik {

/// What each command makes of the words that follow its own.
namespace options {

/// A text that has to be given; an empty one counts as given. Fills `variable`, which it borrows.
boost::program_options::typed_value<std::string>* required(std::string& variable);

/**
 * Parses a command's words and fills the variables of its options.
 * @param argv        starts at the command word.
 * @param positional  where words without an option name go; without any they are ignored.
 * @throws the option library's error for an unknown, malformed, repeated or missing option.
 */
void parse(int argc, char** argv, const boost::program_options::options_description& options,
           const boost::program_options::positional_options_description* positional = nullptr);

}  // namespace options

}  // namespace tarvik
