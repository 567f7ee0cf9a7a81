#include "tests/support/Sandbox.h"

using namespace sandbox;

namespace {

/// A host that lacks nothing. Its accounts and settings are put back in the end.
class CheckHost : public testing::Test {
protected:
    CheckHost()
    {
        site_.shell("cp -p /etc/passwd /etc/group /etc/shadow /etc/gshadow .; mkdir -p vhosts/system/vhost/conf "
                    "apache/mods-enabled\n"
                    "cat >good.conf <<END\nHTTPD_VHOSTS_D $PWD/vhosts # kept here\nHTTPD_CONF_D $PWD/apache\n"
                    "CLIENT_PHP_BIN $(command -v php)\nEND\ncp good.conf /etc/oxa/oxa.conf\n"
                    "cd apache; for name in alias mime authz_core mpm_prefork cgi php; do\n"
                    "echo LoadModule ${name}_module $name.so >mods-enabled/$name.load; done\n"
                    "echo IncludeOptional mods-enabled >apache2.conf\n"
                    "echo \"  includeOptional \\\"$OLDPWD/vhosts/system/*/conf/siteapp.d/*.conf\\\"\" >>apache2.conf");
    }
    ~CheckHost() override { site_.shell("cp -p passwd group shadow gshadow /etc"); }

    /// @return what is found, with the site's directory as "@".
    std::string look(const std::string& user = "alice") const
    {
        const Words words = {"check-host", "--vhost-path=" + site_.vhost(), "--user-name=" + user};
        const Result result = site_.plain(zendrelctl(words));
        return result.out + std::to_string(result.status) + result.err;
    }
    /// @return the same, and what is found after each cure was applied.
    std::string look_and_cure(const std::string& user = "alice") const
    {
        const std::string found = look(user);
        std::istringstream lines(found);
        for (std::string line; std::getline(lines, line);) {
            const std::size_t cure = line.find("cure: ");
            if (cure != std::string::npos)
                site_.shell(boost::replace_all_copy("(" + line.substr(cure + 6) + ") >/dev/null", "@", site_.path()));
        }
        return found + look(user);
    }

    const Site site_;
};

TEST_F(CheckHost, FindsWhatIsMissingAndNamesItsCure)
{
    const std::string lost = std::string(std::getenv("SANDBOX_DIR")) + "/missing";
    const std::string www =
        "user www-data is not in group oxaserv    cure: usermod --append --groups oxaserv www-data\n";
    const std::string primary = " has another primary group than oxacln    cure: usermod --gid oxacln ";
    const struct {
        const char* harm;
        std::string found, user = "alice", left = "0";  // by the cure
    } cases[] = {
        {"sed -i /^oxacln:/d /etc/group", "missing group oxacln    cure: groupadd --system oxacln\n", "alice",
         "user alice" + primary + "alice\n2"},
        {"sed -i 's/^oxaserv:.*/oxaserv:x:0:www-data/' /etc/group",
         "group oxaserv is root's    cure: sed -i '/^oxaserv:/d' /etc/group && groupadd --system oxaserv\n", "alice",
         www + "2"},
        {"sed -i s/^oxaserv:.*/oxaserv:x:28011:alice/ /etc/group", www},
        {"", "user lost has no home directory " + lost + "    cure: install -d -o lost -g oxacln " + lost + "\n",
         "lost"},
        {"", "user carol" + primary + "carol\n", "carol"},
        {"rm -r vhosts/system",
         "missing directory @/vhosts/system    cure: install -d @/vhosts/system\n"
         "missing directory @/vhosts/system/vhost    cure: install -d @/vhosts/system/vhost\n"
         "missing directory @/vhosts/system/vhost/conf    cure: install -d @/vhosts/system/vhost/conf\n"},
        {"chmod 775 vhosts; chown alice vhosts/system",
         "@/vhosts is open to others than root    cure: chmod go-w @/vhosts\n"
         "@/vhosts/system belongs to another user than root    cure: chown root @/vhosts/system\n"},
        {"mv vhost away", "missing directory @/vhost    cure: install -d @/vhost\n"},
        {"mkdir -m 750 /var/lib/zendrel",
         "/var/lib/zendrel is open to others than root    cure: chmod go= /var/lib/zendrel\n"},
        {"chmod 666 /etc/oxa/oxa.conf",
         "/etc/oxa/oxa.conf can be changed by others than root    "
         "cure: chown root /etc/oxa/oxa.conf && chmod go-w /etc/oxa/oxa.conf\n"},
        {"sed -i 's/includeOptional \"/Include \"/' apache/apache2.conf",
         "line 2 of @/apache/apache2.conf keeps the server from starting while no application has a file: Include    "
         "cure: sed -i 2s/Include/IncludeOptional/I @/apache/apache2.conf\n"},
    };
    EXPECT_EQ(look(), "0");
    for (const auto& each : cases) {
        site_.shell(each.harm);
        EXPECT_EQ(look_and_cure(each.user), each.found + "2" + each.left);
        site_.shell("cp -p passwd group shadow gshadow /etc; rm -rf $SANDBOX_DIR/missing");
    }
    EXPECT_EQ(look("dave"), "missing user dave    cure: useradd --create-home --gid oxacln dave\n2");
    EXPECT_EQ(look("root").find("user root is root"), 0u);
}

TEST_F(CheckHost, FindsTheMistakesThatTheFileOfPathsHides)
{
    const std::string off = "s/^/#/", separate = "s/[[:space:]]*=[[:space:]]*/ /", cut = "s/[[:space:]]+$//";
    const std::string none = "is skipped: it has no key and value: ", strange = "has a key that is not known: ";
    const std::string blanks = "has blanks, or another system's line end, as part of its value: ";
    const std::string again = "has no effect: its key comes again: ";
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"  # MYSQL_BIN_D=/usr\n \n", "", ""},
        {"MYSQL_BIN_D=/usr\n", "is skipped: blanks separate a key from its value, no \"=\": MYSQL_BIN_D=/usr",
         separate},
        {"MYSQL_BIN_D = /usr\n", "has an \"=\" as part of its value: MYSQL_BIN_D = /usr", separate},
        {"MYSQL_BIN_D\n", none + "MYSQL_BIN_D", off},
        {"MYSQL_BIN /usr\n", strange + "MYSQL_BIN /usr", off},
        {"_MAX_POSSIBLE_OXA_CONF_VAR_NAME x\n", strange + "_MAX_POSSIBLE_OXA_CONF_VAR_NAME x", off},
        {"MYSQL_BIN_D \"/usr\"\n", "has quotes as part of its value: MYSQL_BIN_D \"/usr\"", "s/\"//g"},
        {"MYSQL_BIN_D /usr \n", blanks + "MYSQL_BIN_D /usr ", cut},
        {"DUMP_D /tmp\r\n", blanks + "DUMP_D /tmp\\x0d", cut},
        {"DUMP_D /tmp  # c\n", "has blanks as part of its value: DUMP_D /tmp  # c", "s/[[:space:]]+#/ #/"},
        {"DUMP_D /x # c\nDUMP_D /y\nDUMP_D /tmp\n", again + "DUMP_D /x # c", off},
        {"DUMP_D /no/such\n", "names a path that does not exist: DUMP_D /no/such", off},
    };
    for (const auto& [text, found, cure] : cases) {
        site_.write("text", text);
        site_.shell("cat text good.conf >/etc/oxa/oxa.conf");
        const auto line = [&cure = cure](const std::string& number, const std::string& mistake) {
            return "line " + number + " of /etc/oxa/oxa.conf " + mistake + "    cure: sed -i -E '" + number + cure
                + "' /etc/oxa/oxa.conf\n";
        };
        std::string expected = found.empty() ? "0" : line("1", found) + "2";
        if (found.find(again) == 0)
            expected.insert(expected.size() - 1, line("2", again + "DUMP_D /y"));
        EXPECT_EQ(look_and_cure(), expected + "0") << text;
    }
    site_.shell("rm /etc/oxa/oxa.conf; mkdir /etc/oxa/oxa.conf");
    EXPECT_EQ(look().find("/etc/oxa/oxa.conf cannot be read    cure: mv "), 0u);
}

