#include "app/application.h"
#include "app/fsappactions.h"
#include "app/fsappmetadata.h"
#include "tests/support/Sandbox.h"

#include <boost/algorithm/string/replace.hpp>

#include <sys/stat.h>
#include <sys/xattr.h>

#include <fstream>

using namespace sandbox;

namespace {

constexpr char kWhole[] = "<mapping url='/' path='htdocs'/>";
constexpr char kWithData[] = "<mapping url='/' path='htdocs'><mapping url='data'>"
                             "<php:permissions writable='true'/></mapping></mapping>";

class Extract : public testing::Test {
protected:
    /// A package with these mappings and files, each of which holds its own name.
    void package(const Words& files, const std::string& mappings = kWhole) const
    {
        site_.metadata(mappings);
        for (const std::string& file : files)
            site_.write("package/htdocs/" + file, file);
    }
    /// Every run starts with a umask that would show. In its messages, "@" is the site's directory.
    Result extract(const Words& changes = {}, const Limits& limits = {}) const
    {
        umask(077);
        Result result = zendrel(site_.extract(changes), "", limits);
        umask(022);
        boost::replace_all(result.err, site_.path(), "@");
        return result;
    }
    /// A failed installation: its message is printed before and after the rollback.
    static Result fails(const std::string& message) { return says(1, message + "\n" + message + "\n"); }

    Site site_;
};

TEST_F(Extract, FollowsTheMappings)
{
    package({"index.html", "cgi/run.pl", "cgi/x.pl.txt", "cgi/sub.pl/readme", "data/store", "data/d/e", "data/cache/c",
             "off/run.pl"},
            "<mapping url='/' path='htdocs'>"
            "<mapping url='cgi'><cgi:handler><cgi:extension>pl</cgi:extension></cgi:handler></mapping>"
            "<mapping url='off'><cgi:handler><cgi:disabled/></cgi:handler>"
            "<cgi:handler><cgi:all-files/></cgi:handler></mapping>"
            "<mapping url='data'><php:permissions writable='true'/><mapping url='cache'/></mapping>"
            "<mapping url='bin' path='late'/>"  // siblings are visited in reverse: the first has the last word
            "<mapping url='bin' path='tools'><cgi:handler><cgi:all-files/></cgi:handler></mapping>"
            "<mapping url='one' path='late/ping'/><mapping url='gone' path='nowhere'/>"
            "<mapping url='old' virtual='redirect' href='/'/></mapping>");
    site_.shell("cd package; mkdir tools late; printf pong >tools/pong; printf early >tools/ping\n"
                "printf late >late/ping; chmod 600 tools/p*; chown alice tools/p*");
    site_.put("own", "mine", 0600);
    const std::string expected = R"(
- 644 alice:oxacln: bin/ping=late cgi/sub.pl/readme cgi/x.pl.txt data/cache/c index.html off/run.pl one=late
- 646 alice:oxacln: data/d/e data/store
- 755 alice:oxacln: bin/pong=pong cgi/run.pl
d 755 alice:oxacln: bin cgi cgi/sub.pl data/cache off
d 757 alice:oxacln: data data/d
)";
    const Result warned = says(0, "Source directory \"@/package/nowhere\" is not exist\n");
    for (const char* whole : {".", "/"}) {  // the second time over itself
        EXPECT_EQ(extract({std::string("--application-subdirectory=") + whole}), warned);
        EXPECT_EQ(site_.listing(), "\n- 600 alice:oxacln: own=mine" + expected);
    }
    EXPECT_EQ(extract({"--application-subdirectory=blog"}), warned);
    EXPECT_EQ(site_.listing("vhost/httpdocs/blog"), expected);

    EXPECT_EQ(extract({"--application-subdirectory=a/b", "--skip-webserver-write"}), warned);
    EXPECT_EQ(mode_of(site_.docroot("a/b/data/d")), 0755u);
    EXPECT_EQ(mode_of(site_.docroot("a/b/data/d/e")), 0644u);
}

