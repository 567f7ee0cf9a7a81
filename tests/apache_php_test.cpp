// What the directives for PHP 8 do in a real Apache. Each sentence of docs/apache.md on them is seen here.

#include "tests/support/Apache.h"

using namespace sandbox;

namespace {

constexpr char kPhp[] = "<p:handler><p:extension>php</p:extension></p:handler>";
constexpr char kOff[] = "<p:handler><p:disabled/></p:handler>";
constexpr char kWritable[] = "<p:permissions writable='true'/>";

std::string mapping(const std::string& url, const std::string& content)
{
    return "<m '" + url + "'>" + content + "</m>";
}

/// What hosts say themselves about PHP, as -D asks for it.
constexpr char kHost[] =
    "<Directory $PWD/vhost/httpdocs>\nAllowOverride All\n</Directory>\n"
    "<IfDefine files>\n<FilesMatch \"\\.php\\$\">\nSetHandler application/x-httpd-php\n</FilesMatch>\n</IfDefine>\n"
    "<IfDefine condition>\n<FilesMatch \".+\\.ph(?:ar|p|tml)\\$\">\n<If \"-f %{REQUEST_FILENAME}\">\n"
    "SetHandler application/x-httpd-php\n</If>\n</FilesMatch>\n</IfDefine>\n"
    "<IfDefine extension>\nAddHandler application/x-httpd-php .php\n</IfDefine>\n"
    "<IfDefine location>\n<Location />\nRequire all granted\nSetHandler "
    "application/x-httpd-php\n</Location>\n</IfDefine>\n"
    "<IfDefine protected>\n<Directory $PWD/vhost/httpdocs/app>\nRequire method POST\n</Directory>\n</IfDefine>\n"
    "IncludeOptional $PWD/system/vhost/conf/siteapp.d/*.conf";

/// @return a path with every byte but the slashes as it may stand in a URL.
std::string encoded(const std::string& path)
{
    std::ostringstream url;
    for (const unsigned char byte : path)
        byte == '/' ? url << '/' : url << '%' << std::hex << byte / 16 << byte % 16;
    return url.str();
}

class ApachePhp : public testing::Test {
protected:
    ApachePhp()
    {
        site_.shell("mkdir -p system/vhost/conf; echo HTTPD_VHOSTS_D $PWD >/etc/oxa/oxa.conf\n"
                    "echo 'exec apache2 -f '$PWD'/httpd.conf -t -Dmpm_prefork -Dauthz_core -Dmime -Ddir' >configtest");
    }

    Words command(const Words& changes = {}) const
    {
        return site_.ctl({"apache", site_.package(), "--php=mod"}, changes);
    }
    /// The command that leaves a tested file.
    Words install(const Words& changes = {}) const
    {
        const Words more = {"--config-file-name=php.conf", "--configtest=sh " + site_.path("configtest")};
        return changed(command(more), changes);
    }
    void metadata(const std::string& mappings) const
    {
        site_.metadata(mappings);
        ASSERT_EQ(zendrelctl(install()).status, 0);
    }
    std::string file(const std::string& name = "php.conf") const
    {
        return site_.path("system/vhost/conf/siteapp.d/" + name);
    }
    void put_program(const std::string& path) const { site_.put(path, "<?php echo 'ran', \"\\n\";"); }
    /// @return whether each ran or was sent; else the status.
    std::string outcomes(const Words& paths) const
    {
        std::string text;
        for (const std::string& path : paths) {
            const std::string answer = apache_.get("/" + path);
            const bool sent = answer.find("<?php echo") != std::string::npos;
            text += answer == "200 \nran\n" ? "ran " : sent ? "sent " : answer.substr(0, 4);
        }
        return text;
    }