TEST_F(CheckHost, SeesWhatTheServerHasEnabled)
{
    const std::pair<std::string, std::string> cases[] = {
        {"rm alias.load mime.load authz_core.load",
         "no mod_alias: redirects keep the server from starting    cure: a2enmod alias\n"
         "no mod_mime: CGI programs are sent out as source    cure: a2enmod mime\n"
         "no mod_authz_core: the directives for PHP keep the server from starting    cure: a2enmod authz_core\n2"},
        {"rm cgi.load", "no mod_cgi: CGI programs are sent out as source    cure: a2enmod cgi\n2"},
        {"rm cgi.load mpm_prefork.load; echo LoadModule cgid_module x >x.load; echo LoadModule mpm_event_module x "
         ">y.load",
         "mod_cgid in place of mod_cgi: CGI programs are sent out as source    "
         "cure: a2dismod mpm_event && a2enmod mpm_prefork cgi\n"
         "mod_php in a server with threads    cure: a2dismod mpm_event && a2enmod mpm_prefork\n2"},
        {"rm php.load; echo LoadModule proxy_module x >x.load",
         "neither mod_php nor mod_proxy_fcgi: PHP does not run    cure: a2enmod proxy_fcgi\n2"},
        {"rm php.load; echo LoadModule proxy_module x >x.load; echo LoadModule proxy_fcgi_module x >y.load", "0"},
        {"rm ../apache2.conf", "no configuration of Apache: @/apache/apache2.conf    cure: apt-get install apache2\n2"},
        {"sed -i 's#/system.*#/*.conf#' ../apache2.conf; echo Include apache2.conf >circle.conf",
         "the files of applications are not included    cure: put into the <VirtualHost> of the host: "
         "IncludeOptional @/vhosts/system/vhost/conf/siteapp.d/*.conf\n2"},
    };
    site_.shell("cp -r apache saved");
    for (const auto& [harm, found] : cases) {
        site_.shell("cd apache/mods-enabled\n" + harm);
        EXPECT_EQ(look(), found);
        site_.shell("rm -r apache; cp -r saved apache");
    }
    // The PHP of the search path is made the configured one.
    site_.shell("sed -i s/^CLIENT.*// /etc/oxa/oxa.conf");
    const std::string found = look_and_cure();
    EXPECT_EQ(found.find("no php that everybody may run: /opt/oxa/bin/php-cli    cure: mkdir -p /etc/oxa && "), 0u);
    EXPECT_EQ(found.substr(found.find('\n')), "\n20");
}

}  // namespace
