#pragma once

#include <boost/algorithm/string.hpp>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

/**
 * What the tests know of the host they run on (see sandbox.sh), a runner for one real process, and
 * sites to install into. Every `Site` is a new directory that removes itself, and what programs have been told
 * and keep of it elsewhere. What nearly all tests need of the system and of Boost comes along.
 */
namespace sandbox {

constexpr uid_t kAlice = 28001, kBob = 28002;
constexpr gid_t kClients = 28010;

using Words = std::vector<std::string>;
using Tree = std::map<std::string, std::string>;

struct Result {
    int status = -1;  ///< exit status; a signal reads 128 + its number, as in a shell
    std::string out, err;
    long peakKilobytes = 0;
};
bool operator==(const Result& a, const Result& b);
std::ostream& operator<<(std::ostream& out, const Result& result);

/// The result of a run that says `err` on standard error and nothing on standard output.
inline Result says(int status, const std::string& err) { return {status, "", err, 0}; }
/// The same on standard output.
inline Result prints(const std::string& out, int status = 0) { return {status, out, "", 0}; }
/// A line that the utility error stream and the host library put on both streams.
inline Result says_twice(int status, const std::string& text) { return {status, text, text, 0}; }

/// Limits put on a run before it starts, 0 for none: writing beyond the first and spending more
/// than the second end the process unless it ignores the signal.
struct Limits {
    unsigned long fileSize = 0, cpuSeconds = 0;
};

/// @return the words of a command with these options in place of those of the same name.
Words changed(Words words, const Words& changes);
/// @return all of both.
Words operator+(Words words, const Words& more);

std::string repeated(int count, const std::string& text);
/// Many texts that differ by a number.
std::string numbered(int count, const std::string& before, const std::string& after);
/// Metadata, where "<m 'x'" is short for "<mapping url='x'", "p:" is for PHP and "c:" for CGI.
std::string application(const std::string& content, const std::string& attributes = "");

/// Runs a program to its end with `input` on its standard input.
Result run(const Words& words, const std::string& input = "", const Limits& limits = {});
/// Runs the program under test.
Result zendrel(const Words& words, const std::string& input = "", const Limits& limits = {});

/// Runs the administrator's program.
Result zendrelctl(const Words& words, const std::string& input = "", const Limits& limits = {});

/// Runs `body` in a child and returns its exit status and both streams.
Result in_child(const std::function<void()>& body);

class Site {
public:
    Site();
    Site(const Site&) = delete;
    ~Site();

    std::string path(const std::string& below = "") const { return below.empty() ? root_ : root_ + "/" + below; }
    std::string package(const std::string& below = "") const { return path("package/" + below); }
    std::string docroot(const std::string& below = "") const { return path("vhost/httpdocs/" + below); }
    std::string vhost() const { return path("vhost"); }

    /// Writes a file with its parents, all owned by root, so packages are read-only for the site user.
    void write(const std::string& below, const std::string& content, mode_t mode = 0644) const;
    /// The same in the document root, owned by `owner`; a path ending in "/" is a directory.
    void put(const std::string& below, const std::string& content = "", mode_t mode = 0644, uid_t owner = kAlice,
             gid_t group = kClients) const;
    /// Runs shell commands as root, in the site's directory.
    void shell(const std::string& commands) const;
    /// @return what they print.
    std::string output(const std::string& commands) const;
    /// @return the same with "@" for the site's directory.
    Result plain(Result result) const;
    /// Writes APP-META.xml with these mappings, as application() has them.
    void metadata(const std::string& mappings) const;
    /// The same, and files that hold their own names.
    void pack(const Words& files, const std::string& mappings = "<m '/' path='htdocs'/>") const;

    /// The extract command for this package and site. A word replaces the option of its name.
    Words extract(const Words& changes = {}) const;
    Words remove(const Words& changes = {}) const;
    /// A command of zendrelctl for this site, or this package and site, in the subdirectory "app".
    Words ctl(const Words& command, const Words& changes = {}) const;
    std::string list(const Words& files, const std::string& section = "htdocs") const;
    /// Runs a command of zendrelctl about the instance "vhost-app", and kills the process of it that makes
    /// one of these calls for this time. All others are at their end, too. @return whether one did.
    bool kills(const Words& command, const std::string& calls, int when) const;

    /// Everything below a directory: path to "type mode owner:group content or target".
    Tree tree(const std::string& below = "vhost/httpdocs") const;
    /// The same as one text: a newline, then a line for all that are alike in type, mode and owner, named
    /// with what they hold unless that is the path itself.
    std::string listing(const std::string& below = "vhost/httpdocs") const;

private:
    Words options(const std::string& subdirectory) const;

    std::string root_;
};

/// Where zendrelctl keeps its records.
const std::string kStore = "/var/lib/zendrel/instances/";

std::string read(const std::string& path);
mode_t mode_of(const std::string& path);

}  // namespace sandbox