    const Site site_;
    Apache apache_ {site_, kHost};
};

TEST_F(ApachePhp, RunsWhereAMappingSaysSoAndNowhereElse)
{
    // With no word of the host, with its handler for files, one within a condition, one by extension, one for the
    // location together with a permission, and where the host allows only requests of another kind.
    const std::pair<std::string, Words> groups[] = {
        {"ran ran ran ran ran 403 ",
         {"app/a.php", "app/a.php/info", "app/a.inc", "app/below/a.php", "app/data/on/a.php", "app/data/on/below/a.php",
          "app/data/one.php", "app/lib/a.php"}},
        {"403 403 403 403 403 403 ",
         {"app/data/a.php", "app/data/a.php/info", "app/data/a.inc", "app/data/a.PHP", "app/data/a.php.jpg",
          "app/data/a.phtml", "app/data/a.phar", "app/data/a.php8", "app/data/on/off/a.php", "app/data/two.php",
          "app/off/a.php", ".app.previous/a.txt", ".app.previous-2/a.php", ".app.next/data/a.php",
          "app/data/mine/a.php",           // with settings that the web server has written
          "app/data/kept/a.php",           // not writable, but without a word of its own
          "app/data/on/a.phtml",           // outside, it is denied
          "app/lib/conf.php"}},            // a file that the web server may write to
        {"sent sent sent sent sent 403 ",  // the permission's handler meets an engine that is off
         {"app/data/a.jpg", "app/data/mine/a.jpg", "app/off/a.txt"}},
        {"sent sent sent sent ran 403 ", {"app/lib/conf.php5"}},
        {"404 404 404 404 404 403 ", {"app/none.php"}},
        {"sent ran ran ran ran sent ", {"app2/a.php"}},
    };
    const std::string mine = "Require all granted\nSetHandler application/x-httpd-php\n";
    Tree expected, seen;
    for (const auto& [found, paths] : groups) {
        for (const std::string& path : paths) {
            expected[path] = found;
            if (path.find("info") == std::string::npos && path.find("none") == std::string::npos)
                put_program(path);
        }
    }
    site_.put("app/data/mine/.htaccess", mine);
    site_.put(".app.next/data/.htaccess", "<If \"true\">\n" + mine + "</If>\n");
    site_.write("package/one.php", "");
    metadata(mapping("/",
                     std::string("<p:handler><p:extension>php</p:extension><p:extension>inc</p:extension>"
                                 "</p:handler>")
                         + mapping("data",
                                   kWritable + std::string(kPhp) + mapping("kept", "") + "<m 'one.php' path='one.php'>"
                                       + kPhp + "</m>" + mapping("on", kPhp + mapping("off", std::string(kPhp) + kOff)))
                         + mapping("off", kOff) + "<m 'lib/conf.php' path='one.php'>" + kWritable + "</m>"
                         + "<m 'go' virtual='redirect' href='/a b'/>"));
    for (const char* host : {"", "-Dfiles", "-Dcondition", "-Dextension", "-Dlocation", "-Dprotected"}) {
        apache_.restart(host);
        for (const auto& [path, found] : expected)
            seen[path] += outcomes({path});
    }
    EXPECT_EQ(seen, expected);
    // Without the module, programs are not sent.
    apache_.restart("-Dnophp");
    EXPECT_EQ(outcomes({"app/a.php", "app/a.inc", "app/data/on/a.php"}), "403 403 403 ");

    ASSERT_EQ(zendrelctl(install({"--run-in-writable"})).status, 0);
    apache_.restart("-Dfiles");
    EXPECT_EQ(outcomes({"app/data/a.php", "app/data/a.inc", "app/data/mine/a.jpg", "app/off/a.php",
                        "app/data/on/off/a.php", "app/lib/conf.php"}),
              "ran ran ran 403 403 ran ");
}

TEST_F(ApachePhp, GivesPagesToProcessesOfTheirOwn)
{
    const std::string socket = site_.path("php.sock");
    const Words paths = {"app/a.php", "app/a.inc", "app/data/a.php", "app/data/on/a.php", "app/off/a.php"};
    for (const std::string& path : paths)
        put_program(path);
    site_.metadata(mapping("/",
                           std::string(kPhp) + "<p:handler><p:extension>inc</p:extension></p:handler>"
                               + mapping("data", kWritable + mapping("on", kPhp)) + mapping("off", kOff)));
    ASSERT_EQ(zendrelctl(install({"--php=fpm:" + socket})).status, 0);
    apache_.restart("-Dfiles");
    EXPECT_EQ(outcomes(paths), "403 403 403 403 403 ");  // without the module
    apache_.restart("-Dproxy -Dproxy_fcgi -Dcondition");
    EXPECT_EQ(outcomes(paths), "503 503 403 503 403 ");  // with nobody at the socket

    site_.shell("cat >fpm.conf <<END\n[global]\nerror_log = $PWD/fpm.log\n[www]\nuser = www-data\ngroup = www-data\n"
                "listen = $PWD/php.sock\nlisten.owner = www-data\npm = static\npm.max_children = 1\nEND");
    const std::string start = "exec /usr/sbin/php-fpm* -F -y " + site_.path("fpm.conf");
    const pid_t fpm = fork();
    if (fpm == 0)
        _exit(execl("/bin/sh", "sh", "-c", start.c_str(), nullptr));
    while (outcomes({"app/a.php"}) == "503 ")  // it does not listen yet
        ASSERT_EQ(waitpid(fpm, nullptr, WNOHANG), 0) << read(site_.path("fpm.log"));
    // As it is delivered, it runs no extension but its own.
    EXPECT_EQ(outcomes(paths + Words {"app/none.php"}), "ran 403 403 ran 403 404 ");
    kill(fpm, SIGTERM);
    waitpid(fpm, nullptr, 0);
}

TEST_F(ApachePhp, NoPackageStopsTheServerOrSpeaksForOthers)
{
    // Each is a directory, an extension and part of a condition.
    const std::string odd[] = {"a b", "\\*b", "q\"", "q'\"", "b\\",   "\\\\", "*",        "?x",  "[a-z]",      "[",
                               "]",   "a]b[", ">",   "#",    "</If>", "%{x}", "$1",       "$",   "^",          "(",
                               ")",   "|",    "a+",  "-",    "!",     "~",    "\xC3\xA9", "{3}", "x>#\"|/$(\\"};
    std::string mappings;
    for (std::string name : odd) {
        for (const auto& [character, entity] : Tree {{"<", "&#60;"}, {">", "&#62;"}, {"\"", "&#34;"}, {"'", "&#39;"}}) {
            for (std::size_t at = 0; (at = name.find(character, at)) != std::string::npos; at += entity.size())
                name.replace(at, 1, entity);
        }
        const std::string on = "<p:handler><p:extension>" + name + "</p:extension></p:handler>";
        mappings += mapping(name, kOff + mapping("in", on));
    }
    mappings += numbered(1000, "<p:handler><p:extension>" + std::string(200, '*'), "</p:extension></p:handler>");
    for (const std::string& name : odd) {
        for (const std::string& path : {name, "x" + name, name + "/in"})
            put_program("app/" + path + "/a.php");
        put_program("app/" + name + "/in/a." + name);
    }
    const Words plain = {"app/b/a.php", "app/yx/a.php"};
    for (const std::string& path : plain)
        put_program(path);
    metadata(mapping("/", mappings));
    apache_.restart("-Dfiles");
    EXPECT_EQ(outcomes(plain), "ran ran ");
    for (const std::string& name : odd) {
        const std::string url = "app/" + encoded(name);
        Words paths = {url + "/a.php", "app/x" + encoded(name) + "/a.php", url + "/in/a.php"};
        if (name.find('/') == std::string::npos)  // else no name ends so
            paths.push_back(url + "/in/a." + encoded(name));
        EXPECT_EQ(outcomes(paths), paths.size() == 4 ? "403 ran 403 ran " : "403 ran 403 ") << name;
    }
}

TEST_F(ApachePhp, RefusesWhatCannotBeSaidSafely)
{
    const std::string before = (metadata(mapping("/", kOff)), read(file()));
    const std::string many = numbered(100, "<m '" + std::string(100, 'x'), "'>" + (kPhp + std::string("</m>")));
    const std::string variable = "<p:handler><p:extension>${a}</p:extension></p:handler>";
    const std::tuple<const char*, std::string, std::string, Words> cases[] = {
        {"a line of its own", mapping("a&#10;b", ""), "<s:mapping> has a control character in its url.", {}},
        {"root's environment", variable, "<php:extension> has a variable.", {}},
        {"another application", mapping("../b", ""), "", {}},
        {"a document root of more lines", "", "--www-root has a control character.", {"--www-root=/a\nb"}},
        {"a condition that the server does not take",
         kOff + many,
         "too many mappings with PHP are nested in one without: " + site_.docroot("app"),
         {}},
        {"a path that no section takes",
         mapping(std::string(4096, 'x'), kOff),
         "a mapping's directory has too long a path: ",
         {}},
        {"no way to run PHP", "", "--php is neither mod nor fpm:SOCKET: cgi", {"--php=cgi"}},
        {"a socket with a mark of the server's",
         "",
         "--php names no absolute path without \", \\\\, | and %: /a|b",
         {"--php=fpm:/a|b"}},
        {"a place outside", "", "", {"--config-file-name=../../../x"}},
    };
    for (const auto& [why, mappings, message, changes] : cases) {
        site_.metadata("<m '/'>" + mappings + "</m>");
        const Result result = zendrelctl(install(changes));
        EXPECT_EQ(result.status, 1) << why;
        EXPECT_EQ(result.err.find("zendrelctl: " + message), 0u) << why << result;
        EXPECT_EQ(read(file()), before) << why;
    }
}

TEST_F(ApachePhp, KeepsAFileOnlyIfItPassesTheTest)
{
    const auto outcome_of = [&](const std::string& commands, const Words& changes = {}) {
        site_.write("configtest", commands + "\n");
        const Result result = zendrelctl(install(changes));
        return std::to_string(result.status) + "|" + result.err;
    };
    const std::string refused = "zendrelctl: " + site_.path("system/vhost/conf//siteapp.d/php.conf")
        + " did not pass the test and was not kept\n";
    site_.metadata(mapping("/", kOff));
    EXPECT_EQ(outcome_of("echo out; echo 'err\033' >&2; exit 3"), "1|out\nerr\\x1b\n" + refused);
    EXPECT_EQ(site_.listing("system/vhost/conf"), "\nd 755 root:root: siteapp.d\n");

    const Result text = zendrelctl(command());
    const Result written = zendrelctl(command({"--output=" + site_.path("text")}));
    EXPECT_EQ(written, says(0, ""));
    EXPECT_EQ(read(site_.path("text")), text.out);
    EXPECT_EQ(outcome_of("test -s " + file()), "0|");
    const std::string kept = "\n- 600 root:root: siteapp.d/php.conf=" + text.out + "\nd 755 root:root: siteapp.d\n";
    EXPECT_EQ(site_.listing("system/vhost/conf"), kept);

    // The new file is in its place during the test; whatever ends it, the old one comes back.
    site_.metadata(mapping("/", kPhp));
    EXPECT_EQ(outcome_of("grep -o 'engine on' " + file() + "; exit 1"), "1|engine on\n" + refused);
    EXPECT_EQ(site_.listing("system/vhost/conf"), kept);
    EXPECT_EQ(outcome_of("", {"--configtest=/none"}), "1|/none cannot be run\n" + refused);
    EXPECT_EQ(outcome_of("kill -TERM $PPID; kill -KILL $$").substr(0, 4), "143|");
    EXPECT_EQ(site_.listing("system/vhost/conf"), kept);
    // Killed, it leaves whole files, and the next run tidies up.
    EXPECT_EQ(outcome_of("kill -KILL $PPID"), "137|");
    EXPECT_NE(read(file()).find("engine on"), std::string::npos);
    EXPECT_EQ(outcome_of(""), "0|");
    EXPECT_EQ(site_.tree("system/vhost/conf").size(), 2u);

    // Without a command, it is the server's own.
    site_.write("bin/apache2ctl", "#!/bin/sh\necho \"$@\"\nexit 1\n", 0755);
    Words words = command({"--config-file-name=php.conf"});
    words.insert(words.begin(), {"env", "PATH=" + site_.path("bin") + ":/usr/bin:/bin", ZENDREL_CONTROL_PROGRAM});
    EXPECT_EQ(run(words), says(1, "configtest\n" + refused));

    // Files of others stay.
    site_.write("system/vhost/conf/siteapp.d/app.conf", "# ATTENTION!\n");
    EXPECT_EQ(outcome_of("", {"--config-file-name=app.conf"}).substr(0, 2), "1|");
    EXPECT_EQ(read(file("app.conf")), "# ATTENTION!\n");
    site_.shell("ln -s none link");
    EXPECT_EQ(zendrelctl(command({"--output=" + site_.path("link")})).status, 1);
}

}  // namespace
