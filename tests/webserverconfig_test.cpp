#include "app/webserverconfig.h"

#include "tests/support/Sandbox.h"

#include <boost/filesystem.hpp>

#include <csignal>
#include <fstream>

using namespace sandbox;
namespace fs = boost::filesystem;

namespace {

const std::string kHeader =
    "# ATTENTION!\n# DO NOT MODIFY THIS FILE OR ANY PART OF IT. THIS CAN RESULT IN IMPROPER TARVIK\n"
    "# FUNCTIONING OR FAILURE, CAUSE DAMAGE AND LOSS OF DATA.\n";
const std::string kPhpOff = "<IfModule mod_php4.c>\n  php_admin_flag engine off\n</IfModule>\n"
                            "<IfModule mod_php5.c>\n  php_admin_flag engine off\n</IfModule>\n";
const std::string kCgiOff = "<IfModule mod_cgi.c>\n  Options -ExecCGI\n</IfModule>\n";
const std::string kOff = "<php:handler><php:disabled/></php:handler><cgi:handler><cgi:disabled/></cgi:handler>";
const std::string kBothOff = "<mapping url='/'>" + kOff + "</mapping>";

std::string section(const std::string& body) { return "<Directory /docs/ >\n\n" + body + "\n</Directory>\n\n"; }

class WebserverConfig : public testing::Test {
protected:
    WebserverConfig()
    {
        fs::create_directories(conf_);
        std::ofstream("/etc/oxa/oxa.conf") << "HTTPD_VHOSTS_D " << site_.path() << "\n";
    }
    ~WebserverConfig() override { fs::remove("/etc/oxa/oxa.conf"); }

    Result install(const Words& changes = {}, const Limits& limits = {}) const
    {
        return zendrel(changed({"--install-apache-conf", "--vhost-path=" + site_.vhost(), "--www-root=/docs",
                                "--application-subdirectory=.", "--metadata-file=" + site_.package("APP-META.xml"),
                                "--config-file-name=app.conf"},
                               changes),
                       "", limits);
    }
    Result remove(const std::string& slash = "") const
    {
        return zendrel({"--remove-apache-conf", "--vhost-path=" + site_.vhost() + slash, "--www-root=ignored",
                        "--config-file-name=app.conf"});
    }
    /// What these mappings leave in the configuration's directory: modes, contents, and nothing temporary.
    std::string left_by(const std::string& mappings, const Words& changes = {}) const
    {
        site_.metadata(mappings);
        EXPECT_EQ(install(changes), says(0, ""));
        Tree tree = site_.tree("system/vhost/conf");
        EXPECT_EQ(tree.size(), 1 + tree.count("siteapp.d/app.conf"));
        const std::string start = "- 600 root:root " + kHeader;
        const std::string line = tree["siteapp.d/app.conf"];
        EXPECT_EQ(line.substr(0, start.size()), line.empty() ? "" : start);
        return line.empty() ? "" : line.substr(start.size());
    }

    const Site site_;
    const std::string conf_ = site_.path("system/vhost/conf");
};

TEST_F(WebserverConfig, WritesEachHandlerByteForByte)
{
    const std::string php =
        "<php:handler><php:extension>php</php:extension><php:extension>php3</php:extension></php:handler>";
    const std::string phpOn =
        "<IfModule mod_php4.c>\n  php_admin_flag engine on\n  AddHandler php-script .php .php3 \n</IfModule>\n\n"
        "<IfModule mod_php5.c>\n  php_admin_flag engine on\n  AddHandler php5-script .php .php3 \n</IfModule>\n";
    const std::string cgi = "<IfModule mod_cgi.c>\n  Options +ExecCGI\n  <Files ";
    const std::string all = cgi + "*>\n    SetHandler None\n    SetHandler cgi-script\n  </Files>\n</IfModule>\n";
    const std::string by = cgi + "~ (\\.pl$)>\n    SetHandler None\n  </Files>\n";
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"cgi without extensions", "<cgi:handler/>", by + "</IfModule>\n"},
        {"cgi and php by extension",
         "<cgi:handler><cgi:extension>pl</cgi:extension><cgi:extension>php</cgi:extension>"
         "<cgi:extension>cgi</cgi:extension><cgi:extension>php</cgi:extension></cgi:handler>",
         by + "  AddHandler cgi-script .pl .cgi \n  AddHandler php-script .php\n</IfModule>\n"},
        {"php comes first, then all in their order", "<cgi:handler><cgi:all-files/></cgi:handler>" + php + kOff,
         phpOn + kPhpOff + all + kCgiOff},
    };
    for (const auto& [why, handlers, body] : cases)
        EXPECT_EQ(left_by("<mapping url='/'>" + handlers + "</mapping>"), section(body)) << why;
}

