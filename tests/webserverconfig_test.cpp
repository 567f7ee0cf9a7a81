#include "common/TmpFile.h"
#include "tests/support/Sandbox.h"

using namespace sandbox;

namespace {

const std::string kPhpOff = "<IfModule mod_php4.c>\n  php_admin_flag engine off\n</IfModule>\n"
                            "<IfModule mod_php5.c>\n  php_admin_flag engine off\n</IfModule>\n";
const std::string kCgiOff = "<IfModule mod_cgi.c>\n  Options -ExecCGI\n</IfModule>\n";
const std::string kBothOff = "<m '/'><p:handler><p:disabled/></p:handler><c:handler><c:disabled/></c:handler></m>";

// How what is left begins and ends.
const std::string kFile = "\n- 600 root:root: siteapp.d/app.conf=# ATTENTION!\n"
                          "# DO NOT MODIFY THIS FILE OR ANY PART OF IT. THIS CAN RESULT IN IMPROPER TARVIK\n"
                          "# FUNCTIONING OR FAILURE, CAUSE DAMAGE AND LOSS OF DATA.\n";
const std::string kNoMore = "\nd 755 root:root: siteapp.d\n";
const std::string kSection = "0||" + kFile + "<Directory /docs/ >\n\n";
const std::string kEnd = "\n</Directory>\n\n" + kNoMore;

class WebserverConfig : public testing::Test {
protected:
    WebserverConfig()
    {
        site_.shell("mkdir -p system/vhost/conf; echo HTTPD_VHOSTS_D $PWD >/etc/oxa/oxa.conf");
        umask(0);  // no reason to let others write
    }

    /// @return status, both streams, and what the configuration's directory holds, temporary files included.
    std::string install(const std::string& mappings, const Words& changes = {}) const
    {
        site_.metadata(mappings);
        const std::string metadata = "--metadata-file=" + site_.package("APP-META.xml");
        const Result result = zendrel(changed({"--install-apache-conf", "--vhost-path=/any/vhost//", "--www-root=/docs",
                                               metadata, "--application-subdirectory=.", "--config-file-name=app.conf"},
                                              changes),
                                      "", {4096, 0});
        return std::to_string(result.status) + "|" + result.out + "|" + result.err + site_.listing("system/vhost/conf");
    }

    static Result remove(const Words& changes = {})
    {
        return zendrel(changed(
            {"--remove-apache-conf", "--vhost-path=vhost", "--www-root=", "--config-file-name=app.conf"}, changes));
    }

