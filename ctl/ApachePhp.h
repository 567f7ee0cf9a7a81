#pragma once

#include <string>

namespace tarvik {
class FSAMetaDataReader;
}

namespace tarvik::ctl {

struct Site;

/// What runs PHP pages, in the words of the server.
struct PhpRunner {
    std::string module;      ///< the source file of the module that does, as <IfModule> takes it
    std::string directives;  ///< whole lines that have it run a file
};

/// @param option  "mod" for the server's own module, or "fpm:" and the path of a socket.
/// @throws Trouble for anything else.
PhpRunner php_runner(const std::string& option);

/**
 * What Apache 2.4 has to be told of PHP 8 in the directories of one application. PHP runs the
 * files with the extensions that a mapping lists, also in directories below it. In mappings where
 * it is disabled and, unless asked for, in those that the web server may write to, no file that
 * has the name of a PHP program is run or sent. It is neither in the trees that upgrades keep
 * beside the application, with whatever else is in them.
 *
 * These words hold whatever other sections of the configuration say, and wherever they stand in it.
 * A package has no say but over its own directories, and none in whether the server starts.
 * @param packageDir     tells mappings that name a single file.
 * @param runInWritable  the handlers of a writable mapping count like those of others.
 * @throws FSAXMLException, Trouble for what cannot be said safely.
 */
std::string apache_php_text(const FSAMetaDataReader& metadata, const std::string& packageDir,
                            const Site& site, const PhpRunner& runner, bool runInWritable);

}  // namespace tarvik::ctl
