// What the generated files do in a real Apache. Each sentence of docs/apache.md is seen here.

#include "tests/support/Sandbox.h"

#include <boost/filesystem.hpp>

#include <unistd.h>

#include <csignal>
#include <fstream>

using namespace sandbox;
namespace fs = boost::filesystem;

namespace {

class Apache : public testing::Test {
protected:
    Apache()
    {
        fs::create_directories(site_.path("system/vhost/conf"));
        std::ofstream("/etc/oxa/oxa.conf") << "HTTPD_VHOSTS_D " << site_.path() << "\n";
        fs::create_directories(site_.path("server"));
    }
    ~Apache() override
    {
        stop();
        fs::remove("/etc/oxa/oxa.conf");
    }

    /// Writes a server configuration that includes the generated files.
    void configure(const Words& modules, const std::string& directives = "") const
    {
        const std::string server = site_.path("server");
        std::ofstream conf(site_.path("httpd.conf"));
        for (const std::string& name : changed({"mpm_prefork", "authz_core", "alias", "mime", "dir"}, modules))
            conf << (name == "php*" ? "Include /etc/apache2/mods-available/php*.load"
                                    : "LoadModule " + name + "_module /usr/lib/apache2/modules/mod_" + name + ".so")
                 << "\n";
        conf << "ServerRoot " << server << "\nPidFile " << server << "/pid\nErrorLog " << server
             << "/log\nMutex file:" << server << "\nListen " << address_
             << "\nServerName localhost\nUser www-data\nGroup www-data\nStartServers 1\n"
             << "TypesConfig /dev/null\nAddType text/html .html\nDirectoryIndex index.html\nDocumentRoot "
             << site_.docroot() << "\n<Directory " << site_.docroot()
             << ">\nRequire all granted\nOptions None\n</Directory>\n"
             << directives << "\nIncludeOptional " << site_.path("system/vhost/conf/siteapp.d/*.conf") << "\n";
    }
    void stop() const
    {
        const int pid = std::atoi(read(site_.path("server/pid")).c_str());
        for (int signal = SIGTERM; pid > 0 && kill(pid, signal) == 0; signal = 0)
            usleep(1000);
    }
    void restart() const
    {
        stop();
        ASSERT_EQ(apache({"-k", "start"}).status, 0) << read(site_.path("server/log"));  // it listens by then
    }
    Result apache(const Words& words) const { return run(changed({"apache2", "-f", site_.path("httpd.conf")}, words)); }
    void install_conf() const
    {
        ASSERT_EQ(zendrel({"--install-apache-conf", "--vhost-path=" + site_.vhost(),
                           "--www-root=" + site_.path("vhost/httpdocs"), "--application-subdirectory=.",
                           "--metadata-file=" + site_.package("APP-META.xml"), "--config-file-name=app.conf"}),
                  says(0, ""));
    }
    /// Installs the package and starts the server.
    void deploy() const
    {
        ASSERT_EQ(zendrel(site_.extract()), says(0, ""));
        install_conf();
        configure({"cgi", "php*"});
        restart();
    }
    /// @return status, redirection target and body.
    std::string get(const std::string& path, const Words& options = {}) const
    {
        const Words words = {"curl", "-s", "-w", "|%{http_code} %{redirect_url}", "http://" + address_ + path};
        const std::string out = run(changed(words, options)).out;
        const std::size_t bar = out.rfind('|');
        return out.substr(bar + 1) + "\n" + out.substr(0, bar);
    }