    const Site site_;
};

TEST_F(WebserverConfig, WritesBlocksAndRedirectsInTheirOrder)
{
    const std::string cgi = "<IfModule mod_cgi.c>\n  Options +ExecCGI\n  <Files ";
    const std::string by_extension = cgi + "~ (\\.pl$)>\n    SetHandler None\n  </Files>\n";
    EXPECT_EQ(
        install("<m 'b/c/d'/>"  // the last one, and nothing is to be said of it
                "<m '//a//'><c:handler/><c:handler><c:extension>pl</c:extension><c:extension>php</c:extension>"
                "<c:extension>cgi</c:extension></c:handler><c:handler><c:all-files/></c:handler><p:handler>"
                "<p:extension>php</p:extension><p:extension>php3</p:extension></p:handler><p:handler><p:disabled/>"
                "</p:handler><c:handler><c:disabled/></c:handler></m><m 'old/' virtual='redirect' href='/new'/>"
                "<m '/' virtual='redirect' href='http://h/'/>",
                {"--application-subdirectory=blog", "--www-root=rel"}),
        "0||" + kFile
            + "RedirectPermanent /blog http://h/\n\nRedirectPermanent /blog/old /new\n\n<Directory rel/blog/a// >\n\n"
              "<IfModule mod_php4.c>\n  php_admin_flag engine on\n  AddHandler php-script .php .php3 \n</IfModule>\n\n"
              "<IfModule mod_php5.c>\n  php_admin_flag engine on\n  AddHandler php5-script .php .php3 \n</IfModule>\n"
            + kPhpOff + by_extension + "</IfModule>\n" + by_extension
            + "  AddHandler cgi-script .pl .cgi \n  AddHandler php-script .php\n</IfModule>\n" + cgi
            + "*>\n    SetHandler None\n    SetHandler cgi-script\n  </Files>\n</IfModule>\n" + kCgiOff + kEnd);
}

TEST_F(WebserverConfig, LeavesAFileOnlyWhereSomethingIsToBeSaid)
{
    // Without a value they have no effect.
    EXPECT_EQ(install(kBothOff, {"--disable-php-support", "--disable-cgi-support"}),
              kSection + kPhpOff + kCgiOff + kEnd);
    EXPECT_EQ(install(kBothOff, {"--disable-php-support=2"}), kSection + kCgiOff + kEnd);
    EXPECT_EQ(install("<m '/'><p:handler/></m>"), "0||" + kNoMore);
    EXPECT_EQ(install(kBothOff, {"--disable-cgi-support=-1"}), kSection + kPhpOff + kEnd);
    EXPECT_EQ(install("", {"--disable-php-support=1", "--disable-cgi-support=1", "--metadata-file=none"}),
              "0||" + kNoMore);

    // From here on the file stays, whatever goes wrong.
    const std::string old = kFile + "RedirectPermanent / /b\n\n" + kNoMore;
    EXPECT_EQ(install("<m '/' virtual='redirect' href='/b'/>"), "0||" + old);
    EXPECT_EQ(install("", {"--metadata-file=none"}),
              "255||XML occured during processing the package file none: Unable to load file: none\n" + old);
    const std::string error = "boost::filesystem::create_directory: No such file or directory: \"";
    EXPECT_EQ(install("", {"--vhost-path=/no/host"}),
              "255||Filesystem exception during config creation: " + error + site_.path("system/host/conf//siteapp.d")
                  + "\" error code: (system:2)\n" + old);
    // What is neither ends the process, by SIGABRT: nobody can make a file of that name.
    EXPECT_EQ(install("", {"--config-file-name=" + std::string(252, 'n')}).substr(0, 3), "134");
    const std::string full = "255||Filesystem exception during config creation: write: File too large: \"";
    EXPECT_EQ(install(kBothOff, {"--www-root=" + std::string(5000, 'x')}).substr(0, full.size()), full);
    EXPECT_EQ(site_.listing("system/vhost/conf"), old);

    EXPECT_EQ(remove({"--vhost-path=vhost/"}), says(0, ""));
    EXPECT_EQ(site_.listing("system/vhost/conf"), kNoMore);
    site_.shell("ln -s nowhere system/vhost/conf/siteapp.d/app.conf");
    EXPECT_EQ(install(""), "0||\nd 755 root:root: siteapp.d\nl 777 root:root: siteapp.d/app.conf=nowhere\n");
    EXPECT_EQ(remove(), says(0, ""));
    EXPECT_EQ(remove(), says(0, ""));  // it is gone, and that is all that was wanted
    site_.shell("rm -r system/vhost/conf/siteapp.d");
    umask(077);  // which is stricter than asked for
    EXPECT_EQ(install(""), "0||\nd 700 root:root: siteapp.d\n");
}

TEST_F(WebserverConfig, StaysWithinTheApplication)
{
    const std::string redirect = "<mapping virtual='redirect' href='/b' url='";
    const std::string old = "0||" + kFile + "RedirectPermanent /x/../a/./..b/.. /b\n\n" + kNoMore;
    EXPECT_EQ(install(redirect + "x/../a/./..b/..'/>"), old);
    const std::string refused = "255||XML occured during processing the package file " + site_.package("APP-META.xml")
        + ": Invalid package metadata file format: <s:mapping> url leads out of the application.\n" + old.substr(3);
    for (const char* url : {"..", "/../a", "a/../../a/b", "a/.//../.."})
        EXPECT_EQ(install(redirect + url + "'/>"), refused) << url;
    const std::string off = "<c:handler><c:disabled/></c:handler>";
    EXPECT_EQ(install("<m 'a/b'><m '../../..'/></m>"), refused);
    EXPECT_EQ(install("<m 'a/b'><m '../c'>" + off + "</m></m>"),
              "0||" + kFile + "<Directory /docs/a/b/../c >\n\n" + kCgiOff + kEnd);
}

TEST_F(WebserverConfig, KeepsEveryValueWithinItsLine)
{
    const std::string old = kFile + "RedirectPermanent /a\xC2\x85~ /b $c\\ {d}\n\n" + kNoMore;
    const std::string redirect = "<m 'a&#x85;~' virtual='redirect' href='/b $c\\ {d}'/>";
    const Words line_end = {"--www-root=a\nb"};
    EXPECT_EQ(install(redirect, line_end), "0||" + old);  // not in the file

    const std::string odd = "<m '&#127;'><c:handler/></m>";
    const std::string php_line_end = "<m '/'><p:handler><p:extension>\n</p:extension></p:handler>"
                                     "<c:handler><c:disabled/></c:handler></m>";
    const std::string cgi_variable = "<m '/'><c:handler><c:extension>${A}</c:extension></c:handler></m>";
    const std::tuple<std::string, std::string, Words> cases[] = {
        {"<m '/' virtual='redirect' href='&#10;CustomLog \"|id\" x'/>",
         "<s:mapping> has a control character in its href.",
         {}},
        {"<m '/' virtual='redirect' href='/${HOME}'/>", "<s:mapping> has a variable in its href.", {}},
        {"<m '${HOME}' virtual='redirect' href='/'/>", "<s:mapping> has a variable in its url.", {}},
        {odd, "<s:mapping> has a control character in its url.", {}},
        {php_line_end, "<php:extension> has a control character.", {}},
        {cgi_variable, "<cgi:extension> has a variable.", {}},
        {kBothOff, "--www-root has a control character.", line_end},
        {kBothOff, "--www-root has a variable.", {"--www-root=${A}"}},
        {redirect, "--application-subdirectory has a control character.", {"--application-subdirectory=\x1F"}},
        {kBothOff, "--application-subdirectory has a variable.", {"--application-subdirectory=${A}"}},
    };
    const auto report = "255||XML occured during processing the package file " + site_.package("APP-META.xml") + ": ";
    for (const auto& [mappings, error, changes] : cases)
        EXPECT_EQ(install(mappings, changes),
                  report + (error[0] == '<' ? "Invalid package metadata file format: " : "") + error + "\n" + old);

    // What is left out need not fit.
    EXPECT_EQ(install(php_line_end, {"--disable-php-support=1"}), kSection + kCgiOff + kEnd);
    EXPECT_EQ(install(odd + cgi_variable, {"--disable-cgi-support=1"}), "0||" + kNoMore);
}

TEST_F(WebserverConfig, StaysBelowTheConfigurationOfItsHost)
{
    site_.shell("mkdir -p conf system/conf/siteapp.d; touch up.conf system/up.conf system/conf/siteapp.d/app.conf");
    const std::string before = site_.listing("system");
    const std::pair<std::string, std::string> refused[] = {
        {"/vhost", "../../up.conf"}, {"/vhost", "x/../../../../up.conf"}, {"/vhost", ".."},
        {"/vhost", "../../conf/."},  {"/vhost", "../../conf2/up.conf"},   {"/vhost/..", "app.conf"},
        {"/vhost/.//", "app.conf"}};
    for (const auto& [host, file] : refused) {
        const Words words = {"--vhost-path=" + host, "--config-file-name=" + file};
        const std::string error = "255||Filesystem exception during config creation: configuration file: Invalid ";
        EXPECT_EQ(install(kBothOff, words).substr(0, error.size()), error) << file;
        EXPECT_EQ(remove(words).status, 1) << file;
    }
    EXPECT_EQ(site_.listing("system"), before);

    site_.shell("mkdir -p system/vhost/conf/siteapp.d/sub");
    for (const char* file : {"../up.conf", "sub/app.conf", "/abs.conf", "../../conf/x", "..x", "sub/../../y"}) {
        const std::string name = std::string("--config-file-name=") + file;
        EXPECT_EQ(install(kBothOff, {name}).substr(0, 4), "0||\n") << file;
        EXPECT_EQ(remove({name}), says(0, "")) << file;
    }
    // No name is a name.
    EXPECT_EQ(remove({"--vhost-path=/"}), says(0, ""));
    EXPECT_TRUE(site_.tree("system/conf/siteapp.d").empty());
}

TEST_F(WebserverConfig, RemovesWhatAKilledRunLeftBehind)
{
    const std::string directory = "system/vhost/conf/siteapp.d";
    site_.shell("mkdir -p " + directory + "/app.conf.newFOLDER; cd " + directory
                + "; touch app.conf.newABCDE app.conf.newABCDEFG app.conf.newABC.EF "
                  "app.confXnewABCDEF other; ln -s other app.conf.newLINKED; mkfifo app.conf.newPIPED1");
    const Tree kept = site_.tree(directory);
    const tarvik::TmpFile in_use(site_.path(directory + "/app.conf.new"), true);
    const auto left = [&](const std::string& result) {
        Tree tree = site_.tree(directory);
        EXPECT_EQ(tree.erase(in_use.name().substr(site_.path(directory).size() + 1)), 1u) << result;
        return tree;
    };
    for (const char* change : {"--metadata-file=none", "--disable-cgi-support=1", "--www-root="}) {
        site_.write(directory + "/app.conf.newA0z9Zb", "text", 0600);
        EXPECT_EQ(left(install("", {"--disable-php-support=1", change})), kept) << change;
    }
    site_.write(directory + "/app.conf.newA0z9Zb", "text", 0600);
    EXPECT_EQ(remove(), says(0, ""));
    EXPECT_EQ(left("removal"), kept);
    // By a name alone, in the current directory.
    site_.write(directory + "/app.conf.newA0z9Zb", "text", 0600);
    ASSERT_EQ(chdir(site_.path(directory).c_str()), 0);
    tarvik::remove_stray_files("app.conf.new");
    ASSERT_EQ(chdir("/"), 0);
    EXPECT_EQ(left("current directory"), kept);
}

/// Both commands stay root.
TEST_F(WebserverConfig, KeepsTheOldFileUnlessTheNewOneIsClosedAndChangesNothingElse)
{
    const std::string old = install("<m '/' virtual='redirect' href='/b'/>");
    site_.metadata(kBothOff);
    site_.shell(
        "export ASAN_OPTIONS=detect_leaks=0\n"  // it cannot run under a tracer
        "run() { strace -s999 -o $1 -e $2 " ZENDREL_PROGRAM " $3 --vhost-path=vhost --www-root=/docs "
        "--config-file-name=$4; }\n"
        "install='--install-apache-conf --metadata-file=package/APP-META.xml --application-subdirectory=.'\n"
        "run installed trace=all \"$install\" other.conf\nrun removed trace=all --remove-apache-conf other.conf\n"
        "n=$(awk '/F_DUPFD/ { print n + 1 } /^close/ { ++n }' installed)\n"
        "run failed inject=close:error=EIO:when=$n \"$install\" app.conf 2>err || echo $? >status\n"
        "grep -hE 'O_CREAT|O_WRONLY|O_RDWR|mkdir|rmdir|unlink|rename|chmod|chown|link|truncate|mknod|setxattr'"
        " installed removed | grep -v readlink >changes\n"
        "grep -q unlink changes; grep -q rename changes; ! grep -v system/vhost/conf//siteapp.d changes >&2");
    const std::string error = "Filesystem exception during config creation: close: Input/output error: \"";
    EXPECT_EQ(run({"cat", site_.path("err")}).out.substr(0, error.size()), error);
    EXPECT_EQ(read(site_.path("status")) + site_.listing("system/vhost/conf"), "255\n" + old.substr(3));
}

}  // namespace