TEST_F(Extract, KeepsNamesAndContentsAsTheyAre)
{
    package({"sp ace", "new\nline", "quo\"te'", "\xff\xfe", "-rf", "a-b", "a.b", std::string(255, 'n'), "deep/deep/f"});
    site_.shell("cd package/htdocs; touch empty; seq 200000 >large; seq 30000 | head -c 131072 >of128k");
    char other[] = "/var/tmp/package.XXXXXX";  // on another file system
    ASSERT_NE(mkdtemp(other), nullptr);
    site_.shell("cp -r package/* " + std::string(other) + "; chmod 755 " + other);
    for (const std::string& from : {site_.path("package"), std::string(other)}) {
        EXPECT_EQ(extract({"--application-full-name=file:///" + from}), says(0, ""));
        site_.shell("diff -r package/htdocs vhost/httpdocs; rm -r vhost/httpdocs/*");
    }
    site_.shell("rm -r " + std::string(other));
}

TEST_F(Extract, LinksAreContentInPackagesAndReplacedInDocumentRoots)
{
    package({"file", "linked/x", "used/in"});
    site_.put("victim", "victim");
    site_.put("elsewhere/", "", 0703, kBob, kServices);  // would be opened to the site's people but for the link
    site_.shell("printf outside >outside; cd package/htdocs; ln -s ../../outside to-file; ln -s ../.. to-dir\n"
                "cd ../../vhost/httpdocs; ln -s victim file; ln -s nowhere to-file; ln -s elsewhere used");
    EXPECT_EQ(extract(), says(0, ""));
    EXPECT_EQ(site_.listing(), R"(
- 644 alice:oxacln: elsewhere/in=used/in file linked/x to-file=outside victim
d 703 bob:oxaserv: elsewhere
d 755 alice:oxacln: linked to-dir
l 777 root:root: used=elsewhere
)");
}

