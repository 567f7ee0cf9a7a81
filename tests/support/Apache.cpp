#include "tests/support/Apache.h"

#include <utility>

namespace sandbox {

Apache::Apache(const Site& site, const std::string& settings)
    : site_(site), address_("127." + std::to_string(getpid()) + ":18080")
{
    site_.shell(
        "mkdir server; cat >httpd.conf <<END\n"
        "$(for name in mpm_prefork authz_core mime dir alias cgi cgid proxy proxy_fcgi; do echo \"<IfDefine "
        "$name>\n\"\n"
        "echo \"LoadModule ${name}_module /usr/lib/apache2/modules/mod_$name.so\n</IfDefine>\"; done)\n"
        "ServerRoot $PWD/server\nDefaultRuntimeDir $PWD/server\nPidFile pid\nErrorLog log\nServerName localhost\n"
        "User www-data\nGroup www-data\nTypesConfig /dev/null\nDocumentRoot $PWD/vhost/httpdocs\n"
        "<IfDefine !nophp>\nInclude /etc/apache2/mods-available/php*.load\n</IfDefine>\n"
        + settings + "\nEND");
}

std::string Apache::command(const std::string& options) const
{
    const std::string always = "/httpd.conf -Dmpm_prefork -Dauthz_core -Dmime -Ddir -c 'Listen " + address_ + "' ";
    return "exec apache2 -f " + site_.path() + always + options;
}

void Apache::restart(const std::string& options)
{
    stop();
    server_ = fork();
    if (server_ == 0 && setpgid(0, 0) == 0)  // it ends its whole group
        _exit(execl("/bin/sh", "sh", "-c", command("-DFOREGROUND " + options).c_str(), nullptr));
    while (get("/").compare(0, 3, "000") == 0)  // it does not listen yet
        ASSERT_EQ(waitpid(server_, nullptr, WNOHANG), 0) << read(site_.path("server/log"));
}

void Apache::stop()
{
    if (server_ > 0 && kill(server_, SIGTERM) == 0)
        waitpid(std::exchange(server_, 0), nullptr, 0);
}

std::string Apache::get(const std::string& path, const std::string& data) const
{
    const std::string form = "%{stderr}%{http_code} %{redirect_url}\n";
    const Result result = run({"curl", "-sgw", form, "--path-as-is", "http://" + address_ + path, data});
    return result.err + result.out;
}

}  // namespace sandbox
