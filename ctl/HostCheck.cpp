#include "ctl/HostCheck.h"

#include "app/Interpreter.h"
#include "app/SiteUser.h"
#include "app/webserverconfig.h"
#include "clib/read_configuration.h"
#include "ctl/ApacheCheck.h"
#include "ctl/OxaConfCheck.h"
#include "ctl/Program.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <optional>

namespace tarvik::ctl {

namespace {

std::optional<gid_t> group_id(const char* name)
{
    const group* const entry = ::getgrnam(name);
    return entry == nullptr ? std::nullopt : std::optional<gid_t>(entry->gr_gid);
}

HostFindings look_at_groups(const HostQuestion& /*question*/)
{
    HostFindings findings;
    for (const char* const text : {kClientsGroup, kServicesGroup}) {
        const std::string name = text;
        std::string cure = "groupadd --system " + name;
        const std::optional<gid_t> group = group_id(text);
        if (!group)
            findings.push_back({"missing group " + name, cure});
        else if (*group == 0)
            findings.push_back({"group " + name + " is root's",
                                cure.insert(0, "sed -i '/^" + name + ":/d' /etc/group && ")});
    }
    return findings;
}

bool is_member(const passwd& user, gid_t group)
{
    int count = 0;
    ::getgrouplist(user.pw_name, user.pw_gid, nullptr, &count);
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    ::getgrouplist(user.pw_name, user.pw_gid, groups.data(), &count);
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

HostFindings look_at_web_server_user(const HostQuestion& /*question*/)
{
    const std::string name = kWebServerUser;
    const passwd* const user = ::getpwnam(kWebServerUser);
    if (user == nullptr)
        return {{"missing user " + name,
                 "useradd --system --home-dir /var/www --shell /usr/sbin/nologin " + name}};
    const std::optional<gid_t> services = group_id(kServicesGroup);
    if (services && !is_member(*user, *services))
        return {{"user " + name + " is not in group " + kServicesGroup,
                 std::string("usermod --append --groups ") + kServicesGroup + " " + name}};
    return {};
}

bool is_directory(const std::string& path)
{
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

HostFindings look_at_site_user(const HostQuestion& question)
{
    if (question.userName.empty())
        return {};
    const std::string name = shell_word(question.userName);
    const passwd* const user = ::getpwnam(question.userName.c_str());
    if (user == nullptr)
        return {{"missing user " + question.userName,
                 std::string("useradd --create-home --gid ") + kClientsGroup + " " + name}};
    if (user->pw_uid == 0)
        return {{"user " + question.userName + " is root",
                 "give the site a user of its own: useradd --create-home"}};
    HostFindings findings;
    const std::string home = user->pw_dir;
    const std::optional<gid_t> clients = group_id(kClientsGroup);
    if (clients && user->pw_gid != *clients)
        findings.push_back(
            {"user " + question.userName + " has another primary group than " + kClientsGroup,
             std::string("usermod --gid ") + kClientsGroup + " " + name});
    if (!is_directory(home))
        findings.push_back(
            {"user " + question.userName + " has no home directory " + home,
             "install -d -o " + name + " -g " + kClientsGroup + " " + shell_word(home)});
    return findings;
}

/// What is done in such a directory is done as root.
HostFindings look_at_roots_directory(const std::string& path, mode_t forbidden)
{
    struct stat status;
    if (::stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        return {{"missing directory " + path, "install -d " + shell_word(path)}};
    if (status.st_uid != 0)
        return {{path + " belongs to another user than root", "chown root " + shell_word(path)}};
    if ((status.st_mode & forbidden) != 0)
        return {{path + " is open to others than root",
                 std::string("chmod ") + (forbidden == 077 ? "go= " : "go-w ") + shell_word(path)}};
    return {};
}

/// The ways to them are root's as well: whoever may rename one of them can put another in its
/// place.
HostFindings look_at_hosts(const HostQuestion& question)
{
    constexpr mode_t kWritable = S_IWGRP | S_IWOTH;
    const std::string root = oxaConfGetDefaultByIndex(OXA_HTTPD_VHOSTS_D);
    HostFindings findings = look_at_roots_directory(root, kWritable);
    if (question.vhostPath.empty())
        return findings;
    const layout::VirtualHost host = virtual_host(question.vhostPath);
    std::string conf = host.conf();
    conf.pop_back();
    for (const std::string& path : {root + "/system", root + "/system/" + host.name(), conf})
        append(findings, look_at_roots_directory(path, kWritable));
    if (!is_directory(question.vhostPath))
        findings.push_back({"missing directory " + question.vhostPath,
                            "install -d " + shell_word(question.vhostPath)});
    return findings;
}

HostFindings look_at_records(const HostQuestion& /*question*/)
{
    constexpr char kState[] = "/var/lib/zendrel";
    constexpr mode_t kAnything = 077;
    struct stat status;
    return ::lstat(kState, &status) != 0 ? HostFindings()
                                         : look_at_roots_directory(kState, kAnything);
}

/// A language that scripts of packages are written in.
struct Language {
    const char* name;
    const char* package;
    const char* key;  ///< that names its interpreter, where there is one
};

constexpr Language kLanguages[] = {{"php", "php-cli", "CLIENT_PHP_BIN"}, {"perl", "perl", nullptr}};

std::string cure_of(const Language& language)
{
    const std::string program = find_program(language.name);
    if (language.key == nullptr || program.empty())
        return std::string("apt-get install ") + language.package;
    const std::string file = theOxaConfFile;
    return "mkdir -p " + file.substr(0, file.rfind('/')) + " && echo " + language.key + " "
        + program + " >>" + file;
}

HostFindings look_at_interpreters(const HostQuestion& /*question*/)
{
    HostFindings findings;
    for (const Language& language : kLanguages) {
        const auto candidates = interpreter_candidates(language.name, "");
        if (std::none_of(candidates.begin(), candidates.end(), fsa_is_file_executable))
            findings.push_back({"no " + std::string(language.name)
                                    + " that everybody may run: " + candidates.front(),
                                cure_of(language)});
    }
    return findings;
}

HostFindings look_at_paths(const HostQuestion& /*question*/)
{
    return look_at_oxa_conf();
}

HostFindings look_at_server(const HostQuestion& question)
{
    return look_at_apache(question.vhostPath);
}

/// The file of paths comes first, as others go by what it says.
constexpr HostFindings (*kChecks[])(const HostQuestion& question) = {
    look_at_paths, look_at_groups,  look_at_web_server_user, look_at_site_user,
    look_at_hosts, look_at_records, look_at_interpreters,    look_at_server,
};

}  // namespace

HostFindings look_at_host(const HostQuestion& question)
{
    HostFindings findings;
    for (const auto& check : kChecks)
        append(findings, check(question));
    return findings;
}

}  // namespace tarvik::ctl