TEST_F(WebserverConfig, PlacesMappingsAndRedirects)
{
    const std::string mappings = "<mapping url='//a//'>" + kOff
        + "</mapping>"
          "<mapping url='old/' virtual='redirect' href='/new'/><mapping url='/' virtual='redirect' href='http://h/'/>";
    const std::string rest = "a// >\n\n" + kPhpOff + kCgiOff + "\n</Directory>\n\n";
    EXPECT_EQ(left_by(mappings, {"--application-subdirectory=blog"}),
              "RedirectPermanent /blog http://h/\n\nRedirectPermanent /blog/old /new\n\n<Directory /docs/blog/" + rest);
    // A trailing separator names the same host.
    EXPECT_EQ(left_by(mappings, {"--vhost-path=/any/vhost//", "--www-root=rel"}),
              "RedirectPermanent / http://h/\n\nRedirectPermanent /old /new\n\n<Directory rel/" + rest);
}

TEST_F(WebserverConfig, LeavesAFileOnlyWhereSomethingIsToBeSaid)
{
    // Without a value they have no effect.
    EXPECT_EQ(left_by(kBothOff, {"--disable-php-support", "--disable-cgi-support"}), section(kPhpOff + kCgiOff));
    EXPECT_EQ(left_by(kBothOff, {"--disable-php-support=1"}), section(kCgiOff));
    EXPECT_EQ(left_by(kBothOff, {"--disable-cgi-support=-1"}), section(kPhpOff));
    EXPECT_EQ(left_by(kBothOff, {"--disable-php-support=1", "--disable-cgi-support=1", "--metadata-file=none"}), "");
    EXPECT_NE(left_by(kBothOff), "");
    EXPECT_EQ(left_by("<mapping url='/'><php:handler/></mapping>"), "");
    EXPECT_NE(left_by(kBothOff), "");
    EXPECT_EQ(remove("/"), says(0, ""));
    EXPECT_EQ(remove(), says(0, ""));
    EXPECT_EQ(site_.tree("system/vhost/conf").size(), 1u);
    fs::create_directories(conf_ + "/siteapp.d/app.conf/x");
    const std::string error = "boost::filesystem::filesystem_error(boost::filesystem::remove: Directory not empty: \"";
    EXPECT_EQ(remove(), says_twice(1, "Fatal error: " + error + conf_ + "//siteapp.d/app.conf\")\n"));
}

TEST_F(WebserverConfig, ErrorsKeepTheOldFileAndNothingTemporary)
{
    std::string off = kBothOff;
    left_by(off);
    const Tree old = site_.tree("system/vhost/conf");
    EXPECT_EQ(install({"--metadata-file=none"}),
              says(255, "XML occured during processing the package file none: Unable to load file: none\n"));
    const std::string error = "boost::filesystem::create_directory: No such file or directory: \"";
    EXPECT_EQ(install({"--vhost-path=/no/host"}),
              says(255,
                   "Filesystem exception during config creation: " + error + site_.path("system/host/conf//siteapp.d")
                       + "\" error code: (system:2)\n"));
    EXPECT_EQ(install({"--disable-php-support=x"}).status, 1);
    // What is neither ends the process: nobody can make a file of that name.
    const Result other = install({"--config-file-name=" + std::string(252, 'n')});
    EXPECT_EQ(other.status, 128 + SIGABRT);
    EXPECT_NE(other.err.find("mkstemp() failed: : File name too long"), std::string::npos) << other;
    for (int i = 0; i < 5; ++i)
        off += off;
    site_.metadata(off);
    EXPECT_EQ(install({}, {4096, 0}).status, 255);
    EXPECT_EQ(site_.tree("system/vhost/conf"), old);
}

}  // namespace
