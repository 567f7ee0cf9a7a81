#pragma once

#include "app/VirtualHost.h"

#include <string>

namespace tarvik {

/// Command handlers: parse the options that follow the command word, return the exit status.
/// They throw the option library's errors. A file that would not lie below the host's configuration
/// directory is an error: reported by the first, a filesystem_error of the second.
int installWebserverConfig(int argc, char** argv);
int removeWebserverConfig(int argc, char** argv);

/**
 * Writes the Apache file of one application: PHP and CGI handling of its mappings and its
 * redirects. With nothing to write, there is no file afterwards. The new file, complete and closed,
 * replaces the old one in two steps, so for a moment there is none; it is readable by its owner
 * only. What killed runs have left beside it is removed. A value that would not stay within its
 * line, and a URL that leads out of the application, are errors in the metadata.
 * @param disablePhp, disableCgi  not 0: leave that handling out; both: just remove the file.
 * @param configFile  the file; its directory is created, one level.
 * @param appSubdir   the application's directory in the document root, "." for the root itself.
 * @return 0; -1 when an error was reported on standard error, the old file then being untouched
 *         unless it had been removed already.
 * @throws SystemError when the temporary file beside `configFile` cannot be created.
 */
int veska_install_apache_conf(const std::string& metadataFile, int disablePhp, int disableCgi,
                              std::string& configFile, const std::string& appSubdir,
                              const std::string& wwwRoot);

/**
 * A line end in a value would begin a directive, which root's server obeys; for "${NAME}" that
 * server puts in what it finds in its environment.
 * @return what keeps a value out of the Apache file; null when nothing does.
 */
const char* unfit_for_config(const std::string& value);

/**
 * What comes from outside passes here on its way into a file that root's server obeys. Pieces of a
 * line meet at a blank, a "." or a "/": between two of them no variable begins.
 * @param holder  what has the value, and `place` where, for the message.
 * @return `value`. @throws FSAXMLException when it is unfit.
 */
const std::string& within_line(const std::string& value, const std::string& holder,
                               const std::string& place = "");

/// @return the host that a directory belongs to.
layout::VirtualHost virtual_host(const std::string& vhostPath);

/**
 * @return the file of an application in the configuration of the host that a directory belongs to.
 * @throws filesystem_error when it would be anywhere else.
 */
std::string apache_config_path(const std::string& vhostPath, const std::string& fileName);

/// Makes the directory of such a file unless it is there, one level.
/// @return false when it was not there and was not created.
bool provide_apache_config_directory(const std::string& configFile);

/// @return how the name of a temporary file for it begins.
std::string apache_config_temporary(const std::string& configFile);

}  // namespace tarvik
