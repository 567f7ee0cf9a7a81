#include "app/options.h"

#include <boost/program_options.hpp>

#include <string>
#include <vector>

namespace po = boost::program_options;

namespace tarvik::options {

namespace {

/// "--name=" is a name with an empty value; newer option libraries would refuse it.
std::vector<po::option> parse_empty_value(std::vector<std::string>& words)
{
    const std::string& word = words.front();
    if (word.compare(0, 2, "--") != 0 || word.size() <= 3 || word.find('=') != word.size() - 1)
        return {};
    po::option option;
    option.string_key = word.substr(2, word.size() - 3);
    option.value = {""};
    option.original_tokens = {word};
    words.erase(words.begin());
    return {option};
}

}  // namespace

po::typed_value<std::string>* required(std::string& variable)
{
    return po::value<std::string>(&variable)->required();
}

void parse(int argc, char** argv, const po::options_description& options,
           const po::positional_options_description* positional)
{
    po::command_line_parser parser(argc, argv);
    parser.options(options).extra_style_parser(parse_empty_value);
    if (positional != nullptr)
        parser.positional(*positional);
    po::variables_map values;
    po::store(parser.run(), values);
    po::notify(values);  // checks what is required, fills the variables
}

}  // namespace tarvik::options
