#include "app/application.h"
#include "app/fsappactions.h"
#include "app/fsappmetadata.h"
#include "tests/support/Sandbox.h"

#include <sys/xattr.h>

#include <climits>

using namespace sandbox;

namespace {

constexpr char kWithData[] = "<m '/' path='htdocs'><m 'data'><p:permissions writable='true'/></m></m>";

class Extract : public testing::Test {
protected:
    /// Every run starts with a umask that would show. In its messages, "@" is the site's directory.
    Result extract(const Words& changes = {}, const Limits& limits = {}) const
    {
        umask(077);
        const Result result = site_.plain(zendrel(site_.extract(changes), "", limits));
        umask(022);
        return result;
    }
    /// The same under a tracer that makes calls fail, or stops the program at one of them and runs commands
    /// meanwhile: "chmod:signal=STOP:when=2". It gets no second thread, so that calls can be counted.
    Result traced(const std::string& injection, const std::string& meanwhile = "", const Words& changes = {}) const
    {
        const std::string calls = injection.substr(0, injection.find(':'));
        site_.write("run",
                    "export ASAN_OPTIONS=detect_leaks=0\nrm -f trace\nstrace -fo trace -e trace=" + calls
                        + " -e inject=" + injection + " prlimit --nproc=1 " ZENDREL_PROGRAM " \"$@\" 2>err &\n"
                        + (meanwhile.empty() ? ""
                                             : "until grep -qs 'stopped by' trace; do kill -0 $! || exit 9; done\n{ "
                                   + meanwhile + "; } || late=9\nkill -CONT $(sed 's/ .*//;q' trace)\n")
                        + "wait $! || end=$?\ncat err >&2\nexit ${late:-${end:-0}}\n");
        return site_.plain(run(Words {"sh", "-ec", "cd " + site_.path() + "; . ./run", "sh"} + site_.extract(changes)));
    }
    /// A failed installation: its message is printed before and after the rollback.
    static Result fails(const std::string& message) { return says(1, message + "\n" + message + "\n"); }

    Site site_;
};

TEST_F(Extract, FollowsTheMappings)
{
    // Siblings are visited in reverse: the first has the last word.
    site_.pack({"index.html", "cgi/run.pl", "cgi/x.pl.txt", "cgi/sub.pl/readme", "cgi/xpl", "cgi/.pl", "cgi/X.PL",
                "no/r.pl", "data/store", "data/d/e", "data/.cache/c", "data/.cache/open/o", "data/-/b",
                "data/d/plain/p", "both/f", "off/run.pl"},
               "<m '/' path='htdocs'><m 'cgi'><c:handler><c:extension>pl</c:extension><c:extension>a.pl</c:extension>"
               "</c:handler></m><m 'off'><c:handler><c:disabled/></c:handler><c:handler><c:all-files/></c:handler></m>"
               "<m 'no'><c:handler><c:extension>pl</c:extension></c:handler><c:handler><c:disabled/></c:handler></m>"
               "<m 'data'><p:permissions writable='true'/><m 'd/plain'/><m './.cache//'><m 'open/'>"
               "<p:permissions writable='true'/></m></m></m><m 'both'><p:permissions writable='true'/></m>"
               "<m './/both'/><m 'exe' path='late'/><m 'exe' path='tools'><c:handler><c:all-files/></c:handler>"
               "<c:handler/></m><m 'one' path='late/ping'/><m 'gone' path='nowhere'/>"
               "<m 'old' virtual='redirect' href='/'/></m>");
    site_.shell(
        "cd package; mkdir tools late; ln -s missing nowhere; printf pong >tools/pong; printf pung >tools/pung\n"
        "printf early >tools/ping; printf late >late/ping; chmod 600 tools/p*; chown alice tools/p*");
    site_.put("own", "mine", 0600);
    site_.put("off/");
    site_.put("exe/");  // a default ACL like umask 133: enough for files as they are created, not for programs
    const std::string acl("\2\0\0\0\1\0\6\0\xff\xff\xff\xff\4\0\4\0\xff\xff\xff\xff\40\0\4\0\xff\xff\xff\xff", 28);
    ASSERT_EQ(setxattr(site_.docroot("exe").c_str(), "system.posix_acl_default", acl.data(), 28, 0), 0);
    std::string private_acl = acl;  // and one that files must be freed of
    private_acl[16] = private_acl[24] = 0;
    ASSERT_EQ(setxattr(site_.docroot("off").c_str(), "system.posix_acl_default", private_acl.data(), 28, 0), 0);
    const std::string expected = R"(
- 644 alice:oxacln: both/f cgi/X.PL cgi/sub.pl/readme cgi/x.pl.txt cgi/xpl data/.cache/c data/d/plain/p exe/ping=late index.html no/r.pl off/run.pl one=late
- 646 alice:oxacln: data/-/b data/.cache/open/o data/d/e data/store
- 755 alice:oxacln: cgi/.pl cgi/run.pl exe/pong=pong exe/pung=pung
d 755 alice:oxacln: both cgi cgi/sub.pl data/.cache data/d/plain exe no off
d 757 alice:oxacln: data data/- data/.cache/open data/d
)";
    const Result warned = says(0, "Source directory \"@/package/nowhere\" is not exist\n");
    for (const char* whole : {".", "/"}) {  // the second time over itself
        EXPECT_EQ(extract({std::string("--application-subdirectory=") + whole}), warned);
        EXPECT_EQ(site_.listing(), "\n- 600 alice:oxacln: own=mine" + expected);
    }
    EXPECT_EQ(extract({"--application-subdirectory=a/b"}), warned);
    EXPECT_EQ(site_.listing("vhost/httpdocs/a/b"), expected);
    // Two mappings whose path and URL make the same text are two.
    site_.pack({"b/f", "bx/b/g"}, "<m '/' path='htdocs/bx/b'/><m 'x' path='htdocs'/>");
    EXPECT_EQ(extract({"--application-subdirectory=two"}), says(0, ""));
    EXPECT_EQ(site_.tree().count("two/x/b/f"), 1u);
}

