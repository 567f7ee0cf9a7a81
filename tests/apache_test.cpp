// What the generated files do in a real Apache. Each sentence of docs/apache.md is seen here.

#include "tests/support/Apache.h"

using namespace sandbox;

namespace {

constexpr char kInstall[] =
    ZENDREL_PROGRAM " --install-apache-conf --vhost-path=vhost --www-root=$PWD/vhost/httpdocs"
                    " --application-subdirectory=. --metadata-file=package/APP-META.xml --config-file-name=app.conf";

class ApacheConfig : public testing::Test {
protected:
    ApacheConfig() { site_.shell("mkdir -p system/vhost/conf; echo HTTPD_VHOSTS_D $PWD >/etc/oxa/oxa.conf"); }

    const Site site_;
    Apache apache_ {
        site_,
        "<IfDefine handler>\n<FilesMatch \"\\.php\\$\">\nSetHandler application/x-httpd-php\n</FilesMatch>\n"
        "</IfDefine>\n<IfDefine safe>\n<Directory $PWD/vhost/httpdocs/data>\nphp_admin_flag engine off\n"
        "</Directory>\n</IfDefine>\n<IfDefine plain>\nInclude $PWD/system/vhost/conf/siteapp.d/*.conf\n"
        "</IfDefine>\nIncludeOptional $PWD/system/vhost/conf/siteapp.d/*.conf"};
};

TEST_F(ApacheConfig, ServesTheGuestbookAsItsConfigurationAllowsThroughItsLife)
{
    // What becomes of a request: with no module for CGI, with the daemon's, with CGI and the server's own handler
    // for PHP, with CGI alone, with that handler switched off where visitors write.
    const Tree expected = {
        {"/cgi-bin/page.php", "sent sent ran sent ran "}, {"/data/run.pl", "sent sent sent sent sent "},
        {"/page.php", "sent sent ran sent ran "},         {"/data/page.php", "sent sent ran sent sent "},
        {"/run.pl", "sent sent sent sent sent "},         {"/tools/run", "sent sent ran ran ran "},
        {"/x/below/run.pl", "sent sent ran ran ran "},    {"/x/every/run.txt", "sent sent ran ran ran "},
        {"/x/off/run.pl", "sent sent 403 403 403 "},      {"/x/page.php", "sent sent ran ran ran "},
        {"/x/run.pl", "sent sent ran ran ran "},          {"/x/run.txt", "sent sent sent sent sent "}};
    site_.shell(
        "cp -r " ZENDREL_SOURCE_DIR "/examples/packages/guestbook package\nsed -i \"s#<mapping url=.home#"
        "<mapping url='x'>"
        "<cgi:handler><cgi:extension>pl</cgi:extension><cgi:extension>php</cgi:extension></cgi:handler>"
        "<mapping url='off'><cgi:handler><cgi:disabled/></cgi:handler></mapping><mapping url='every'>"
        "<php:handler><php:disabled/></php:handler><php:handler><php:extension>php</php:extension></php:handler>"
        "<cgi:handler><cgi:all-files/></cgi:handler><cgi:handler/></mapping></mapping>&#\" package/APP-META.xml");
    const std::string program = "#!/bin/sh\necho 'Content-Type: text/plain'; echo; ";
    for (const auto& [path, outcomes] : expected)
        site_.write("package/htdocs" + path,
                    path.find(".php") == std::string::npos ? program + "echo r'a'n\n" : "<?php echo 'ran', \"\\n\";");
    ASSERT_EQ(zendrel(site_.extract()), says(0, ""));
    site_.shell(kInstall);
    EXPECT_NE(apache_.check("-Dcgi"), 0);  // the redirection's module is missing
    EXPECT_EQ(apache_.check("-Dalias -Dplain"), 0);
    Tree seen;
    for (const char* options :
         {"-Dalias", "-Dalias -Dcgid", "-Dalias -Dcgi -Dhandler", "-Dalias -Dcgi", "-Dalias -Dcgi -Dhandler -Dsafe"}) {
        apache_.restart(options);
        for (const auto& [path, outcomes] : expected) {
            const std::string answer = apache_.get(path), source = "200 \n" + read(site_.docroot(path));
            seen[path] += answer == source ? "sent " : answer == "200 \nran\n" ? "ran " : answer.substr(0, 4);
        }
    }
    EXPECT_EQ(seen, expected);

    EXPECT_EQ(apache_.get("/home").find("301 http://www.example.com/guestbook\n"), 0u);
    EXPECT_EQ(apache_.get("/cgi-bin/guestbook.pl", "-dname=Ann&message=hello+there").substr(0, 4), "303 ");
    EXPECT_NE(apache_.get("/cgi-bin/guestbook.pl").find("hello there"), std::string::npos);
    // The web server may write into the writable mapping and not into the one nested in it.
    site_.put("cgi-bin/probe.pl",
              program + "cd ../data; for f in x templates/x templates/page.html; do true >>$f && echo $f; done", 0755);
    EXPECT_EQ(apache_.get("/cgi-bin/probe.pl"), "200 \nx\n");

    site_.shell(ZENDREL_PROGRAM " --remove-apache-conf --vhost-path=vhost --www-root= --config-file-name=app.conf");
    const std::string list = site_.list({"index.html", "cgi-bin/guestbook.pl", "docs/index.html"});
    ASSERT_EQ(zendrel(site_.remove(), list), says(0, ""));
    EXPECT_EQ(apache_.get("/home").substr(0, 4), "301 ");  // it has not read its configuration again
    apache_.restart("-Dalias -Dcgi");
    for (const char* path : {"/", "/cgi-bin/guestbook.pl", "/docs/index.html", "/home"})
        EXPECT_EQ(apache_.get(path).substr(0, 4), "404 ") << path;
    EXPECT_NE(apache_.check("-Dplain"), 0);
}

TEST_F(ApacheConfig, TakesPicturesIntoTheAlbumWholeAndUnderNamesThatNothingRuns)
{
    site_.shell("cp -r " ZENDREL_SOURCE_DIR "/examples/packages/photos package");
    ASSERT_EQ(zendrel(site_.extract()), says(0, ""));
    site_.shell(kInstall);
    // A picture of one dot, and behind its end a program.
    site_.shell("echo iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR4nGNgYGBgAAAABQABh6FO1AAAAABJRU5ErkJggg=="
                " | base64 -d >evil.php; echo '<?php echo \"ran\";' >>evil.php; echo '<?php' >no.png\n"
                "{ cat evil.php; head -c 2100000 /dev/zero; } >large.png");
    apache_.restart("-Dalias -Dcgi -Dhandler -Dsafe");
    const auto upload = [&](const std::string& file) {
        return apache_.get("/index.php", "-Fpicture=@" + site_.path(file)).substr(0, 4);
    };
    for (const auto& [file, status] : Tree {{"no.png", "415 "}, {"large.png", "413 "}, {"httpd.conf", "415 "}})
        EXPECT_EQ(upload(file), status) << file;
    EXPECT_EQ(apache_.get("/index.php", "-dpicture=x").substr(0, 4), "400 ");
    EXPECT_EQ(site_.tree("vhost/httpdocs/data").size(), 1u);  // as installed
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(upload("evil.php"), "303 ");
    Words names;
    const std::string page = apache_.get("/index.php");
    for (std::size_t at = 0; (at = page.find("src=\"", at)) != std::string::npos; ++at)
        names.push_back(page.substr(at + 5, page.find('"', at + 5) - at - 5));
    ASSERT_EQ(names.size(), 2u) << page;
    EXPECT_NE(names[0], names[1]);
    for (const std::string& name : names) {
        EXPECT_EQ(name.substr(name.size() - 4), ".png");
        EXPECT_EQ(apache_.get("/" + name), "200 \n" + read(site_.path("evil.php")));
        EXPECT_EQ(mode_of(site_.docroot(name)), 0644u);
    }
    EXPECT_EQ(site_.tree("vhost/httpdocs/data").size(), 3u);
}

}  // namespace
