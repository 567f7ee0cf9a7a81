#include "app/Interpreter.h"

#include "clib/read_configuration.h"

#include <sys/stat.h>

#include <algorithm>
#include <iostream>
#include <iterator>

namespace tarvik {

namespace {

constexpr mode_t kReadableAndExecutable = 0555;

constexpr char kPhp[] = "php";
constexpr char kProductEngine[] = "mo-engine-tarvikrun";
constexpr char kPerl[] = "perl";
const char* const kLanguages[] = {kPhp, kProductEngine, kPerl, kBinaryLanguage};

const char* const kPhpOptions[] = {"-d", "variables_order=EGPCS", "-d", "safe_mode=0",
                                   "-d", "open_basedir="};
const char* const kPerlCandidates[] = {"/usr/bin/perl", "/usr/local/bin/perl"};

using Strings = std::list<std::string>;

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

}  // namespace

std::list<std::string> interpreter_candidates(const std::string& language,
                                              const std::string& php_cli)
{
    if (language == kPhp || language == kProductEngine)
        return php_candidates(language, php_cli);
    if (language == kPerl)
        return {std::begin(kPerlCandidates), std::end(kPerlCandidates)};
    return {};
}

std::optional<Interpreter> choose_interpreter(const std::string& language,
                                              const std::string& php_cli)
{
    if (!is_script_language(language)) {
        std::cerr << "Config script language '" << language << "' is not supported!\n";
        return std::nullopt;
    }
    if (language == kBinaryLanguage)
        return Interpreter {};
    const Strings candidates = interpreter_candidates(language, php_cli);
    if (language == kPerl)
        return first_usable(candidates, "perl", {});
    return first_usable(candidates, "php", {std::begin(kPhpOptions), std::end(kPhpOptions)});
}

bool is_script_language(const std::string& language)
{
    return std::find(std::begin(kLanguages), std::end(kLanguages), language)
        != std::end(kLanguages);
}

bool fsa_is_file_executable(const std::string& path)
{
    struct stat status;
    return ::stat(path.c_str(), &status) == 0
        && (status.st_mode & kReadableAndExecutable) == kReadableAndExecutable;
}

}  // namespace tarvik