TEST_F(Extract, FollowsPackagedLinksReplacesOthersAndLeavesForeignModes)
{
    site_.pack({"file", "linked/x", "used/in", "bobs/1", "bobs/2", "data/f"}, kWithData);
    site_.shell("printf outside >outside; cd package/htdocs; ln -s ../../outside to-file; ln -s ../.. to-dir\n"
                "cd ../../vhost/httpdocs; printf victim >victim; ln -s victim file; ln -s elsewhere to-file\n"
                "mkdir -m 703 bobs elsewhere; ln -s elsewhere used; chown bob:oxaserv bobs elsewhere\n"
                "mkdir data; printf data/his >data/his; chown alice:oxacln data; chown bob:oxacln data/his");
    const std::string warning = "Unable to change mode for @/vhost/httpdocs/bobs: Operation not permitted\n";
    EXPECT_EQ(extract({"--application-subdirectory=/"}), says(0, warning + warning));  // for each file that goes there
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
    const std::string unknown = "Unknown type of file `@/vhost/httpdocs/data", mode = "`. Unable to change file mode.";
    const std::string status = library + "status: Permission denied: \"@/package/htdocs/z/f\"(system:13";
    const std::pair<std::string, Result> cases[] = {
        {"rm -r data", says(1, "Source directory \"@/package/htdocs/data\" is not exist\n" + missing + missing)},
        {"ln -s nowhere z", fails(copy + "No such file or directory" + paths + "2" + arrow)},
        {"mkdir -m 744 z; touch z/f",  // its names can be read, but nothing of them
         says(1,
              "@/package/htdocs/z/f: Permission denied\n"
                  + fails(status + boost::replace_all_copy(arrow, "z", "z/f")).err)},
        {"mkfifo z", fails(copy + "Operation not supported" + paths + "95" + arrow)},
        {"printf '%0300000d' 7 >z", fails(copy + "File too large" + paths + "27" + arrow)},
        {"mkdir z; touch z/f $d/z", fails("Unable to create directory @/vhost/httpdocs/z - filename occupied")},
        {"install -d -o bob -g oxaserv $d/b",
         says(1, foreign + fails("Unable to create directory @/vhost/httpdocs/b/c").err)},
        {"mkdir $d/data; chown alice $d/data; ln -s f $d/data/link", fails(unknown + "/link" + mode)},
        {"mkdir -m 777 $d/e; ln -s e $d/data", fails(unknown + mode)},
        {"mkdir -m 775 $d/data; chown bob:oxacln $d/data",
         fails("Unable to change mode for: @/vhost/httpdocs/data Error: Operation not permitted")},
    };
    for (const auto& [prepare, expected] : cases) {
        SCOPED_TRACE(prepare);
        site_.shell("rm -rf package/htdocs");
        site_.pack({"a", "b/c/d", "data/f"}, kWithData);
        site_.shell("cd vhost/httpdocs; mkdir -p own/1/2/3/4/5/6/7/8; touch own/1/f own/1/2/3/4/f\n"
                    "chown -R alice own");  // not spared: it lies below a target
        site_.shell("d=$PWD/vhost/httpdocs; cd package/htdocs; " + prepare);
        EXPECT_EQ(extract({}, {100'000, 0}), expected);
        EXPECT_TRUE(site_.tree().empty());
    }
    site_.shell("rm -rf package/htdocs");
    site_.pack({"a", "b/c/d", "data/f"}, kWithData);
    site_.shell("ln -s nowhere package/htdocs/z");
    EXPECT_EQ(extract({"--application-subdirectory=shop"}).status, 1);
    EXPECT_TRUE(site_.tree().empty());
    site_.shell("cd vhost/httpdocs; mkdir -p data b/bobs/kept z/full; chmod 777 b\n"
                "chown -R alice data z; chown -R bob:oxaserv b");
    EXPECT_EQ(extract(), fails(library + "remove: Directory not empty: \"@/vhost/httpdocs/z\"(system:39" + arrow));
    // z and b/c are gone, the first from the end; b held, so a was not reached.
    EXPECT_EQ(site_.listing(), R"(
- 644 alice:oxacln: a
d 755 bob:oxaserv: b/bobs b/bobs/kept
d 777 bob:oxaserv: b
)");
}

TEST_F(Extract, MeetsTheFirstOfTwoErrorsAndWhatIsSpelledOrNestedOddly)
{
    const std::string nowhere = "Source directory \"@/package/nowhere\" is not exist\n";
    const std::string library = "Filesystem error: boost::filesystem::";
    const std::string denied = library + "copy_file: Permission denied: \"@/package/htdocs/f\", ";
    const std::string iterator = "directory_iterator::construct: Permission denied: \"@/package/s\"";
    const auto writable = [](const std::string& url, const std::string& path) {
        return "<m '" + url + "' path='" + path + "'><p:permissions writable='true'/></m>";
    };
    const std::tuple<std::string, std::string, std::string, Words> cases[] = {
        {"ln -s nowhere package/htdocs/a; install -d -o bob -g oxaserv vhost/httpdocs/bobs",
         "<m 'bobs' path='htdocs'/>",
         "Unable to change mode for @/vhost/httpdocs/bobs: Operation not permitted\n" + library
             + "copy_file: No such file or directory: \"@/package/htdocs/a\", \"@/vhost/httpdocs/bobs/a\"(system:2)",
         {}},
        {"mkdir -m 744 package/top; touch package/top/f", "<m '/'/>", "@/package/top/f: Permission denied", {}},
        {"mkdir -m 700 package/s", "<m '/' path='s'/>", iterator, {}},
        {"mkdir -m 700 package/s", "<m '/' path='/'/>", iterator, {}},
        {"", "<m '/' path='htdocs'/>", "Unable to create directory new", {"--www-root=new"}},  // in one of root's
        {"",
         "<m 'zendrel-f' path='htdocs/f'/>",
         "Unable to change mode for /: Operation not permitted\n" + denied + "\"/zendrel-f\"(system:13)",
         {"--www-root="}},
        {"echo >vhost/httpdocs/g; chmod 600 package/htdocs/f", "<m 'g/x' path='htdocs/f'/>", denied, {}},
        {"ln -s httpdocs vhost/l",
         writable("/", "nowhere"),
         "Unknown type of file `@/vhost/l`",
         {"--www-root=" + site_.path("vhost/l")}},
        {"mkdir -p vhost/httpdocs/z/full", "<m 'z/' path='htdocs/f'/>", library + "remove: Directory not empty: ", {}},
        {"",
         writable("data", "htdocs/f") + writable("data/", "nowhere"),
         nowhere + "@/vhost/httpdocs/data/: Not a directory\n"
             + "Unable to stat file  @/vhost/httpdocs/data/ mode: Not a directory\n",
         {}},
    };
    for (const auto& [prepare, mappings, error, changes] : cases) {
        site_.shell("rm -rf package vhost/httpdocs/*");
        site_.pack({"f"}, mappings);
        site_.shell(prepare);
        const Result result = extract(changes);
        EXPECT_EQ(result.status, 1) << prepare;
        EXPECT_NE(result.err.find(error), std::string::npos) << error << result;
        EXPECT_EQ(site_.tree().count("data"), 0u);
    }
    site_.shell("install -d -m 644 -o alice vhost/httpdocs/ro");
    site_.pack({"f"}, writable("ro", "nowhere"));
    EXPECT_EQ(extract(), says(0, nowhere));  // what cannot be searched can be read
    EXPECT_EQ(mode_of(site_.docroot("ro")), 0747u);

    // Nothing is put behind the link of the site that leads to this one.
    site_.shell("rm -rf vhost/httpdocs/*; ln -s a vhost/httpdocs/l");
    site_.put("a/q/");
    site_.pack({"f"}, "<m '/' path='htdocs'/>" + writable("l/q", "nowhere"));
    EXPECT_EQ(extract(), says(0, nowhere));
    EXPECT_EQ(mode_of(site_.docroot("a/q")), 0757u);
    site_.shell("chown bob vhost/httpdocs/a/q; chmod 777 vhost/httpdocs/a/q");  // a stranger's, but open already
    EXPECT_EQ(extract(), says(0, nowhere));
    // The undo finds its way back, and goes on where that way is gone.
    site_.shell("mkdir package/q; touch package/q/g; mkfifo package/htdocs/p");
    for (const std::string odd : {"x/y/..", "x/y/..//", "l/b/", "..x"}) {
        site_.shell("rm -rf vhost/httpdocs/*; mkdir -p vhost/d; chown alice vhost/d; ln -s ../d vhost/httpdocs/l");
        site_.pack({}, "<m 'a' path='q'/><m '" + odd + "' path='htdocs'/>");
        EXPECT_EQ(extract().status, 1) << odd;
        EXPECT_EQ(site_.tree().count("a") + site_.tree().count("..x") + site_.tree("vhost/d").size(), 0u) << odd;
    }
    // Nor does it follow a link that the copy has not come to.
    site_.pack({"q/f"}, "<m 'a' path='htdocs/a'/><m 'q' path='htdocs/q'/>");
    site_.shell("mkfifo package/htdocs/a; mkdir -p vhost/d; touch vhost/d/f; chown -R alice vhost/d\n"
                "rm -rf vhost/httpdocs/*; ln -s ../d vhost/httpdocs/q");
    EXPECT_EQ(extract().status, 1);
    EXPECT_EQ(site_.tree("vhost/d").count("f"), 1u);
    EXPECT_TRUE(site_.tree().empty());
    site_.shell("rm -r package/htdocs/[apq]");

    // A path that no call takes is not made, even where its directory is in reach; it is listed, but not entered.
    site_.put("data/");
    site_.pack({"n"},
               "<mapping path='htdocs/n' url='data" + std::string(PATH_MAX - 255 - site_.docroot("data").size(), '/')
                   + std::string(255, 'n') + "'/>");
    EXPECT_EQ(extract().status, 1);
    site_.pack({}, "<m '/' path='htdocs'/>" + writable("data", "nowhere"));
    const std::string name(200, 'd');
    site_.shell("cd vhost/httpdocs/data; perl -e 'for (1..25) { mkdir \"" + name + "\"; chdir \"" + name + "\" }'");
    EXPECT_NE(extract().err.find("ddd mode: File name too long\n"), std::string::npos);
    site_.shell("test -d vhost/httpdocs/data/" + name + "\nrm -rf vhost/httpdocs/data");  // nor is it removed
}

/// By root, whose changes of a mode never fail.
TEST_F(Extract, WidensModesByOwnerAndGroup)
{
    site_.pack({"data/new", "u/f", "g/f", "o/f"}, kWithData);
    site_.shell("cd vhost/httpdocs; mkdir u g o data; chown alice u data; chown bob:oxacln g; chown bob:oxaserv o\n"
                "chmod 5 u; chmod 500 g o; cd data\n"
                "for owner in www-data alice bob; do for group in oxacln oxaserv; do\n"
                "n=$((n + 1)); touch f$n; mkdir d$n; chown $owner:$group ?$n; chmod 1 f$n; chmod 4000 d$n\n"
                "done; done; chmod 2000 .");
    const auto install = [this](const std::string& user) {
        const tarvik::FSAMetaDataReader metadata(site_.package("APP-META.xml"));
        return tarvik::fsa_install_htdocsfiles(site_.package(), site_.docroot(), "/", metadata, user, true);
    };
    EXPECT_EQ(in_child([&] { _exit(install("nosuch")); }),  // nor are files of nobody taken for somebody's
              (Result {0, "Unable to getpwnam for user nosuch\n",
                       "Unable to getpwnam for user nosuch\nUnable to find user nosuch\n", 0}));
    ASSERT_TRUE(install("alice"));
    // Bits that were there stay. What only receives files lets the site's people in; data the web server too.
    EXPECT_EQ(site_.output("cd vhost/httpdocs; stat -c %a u g o data data/f? data/d? | xargs"),
              "705 570 507 2707 661 607 607 661 667 667 4770 4707 4707 4770 4777 4777\n");
}

TEST_F(Extract, RefusesInItsOrderOfChecks)
{
    site_.pack({"f"});
    site_.shell("mkdir -p odd/APP-META.xml; cp package/APP-META.xml good.xml");
    const std::string full = "--application-full-name=file://", good = site_.path("good.xml");
    const std::string vhost = "--vhost-path=", user = "--user-name=nosuch", metadata = "--metadata-file=";
    const std::string what = "Fatal error: boost::wrapexcept<boost::program_options::";
    const std::pair<Words, Result> cases[] = {
        {{"--no-such=1"}, says_twice(1, what + "unknown_option>(unrecognised option '--no-such=1')\n")},
        {{full + "x", vhost}, says(1, "Invalid value file://xfor --application-full-name option\n")},
        {{full + "/" + site_.path("odd"), metadata + good, vhost},
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
    site_.shell("sed s/28010/0/ group >/etc/group");
    EXPECT_EQ(extract({vhost}), says(255, ""));
    site_.shell("cp group /etc/group");
    EXPECT_TRUE(site_.tree().empty());
}

/// Another application's directory takes the place of one of ours, by the hand of who may write in both.
TEST_F(Extract, ASwappedDirectoryLeadsNobodyIntoAnother)
{
    const std::string reset = "rm -rf aside vhost/httpdocs/*; cd package/htdocs/data/d; ";
    const std::string swap = "mv vhost/httpdocs/data/d aside && ln -s $PWD/other vhost/httpdocs/data/d";
    site_.shell("mkdir -p other/more; cd other; touch f more/f; cp -a . ../untouched; chown -R alice . ../untouched");
    site_.pack({}, kWithData);
    site_.shell("mkdir -p package/htdocs/data/d/more; cd package/htdocs/data/d; touch f more/f");
    const std::string message = "write:signal=STOP:when=1 -P $PWD/err";  // checkers write elsewhere, too
    const std::tuple<const char*, std::string, std::string> swaps[] = {
        {"the first is the mapping itself", "touch f", "chmod:signal=STOP:when=2"},
        {"within more: d is come back to", "echo x >more/f; mkfifo z", message},
        {"at the message, with everything still there", "rm z; : >more/f; mkfifo ../../z", message},
    };
    for (const auto& [why, prepare, injection] : swaps) {
        site_.shell(reset + prepare);
        EXPECT_EQ(traced(injection, swap).status, 1) << why;
        EXPECT_EQ(site_.listing("other"), site_.listing("untouched")) << why;
        EXPECT_EQ(mode_of(site_.path("other")), 0755u) << why;
    }
    EXPECT_EQ(site_.listing(), "\n");

    site_.shell(reset + "rm ../../z");
    const std::string move = "mv vhost/httpdocs/data/d aside && mv other vhost/httpdocs/data/d";
    const std::string stale = "Unable to stat file  @/vhost/httpdocs/data/d mode: Stale file handle\n";
    EXPECT_EQ(traced("chmod:signal=STOP:when=1", move), fails(stale.substr(0, stale.size() - 1)));
    EXPECT_EQ(site_.listing("vhost/httpdocs/data/d"), site_.listing("untouched"));
    // Also where nothing has been put.
    site_.shell(
        "mv vhost/httpdocs/data/d other; rm -rf aside vhost/httpdocs/* package/htdocs/data/d; cp -a other third\n"
        "mkdir -p vhost/httpdocs/data/d; chown -R alice vhost/httpdocs/data");
    site_.pack({}, kWithData + std::string("<m 'data/d' path='nowhere'><p:permissions writable='true'/></m>"));
    EXPECT_EQ(traced("chmod:signal=STOP:when=1", "rmdir vhost/httpdocs/data/d && mv third vhost/httpdocs/data/d").err,
              "Source directory \"@/package/nowhere\" is not exist\n" + stale + stale);
}

/// What a failing call makes of an installation, and which of its files stay.
TEST_F(Extract, FailingCallsAreMetAndUndone)
{
    site_.pack({"a", "data/f"}, kWithData);
    const std::string all = "\n- 644 alice:oxacln: a\n- 646 alice:oxacln: data/f\nd 757 alice:oxacln: data\n";
    const std::string plain = "\n- 644 alice:oxacln: a data/f\nd 755 alice:oxacln: data\n";
    const std::string target = " -P $PWD/vhost/httpdocs/a", source = " -P $PWD/package/htdocs/a";
    const std::string data = " -P $PWD/vhost/httpdocs/data";
    const std::string list = "Fatal error: boost::filesystem::filesystem_error(boost::filesystem::directory_iterator::";
    const auto copy = [](const std::string& reason, const std::string& number) {
        const std::string paths = "\"@/package/htdocs/a\", \"@/vhost/httpdocs/a\"(system:" + number + ")";
        return fails("Filesystem error: boost::filesystem::copy_file: " + reason + ": " + paths
                     + "@/package/htdocs/a -> @/vhost/httpdocs/a");
    };
    const Result broken = copy("Input/output error", "5"), full = copy("No space left on device", "28");
    const std::tuple<std::string, Result, std::string> cases[] = {
        {"close:error=EIO" + target, broken, "\n"},
        {"close:error=EINTR" + target, says(0, ""), all},
        {"read:error=EIO:when=2" + source, broken, "\n"},
        {"read:error=EINTR:when=1" + source, says(0, ""), all},
        {"write:error=ENOSPC" + target, full, "\n"},
        {"write:error=EINTR:when=1" + target, says(0, ""), all},
        {"mkdir:error=EDQUOT", fails("Unable to create directory @/vhost/httpdocs/data"), "\n"},
        {"getdents64:error=EIO:when=2", says(1, list), "\n"},
        {"getdents64:error=EIO" + data, says(1, list), plain},
        {"chmod:error=EPERM:when=2", says(0, ""), plain.substr(0, plain.find("d 755")) + "d 757 alice:oxacln: data\n"},
        // What comes after it depends on the C library.
        {"openat:error=EIO -P /etc/passwd", says(1, "Unable to getpwnam for user alice\n"), "\n"},
        // Whom files belong to is what the process is, whatever becomes of the name service meanwhile.
        {"openat:error=EIO:when=2+ -P /etc/passwd", says(0, "Unable to getpwnam for user www-data\n"), all},
        {"openat:error=EIO -P /etc/group", says(255, ""), "\n"},
    };
    for (const auto& [injection, expected, left] : cases) {
        SCOPED_TRACE(injection);
        const Result result = traced(injection);
        EXPECT_EQ(result.status, expected.status);
        EXPECT_EQ(result.err.substr(0, result.out.empty() ? std::string::npos : expected.err.size()), expected.err);
        EXPECT_EQ(site_.listing(), left);
        site_.shell("rm -rf vhost/httpdocs/*");
    }
    site_.shell("truncate -s 1M package/htdocs/a; echo end >>package/htdocs/a");  // which is read otherwise
    EXPECT_EQ(traced("read,copy_file_range:error=EXDEV -e inject=read:error=EIO:when=2" + source), broken);
    EXPECT_EQ(traced("write,copy_file_range:error=EXDEV -e inject=write:error=ENOSPC:when=2+" + target), full);
    EXPECT_EQ(traced("ftruncate,?ftruncate64:error=EIO"), broken);
    EXPECT_EQ(traced("lseek:error=EINVAL:when=1" + source), says(0, ""));  // the holes cannot be told
    EXPECT_EQ(read(site_.docroot("a")), read(site_.path("package/htdocs/a")));
    site_.write("package/htdocs/a", "[cut short]");
    traced("write:retval=1:when=1" + target);  // as if one byte had gone out already
    EXPECT_EQ(read(site_.docroot("a")), "cut short]");
}

/// What no command asks for, but callers of the library may.
TEST_F(Extract, EmptiesADocumentRootOnlyForAnApplicationThatTakesAllOfIt)
{
    site_.pack({"f"});
    site_.put("own");
    for (const std::string subdir : {"sub", "."}) {
        const auto extract = [&] {
            _exit(tarvik::fsa_extract_application("file:///" + site_.path("package"), site_.vhost(), site_.docroot(),
                                                  "alice", subdir.c_str(), 1, "", false));
        };
        EXPECT_EQ(in_child(extract), says(0, ""));
        EXPECT_EQ(site_.tree().count("own"), subdir == "." ? 0u : 1u);
    }
    EXPECT_EQ(site_.listing(), "\n- 644 alice:oxacln: f\n");
    char path[4096] = "untouched";
    EXPECT_EQ(get_orsa_application_path(path, "file:///") + get_orsa_application_path(path, "File:///ab"), 0);
    EXPECT_STREQ(path, "untouched");
    EXPECT_EQ(get_orsa_application_path(path, "file:///a"), 1);
    EXPECT_STREQ(path, "a");
}

TEST_F(Extract, HostilePlansAreCarriedOutOrRefusedCheaply)
{
    std::string nested, url;
    for (int i = 0; i < 800; ++i) {
        url += "/a";
        nested += "<m '" + url + "'><p:permissions writable='true'/></m>";
    }
    site_.shell("mkdir -p package/flat package/a$(printf '/a%.0s' $(seq 799))\n"
                "seq 2000 | sed 's/$/.x7/' | tee flat | (cd package/flat; xargs touch)\n"
                "cd package/$(printf 'a/%.0s' $(seq 800)); xargs touch <${OLDPWD}/flat");
    const std::string refused = "Invalid package metadata file format: <s:mapping> ";
    const std::tuple<std::string, Result, std::string> cases[] = {
        {numbered(250, "<mapping path='flat' url='" + std::string(1000, 'u'), "'/>"),
         says(1, refused + "elements ask for too many files.\n"), "1 0"},
        {"<mapping path='flat' url='d'/><mapping path='flat' url='../d'/>",
         says(1, refused + "url leads out of the application.\n"), "1 0"},
        {"<mapping path='flat' url='/'><c:handler>" + numbered(40'000, "<c:extension>x", "</c:extension>")
             + "</c:handler></m>",
         says(0, ""), "2001 2000"},
        {nested, says(0, ""), "2801 2000"},
        {numbered(190, "<mapping path='flat' url='" + url.substr(0, 500) + "' n='", "'/>"), says(0, ""), "2251 0"},
    };
    for (const auto& [mappings, expected, count] : cases) {
        site_.pack({}, mappings);
        EXPECT_EQ(extract({}, {0, 10}), expected) << mappings.substr(0, 99);
        // Entries, and those that are programs or widened for the web server.
        EXPECT_EQ(
            site_.output("cd vhost/httpdocs; echo $(find . | wc -l) $(find . -perm /3 -type f | wc -l); rm -rf *"),
            count + "\n");
    }
}

TEST_F(Extract, CopiesEveryFileWithoutStandardStreams)
{
    site_.pack({"sp ace", "new\nline", "quo\"te'", "\xff\xfe", "-rf", "a-b", "a.b", ".htaccess", "..a",
                std::string(255, 'n'), "deep/deep/f"},
               kWithData);
    site_.shell("v=$PWD/vhost other=/var/tmp/${PWD##*/}; cd package/htdocs; touch empty; seq 200000 >large\n"
                // Through the link the same comes from another file system.
                "cp large $other; ln -s $other linked; seq 30000 | head -c 131072 >of128k\n"
                "cp large holes; truncate -s 100M holes; echo middle >>holes; truncate -s 200M holes\n"
                "truncate -s 3G huge; echo end >>huge\n"
                // Options in all their forms, and a word too many; the warning that "data" is missing goes nowhere.
                ZENDREL_PROGRAM " --extract-application --application-full file:///$v/../package --user=alice stray"
                " --vhost-path $v --application-sub . --metadata '' --www $v/httpdocs --skip-web 0<&- 1>&- 2>&-\n"
                "diff -rx huge . $v/httpdocs; cmp -i 3G huge $v/httpdocs/huge\n"
                "rm $other; test $(du -k $v/httpdocs/holes | cut -f1) -lt 3000");
}

/// Every call of a whole run that could change a file comes after the identity is gone for good,
/// and nothing is opened for it or connected to before that but what reading needs.
TEST_F(Extract, RootChangesNothing)
{
    site_.pack({"f", "data/s"}, kWithData + std::string("<configuration-script-language>binary"));
    site_.shell("sed -i 's/>binary/&<\\/configuration-script-language>/' package/APP-META.xml");
    site_.write("list", site_.list({"f", "data/s"}));
    site_.write("package/scripts/configure", "#!/bin/sh\n: >$2", 0755);
    const Words script = {
        "--run-application-script", site_.extract()[1],   "--script-name=install", "--user-name=alice",
        "--script-file-name=",      "--script-language=", site_.docroot("made")};
    for (const auto& [command, change] :
         {std::pair(site_.extract(), " mkdir("), {site_.remove(), " unlink"}, {script, "httpdocs/made\", O_WRONLY"}}) {
        // The leak check cannot run under a tracer.
        site_.shell("ASAN_OPTIONS=detect_leaks=0 strace -fs999 -o trace " ZENDREL_PROGRAM " "
                    + boost::join(command, " ") + " <list");
        std::string text = read(site_.path("trace"));
        boost::replace_all(text, "32(", "(");  // as some architectures call them
        const auto end = text.find("close_range(3, ");
        const auto uid =
            text.find("setuid(28001)", text.find("setgid(28010)", text.find("setgroups(1, [28010])", end)));
        ASSERT_NE(text.find(change, uid), std::string::npos) << text;
        for (const char* call : {"O_CREAT", "O_WRONLY", "O_RDWR", " mkdir", " rmdir", " unlink", " rename", "chmod",
                                 "chown", " link", " symlink", "truncate", " mknod", "setxattr", " socket(AF_INET"})
            EXPECT_GT(text.find(call), uid) << call;
        EXPECT_EQ(text.find("setuid", uid + 1), std::string::npos);
    }
}

}  // namespace
