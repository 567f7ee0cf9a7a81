#include "app/application.h"
#include "app/fsappactions.h"
#include "app/fsappmetadata.h"
#include "tests/support/Sandbox.h"

#include <boost/algorithm/string.hpp>

#include <sys/stat.h>
#include <sys/xattr.h>

using namespace sandbox;

namespace {

constexpr char kWithData[] = "<mapping url='/' path='htdocs'><mapping url='data'>"
                             "<php:permissions writable='true'/></mapping></mapping>";

class Extract : public testing::Test {
protected:
    /// A package with these mappings and files, each of which holds its own name.
    void package(const Words& files, const std::string& mappings = "<mapping url='/' path='htdocs'/>") const
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
            "<mapping url='exe' path='late'/>"  // siblings are visited in reverse: the first has the last word
            "<mapping url='exe' path='tools'><cgi:handler><cgi:all-files/></cgi:handler></mapping>"
            "<mapping url='one' path='late/ping'/><mapping url='gone' path='nowhere'/>"
            "<mapping url='old' virtual='redirect' href='/'/></mapping>");
    site_.shell("cd package; mkdir tools late; printf pong >tools/pong; printf pung >tools/pung\n"
                "printf early >tools/ping; printf late >late/ping; chmod 600 tools/p*; chown alice tools/p*");
    site_.put("own", "mine", 0600);
    site_.put("exe/");  // a default ACL like umask 133: enough for files as they are created, not for programs
    const std::string acl("\2\0\0\0\1\0\6\0\xff\xff\xff\xff\4\0\4\0\xff\xff\xff\xff\40\0\4\0\xff\xff\xff\xff", 28);
    ASSERT_EQ(setxattr(site_.docroot("exe").c_str(), "system.posix_acl_default", acl.data(), 28, 0), 0);
    const std::string expected = R"(
- 644 alice:oxacln: cgi/sub.pl/readme cgi/x.pl.txt data/cache/c exe/ping=late index.html off/run.pl one=late
- 646 alice:oxacln: data/d/e data/store
- 755 alice:oxacln: cgi/run.pl exe/pong=pong exe/pung=pung
d 755 alice:oxacln: cgi cgi/sub.pl data/cache exe off
d 757 alice:oxacln: data data/d
)";
    const Result warned = says(0, "Source directory \"@/package/nowhere\" is not exist\n");
    for (const char* whole : {".", "/"}) {  // the second time over itself
        EXPECT_EQ(extract({std::string("--application-subdirectory=") + whole}), warned);
        EXPECT_EQ(site_.listing(), "\n- 600 alice:oxacln: own=mine" + expected);
    }
    EXPECT_EQ(extract({"--application-subdirectory=a/b"}), warned);
    EXPECT_EQ(site_.listing("vhost/httpdocs/a/b"), expected);
}

TEST_F(Extract, FollowsPackagedLinksReplacesOthersAndLeavesForeignModes)
{
    package({"file", "linked/x", "used/in", "bobs/1", "bobs/2", "data/f"}, kWithData);
    site_.shell("printf outside >outside; cd package/htdocs; ln -s ../../outside to-file; ln -s ../.. to-dir\n"
                "cd ../../vhost/httpdocs; printf victim >victim; ln -s victim file; ln -s nowhere to-file\n"
                "mkdir -m 703 bobs elsewhere; ln -s elsewhere used; chown bob:oxaserv bobs elsewhere\n"
                "mkdir data; printf data/his >data/his; chown alice:oxacln data; chown bob:oxacln data/his");
    const std::string warning = "Unable to change mode for @/vhost/httpdocs/bobs: Operation not permitted\n";
    EXPECT_EQ(extract(), says(0, warning + warning));  // for each file that goes there
    EXPECT_EQ(site_.listing(), R"(
- 644 alice:oxacln: bobs/1 bobs/2 elsewhere/in=used/in file linked/x to-file=outside
- 644 bob:oxacln: data/his
- 644 root:root: victim
- 646 alice:oxacln: data/f
d 703 bob:oxaserv: bobs elsewhere
d 755 alice:oxacln: linked to-dir
d 757 alice:oxacln: data
l 777 root:root: used=elsewhere
)");
}

