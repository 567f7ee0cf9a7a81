#pragma once

#include <list>
#include <optional>
#include <string>

namespace tarvik {

/// How to start a script: without a program it is started itself.
struct Interpreter {
    std::string program;
    std::list<std::string> options;
};

/// @return where the interpreter of a language is looked for, in this order; nowhere for a language
///         without one. @param php_cli  a PHP to try before the configured one; may be empty.
std::list<std::string> interpreter_candidates(const std::string& language,
                                              const std::string& php_cli);

/**
 * @param language  of the script, upper and lower case being different.
 * @param php_cli   a PHP to try before the configured one; may be empty.
 * @return the first candidate for that language that everybody may run; none when there is none or
 *         the language is unknown, which is reported on standard error.
 */
std::optional<Interpreter> choose_interpreter(const std::string& language,
                                              const std::string& php_cli);

/// The language of what is started itself.
constexpr char kBinaryLanguage[] = "binary";

/// @return whether a script may be in that language, whatever this host has to run it.
bool is_script_language(const std::string& language);

/// @return whether everybody may read and execute `path`, links followed.
bool fsa_is_file_executable(const std::string& path);

}  // namespace tarvik