TEST_F(Extract, AnErrorTakesEverythingBackAndIsToldTwice)
{
    const std::string library = "Filesystem error: boost::filesystem::";
    const std::string arrow = ")@/package/htdocs/z -> @/vhost/httpdocs/z";
    const auto copy = [&](const std::string& reason, const std::string& code) {
        return fails(library + "copy_file: " + reason
                     + ": \"@/package/htdocs/z\", \"@/vhost/httpdocs/z\"(system:" + code + arrow);
    };
    const std::string missing = "Unable to stat file  @/vhost/httpdocs/data mode: No such file or directory\n";
    const std::pair<std::string, Result> cases[] = {
        {"ln -s nowhere z", copy("No such file or directory", "2")},
        {"echo z >z; chmod 600 z", copy("Permission denied", "13")},
        {"mkfifo z", copy("Operation not supported", "95")},
        {"printf '%0300000d' 7 >z", copy("File too large", "27")},
        {"echo z >z; mkdir $d/z; touch $d/z/full; chown -R alice $d/z",
         fails(library + "remove: Directory not empty: \"@/vhost/httpdocs/z\"(system:39" + arrow)},
        {"mkdir z; touch z/f $d/z", fails("Unable to create directory @/vhost/httpdocs/z - filename occupied")},
        {"mkdir $d/data; chown alice $d/data; ln -s f $d/data/link",
         fails("Unknown type of file `@/vhost/httpdocs/data/link`. Unable to change file mode.")},
        {"mkdir -m 775 $d/data; chown bob:oxacln $d/data",
         fails("Unable to change mode for: @/vhost/httpdocs/data Error: Operation not permitted")},
        {"rm -r data", says(1, "Source directory \"@/package/htdocs/data\" is not exist\n" + missing + missing)},
    };
    for (const auto& [prepare, expected] : cases) {
        SCOPED_TRACE(prepare);
        site_.shell("rm -rf package/htdocs");
        package({"a", "b/c", "data/f"}, kWithData);
        site_.put("own", "not spared: it lies below a target");
        site_.shell("d=$PWD/vhost/httpdocs; cd package/htdocs; " + prepare);
        EXPECT_EQ(extract({}, {100'000, 0}), expected);
        EXPECT_TRUE(site_.tree().empty());
    }
}

TEST_F(Extract, TheRollbackSparesWhatIsNoTargetAndEndsAtWhatItCannotRemove)
{
    package({"a", "m/new", "z"});
    for (const char* path : {"blog/", "blog/z/", "blog/z/full", "blog/m/", "blog/m/bobs/", "blog/m/bobs/f"})
        site_.put(path, "kept");
    site_.shell("cd vhost/httpdocs/blog; chown -R bob m; chmod 777 m");
    EXPECT_EQ(extract({"--application-subdirectory=blog"}),
              fails("Filesystem error: boost::filesystem::remove: Directory not empty: \"@/vhost/httpdocs/blog/z\""
                    "(system:39)@/package/htdocs/z -> @/vhost/httpdocs/blog/z"));
    // z and m/new are gone, the first from the end; m held, so a was not reached.
    EXPECT_EQ(site_.listing("vhost/httpdocs/blog"), R"(
- 644 alice:oxacln: a
- 644 bob:oxacln: m/bobs/f=kept
d 755 bob:oxacln: m/bobs
d 777 bob:oxacln: m
)");
}

TEST_F(Extract, LeavesWhatItMayNotWrite)
{
    package({"data/f"}, kWithData);
    site_.put("", "", 0555, kBob, kServices);
    // The mode is tried once for each target in the directory: here itself and data, then f too.
    const std::string warning = "Unable to change mode for @/vhost/httpdocs: Operation not permitted\n";
    EXPECT_EQ(extract(), says(1, warning + warning + fails("Unable to create directory @/vhost/httpdocs/data").err));
    EXPECT_TRUE(site_.tree().empty());
    package({"f"}, kWithData);
    site_.put("", "", 0703, kBob, kServices);
    site_.put("data/");
    site_.put("data/bobs", "his", 0644, kBob);
    EXPECT_EQ(extract(), says(0, warning + warning + warning));
    EXPECT_EQ(site_.tree().at("data/bobs"), "- 644 bob:oxacln his");
}

/// By root, whose changes of a mode never fail.
TEST_F(Extract, WidensModesByOwnerAndGroup)
{
    package({"data/new", "u/f", "g/f", "o/f"}, kWithData);
    site_.put("data/", "", 02000);
    site_.put("u/", "", 0005);  // these three receive files only, so just the site's people get in
    site_.put("g/", "", 0500, kBob);
    site_.put("o/", "", 0500, kBob, kServices);
    std::map<std::string, mode_t> expected = {{"data", 02707}, {"u", 0705}, {"g", 0570}, {"o", 0507}};
    const std::tuple<uid_t, gid_t, mode_t, mode_t> cases[] = {
        // what the web server needs in a writable mapping: file, directory; bits that were there stay
        {kWebServer, kClients, 0661, 04770}, {kWebServer, kServices, 0607, 04707}, {kAlice, kServices, 0661, 04770},
        {kAlice, kClients, 0607, 04707},     {kBob, kClients, 0667, 04777},        {kBob, kServices, 0667, 04777},
    };
    for (const auto& [owner, group, file, directory] : cases) {
        const std::string name = "data/" + std::to_string(expected.size());
        site_.put(name, "", 0001, owner, group);
        site_.put(name + ".d/", "", 04000, owner, group);
        expected[name] = file;
        expected[name + ".d"] = directory;
    }
    const tarvik::FSAMetaDataReader metadata(site_.package("APP-META.xml"));
    ASSERT_TRUE(tarvik::fsa_install_htdocsfiles(site_.path("package"), site_.path("vhost/httpdocs"), "/", metadata,
                                                "alice", true));
    for (const auto& [name, mode] : expected)
        EXPECT_EQ(mode_of(site_.docroot(name)), mode) << name;
}

TEST_F(Extract, ModesDoNotDependOnInheritedAccess)
{
    package({"half/a", "half/b.pl", "none/a", "none/b", "none/c.pl"},
            "<mapping url='/' path='htdocs'><cgi:handler><cgi:extension>pl</cgi:extension></cgi:handler></mapping>");
    // A default ACL takes bits away from what is created; the first would do for files, but not for programs.
    for (const auto& [dir, user, others] : {std::tuple("half/", '\6', '\4'), std::tuple("none/", '\4', '\0')}) {
        const char acl[] = {2,      0, 0,  0,  1,  0,  user, 0, -1,     -1, -1, -1, 4,  0,
                            others, 0, -1, -1, -1, -1, 32,   0, others, 0,  -1, -1, -1, -1};
        site_.put(dir);
        ASSERT_EQ(setxattr(site_.docroot(dir).c_str(), "system.posix_acl_default", acl, sizeof acl, 0), 0);
    }
    EXPECT_EQ(extract(), says(0, ""));
    EXPECT_EQ(site_.listing(), R"(
- 644 alice:oxacln: half/a none/a none/b
- 755 alice:oxacln: half/b.pl none/c.pl
d 755 alice:oxacln: half none
)");
}

TEST_F(Extract, RefusesInItsOrderOfChecks)
{
    package({"f"});
    site_.write("good.xml", read(site_.package("APP-META.xml")));
    site_.shell("mkdir -p odd/APP-META.xml");
    const auto fatal = [](const std::string& error) {
        return says_twice(1, "Fatal error: boost::wrapexcept<boost::program_options::" + error + "\n");
    };
    const std::string full = "--application-full-name=file:/", good = site_.path("good.xml"), longest(256, 'n');
    const std::string vhost = "--vhost-path=", user = "--user-name=nosuch", metadata = "--metadata-file=";
    const std::string syntax = "invalid_command_line_syntax>(";
    const std::pair<Words, Result> cases[] = {
        {{"--no-such=1"}, fatal("unknown_option>(unrecognised option '--no-such=1')")},
        {{"--www-root"}, fatal(syntax + "the required argument for option '--www-root' is missing)")},
        {{"--skip-webserver-write="}, fatal(syntax + "option '--skip-webserver-write' does not take any arguments)")},
        {{full + "x", vhost}, says(1, "Invalid value file:/xfor --application-full-name option\n")},
        {{full + "//"}, says(1, "Application metadata file /APP-META.xml does not exist\n")},
        {{full + "//" + site_.path("odd"), metadata + good, vhost},
         says(1, "Application metadata file @/odd/APP-META.xml does not exist\n")},
        {{vhost + good, metadata + "none"}, says(1, "Virtual host root directory@/good.xmldoes not exist\n")},
        {{metadata + "none", user}, says(1, "Unable to load file: none\n")},
        {{"--user-name=root"}, says_twice(1, "Cannot run as forbidden uid: 0\n")},
        {{"--application-subdirectory=" + longest},
         fails("Filesystem error: boost::filesystem::status: File name too long: \"@/vhost/httpdocs/" + longest
               + "/\"(system:36)@/package/htdocs -> @/vhost/httpdocs/" + longest + "/")},
    };
    for (const auto& [changes, expected] : cases)
        EXPECT_EQ(extract(changes), expected) << changes[0];
    EXPECT_EQ(zendrel({"--extract-application", user}),
              fatal("required_option>(the option '--application-full-name' is required but missing)"));
    const std::string groups = read("/etc/group");
    std::ofstream("/etc/group") << boost::replace_first_copy(groups, "oxacln", "others");
    EXPECT_EQ(extract({vhost}), says(255, ""));
    std::ofstream("/etc/group") << groups;
    EXPECT_TRUE(site_.tree().empty());

    // Values may follow as words of their own, empty ones too, and names may be cut short.
    EXPECT_EQ(zendrel({"--extract-application", "--application-full", "file:///" + site_.path("package"),
                       "--vhost-path", site_.vhost(), "--user=alice", "--application-sub", ".", "--metadata-file", "",
                       "--www-root", site_.path("vhost/httpdocs"), "stray"}),
              says(0, ""));
    EXPECT_EQ(site_.tree().count("f"), 1u);
}

/// A file that is opened under the number of a closed stream must not receive its messages.
TEST_F(Extract, WorksWithoutStandardStreams)
{
    package({"f", "g"}, kWithData);  // "data" is missing, which is told
    Words words = {"sh", "-c", "exec \"$@\" 0<&- 1>&- 2>&-", "sh", ZENDREL_PROGRAM};
    for (const std::string& word : site_.extract({"--skip-webserver-write"}))
        words.push_back(word);
    EXPECT_EQ(run(words), says(0, ""));
    EXPECT_EQ(site_.listing(), "\n- 644 alice:oxacln: f g\n");
}

TEST_F(Extract, CanCleanTheDocumentRootFirst)
{
    package({"f"});
    for (const char* path : {"old/", "old/f"})
        site_.put(path);
    for (const auto& [subdir, entries] : {std::pair("blog", 4u), std::pair(".", 1u)}) {
        EXPECT_EXIT(_exit(tarvik::fsa_extract_application("file:///" + site_.path("package"), site_.vhost(),
                                                          site_.path("vhost/httpdocs"), "alice", subdir, 1, "", true)),
                    testing::ExitedWithCode(0), "^$");
        EXPECT_EQ(site_.tree().size(), entries);  // only an installation into the document root itself cleans it
    }
}

TEST(PackagePath, IsWhatFollowsThePrefix)
{
    char path[4096] = "untouched";
    for (const char* name : {"", "file:///", "file://a/b", "File:///ab"})
        EXPECT_EQ(get_orsa_application_path(path, name), 0) << name;
    EXPECT_STREQ(path, "untouched");
    EXPECT_EQ(get_orsa_application_path(path, ("file:///" + std::string(5000, 'p')).c_str()), 1);
    EXPECT_EQ(std::string(path, sizeof path), std::string(4096, 'p'));
}

/// Every call of a whole run that could change a file comes after the identity is gone for good,
/// and nothing is opened for it or connected to before that but what reading needs.
TEST_F(Extract, RootChangesNothing)
{
    package({"f", "d/g", "data/s"}, kWithData);
    const std::tuple<Words, std::string, std::string> cases[] = {
        {site_.extract(), "", " mkdir("},
        {site_.remove(), site_.list({"f", "d/g", "d", "data/s"}), " unlink"},
    };
    for (const auto& [command, input, change] : cases) {
        // The leak check cannot run under a tracer.
        Words words = {"env", "ASAN_OPTIONS=detect_leaks=0", "strace",       "-fs999",
                       "-o",  site_.path("trace"),           ZENDREL_PROGRAM};
        words.insert(words.end(), command.begin(), command.end());
        EXPECT_EQ(run(words, input), says(0, ""));
        const std::string text = read(site_.path("trace"));
        const std::size_t groups = text.find("setgroups(1, [28010])"), gid = text.find("setgid(28010)", groups);
        const std::size_t uid = text.find("setuid(28001)", gid);
        ASSERT_NE(uid, std::string::npos) << text;
        EXPECT_NE(text.find(change, uid), std::string::npos);
        for (const char* call : {"O_CREAT", "O_WRONLY", "O_RDWR", " mkdir", " rmdir", " unlink", " rename", " chmod",
                                 " fchmod", " chown", " fchown", " lchown", " link", " symlink", " truncate",
                                 " ftruncate", " mknod", " setxattr", " socket(AF_INET"})
            EXPECT_GT(text.find(call), uid) << call;
        EXPECT_EQ(text.find("setuid", uid + 1), std::string::npos);
    }
}

}  // namespace