    const Site site_;
    /// An address of the loopback interface that is this process's own.
    const std::string address_ =
        "127.1." + std::to_string(getpid() / 256 % 256) + "." + std::to_string(getpid() % 256) + ":18080";
};

constexpr char kProgram[] = "#!/bin/sh\necho 'Content-Type: text/plain'; echo; echo r'a'n\n";
const std::string kRan = "200 \nran\n";
const std::string kSource = "200 \n" + std::string(kProgram);

TEST_F(Apache, ServesTheGuestbookThroughItsLife)
{
    ASSERT_EQ(run({"cp", "-r", ZENDREL_SOURCE_DIR "/examples/packages/guestbook", site_.path("package")}).status, 0);
    deploy();
    for (const char* path : {"/", "/style.css", "/docs/index.html", "/cgi-bin/guestbook.pl"})
        EXPECT_EQ(get(path).substr(0, 4), "200 ") << path;
    EXPECT_EQ(get("/home").find("301 http://www.example.com/guestbook\n"), 0u);
    EXPECT_EQ(get("/cgi-bin/guestbook.pl", {"-d", "name=Ann&message=hello+there"}).substr(0, 4), "303 ");
    EXPECT_NE(get("/cgi-bin/guestbook.pl").find("hello there"), std::string::npos);
    EXPECT_NE(read(site_.docroot("data/entries.txt")).find("hello there"), std::string::npos);

    // The web server may write into the writable mapping and not into the one nested in it.
    site_.put(
        "cgi-bin/probe.pl",
        "#!/usr/bin/perl\nprint \"Content-Type: text/plain\\n\\n\";\nprint open(my $f, '>>', \"../data/$_\") ? 1 : 0 "
        "for qw(x templates/x templates/page.html);\n",
        0755);
    EXPECT_EQ(get("/cgi-bin/probe.pl"), "200 \n100");
    site_.put("data/run.pl", kProgram, 0755);
    EXPECT_EQ(get("/data/run.pl"), kSource);  // and what lands there is not run

    ASSERT_EQ(zendrel({"--remove-apache-conf", "--vhost-path=" + site_.vhost(),
                       "--www-root=", "--config-file-name=app.conf"}),
              says(0, ""));
    Words files;
    for (const auto& [path, line] : site_.tree())
        files.push_back(path);
    ASSERT_EQ(zendrel(site_.remove(), site_.list(files)), says(0, ""));
    EXPECT_EQ(get("/home").substr(0, 4), "301 ");  // it has not read its configuration again
    restart();
    for (const char* path : {"/index.html", "/cgi-bin/guestbook.pl", "/docs/index.html", "/home"})
        EXPECT_EQ(get(path).substr(0, 4), "404 ") << path;
}

TEST_F(Apache, AcceptsEveryFileThatCanBeGenerated)
{
    const std::string pl = "<cgi:extension>pl</cgi:extension>";
    const std::string php = "<cgi:extension>php</cgi:extension>";
    std::string mappings = "<mapping url='old/' virtual='redirect' href='/new'/>";
    for (const std::string p : {"", "<php:disabled/>", "<php:extension>php</php:extension>"}) {
        for (const std::string& c : Words {"", "<cgi:disabled/>", "<cgi:all-files/>", pl, php, pl + php})
            mappings +=
                "<mapping url='m'><php:handler>" + p + "</php:handler><cgi:handler>" + c + "</cgi:handler></mapping>";
    }
    site_.metadata(mappings);
    install_conf();
    configure({"cgi", "php*"});
    EXPECT_EQ(apache({"-t"}), says(0, "Syntax OK\n"));
    const std::string conf = read(site_.path("httpd.conf"));
    const auto status_with = [&](const std::string& what, const std::string& with) {
        std::ofstream(site_.path("httpd.conf")) << std::string(conf).replace(conf.find(what), what.size(), with);
        return apache({"-t"}).status;
    };
    EXPECT_NE(status_with("LoadModule alias", "#"), 0);
    EXPECT_EQ(status_with("IncludeOptional", "Include"), 0);
    fs::remove(site_.path("system/vhost/conf/siteapp.d/app.conf"));
    EXPECT_NE(status_with("IncludeOptional", "Include"), 0);
    EXPECT_EQ(status_with("Include", "Include"), 0);
    // A blank in a redirection's target makes one word too many, and the server does not start.
    site_.metadata("<mapping url='old' virtual='redirect' href='/a b'/>");
    install_conf();
    EXPECT_NE(apache({"-t"}).status, 0);
}

TEST_F(Apache, RunsWhatItsModulesAndItsOwnConfigurationAllow)
{
    const std::string page = "<?php echo 'ran', \"\\n\";";
    site_.metadata(
        "<mapping url='/' path='htdocs'>"
        "<mapping url='cgi'><cgi:handler><cgi:extension>pl</cgi:extension></cgi:handler>"
        "<mapping url='off'><cgi:handler><cgi:disabled/></cgi:handler></mapping></mapping>"
        "<mapping url='all'><cgi:handler><cgi:all-files/></cgi:handler></mapping>"
        "<mapping url='off'><cgi:handler><cgi:disabled/></cgi:handler></mapping>"
        "<mapping url='php/on'><php:handler><php:extension>php</php:extension></php:handler></mapping>"
        "<mapping url='php/off'><php:handler><php:disabled/></php:handler></mapping>"
        "<mapping url='php/cgi'><cgi:handler><cgi:extension>php</cgi:extension></cgi:handler></mapping></mapping>");
    const Words programs = {"/cgi/run.pl",  "/cgi/below/run.pl", "/all/run", "/cgi/off/run.pl",
                            "/cgi/run.txt", "/off/run.pl",       "/run.pl"};
    for (const std::string& path : programs)
        site_.write("package/htdocs" + path, kProgram);
    for (const std::string dir : {"on", "off", "cgi"})
        site_.write("package/htdocs/php/" + dir + "/page.php", page);
    deploy();
    for (std::size_t i = 0; i < programs.size(); ++i)
        EXPECT_EQ(get(programs[i]).find(i < 3 ? kRan : i == 3 ? "403 " : kSource), 0u) << programs[i];
    EXPECT_EQ(get("/php/cgi/page.php"), kRan);
    for (const char* path : {"/php/on/page.php", "/php/off/page.php"})
        EXPECT_EQ(get(path), "200 \n" + page) << path;  // sent as it is
    configure({"cgi", "php*"}, "<FilesMatch \"\\.php$\">\nSetHandler application/x-httpd-php\n</FilesMatch>");
    restart();
    for (const char* path : {"/php/on/page.php", "/php/off/page.php"})
        EXPECT_EQ(get(path), kRan) << path;  // the package's wish is not heard
    for (const Words& modules : {Words {}, Words {"cgid"}}) {
        configure(modules, modules.empty() ? "" : "ScriptSock " + site_.path("server/cgid.sock"));
        restart();
        for (const std::string& path : programs)
            EXPECT_EQ(get(path), kSource) << path;
    }
}

}  // namespace
