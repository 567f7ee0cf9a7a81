#include "ctl/ApacheCheck.h"

#include "app/webserverconfig.h"
#include "clib/read_configuration.h"

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include <fnmatch.h>
#include <glob.h>
#include <strings.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <vector>

namespace fs = boost::filesystem;

namespace tarvik::ctl {

namespace {

constexpr int kDepth = 20;  ///< of files that include each other; a circle ends there

/// A line that includes others.
struct Inclusion {
    std::string file;
    std::size_t line;
    std::string pattern;
    bool optional;
};

struct ServerConfig {
    std::set<std::string> modules;
    std::vector<Inclusion> inclusions;
};

bool is_word(const std::string& word, const char* name)
{
    return ::strcasecmp(word.c_str(), name) == 0;
}

/// @return the files that a pattern stands for, in a directory all of them.
std::vector<std::string> matches_of(const std::string& pattern)
{
    glob_t found = {};
    std::vector<std::string> files;
    if (::glob(pattern.c_str(), 0, nullptr, &found) == 0)
        files.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    ::globfree(&found);
    return files;
}

class Reader {
public:
    explicit Reader(std::string root) : root_(std::move(root)) { }

    void read(const std::string& path, int depth)
    {
        boost::system::error_code error;
        if (fs::is_directory(path, error))
            return read_all(path + "/*", depth);
        std::ifstream file(path);
        std::string line;
        for (std::size_t number = 1; std::getline(file, line); ++number)
            take(line, {path, number, "", false}, depth);
    }

    ServerConfig config;

private:
    void read_all(const std::string& pattern, int depth)
    {
        for (const std::string& path : matches_of(pattern)) {
            if (depth < kDepth)
                read(path, depth + 1);
        }
    }

    void take(const std::string& line, Inclusion place, int depth)
    {
        std::istringstream text(line);
        std::string word;
        std::string value;
        text >> word >> value;
        if (is_word(word, "LoadModule"))
            config.modules.insert(value);
        place.optional = is_word(word, "IncludeOptional");
        if (!place.optional && !is_word(word, "Include"))
            return;
        value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
        place.pattern = (value.compare(0, 1, "/") == 0 ? "" : root_ + "/") + value;
        config.inclusions.push_back(place);
        read_all(place.pattern, depth);
    }

    std::string root_;
};

/// A module that the generated files cannot do without.
struct Module {
    const char* name;
    const char* without;  ///< what happens then
};

constexpr Module kModules[] = {
    {"alias", "redirects keep the server from starting"},
    {"mime", "CGI programs are sent out as source"},
    {"authz_core", "the directives for PHP keep the server from starting"},
};

std::string threaded_server(const ServerConfig& config)
{
    for (const char* const name : {"mpm_event", "mpm_worker"}) {
        if (config.modules.count(std::string(name) + "_module") != 0)
            return name;
    }
    return "";
}

HostFindings look_at_programs(const ServerConfig& config)
{
    const auto has = [&config](const char* module) { return config.modules.count(module) != 0; };
    const std::string threaded = threaded_server(config);
    HostFindings findings;
    if (!has("cgi_module"))
        findings.push_back({std::string(has("cgid_module") ? "mod_cgid in place of" : "no")
                                + " mod_cgi: CGI programs are sent out as source",
                            threaded.empty()
                                ? "a2enmod cgi"
                                : "a2dismod " + threaded + " && a2enmod mpm_prefork cgi"});
    const bool processes = has("proxy_module") && has("proxy_fcgi_module");
    if (!processes && !has("php_module"))
        findings.push_back(
            {"neither mod_php nor mod_proxy_fcgi: PHP does not run", "a2enmod proxy_fcgi"});
    if (!processes && has("php_module") && !threaded.empty())
        findings.push_back({"mod_php in a server with threads",
                            "a2dismod " + threaded + " && a2enmod mpm_prefork"});
    return findings;
}

HostFindings look_at_modules(const ServerConfig& config)
{
    HostFindings findings;
    for (const Module& module : kModules) {
        if (config.modules.count(std::string(module.name) + "_module") == 0)
            findings.push_back({std::string("no mod_") + module.name + ": " + module.without,
                                std::string("a2enmod ") + module.name});
    }
    return findings;
}

bool takes_in(const Inclusion& inclusion, const std::string& vhostPath)
{
    const std::string pattern = fs::path(inclusion.pattern).lexically_normal().native();
    if (vhostPath.empty())
        return pattern.find("/siteapp.d") != std::string::npos;
    const fs::path file =
        fs::path(apache_config_path(vhostPath, "application.conf")).lexically_normal();
    return ::fnmatch(pattern.c_str(), file.c_str(), FNM_PATHNAME | FNM_LEADING_DIR) == 0;
}

HostFindings look_at_inclusions(const ServerConfig& config, const std::string& vhostPath)
{
    HostFindings findings;
    bool any = false;
    for (const Inclusion& inclusion : config.inclusions) {
        if (!takes_in(inclusion, vhostPath))
            continue;
        any = true;
        if (!inclusion.optional)
            findings.push_back(
                {"line " + std::to_string(inclusion.line) + " of " + inclusion.file
                     + " keeps the server from starting while no application has a "
                       "file: Include",
                 "sed -i "
                     + shell_word(std::to_string(inclusion.line) + "s/Include/IncludeOptional/I")
                     + " " + shell_word(inclusion.file)});
    }
    const std::string host = vhostPath.empty() ? "HOST" : vhostPath;
    if (!any)
        findings.push_back(
            {"the files of applications are not included",
             "put into the <VirtualHost> of the host: IncludeOptional "
                 + fs::path(apache_config_path(host, "*.conf")).lexically_normal().native()});
    return findings;
}

}  // namespace

HostFindings look_at_apache(const std::string& vhostPath)
{
    const std::string root = oxaConfGetDefault("HTTPD_CONF_D");
    const std::string path = root + "/apache2.conf";
    if (!fs::exists(path))
        return {{"no configuration of Apache: " + path, "apt-get install apache2"}};
    Reader reader(root);
    reader.read(path, 0);
    HostFindings findings = look_at_modules(reader.config);
    append(findings, look_at_programs(reader.config));
    append(findings, look_at_inclusions(reader.config, vhostPath));
    return findings;
}

}  // namespace tarvik::ctl
