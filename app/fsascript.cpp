#include "app/fsascript.h"

#include "app/SiteUser.h"
#include "app/application.h"
#include "app/fsappmetadata.h"
#include "app/options.h"
#include "clib/forkexec.h"
#include "clib/liblog.h"
#include "clib/libuser.h"
#include "clib/read_configuration.h"
#include "common/ExSystemError.h"
#include "common/UtilityErrorStream.h"
#include "common/misc.h"
#include "common/signals.h"

#include <boost/filesystem/operations.hpp>

#include <fcntl.h>
#include <linux/keyctl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <iterator>
#include <new>
#include <optional>

namespace fs = boost::filesystem;
namespace po = boost::program_options;

namespace tarvik {

namespace {

constexpr mode_t kReadableAndExecutable = 0555;
constexpr int kFirstToClose = STDERR_FILENO + 1;

constexpr char kPhp[] = "php";
constexpr char kProductEngine[] = "mo-engine-tarvikrun";
constexpr char kPerl[] = "perl";
constexpr char kBinary[] = "binary";

const char* const kActions[] = {"install", "configure", "upgrade", "remove",
                                "enable",  "disable",   "query"};
const char* const kPhpOptions[] = {"-d", "variables_order=EGPCS", "-d", "safe_mode=0",
                                   "-d", "open_basedir="};
const char* const kPerlCandidates[] = {"/usr/bin/perl", "/usr/local/bin/perl"};

using Strings = std::list<std::string>;

/// What a package's script is and what it is written in.
struct Script {
    std::string language;
    std::string file;
};

/// How to start it: without an interpreter it is started itself.
struct Interpreter {
    std::string program;
    Strings options;
};

/// @return the script that the packaging standard's version asks for; none when the metadata cannot
///         be read, which is reported.
std::optional<Script> choose_script(const std::string& packageDir, const Script& given)
{
    try {
        const FSAMetaDataReader metadata(packageDir + "/APP-META.xml");
        const std::string& version = metadata.packagingVersion();
        if (version == "1.1" || version == "1.2")
            return given;
        return Script {metadata.configurationScriptLanguage(), "configure"};
    } catch (const FSACommonException& e) {
        std::cerr << "Caught exception: " << e.what() << '\n';
        return std::nullopt;
    }
}

Strings php_candidates(const std::string& language, const std::string& php_cli)
{
    Strings candidates;
    if (language == kProductEngine)
        candidates.push_back(std::string(oxaConfGetDefaultByIndex(OXA_PRODUCT_ROOT_D)) + "/bin/"
                             + kProductEngine);
    if (!php_cli.empty())
        candidates.push_back(php_cli);
    candidates.emplace_back(oxaConfGetDefaultByIndex(OXA_CLIENT_PHP_BIN));
    return candidates;
}

/// @return the first candidate that everybody may run; none when there is none, which is reported.
std::optional<Interpreter> first_usable(const Strings& candidates, const char* name,
                                        const Strings& options)
{
    const auto found = std::find_if(candidates.begin(), candidates.end(), fsa_is_file_executable);
    if (found == candidates.end()) {
        std::cerr << "Unable to find command line " << name << " interpreter.\n";
        return std::nullopt;
    }
    return Interpreter {*found, options};
}

std::optional<Interpreter> choose_interpreter(const std::string& language,
                                              const std::string& php_cli)
{
    if (language == kPhp || language == kProductEngine)
        return first_usable(php_candidates(language, php_cli), "php",
                            {std::begin(kPhpOptions), std::end(kPhpOptions)});
    if (language == kPerl)
        return first_usable({std::begin(kPerlCandidates), std::end(kPerlCandidates)}, "perl", {});
    if (language == kBinary)
        return Interpreter {};
    std::cerr << "Config script language '" << language << "' is not supported!\n";
    return std::nullopt;
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

bool give_up(int terminal)
{
    return ::ioctl(terminal, TIOCNOTTY) == 0;
}

/// What keeps this process from the terminal keeps the script from it, which is the same user.
bool is_lasting(int failure)
{
    return failure == ENXIO || failure == ENOENT || failure == EACCES;
}

/// The site user's script must not type into the terminal of the caller. A session of its own would
/// see to that, too, but take it out of the process group that callers send their signals to.
void give_up_terminal()
{
    const TDescriptor terminal(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
    if (terminal && give_up(terminal.get()))
        return;
    const int failure = errno;
    if (give_up(STDIN_FILENO) || give_up(STDOUT_FILENO) || give_up(STDERR_FILENO))
        return;  // "/dev/tty" may be missing or locked
    if (terminal || !is_lasting(failure))
        throwSystemError("forkExecvPipes: giving up the terminal failed", failure);
}

/// The caller's keys stay with the caller. Where a kernel has no keyrings or a container refuses
/// them, the script cannot use any either. A full quota is no excuse: the site user could fill it
/// to get at the keys.
void give_up_keys()
{
    if (::syscall(SYS_keyctl, KEYCTL_JOIN_SESSION_KEYRING, nullptr) < 0 && errno != ENOSYS
        && errno != EPERM && errno != EACCES)
        throwSystemError("forkExecvPipes: giving up the keys failed", errno);
}

[[noreturn]] void exec_child(int input, int output, int error, const std::string& program,
                             const ArgList& arguments, const std::string& userName,
                             const std::map<std::string, std::string>& environment)
{
    if (dup2_streams(input, output, error) != 0)
        throwSystemError("dup2Custom failed", errno);
    ::closefrom(kFirstToClose);
    if (!userName.empty() && p_setuid(userName.c_str()) != 0)
        throwSystemError("forkExecvPipes: p_setuid() to '" + userName + "' failed", errno);
    give_up_terminal();
    give_up_keys();
    for (const auto& [name, value] : environment) {
        if (::setenv(name.c_str(), value.c_str(), 1) != 0)
            throwSystemError("forkExecvPipes: setenv() falied", errno);
    }
    restore_write_signals();
    ::execvp(program.c_str(), arguments.get());
    const int failure = errno;
    messlog2(1, 1, "forkExecvPipes: execv() failed: %s\n", std::strerror(failure));
    std::abort();  // not reached: the message ends the process
}

}  // namespace

ArgList::ArgList() : arguments_(1, nullptr) { }

ArgList::~ArgList()
{
    for (char* const argument : arguments_)
        std::free(argument);
}

void ArgList::append(const std::string& text)
{
    arguments_.reserve(arguments_.size() + 1);  // so that nothing fails once the copy is made
    char* const copy = ::strdup(text.c_str());
    if (copy == nullptr)
        throw std::bad_alloc();
    arguments_.back() = copy;
    arguments_.push_back(nullptr);
}

std::string get_package_script_path(const char* application_full_name)
{
    std::string path = package_directory(application_full_name);
    if (path.empty())
        std::cerr << "Failed to get package path\n";
    return path;
}

bool fsa_is_file_executable(const std::string& path)
{
    struct stat status;
    return ::stat(path.c_str(), &status) == 0
        && (status.st_mode & kReadableAndExecutable) == kReadableAndExecutable;
}

pid_t forkExecvPipes(int input, int output, int error, const std::string& program,
                     const ArgList& arguments, const std::string& userName,
                     const std::map<std::string, std::string>& environment)
{
    const pid_t child = ::fork();
    if (child < 0)
        throwSystemError("forkExecvPipes: fork() failed", errno);
    if (child == 0) {
        try {  // the caller's own code must not go on in the child
            exec_child(input, output, error, program, arguments, userName, environment);
        } catch (const std::exception& e) {
            reportException(e);
            std::exit(1);
        }
    }
    return child;
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