TEST_F(Extract, AnErrorTakesEverythingBackAndIsToldTwice)
{
    const std::string library = "Filesystem error: boost::filesystem::", copy = library + "copy_file: ";
    const std::string paths = ": \"@/package/htdocs/z\", \"@/vhost/httpdocs/z\"(system:";
    const std::string arrow = ")@/package/htdocs/z -> @/vhost/httpdocs/z";
    const std::string missing = "Unable to stat file  @/vhost/httpdocs/data mode: No such file or directory\n";
    const std::string foreign = "Unable to change mode for @/vhost/httpdocs/b: Operation not permitted\n";
    const std::pair<std::string, Result> cases[] = {
        {"rm -r data", says(1, "Source directory \"@/package/htdocs/data\" is not exist\n" + missing + missing)},
        {"ln -s nowhere z", fails(copy + "No such file or directory" + paths + "2" + arrow)},
        {"mkfifo z", fails(copy + "Operation not supported" + paths + "95" + arrow)},
        {"printf '%0300000d' 7 >z", fails(copy + "File too large" + paths + "27" + arrow)},
        {"mkdir z; touch z/f $d/z", fails("Unable to create directory @/vhost/httpdocs/z - filename occupied")},
        {"mkdir $d/b; chown bob:oxaserv $d/b",
         says(1, foreign + fails("Unable to create directory @/vhost/httpdocs/b/c").err)},
        {"mkdir $d/data; chown alice $d/data; ln -s f $d/data/link",
         fails("Unknown type of file `@/vhost/httpdocs/data/link`. Unable to change file mode.")},
        {"mkdir -m 775 $d/data; chown bob:oxacln $d/data",
         fails("Unable to change mode for: @/vhost/httpdocs/data Error: Operation not permitted")},
    };
    for (const auto& [prepare, expected] : cases) {
        SCOPED_TRACE(prepare);
        site_.shell("rm -rf package/htdocs");
        package({"a", "b/c/d", "data/f"}, kWithData);
        site_.put("own", "not spared: it lies below a target");
        site_.shell("d=$PWD/vhost/httpdocs; cd package/htdocs; " + prepare);
        EXPECT_EQ(extract({}, {100'000, 0}), expected);
        EXPECT_TRUE(site_.tree().empty());
    }
    site_.shell("touch package/htdocs/z; cd vhost/httpdocs; mkdir -p data b/bobs/kept z/full; chmod 777 b\n"
                "chown -R alice data z; chown -R bob:oxaserv b");
    EXPECT_EQ(extract(), fails(library + "remove: Directory not empty: \"@/vhost/httpdocs/z\"(system:39" + arrow));
    // z and b/c are gone, the first from the end; b held, so a was not reached.
    EXPECT_EQ(site_.listing(), R"(
- 644 alice:oxacln: a
d 755 bob:oxaserv: b/bobs b/bobs/kept
d 777 bob:oxaserv: b
)");
}

/// By root, whose changes of a mode never fail.
TEST_F(Extract, WidensModesByOwnerAndGroup)
{
    package({"data/new", "u/f", "g/f", "o/f"}, kWithData);
    site_.shell("cd vhost/httpdocs; mkdir u g o data; chown alice u data; chown bob:oxacln g; chown bob:oxaserv o\n"
                "chmod 5 u; chmod 500 g o; cd data\n"
                "for owner in www-data alice bob; do for group in oxacln oxaserv; do\n"
                "n=$((n + 1)); touch f$n; mkdir d$n; chown $owner:$group ?$n; chmod 1 f$n; chmod 4000 d$n\n"
                "done; done; chmod 2000 .");
    const tarvik::FSAMetaDataReader metadata(site_.package("APP-META.xml"));
    ASSERT_TRUE(tarvik::fsa_install_htdocsfiles(site_.package(), site_.docroot(), "/", metadata, "alice", true));
    // Bits that were there stay. What only receives files lets the site's people in; data the web server too.
    EXPECT_EQ(run({"sh", "-c", "cd " + site_.docroot() + "; stat -c %a u g o data data/f? data/d? | xargs"}).out,
              "705 570 507 2707 661 607 607 661 667 667 4770 4707 4707 4770 4777 4777\n");
}

TEST_F(Extract, RefusesInItsOrderOfChecks)
{
    package({"f"});
    site_.shell("mkdir -p odd/APP-META.xml; cp package/APP-META.xml good.xml");
    const std::string full = "--application-full-name=file:/", good = site_.path("good.xml");
    const std::string vhost = "--vhost-path=", user = "--user-name=nosuch", metadata = "--metadata-file=";
    const std::string what = "Fatal error: boost::wrapexcept<boost::program_options::";
    const std::pair<Words, Result> cases[] = {
        {{"--no-such=1"}, says_twice(1, what + "unknown_option>(unrecognised option '--no-such=1')\n")},
        {{full + "x", vhost}, says(1, "Invalid value file:/xfor --application-full-name option\n")},
        {{full + "//" + site_.path("odd"), metadata + good, vhost},
         says(1, "Application metadata file @/odd/APP-META.xml does not exist\n")},
        {{vhost + good, metadata + "none"}, says(1, "Virtual host root directory@/good.xmldoes not exist\n")},
        {{metadata + "none", user}, says(1, "Unable to load file: none\n")},
        {{"--user-name=root"}, says_twice(1, "Cannot run as forbidden uid: 0\n")},
    };
    for (const auto& [changes, expected] : cases)
        EXPECT_EQ(extract(changes), expected) << changes[0];
    EXPECT_EQ(zendrel({"--extract-application", user}),
              says_twice(1, what + "required_option>(the option '--application-full-name' is required but missing)\n"));
    site_.shell("cp /etc/group group; sed s/oxacln/others/ group >/etc/group");
    EXPECT_EQ(extract({vhost}), says(255, ""));
    site_.shell("cp group /etc/group");
    EXPECT_TRUE(site_.tree().empty());
}

TEST_F(Extract, CopiesEveryFileWithoutStandardStreams)
{
    package({"sp ace", "new\nline", "quo\"te'", "\xff\xfe", "-rf", "a-b", "a.b", std::string(255, 'n'), "deep/deep/f"},
            kWithData);
    site_.shell("v=$PWD/vhost other=/var/tmp/${PWD##*/}; cd package/htdocs; touch empty; seq 200000 >large\n"
                // Through the link the same comes from another file system.
                "cp large $other; ln -s $other linked; seq 30000 | head -c 131072 >of128k\n"
                // Options in all their forms, and a word too many; the warning that "data" is missing goes nowhere.
                ZENDREL_PROGRAM " --extract-application --application-full file:///$v/../package --user=alice stray"
                " --vhost-path $v --application-sub . --metadata '' --www $v/httpdocs --skip-web 0<&- 1>&- 2>&-\n"
                "diff -r . $v/httpdocs; rm $other");
}

TEST(PackagePath, IsWhatFollowsThePrefix)
{
    char path[4096] = "untouched";
    EXPECT_EQ(get_orsa_application_path(path, "file:///") + get_orsa_application_path(path, "File:///ab"), 0);
    EXPECT_STREQ(path, "untouched");
    EXPECT_EQ(get_orsa_application_path(path, ("file:///" + std::string(5000, 'p')).c_str()), 1);
    EXPECT_EQ(std::string(path, sizeof path), std::string(4096, 'p'));
}

/// Every call of a whole run that could change a file comes after the identity is gone for good,
/// and nothing is opened for it or connected to before that but what reading needs.
TEST_F(Extract, RootChangesNothing)
{
    package({"f", "data/s"}, kWithData);
    site_.write("list", site_.list({"f", "data/s"}));
    for (const auto& [command, change] : {std::pair(site_.extract(), " mkdir("), {site_.remove(), " unlink"}}) {
        // The leak check cannot run under a tracer.
        site_.shell("ASAN_OPTIONS=detect_leaks=0 strace -fs999 -o trace " ZENDREL_PROGRAM " "
                    + boost::join(command, " ") + " <list");
        const std::string text = read(site_.path("trace"));
        const auto uid = text.find("setuid(28001)", text.find("setgid(28010)", text.find("setgroups(1, [28010])")));
        ASSERT_NE(text.find(change, uid), std::string::npos) << text;
        for (const char* call : {"O_CREAT", "O_WRONLY", "O_RDWR", " mkdir", " rmdir", " unlink", " rename", "chmod",
                                 "chown", " link", " symlink", "truncate", " mknod", "setxattr", " socket(AF_INET"})
            EXPECT_GT(text.find(call), uid) << call;
        EXPECT_EQ(text.find("setuid", uid + 1), std::string::npos);
    }
}

}  // namespace
