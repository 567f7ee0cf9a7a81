#include "ctl/ApachePhp.h"

#include "app/fsappmetadata.h"
#include "app/webserverconfig.h"
#include "ctl/KeptTrees.h"
#include "ctl/Site.h"
#include "ctl/Trouble.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstddef>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string_view>
#include <vector>

namespace tarvik::ctl {

namespace {

constexpr char kHeader[] =
    "# What PHP 8 does in one application, as \"zendrelctl apache\" wrote it. "
    "It is written anew as a\n# whole: changes are lost.\n\n";

/// What servers take for PHP, in whatever case: with AddHandler, ".PHP" is ".php".
constexpr char kPhpNames[] = "ph(?:p[0-9s]?|tml?|t|ar)";

// A regular expression may not become longer than 64 KiB when it is compiled, nor may a word in a
// condition be longer than 8191 characters. An extension takes 4 characters for a byte at most.
constexpr std::ptrdiff_t kExtensionsInPattern = 60;
constexpr std::size_t kConditionLength = 8'000;

using Strings = std::set<std::string>;

/// A place that mappings lead to: a directory or, when `file` is set, a single file.
struct Place {
    bool file = false;
    bool writable = false;
    bool disabled = false;
    Strings extensions;
};
using Places = std::map<std::string, Place>;  ///< by path, so that directories come first

enum class Php { AsAround, On, Off };

/// All that sections are written from.
struct Plan {
    const PhpRunner& runner;
    bool runInWritable;
    Places places;
    Strings extensions;  ///< of all places
};

Php php_in(const Place& place, const Plan& plan)
{
    if (place.disabled || (place.writable && !plan.runInWritable))
        return Php::Off;
    return place.extensions.empty() ? Php::AsAround : Php::On;
}

bool is_file(const std::string& path)
{
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

/// @return the path as the server has it by the time it compares: its names alone.
std::string normal_path(const std::string& path)
{
    std::vector<std::string> names;
    std::istringstream elements(path);
    for (std::string name; std::getline(elements, name, '/');) {
        if (name == ".." && !names.empty())
            names.pop_back();
        else if (!name.empty() && name != ".")
            names.push_back(name);
    }
    std::string result;
    for (const std::string& name : names)
        result += "/" + name;
    if (result.size() >= PATH_MAX)
        throw Trouble("a mapping's directory has too long a path: " + result.substr(0, 200));
    return result;
}

void add_handlers(Place& place, const FSAMetaDataWebContent& mapping)
{
    for (const auto& handler : mapping.phpHandlers) {
        place.disabled = place.disabled || handler.disabled;
        for (const std::string& extension : handler.extensions) {
            if (extension.empty() || extension.size() > NAME_MAX)
                continue;  // no file can have it
            place.extensions.insert(within_line(extension, "<php:extension>"));
        }
    }
}

Places places_of(const FSAMetaDataReader& metadata, const std::string& packageDir, const Site& site)
{
    within_line(site.wwwRoot, "--www-root");
    within_line(site.subdirectory, "--application-subdirectory");
    Places places;
    for (const FSAMetaDataWebContent& mapping : metadata.webContents()) {
        require_inner_url(mapping.url);
        if (!mapping.redirect.empty())
            continue;
        within_line(mapping.url, "<s:mapping>", " in its url");
        Place& place = places[normal_path(site.application_dir() + mapping.url)];
        place.file = is_file(packageDir + "/" + mapping.path);
        place.writable = place.writable || mapping.writable;
        add_handlers(place, mapping);
    }
    return places;
}

bool is_plain(char character)
{
    const auto byte = static_cast<unsigned char>(character);
    return byte >= 0x80 || byte == '/' || byte == '-' || byte == '_' || std::isalnum(byte) != 0;
}

/// @return a regular expression for just that text. It means the same between quotes of any kind.
std::string literal_regex(std::string_view text)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string result;
    for (const char character : text) {
        if (is_plain(character)) {
            result += character;
            continue;
        }
        const auto byte = static_cast<unsigned char>(character);
        result.append("\\x") += kDigits[byte >> 4U];
        result += kDigits[byte & 0x0fU];
    }
    return result;
}

std::string quoted(const std::string& text)
{
    std::string result = "\"";
    for (const char character : text) {
        if (character == '"' || character == '\\')
            result += '\\';
        result += character;
    }
    return result + '"';
}

/// @return a path in which no character is a wildcard, for a section that would look for some.
std::string literal_glob(const std::string& path)
{
    const std::map<char, const char*> wildcards = {
        {'*', "[*]"}, {'?', "[?]"}, {'[', "[[]"}, {'\\', "[\\\\]"}};
    std::string result;
    for (const char character : path) {
        const auto wildcard = wildcards.find(character);
        result += wildcard == wildcards.end() ? std::string(1, character) : wildcard->second;
    }
    return result;
}

/// @return alternatives, for a regular expression.
std::string one_of(Strings::const_iterator begin, Strings::const_iterator end)
{
    std::string text;
    for (auto each = begin; each != end; ++each)
        text += (each == begin ? "\\.(?:" : "|") + literal_regex(*each);
    return text + ")";
}

/**
 * @param files  what the names have to match as well: nothing, or the beginning that `only_file`
 * gives.
 * @return what FilesMatch takes for files with these extensions, in as many parts as it needs.
 */
std::vector<std::string> extension_patterns(const Strings& extensions, const std::string& files)
{
    std::vector<std::string> patterns;
    for (auto begin = extensions.begin(); begin != extensions.end();) {
        const auto left = std::distance(begin, extensions.end());
        const auto end = std::next(begin, std::min(left, kExtensionsInPattern));
        patterns.push_back(files + one_of(begin, end) + "$");
        begin = end;
    }
    return patterns;
}

/// @return the same for all names that any part of a server may take for a PHP program: extensions
///         in any place of the name and in any case.
std::vector<std::string> program_patterns(const Strings& extensions, const std::string& files)
{
    constexpr char kAnyCase[] = "(?i)";
    constexpr char kThenMore[] = "(?:\\.|$)";
    std::vector<std::string> patterns = extension_patterns(extensions, files);
    for (std::string& pattern : patterns)
        pattern = kAnyCase + pattern.substr(0, pattern.size() - 1) + kThenMore;
    patterns.push_back(kAnyCase + files + "\\." + kPhpNames + kThenMore);
    return patterns;
}

/// @return the beginning of a pattern that no other file matches.
std::string only_file(const std::string& name)
{
    return "^(?=" + literal_regex(name) + "$).*";
}

/**
 * Files that have a name, under a condition. Other sections for files come after those for
 * directories, those for locations after these, and conditions last of all: so it is conditions
 * that have the last word, and of them the ones of the innermost directory.
 */
std::string files_section(const std::string& pattern, const std::string& condition,
                          const std::string& directives)
{
    return "  <FilesMatch \"" + pattern + "\">\n    <If \"" + condition + "\">\n" + directives
        + "    </If>\n  </FilesMatch>\n";
}

std::string deny(const std::vector<std::string>& patterns, const std::string& condition)
{
    std::string text;
    for (const std::string& pattern : patterns)
        text += files_section(pattern, condition,
                              "      SetHandler default-handler\n      Require all denied\n");
    return text;
}

std::string run(const std::vector<std::string>& patterns, const PhpRunner& runner)
{
    std::string text = "  <IfModule " + runner.module + ">\n";
    for (const std::string& pattern : patterns)
        text += files_section(pattern, "-f %{REQUEST_FILENAME}", runner.directives);
    // A handler that nobody knows would have the sources sent.
    return text + "  </IfModule>\n  <IfModule !" + runner.module + ">\n" + deny(patterns, "true")
        + "  </IfModule>\n";
}

/**
 * @return the condition for a program in `path` not to be one that a place below it has PHP run.
 * What is denied cannot be allowed again there without overruling who protects the site.
 */
std::string outside_of_inner_places(const std::string& path, const Plan& plan)
{
    const std::string start = path + "/";
    std::string inner;
    for (auto each = plan.places.upper_bound(start);
         each != plan.places.end() && each->first.compare(0, start.size(), start) == 0; ++each) {
        const Place& place = each->second;
        if (php_in(place, plan) == Php::On)
            inner += (inner.empty() ? "(?=.*" : "|(?=.*")
                + one_of(place.extensions.begin(), place.extensions.end()) + "$)"
                + literal_regex(each->first.substr(path.size())) + (place.file ? "$" : "/");
    }
    if (inner.empty())
        return "true";
    const std::string pattern = "^" + literal_regex(path) + "(?:" + inner + ")";
    if (pattern.size() > kConditionLength)
        throw Trouble("too many mappings with PHP are nested in one without: " + path);
    return "%{REQUEST_FILENAME} !~ m#" + pattern + "#";
}

constexpr char kNoHtaccess[] = "  AllowOverride None\n  AllowOverrideList None\n";
constexpr char kEngineOff[] = "  <IfModule mod_php.c>\n"
                              "    php_admin_flag engine off\n"
                              "  </IfModule>\n";

std::string directory_section(const std::string& pattern, const std::string& body)
{
    return "<Directory " + quoted(pattern.empty() ? "/" : pattern) + ">\n" + body
        + "</Directory>\n\n";
}

/// What holds for a whole directory where PHP is off.
std::string directory_off(const Place& place)
{
    // Whoever may write there could write settings as well.
    return (place.writable ? kNoHtaccess : "") + std::string(kEngineOff);
}

std::string place_text(const std::string& path, const Place& place, const Plan& plan)
{
    const std::size_t slash = path.rfind('/');
    const std::string directory = literal_glob(place.file ? path.substr(0, slash) : path);
    const std::string files = place.file ? only_file(path.substr(slash + 1)) : "";
    switch (php_in(place, plan)) {
    case Php::On:
        return directory_section(directory,
                                 run(extension_patterns(place.extensions, files), plan.runner));
    case Php::Off:
        return directory_section(directory,
                                 (place.file ? "" : directory_off(place))
                                     + deny(program_patterns(plan.extensions, files),
                                            outside_of_inner_places(path, plan)));
    case Php::AsAround:
        break;
    }
    return "";
}

std::string kept_trees_text(const Site& site)
{
    const Location location = location_of(site);
    const std::string start = literal_glob(normal_path(location.parent)) + "/";
    const std::string body =
        kNoHtaccess + std::string("  <If \"true\">\n    Require all denied\n  </If>\n");
    return directory_section(start + literal_glob(previous_name(location.name)) + "*", body)
        + directory_section(start + literal_glob(next_name(location.name)), body);
}

}  // namespace

PhpRunner php_runner(const std::string& option)
{
    constexpr std::string_view kFpm = "fpm:";
    if (option == "mod")
        return {"mod_php.c",
                "      php_admin_flag engine on\n      SetHandler application/x-httpd-php\n"};
    if (option.compare(0, kFpm.size(), kFpm) != 0)
        throw Trouble("--php is neither mod nor fpm:SOCKET: " + option);
    const std::string socket = option.substr(kFpm.size());
    // The server's own marks in that place; it has no way to quote them.
    if (socket.empty() || socket.front() != '/'
        || within_line(socket, "--php").find_first_of("\"\\|%") != std::string::npos)
        throw Trouble("--php names no absolute path without \", \\, | and %: " + socket);
    return {"mod_proxy_fcgi.c",
            "      SetHandler \"proxy:unix:" + socket + "|fcgi://localhost\"\n"};
}

std::string apache_php_text(const FSAMetaDataReader& metadata, const std::string& packageDir,
                            const Site& site, const PhpRunner& runner, bool runInWritable)
{
    Plan plan = {runner, runInWritable, places_of(metadata, packageDir, site), {}};
    for (const auto& [path, place] : plan.places)
        plan.extensions.insert(place.extensions.begin(), place.extensions.end());
    std::string text = kHeader;
    for (const auto& [path, place] : plan.places)
        text += place_text(path, place, plan);
    return text + kept_trees_text(site);
}

}  // namespace tarvik::ctl
