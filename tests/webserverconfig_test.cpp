#include "app/webserverconfig.h"

#include "common/ExSystemError.h"
#include "tests/support/Sandbox.h"

#include <boost/filesystem.hpp>

#include <unistd.h>

#include <fstream>

using namespace sandbox;
namespace fs = boost::filesystem;

namespace {

constexpr char kHeader[] = "# ATTENTION!\n"
                           "# DO NOT MODIFY THIS FILE OR ANY PART OF IT. THIS CAN RESULT IN IMPROPER TARVIK\n"
                           "# FUNCTIONING OR FAILURE, CAUSE DAMAGE AND LOSS OF DATA.\n";

class WebserverConfig : public testing::Test {
protected:
    WebserverConfig()
    {
        fs::create_directories(conf());
        std::ofstream("/etc/oxa/oxa.conf") << "HTTPD_VHOSTS_D " << site_.path() << "\n";
    }
    ~WebserverConfig() override { fs::remove("/etc/oxa/oxa.conf"); }

    std::string conf(const std::string& below = "") const { return site_.path("system/vhost/conf/" + below); }
    std::string file() const { return conf("siteapp.d/app.conf"); }
    Words command(const Words& changes = {}) const
    {
        return changed({"--install-apache-conf", "--vhost-path=" + site_.vhost(), "--www-root=/docs",
                        "--application-subdirectory=.", "--metadata-file=" + site_.package("APP-META.xml"),
                        "--config-file-name=app.conf"},
                       changes);
    }
    Result install(const Words& changes = {}) const { return zendrel(command(changes)); }
    Result remove(const Words& changes = {}) const
    {
        return zendrel(changed({"--remove-apache-conf", "--vhost-path=" + site_.vhost(), "--www-root=ignored",
                                "--config-file-name=app.conf"},
                               changes));
    }
    /// The text that these mappings give, without the header.
    std::string text(const std::string& mappings, const Words& changes = {}) const
    {
        site_.metadata(mappings);
        EXPECT_EQ(install(changes), says(0, ""));
        const std::string whole = read(file());
        EXPECT_EQ(whole.substr(0, sizeof kHeader - 1), whole.empty() ? "" : kHeader);
        return whole.empty() ? "no file" : whole.substr(sizeof kHeader - 1);
    }

