#pragma once

#include "app/Interpreter.h"
#include "app/ScriptProcess.h"

#include <list>
#include <string>

namespace tarvik {

class FSAMetaDataReader;

/// Command handler: parses the options that follow the command word, returns the exit status.
/// Throws the option library's errors.
int runApplicationScript(int argc, char** argv);

/**
 * Runs a package's own script for an action. The process becomes the site user for good and waits.
 * Packages of the standards 1.1 and 1.2 leave language and script file to the caller; others name
 * the language themselves and call the file "configure".
 * @param php_cli            a PHP to try before the configured one; may be empty.
 * @param additional_params  further arguments of the script, borrowed; may be null.
 * @return the script's exit code; 0 also when there is no such script; 1 when the action is not
 *         allowed or the scripts directory cannot be entered; -1 when the script cannot be run or
 *         did not end by itself. Failures are reported on standard error.
 */
int fsa_run_configure_script(const std::string& application_full_name,
                             const std::string& script_name, const std::string& user_name,
                             const std::string& script_file_name,
                             const std::string& script_language, const std::string& php_cli,
                             const std::list<std::string>* additional_params);

/// The script of packages that do not leave it to the caller.
constexpr char kConfigureScript[] = "configure";
/// @return whether the caller names the script's file and language.
bool leaves_script_to_caller(const FSAMetaDataReader& metadata);

/// @return the package directory in an application full name; empty, with a message, without one.
std::string get_package_script_path(const char* application_full_name);

}  // namespace tarvik
