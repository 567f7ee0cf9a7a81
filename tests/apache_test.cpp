// What the generated files do in a real Apache. Each sentence of docs/apache.md is seen here.

#include "tests/support/Sandbox.h"

#include <boost/filesystem.hpp>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

using namespace sandbox;
namespace fs = boost::filesystem;

namespace {

/// A port of the loopback interface that was free a moment ago.
int free_port()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
    close(fd);
    return ntohs(address.sin_port);
}

class Apache : public testing::Test {
protected:
    Apache()
    {
        fs::create_directories(site_.path("system/vhost/conf"));
        fs::create_directories(site_.path("server"));
        std::ofstream("/etc/oxa/oxa.conf") << "HTTPD_VHOSTS_D " << site_.path() << "\n";
        configure({"cgi"});
    }
    ~Apache() override
    {
        stop();
        fs::remove("/etc/oxa/oxa.conf");
    }

    /// Writes a server configuration that includes the generated files.
    void configure(const Words& modules, const std::string& directives = "") const
    {
        std::ofstream conf(site_.path("httpd.conf"));
        conf << "ServerRoot " << site_.path("server") << "\nServerName localhost\n"
             << "PidFile " << pid_file() << "\nErrorLog " << site_.path("server/error.log") << "\n"
             << "Mutex file:" << site_.path("server") << "\nListen 127.0.0.1:" << port_ << "\n";
        Words all = {"mpm_prefork", "authz_core", "alias", "mime", "dir"};
        all.insert(all.end(), modules.begin(), modules.end());
        for (const std::string& module : all) {
            const std::string file = module == "php" ? php_module() : "mod_" + module + ".so";
            conf << "LoadModule " << module << "_module /usr/lib/apache2/modules/" << file << "\n";
        }
        conf << "User www-data\nGroup www-data\nStartServers 1\nTypesConfig /dev/null\n"
             << "AddType text/html .html\nDirectoryIndex index.html\n"
             << "DocumentRoot " << docroot() << "\n<Directory " << docroot() << ">\n"
             << "Require all granted\nOptions None\n</Directory>\n"
             << directives << "\nIncludeOptional " << site_.path("system/vhost/conf/siteapp.d/*.conf") << "\n";
    }
    Result apache(const Words& arguments) const
    {
        Words words = {"apache2", "-f", site_.path("httpd.conf")};
        words.insert(words.end(), arguments.begin(), arguments.end());
        return run(words);
    }
    void start() const
    {
        const Result started = apache({"-k", "start"});  // it listens when this returns
        ASSERT_EQ(started.status, 0) << started << read(site_.path("server/error.log"));
    }
    void stop() const
    {
        const std::string pid = read(pid_file());
        if (pid.empty())
            return;
        kill(std::stoi(pid), SIGTERM);
        while (kill(std::stoi(pid), 0) == 0)
            usleep(1000);
        fs::remove(pid_file());
    }
    void restart() const
    {
        stop();
        start();
    }

    std::string docroot() const { return site_.path("vhost/httpdocs"); }
    std::string pid_file() const { return site_.path("server/pid"); }
    static std::string php_module()
    {
        for (const fs::directory_entry& entry : fs::directory_iterator("/usr/lib/apache2/modules")) {
            if (entry.path().filename().native().compare(0, 6, "libphp") == 0)
                return entry.path().filename().native();
        }
        return "libphp.so";
    }

    Words install_conf() const
    {
        return {"--install-apache-conf",
                "--vhost-path=" + site_.vhost(),
                "--www-root=" + docroot(),
                "--application-subdirectory=.",
                "--metadata-file=" + site_.package("APP-META.xml"),
                "--config-file-name=app.conf"};
    }
    /// Installs a package with these mappings and the files already written.
    void deploy() const
    {
        ASSERT_EQ(zendrel(site_.extract()), says(0, ""));
        ASSERT_EQ(zendrel(install_conf()), says(0, ""));
    }
    /// @return status, redirection target and body.
    std::string get(const std::string& path, const Words& options = {}) const
    {
        Words words = {"curl", "-s", "-w", "|%{http_code} %{redirect_url}"};
        words.insert(words.end(), options.begin(), options.end());
        words.push_back("http://127.0.0.1:" + std::to_string(port_) + path);
        const Result result = run(words);
        const std::size_t bar = result.out.rfind('|');
        return result.out.substr(bar + 1) + "\n" + result.out.substr(0, bar);
    }
    std::string status(const std::string& path) const { return get(path).substr(0, 3); }

