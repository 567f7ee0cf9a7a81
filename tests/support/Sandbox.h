#pragma once

#include <gtest/gtest.h>

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

/**
 * What the tests know of the host they run on (see sandbox.sh), a runner for one real process, and
 * sites to install into. Every `Site` is a new directory that removes itself.
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
/// A line that the utility error stream and the host library put on both streams.
inline Result says_twice(int status, const std::string& text) { return {status, text, text, 0}; }

/// Limits put on a run before it starts, 0 for none: writing beyond the first and spending more
/// than the second end the process unless it ignores the signal.
struct Limits {
    unsigned long fileSize = 0, cpuSeconds = 0;
};

/// @return the words of a command with these options in place of those of the same name.
Words changed(Words words, const Words& changes);

/// Runs a program to its end with `input` on its standard input.
Result run(const Words& words, const std::string& input = "", const Limits& limits = {});
/// Runs the program under test.
Result zendrel(const Words& words, const std::string& input = "", const Limits& limits = {});

/// Runs the administrator's program.
Result zendrelctl(const Words& words, const std::string& input = "", const Limits& limits = {});

/// Runs `body` in a child and returns its exit status and both streams.
Result in_child(void (*body)());

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
    /// Writes APP-META.xml with these mappings.
    void metadata(const std::string& mappings) const;

    /// The extract command for this package and site. A word replaces the option of its name.
    Words extract(const Words& changes = {}) const;
    Words remove(const Words& changes = {}) const;
    /// A command of zendrelctl for this site, or this package and site, in the subdirectory "app".
    Words ctl(const Words& command, const Words& changes = {}) const;
    std::string list(const Words& files, const std::string& section = "htdocs") const;

    /// Everything below a directory: path to "type mode owner:group content or target".
    Tree tree(const std::string& below = "vhost/httpdocs") const;
    /// The same as one text: a newline, then a line for all that are alike in type, mode and owner, named
    /// with what they hold unless that is the path itself.
    std::string listing(const std::string& below = "vhost/httpdocs") const;

private:
    std::string root_;
};

std::string read(const std::string& path);
mode_t mode_of(const std::string& path);

}  // namespace sandbox
