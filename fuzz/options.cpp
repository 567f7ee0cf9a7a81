#include "app/options.h"

#include <boost/algorithm/string.hpp>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace po = boost::program_options;
namespace options = tarvik::options;

namespace {

/// Parses words with one option of each kind that the commands have.
void parse(std::vector<char*>& argv)
{
    std::string root;
    std::string user;
    std::vector<std::string> parameters;
    int disable = 1;
    bool skip = false;
    po::options_description all;
    auto add = all.add_options();
    add("www-root", options::required(root), "");
    add("user-name", options::required(user), "");
    add("application-full-name", po::value<std::string>(), "");
    add("disable-php-support", po::value<int>(&disable)->implicit_value(0), "");
    add("skip-webserver-write", po::bool_switch(&skip), "");
    add("additional-script-params", po::value<std::vector<std::string>>(&parameters), "");
    po::positional_options_description positional;
    positional.add("additional-script-params", -1);
    options::parse(static_cast<int>(argv.size()) - 1, argv.data(), all, &positional);
}

}  // namespace

/// A word ends at a newline or a NUL.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> words;
    boost::split(words, "--command\n" + text, [](char c) { return c == '\n' || c == '\0'; });
    std::vector<char*> argv(words.size() + 1);  // with a null at the end
    std::transform(words.begin(), words.end(), argv.begin(),
                   [](std::string& word) { return word.data(); });
    try {
        parse(argv);
    } catch (const po::error&) {
    }
    return 0;
}