    Site site_;
    const int port_ = free_port();
};

constexpr char kProgram[] = "#!/bin/sh\necho 'Content-Type: text/plain'; echo; echo r'a'n\n";
const std::string kRan = "200 \nran\n";
const std::string kSource = "200 \n" + std::string(kProgram);

TEST_F(Apache, ServesTheGuestbookThroughItsLife)
{
    fs::remove_all(site_.path("package"));
    ASSERT_EQ(run({"cp", "-r", ZENDREL_SOURCE_DIR "/examples/packages/guestbook", site_.path("package")}).status, 0);
    deploy();
    start();
    EXPECT_EQ(status("/"), "200");
    EXPECT_EQ(status("/style.css"), "200");
    EXPECT_EQ(status("/docs/index.html"), "200");
    EXPECT_EQ(get("/home"),
              "301 http://www.example.com/guestbook\n" + get("/home").substr(get("/home").find('\n') + 1));

    const std::string page = "/cgi-bin/guestbook.pl";
    EXPECT_EQ(status(page), "200");
    const std::string posted = get(page, {"-d", "name=Ann&message=hello+from+a+test"});
    EXPECT_EQ(posted.substr(0, 3), "303");
    EXPECT_NE(get(page).find("hello from a test"), std::string::npos);
    EXPECT_NE(read(docroot() + "/data/entries.txt").find("hello from a test"), std::string::npos);

    // The web server may write into the writable mapping and not into the one nested in it.
    site_.put("cgi-bin/probe.pl",
              "#!/usr/bin/perl\nprint \"Content-Type: text/plain\\n\\n\";\n"
              "print open(my $f, '>>', $_) ? 1 : 0 for qw(../data/x ../data/templates/x "
              "../data/templates/page.html);\n",
              0755);
    EXPECT_EQ(get("/cgi-bin/probe.pl"), "200 \n100");
    site_.put("tools/run", kProgram, 0755);
    EXPECT_EQ(get("/tools/run"), kRan);  // all files are programs there
    site_.put("data/run.pl", kProgram, 0755);
    EXPECT_EQ(get("/data/run.pl"), kSource);  // and none is here

    ASSERT_EQ(zendrel({"--remove-apache-conf", "--vhost-path=" + site_.vhost(),
                       "--www-root=", "--config-file-name=app.conf"}),
              says(0, ""));
    Words files;
    for (const auto& [path, line] : site_.tree())
        files.push_back(path);
    ASSERT_EQ(zendrel(site_.remove(), site_.list(files)), says(0, ""));
    restart();
    for (const char* path : {"/index.html", "/cgi-bin/guestbook.pl", "/docs/index.html", "/home"})
        EXPECT_EQ(status(path), "404") << path;
}