    Site site_;
};

/// The handlers of one mapping at "/" and the block that they give.
TEST_F(WebserverConfig, WritesEachHandlerByteForByte)
{
    const std::string phpOn = "<IfModule mod_php4.c>\n  php_admin_flag engine on\n"
                              "  AddHandler php-script .php .php3 \n</IfModule>\n\n"
                              "<IfModule mod_php5.c>\n  php_admin_flag engine on\n"
                              "  AddHandler php5-script .php .php3 \n</IfModule>\n";
    const std::string phpOff = "<IfModule mod_php4.c>\n  php_admin_flag engine off\n</IfModule>\n"
                               "<IfModule mod_php5.c>\n  php_admin_flag engine off\n</IfModule>\n";
    const std::string cgiOff = "<IfModule mod_cgi.c>\n  Options -ExecCGI\n</IfModule>\n";
    const std::string cgiAll = "<IfModule mod_cgi.c>\n  Options +ExecCGI\n  <Files *>\n"
                               "    SetHandler None\n    SetHandler cgi-script\n  </Files>\n"
                               "</IfModule>\n";
    const auto byExtension = [](const std::string& lines) {
        return "<IfModule mod_cgi.c>\n  Options +ExecCGI\n  <Files ~ (\\.pl$)>\n"
               "    SetHandler None\n  </Files>\n"
            + lines + "</IfModule>\n";
    };
    const std::string php = "<php:handler><php:extension>php</php:extension>"
                            "<php:extension>php3</php:extension></php:handler>";
    struct Case {
        const char* why;
        std::string handlers;
        std::string body;
    };
    const Case cases[] = {
        {"php on", php, phpOn},
        {"php off", "<php:handler><php:disabled/></php:handler>", phpOff},
        {"php without extensions", "<php:handler/>", ""},
        {"no handlers", "", ""},
        {"cgi off", "<cgi:handler><cgi:disabled/></cgi:handler>", cgiOff},
        {"cgi all", "<cgi:handler><cgi:all-files/></cgi:handler>", cgiAll},
        {"cgi without extensions", "<cgi:handler/>", byExtension("")},
        {"cgi and php by extension",
         "<cgi:handler><cgi:extension>pl</cgi:extension><cgi:extension>php</cgi:extension>"
         "<cgi:extension>cgi</cgi:extension><cgi:extension>php</cgi:extension></cgi:handler>",
         byExtension("  AddHandler cgi-script .pl .cgi \n  AddHandler php-script .php\n")},
        {"only php by extension", "<cgi:handler><cgi:extension>php</cgi:extension></cgi:handler>",
         byExtension("  AddHandler php-script .php\n")},
        {"php comes first, then all in their order",
         "<cgi:handler><cgi:disabled/></cgi:handler><cgi:handler><cgi:all-files/></cgi:handler>" + php
             + "<php:handler><php:disabled/></php:handler>",
         phpOn + phpOff + cgiOff + cgiAll},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(text("<mapping url='/'>" + c.handlers + "</mapping>"),
                  c.body.empty() ? "no file" : "<Directory /docs/ >\n\n" + c.body + "\n</Directory>\n\n");
    }
}

TEST_F(WebserverConfig, PlacesMappingsAndRedirects)
{
    const std::string mappings = "<mapping url='//a//'><cgi:handler><cgi:disabled/></cgi:handler>"
                                 "</mapping><mapping url='old/' virtual='redirect' href='/new'/>"
                                 "<mapping url='/' virtual='redirect' href='http://h/'/>";
    const std::string cgiOff = "<IfModule mod_cgi.c>\n  Options -ExecCGI\n</IfModule>\n";
    EXPECT_EQ(text(mappings),
              "RedirectPermanent / http://h/\n\nRedirectPermanent /old /new\n\n"
              "<Directory /docs/a// >\n\n"
                  + cgiOff + "\n</Directory>\n\n");
    EXPECT_EQ(text(mappings, {"--application-subdirectory=blog"}),
              "RedirectPermanent /blog http://h/\n\nRedirectPermanent /blog/old /new\n\n"
              "<Directory /docs/blog/a// >\n\n"
                  + cgiOff + "\n</Directory>\n\n");
    // A trailing separator names the same host.
    EXPECT_EQ(text(mappings, {"--vhost-path=/any/vhost//", "--www-root=rel"}),
              "RedirectPermanent / http://h/\n\nRedirectPermanent /old /new\n\n"
              "<Directory rel/a// >\n\n"
                  + cgiOff + "\n</Directory>\n\n");
}

TEST_F(WebserverConfig, LeavesTheFileAloneInTheEnd)
{
    const std::string handlers = "<mapping url='/'><php:handler><php:disabled/></php:handler>"
                                 "<cgi:handler><cgi:disabled/></cgi:handler></mapping>";
    const std::string both = text(handlers, {"--disable-php-support", "--disable-cgi-support"});
    const std::string cgiOnly = text(handlers, {"--disable-php-support=1"});
    const std::string phpOnly = text(handlers, {"--disable-cgi-support=-1"});
    EXPECT_EQ(cgiOnly.find("php"), std::string::npos);
    EXPECT_EQ(phpOnly.find("CGI"), std::string::npos);
    EXPECT_NE(both, cgiOnly);
    EXPECT_EQ(mode_of(file()), 0600u);
    EXPECT_EQ(site_.tree("system/vhost/conf").size(), 2u);  // nothing temporary stays

    EXPECT_EQ(text(handlers, {"--disable-php-support=1", "--disable-cgi-support=1", "--metadata-file=none"}),
              "no file");
    text(handlers);
    EXPECT_EQ(text("<mapping url='/'/>"), "no file");
    text(handlers);
    EXPECT_EQ(remove({"--vhost-path=" + site_.vhost() + "/"}), says(0, ""));
    EXPECT_EQ(remove(), says(0, ""));
    EXPECT_EQ(site_.tree("system/vhost/conf").size(), 1u);
}

TEST_F(WebserverConfig, ErrorsKeepTheOldFileAndNothingTemporary)
{
    const std::string off = "<mapping url='/'><cgi:handler><cgi:disabled/></cgi:handler></mapping>";
    const std::string old = text(off);
    EXPECT_EQ(install({"--metadata-file=none"}),
              says(255,
                   "XML occured during processing the package file none: "
                   "Unable to load file: none\n"));
    std::string many;
    for (int i = 0; i < 100; ++i)
        many += off;
    site_.metadata(many);
    EXPECT_EQ(zendrel(command(), "", {4096, 0}).status, 255);
    EXPECT_EQ(read(file()), kHeader + old);
    EXPECT_EQ(site_.tree("system/vhost/conf").size(), 2u);

    EXPECT_EQ(install({"--vhost-path=/no/host"}),
              says(255,
                   "Filesystem exception during config creation: "
                   "boost::filesystem::create_directory: No such file or directory: \""
                       + site_.path("system/host/conf//siteapp.d") + "\" error code: (system:2)\n"));
    // What is neither ends the process. Nobody can make a file in a directory of that name.
    const Result other = install({"--config-file-name=" + std::string(252, 'n')});
    EXPECT_EQ(other.status, 128 + SIGABRT);
    EXPECT_NE(other.err.find("mkstemp() failed: : File name too long"), std::string::npos) << other.err;
}

TEST_F(WebserverConfig, RemovalFailuresReachTheTop)
{
    fs::create_directories(conf("siteapp.d/app.conf/x"));
    EXPECT_EQ(remove(),
              says_twice(1,
                         "Fatal error: boost::filesystem::filesystem_error("
                         "boost::filesystem::remove: Directory not empty: \""
                             + conf("/siteapp.d/app.conf") + "\")\n"));
    EXPECT_EQ(zendrel({"--remove-apache-conf"}).status, 1);
    EXPECT_EQ(install({"--disable-php-support=x"}).status, 1);
}

}  // namespace
