#include "app/fsascript.h"

#include "app/SiteUser.h"
#include "app/application.h"
#include "app/fsappmetadata.h"
#include "app/options.h"
#include "clib/forkexec.h"
#include "common/ExSystemError.h"

#include <boost/filesystem/operations.hpp>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <optional>
#include <vector>

namespace fs = boost::filesystem;
namespace po = boost::program_options;

namespace tarvik {

namespace {

const char* const kActions[] = {"install", "configure", "upgrade", "remove",
                                "enable",  "disable",   "query"};

using Strings = std::list<std::string>;

/// What a package's script is and what it is written in.
struct Script {
    std::string language;
    std::string file;
};

/// @return the script that the packaging standard's version asks for; none when the metadata cannot
///         be read, which is reported.
std::optional<Script> choose_script(const std::string& packageDir, const Script& given)
{
    try {
        const FSAMetaDataReader metadata(packageDir + "/APP-META.xml");
        if (leaves_script_to_caller(metadata))
            return given;
        return Script {metadata.configurationScriptLanguage(), kConfigureScript};
    } catch (const FSACommonException& e) {
        std::cerr << "Caught exception: " << e.what() << '\n';
        return std::nullopt;
    }
}

bool is_allowed(const std::string& action)
{
    if (std::find(std::begin(kActions), std::end(kActions), action) != std::end(kActions))
        return true;
    std::cerr << "Requested action `" << action << "` is not allowed.\n";
    return false;
}

bool is_missing(const std::string& path)
{
    boost::system::error_code error;
    return fs::status(path, error).type() == fs::file_not_found;
}

/// Program, interpreter options and script, action, the caller's own.
Strings command_line(const Interpreter& interpreter, const std::string& script,
                     const std::string& action, const Strings* additional)
{
    Strings words;
    if (!interpreter.program.empty()) {
        words.push_back(interpreter.program);
        words.insert(words.end(), interpreter.options.begin(), interpreter.options.end());
    }
    words.push_back(script);
    words.push_back(action);
    if (additional != nullptr)
        words.insert(words.end(), additional->begin(), additional->end());
    return words;
}

void flush_streams()
{
    std::cout.flush();
    std::cerr.flush();
    std::fflush(nullptr);
}

/// What is written now lands at byte 2 of a regular file; a pipe or terminal takes nothing any
/// more. The number is that of the end-of-stream direction where a position is expected, and stays.
void reposition_streams()
{
    constexpr std::streamoff kEndDirection = 2;
    std::cout.seekp(kEndDirection);
    std::cerr.seekp(kEndDirection);
}

int run_and_wait(const Strings& words)
{
    ArgList arguments;
    for (const std::string& word : words)
        arguments.append(word);
    flush_streams();
    const pid_t child =
        forkExecvPipes(-1, STDOUT_FILENO, STDERR_FILENO, words.front(), arguments, "", {});
    const int result = fork_exec_waitpid(child, words.front().c_str(), nullptr);
    reposition_streams();
    return result;
}

}  // namespace

bool leaves_script_to_caller(const FSAMetaDataReader& metadata)
{
    const std::string& version = metadata.packagingVersion();
    return version == "1.1" || version == "1.2";
}

std::string get_package_script_path(const char* application_full_name)
{
    std::string path = package_directory(application_full_name);
    if (path.empty())
        std::cerr << "Failed to get package path\n";
    return path;
}

int fsa_run_configure_script(const std::string& application_full_name,
                             const std::string& script_name, const std::string& user_name,
                             const std::string& script_file_name,
                             const std::string& script_language, const std::string& php_cli,
                             const std::list<std::string>* additional_params)
{
    const std::string packageDir = get_package_script_path(application_full_name.c_str());
    if (packageDir.empty())
        return -1;
    const auto script = choose_script(packageDir, {script_language, script_file_name});
    if (!script)
        return -1;
    const auto interpreter = choose_interpreter(script->language, php_cli);
    if (!interpreter)
        return -1;
    if (!is_allowed(script_name))
        return 1;

    const std::string scriptsDir = packageDir + "/scripts";
    const std::string path = scriptsDir + "/" + script->file;
    if (is_missing(path))
        return 0;  // a package without that script needs nothing done
    become_site_user(user_name);
    if (::chdir(scriptsDir.c_str()) != 0) {
        std::cerr << "Unable to change current directory to " << scriptsDir << '\n';
        return 1;
    }
    return run_and_wait(command_line(*interpreter, path, script_name, additional_params));
}

int runApplicationScript(int argc, char** argv)
{
    std::string fullName;
    std::string action;
    std::string userName;
    std::string fileName;
    std::string language;
    std::string phpCli;
    std::vector<std::string> additional;
    po::options_description description("Application script execution options");
    auto add = description.add_options();
    add("application-full-name", options::required(fullName), "application full name");
    add("script-name", options::required(action), "action to execute");
    add("user-name", options::required(userName), "system user name");
    add("script-file-name", options::required(fileName), "script file name");
    add("script-language", options::required(language), "script language");
    add("php-cli", po::value<std::string>(&phpCli), "php cli path");
    po::options_description all;
    all.add(description);
    all.add_options()("additional-script-params", po::value<std::vector<std::string>>(&additional));
    po::positional_options_description positional;
    positional.add("additional-script-params", -1);
    options::parse(argc, argv, all, &positional);

    const Strings params(additional.begin(), additional.end());
    return fsa_run_configure_script(fullName, action, userName, fileName, language, phpCli,
                                    params.empty() ? nullptr : &params);
}

}  // namespace tarvik