TEST_F(Apache, AcceptsEveryFileThatCanBeGenerated)
{
    const Words php = {"", "<php:handler/>", "<php:handler><php:disabled/></php:handler>",
                       "<php:handler><php:extension>php</php:extension></php:handler>",
                       "<php:handler><php:extension>php</php:extension></php:handler>"
                       "<php:handler><php:disabled/></php:handler>"};
    const Words cgi = {"",
                       "<cgi:handler/>",
                       "<cgi:handler><cgi:disabled/></cgi:handler>",
                       "<cgi:handler><cgi:all-files/></cgi:handler>",
                       "<cgi:handler><cgi:extension>pl</cgi:extension></cgi:handler>",
                       "<cgi:handler><cgi:extension>php</cgi:extension></cgi:handler>",
                       "<cgi:handler><cgi:extension>pl</cgi:extension><cgi:extension>php</cgi:extension>"
                       "</cgi:handler><cgi:handler><cgi:disabled/></cgi:handler>"};
    std::string mappings = "<mapping url='old/' virtual='redirect' href='/new'/>";
    for (const std::string& p : php) {
        for (const std::string& c : cgi)
            mappings += "<mapping url='m" + std::to_string(mappings.size()) + "'>" + p + c + "</mapping>";
    }
    site_.metadata(mappings);
    ASSERT_EQ(zendrel(install_conf()), says(0, ""));
    for (const Words& modules : {Words {}, Words {"cgi"}, Words {"cgid"}, Words {"cgi", "php"}}) {
        configure(modules);
        EXPECT_EQ(apache({"-t"}), says(0, "Syntax OK\n"));
    }
    const std::string conf = read(site_.path("httpd.conf"));
    const auto replaced = [&](const std::string& what, const std::string& with) {
        std::ofstream(site_.path("httpd.conf")) << std::string(conf).replace(conf.find(what), what.size(), with);
        return apache({"-t"}).status;
    };
    EXPECT_NE(replaced("LoadModule alias", "#"), 0);
    EXPECT_EQ(replaced("IncludeOptional", "Include"), 0);
    EXPECT_NE(replaced("IncludeOptional " + site_.path(), "Include /none"), 0);
    configure({"cgi"});

    // A blank in a redirection's target makes one word too many, and the server does not start.
    site_.metadata("<mapping url='old' virtual='redirect' href='/a b'/>");
    ASSERT_EQ(zendrel(install_conf()), says(0, ""));
    EXPECT_NE(apache({"-t"}).status, 0);
}

TEST_F(Apache, RunsProgramsWithOneOfItsTwoCgiModulesOnly)
{
    site_.metadata("<mapping url='/' path='htdocs'>"
                   "<mapping url='cgi'><cgi:handler><cgi:extension>pl</cgi:extension></cgi:handler>"
                   "<mapping url='off'><cgi:handler><cgi:disabled/></cgi:handler></mapping></mapping>"
                   "<mapping url='all'><cgi:handler><cgi:all-files/></cgi:handler></mapping></mapping>");
    for (const char* file : {"cgi/run.pl", "cgi/run.txt", "cgi/off/run.pl", "all/run", "run.pl"})
        site_.write(std::string("package/htdocs/") + file, kProgram);
    deploy();
    start();
    EXPECT_EQ(get("/cgi/run.pl"), kRan);
    EXPECT_EQ(get("/cgi/run.txt"), kSource);
    EXPECT_EQ(status("/cgi/off/run.pl"), "403");
    EXPECT_EQ(get("/all/run"), kRan);
    EXPECT_EQ(get("/run.pl"), kSource);
    for (const Words& modules : {Words {}, Words {"cgid"}}) {
        stop();
        configure(modules, modules.empty() ? "" : "ScriptSock " + site_.path("server/cgid.sock"));
        start();
        EXPECT_EQ(get("/cgi/run.pl"), kSource);
        EXPECT_EQ(get("/cgi/off/run.pl"), kSource);
        EXPECT_EQ(get("/all/run"), kSource);
    }
}

TEST_F(Apache, LeavesPhpToTheServersOwnConfiguration)
{
    const std::string page = "<?php echo 'r', 'an';";
    site_.metadata("<mapping url='/' path='htdocs'>"
                   "<mapping url='on'><php:handler><php:extension>php</php:extension></php:handler></mapping>"
                   "<mapping url='off'><php:handler><php:disabled/></php:handler></mapping>"
                   "<mapping url='cgi'><cgi:handler><cgi:extension>php</cgi:extension></cgi:handler></mapping>"
                   "</mapping>");
    for (const char* dir : {"on", "off", "cgi"})
        site_.write("package/htdocs/" + std::string(dir) + "/page.php", page);
    deploy();
    configure({"cgi", "php"});
    start();
    EXPECT_EQ(get("/on/page.php"), "200 \n" + page);  // sent as it is
    EXPECT_EQ(get("/off/page.php"), "200 \n" + page);
    EXPECT_EQ(get("/cgi/page.php"), "200 \nran");
    stop();
    configure({"cgi", "php"}, "<FilesMatch \"\\.php$\">\nSetHandler application/x-httpd-php\n</FilesMatch>");
    start();
    EXPECT_EQ(get("/on/page.php"), "200 \nran");
    EXPECT_EQ(get("/off/page.php"), "200 \nran");  // the package's wish is not heard
}

}  // namespace
