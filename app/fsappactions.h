#pragma once

#include <string>

namespace tarvik {

class FSAMetaDataReader;

/// @return the directory that `appSubdir` names; "." and "/" are the document root itself.
std::string application_dir(const std::string& documentRoot, const std::string& appSubdir);

/**
 * Copies a package's web content into the document root along its URL mappings and gives every file
 * its mode. Everything is done with the identity the process has; owners are not changed, modes of
 * what is there already only gain bits. On an error all mapped targets are removed again, with
 * whatever else lies below them.
 * @param packageDir             the unpacked package.
 * @param documentRoot           the site's document root; created, parents too, when missing.
 * @param appSubdir              directory inside it; "." or "/" is the document root itself.
 * @param userName               the site's system user, looked up by this name only while the
 * process is still root.
 * @param makeWebserverWritable  widen the modes of writable mappings for the web server.
 * @return true; false when an error was reported, on standard error.
 * @throws whatever is neither a file nor a metadata error, with nothing removed again.
 */
bool fsa_install_htdocsfiles(const std::string& packageDir, const std::string& documentRoot,
                             const std::string& appSubdir, const FSAMetaDataReader& metadata,
                             const std::string& userName, bool makeWebserverWritable);

}  // namespace tarvik
