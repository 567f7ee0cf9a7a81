#pragma once

#include <string>

/**
 * Finds the package directory in an application full name, "file:///" and the directory.
 * @param dst  room for 4096 bytes; a longer directory is cut and not terminated.
 * @return 1; 0, with `dst` untouched, when the name is not of that form or names nothing.
 */
extern "C" int get_orsa_application_path(char* dst, const char* fullName);

namespace tarvik {

/// @return the directory in an application full name; empty when it is not of that form.
std::string package_directory(const std::string& fullName);

/// Command handlers: parse the options that follow the command word, return the exit status.
/// They throw the option library's errors.
int extractApplication(int argc, char** argv);
int deleteApplication(int argc, char** argv);

/**
 * Extracts an unpacked package into a document root. The process becomes the site user for good; it
 * is ended with status 255 when the hosting clients' group is missing, with 1 when the switch
 * fails.
 * @param cleanDocroot  not 0, with `appSubdir` ".": empty the document root first.
 * @param metadataFile  read in place of the package's own metadata, unless empty.
 * @return 0; 1 when a failure was reported on standard error.
 */
int fsa_extract_application(const std::string& fullName, const std::string& vhostPath,
                            const std::string& wwwRoot, const std::string& userName,
                            const std::string& appSubdir, int cleanDocroot,
                            const std::string& metadataFile, bool makeWebserverWritable);

/**
 * Removes the files of the instance whose file list is on standard input, with the identity the
 * process has. A malformed list ends the process through the terminate handler.
 * @return 0; -1 when a failure was reported on standard error.
 */
int delete_application_user(const std::string& vhostPath, const std::string& wwwRoot,
                            const std::string& appSubdir);

}  // namespace tarvik
