#include "app/application.h"
#include "app/fsappactions.h"
#include "app/fsappmetadata.h"
#include "tests/support/Sandbox.h"

#include <boost/filesystem.hpp>

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

using namespace sandbox;
namespace fs = boost::filesystem;

namespace {

constexpr char kWhole[] = "<mapping url='/' path='htdocs'/>";

class Extract : public testing::Test {
protected:
    /// A package whose only mapping is the whole document root, and some files in it.
    void package(const Words& files, const std::string& mappings = kWhole) const
    {
        site_.metadata(mappings);
        for (const std::string& file : files)
            site_.write("package/htdocs/" + file, file);
    }
    Result extract(const Words& changes = {}) const { return zendrel(site_.extract(changes)); }
    /// A failed installation: its message is printed before and after the rollback.
    static Result fails(const std::string& message) { return says(1, message + "\n" + message + "\n"); }
    std::string copy_error(const std::string& file, const std::string& reason, int code) const
    {
        const std::string from = site_.package("htdocs/" + file);
        return "Filesystem error: boost::filesystem::copy_file: " + reason + ": \"" + from + "\", \""
            + site_.docroot(file) + "\"(system:" + std::to_string(code) + ")" + from + " -> " + site_.docroot(file);
    }

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
            "<mapping url='bin' path='tools'><cgi:handler><cgi:all-files/></cgi:handler></mapping>"
            "<mapping url='gone' path='nowhere'/>"
            "<mapping url='old' virtual='redirect' href='/'/></mapping>");
    site_.write("package/tools/ping", "ping", 0600);
    ASSERT_EQ(chown(site_.package("tools/ping").c_str(), kAlice, kClients), 0);
    site_.put("own", "mine", 0600);
    Tree expected = {{"index.html", "- 644 alice:oxacln index.html"},
                     {"bin", "d 755 alice:oxacln"},
                     {"bin/ping", "- 755 alice:oxacln ping"},
                     {"cgi", "d 755 alice:oxacln"},
                     {"cgi/run.pl", "- 755 alice:oxacln cgi/run.pl"},
                     {"cgi/sub.pl", "d 755 alice:oxacln"},
                     {"cgi/sub.pl/readme", "- 644 alice:oxacln cgi/sub.pl/readme"},
                     {"cgi/x.pl.txt", "- 644 alice:oxacln cgi/x.pl.txt"},
                     {"data", "d 757 alice:oxacln"},
                     {"data/cache", "d 755 alice:oxacln"},
                     {"data/cache/c", "- 644 alice:oxacln data/cache/c"},
                     {"data/d", "d 757 alice:oxacln"},
                     {"data/d/e", "- 646 alice:oxacln data/d/e"},
                     {"data/store", "- 646 alice:oxacln data/store"},
                     {"off", "d 755 alice:oxacln"},
                     {"off/run.pl", "- 644 alice:oxacln off/run.pl"},
                     {"own", "- 600 alice:oxacln mine"}};
    const Result warned = says(0, "Source directory \"" + site_.package("nowhere") + "\" is not exist\n");
    EXPECT_EQ(extract(), warned);
    EXPECT_EQ(site_.tree(), expected);
    EXPECT_EQ(extract({"--application-subdirectory=/"}), warned);  // over itself
    EXPECT_EQ(site_.tree(), expected);

    expected.erase("own");
    EXPECT_EQ(extract({"--application-subdirectory=blog"}), warned);
    EXPECT_EQ(site_.tree("vhost/httpdocs/blog"), expected);

    expected["data"] = expected["data/d"] = "d 755 alice:oxacln";
    expected["data/d/e"] = "- 644 alice:oxacln data/d/e";
    expected["data/store"] = "- 644 alice:oxacln data/store";
    EXPECT_EQ(extract({"--application-subdirectory=a/b", "--skip-webserver-write"}), warned);
    EXPECT_EQ(site_.tree("vhost/httpdocs/a/b"), expected);
}

TEST_F(Extract, TheLastMappingOfATargetWins)
{
    // Siblings are visited in reverse, so "first" comes last.
    package({},
            "<mapping url='/' path='first'/><mapping url='/' path='second'/>"
            "<mapping url='one' path='first/same'/>");
    site_.write("package/first/same", "1");
    site_.write("package/second/same", "2");
    site_.write("package/second/only", "2");
    EXPECT_EQ(extract(), says(0, ""));
    EXPECT_EQ(
        site_.tree(),
        (Tree {{"only", "- 644 alice:oxacln 2"}, {"one", "- 644 alice:oxacln 1"}, {"same", "- 644 alice:oxacln 1"}}));
}

TEST_F(Extract, KeepsNamesAndContentsAsTheyAre)
{
    const std::string large(1'000'000, 'L');
    const Words names = {"sp ace", "new\nline",           "quo\"te'",        "\xff\xfe", "-rf", "a-b",
                         "a.b",    std::string(255, 'n'), "deep/deep/deep/f"};
    package(names);
    site_.write("package/htdocs/empty", "");
    site_.write("package/htdocs/large", large);
    site_.write("package/htdocs/a/of128k", large.substr(0, 128 * 1024));
    EXPECT_EQ(extract(), says(0, ""));
    EXPECT_EQ(read(site_.docroot("large")), large);
    EXPECT_EQ(read(site_.docroot("a/of128k")), large.substr(0, 128 * 1024));
    EXPECT_EQ(read(site_.docroot("empty")), "");
    for (const std::string& name : names)
        EXPECT_EQ(read(site_.docroot(name)), name);
}

TEST_F(Extract, CopiesAcrossFileSystems)
{
    char other[] = "/var/tmp/package.XXXXXX";
    ASSERT_NE(mkdtemp(other), nullptr);
    package({});
    const std::string large(3'000'000, 'L');
    fs::create_directory(std::string(other) + "/htdocs");
    std::ofstream(std::string(other) + "/htdocs/large") << large;
    std::ofstream(std::string(other) + "/APP-META.xml") << read(site_.package("APP-META.xml"));
    ASSERT_EQ(chmod(other, 0755), 0);
    EXPECT_EQ(extract({"--application-full-name=file:///" + std::string(other)}), says(0, ""));
    EXPECT_EQ(read(site_.docroot("large")), large);
    fs::remove_all(other);
}

TEST_F(Extract, LinksAreContentInPackagesAndReplacedInDocumentRoots)
{
    package({"file", "linked/x", "used/in"});
    site_.write("outside", "outside");
    fs::create_symlink("../../outside", site_.package("htdocs/to-file"));
    fs::create_symlink(site_.path(), site_.package("htdocs/to-dir"));
    site_.put("elsewhere/");
    site_.put("victim", "victim");
    fs::create_symlink("victim", site_.docroot("file"));
    fs::create_symlink("nowhere", site_.docroot("to-file"));
    fs::create_symlink("elsewhere", site_.docroot("used"));
    EXPECT_EQ(extract(), says(0, ""));
    EXPECT_EQ(site_.tree(),
              (Tree {{"elsewhere", "d 755 alice:oxacln"},
                     {"elsewhere/in", "- 644 alice:oxacln used/in"},
                     {"file", "- 644 alice:oxacln file"},
                     {"linked", "d 755 alice:oxacln"},
                     {"linked/x", "- 644 alice:oxacln linked/x"},
                     {"to-dir", "d 755 alice:oxacln"},
                     {"to-file", "- 644 alice:oxacln outside"},
                     {"used", "l 777 root:root elsewhere"},
                     {"victim", "- 644 alice:oxacln victim"}}));
}

TEST_F(Extract, AnErrorTakesEverythingBackAndIsToldTwice)
{
    struct Case {
        const char* why;
        void (*prepare)(const Site& site);
        std::string message;
    };
    const auto linked = [](const Site& site) { fs::create_symlink("nowhere", site.package("htdocs/z")); };
    const Case cases[] = {
        {"dangling link", linked, copy_error("z", "No such file or directory", ENOENT)},
        {"unreadable", [](const Site& site) { site.write("package/htdocs/z", "z", 0600); },
         copy_error("z", "Permission denied", EACCES)},
        {"named pipe", [](const Site& site) { mkfifo(site.package("htdocs/z").c_str(), 0644); },
         copy_error("z", "Operation not supported", EOPNOTSUPP)},
        {"too large", [](const Site& site) { site.write("package/htdocs/z", std::string(300'000, 'z')); },
         copy_error("z", "File too large", EFBIG)},
        {"directory in the way",
         [](const Site& site) {
             site.write("package/htdocs/z", "z");
             site.put("z/");
             site.put("z/full");
         },
         "Filesystem error: boost::filesystem::remove: Directory not empty: \"" + site_.docroot("z") + "\"(system:39)"
             + site_.package("htdocs/z") + " -> " + site_.docroot("z")},
        {"file in the way",
         [](const Site& site) {
             site.write("package/htdocs/z/f", "z");
             site.put("z");
         },
         "Unable to create directory " + site_.docroot("z") + " - filename occupied"},
        {"link in a writable mapping",
         [](const Site& site) {
             site.write("package/htdocs/data/f", "");
             site.put("data/");
             fs::create_symlink("f", site.docroot("data/link"));
         },
         "Unknown type of file `" + site_.docroot("data/link") + "`. Unable to change file mode."},
        {"writable mapping without a source", [](const Site&) {},
         "Unable to stat file  " + site_.docroot("data") + " mode: No such file or directory"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        fs::remove_all(site_.package("htdocs"));
        package({"a", "b/c"},
                "<mapping url='/' path='htdocs'><mapping url='data'>"
                "<php:permissions writable='true'/></mapping></mapping>");
        site_.put("own", "not spared: it lies below a target");
        c.prepare(site_);
        const std::string warning = fs::exists(site_.package("htdocs/data"))
            ? ""
            : "Source directory \"" + site_.package("htdocs/data") + "\" is not exist\n";
        const Result result = zendrel(site_.extract(), "", {100'000, 0});
        EXPECT_EQ(result, says(1, warning + c.message + "\n" + c.message + "\n"));
        EXPECT_TRUE(site_.tree().empty());
    }
}

TEST_F(Extract, TheRollbackSparesWhatIsNoTargetAndEndsAtWhatItCannotRemove)
{
    package({"a", "m/new", "z"});
    site_.put("blog/");
    site_.put("blog/z/");
    site_.put("blog/z/full");
    site_.put("blog/m/", "", 0777, kBob);
    site_.put("blog/m/bobs/", "", 0755, kBob);
    site_.put("blog/m/bobs/f", "", 0644, kBob);
    const std::string target = site_.docroot("blog/z");
    EXPECT_EQ(extract({"--application-subdirectory=blog"}),
              fails("Filesystem error: boost::filesystem::remove: Directory not empty: \"" + target + "\"(system:39)"
                    + site_.package("htdocs/z") + " -> " + target));
    // z and m/new are gone, the first from the end; m held, so a was not reached.
    EXPECT_EQ(site_.tree("vhost/httpdocs/blog"),
              (Tree {{"a", "- 644 alice:oxacln a"},
                     {"m", "d 777 bob:oxacln"},
                     {"m/bobs", "d 755 bob:oxacln"},
                     {"m/bobs/f", "- 644 bob:oxacln "}}));
}

TEST_F(Extract, RefusesWhatItMayNotWrite)
{
    package({"d/f", "f"});
    site_.put("", "", 0555, kBob, kServices);
    const std::string warning = "Unable to change mode for " + site_.docroot() + ": Operation not permitted\n";
    std::string shown = warning;
    shown.erase(shown.find("/: "), 1);
    const std::string error = "Unable to create directory " + site_.docroot("d");
    EXPECT_EQ(extract({"--application-subdirectory=/"}), says(1, shown + shown + error + "\n" + error + "\n"));
    EXPECT_TRUE(site_.tree().empty());

    // The parent is named once for each target in it, as long as its mode cannot be changed.
    site_.put("", "", 0703, kBob, kServices);
    EXPECT_EQ(extract(), says(0, shown + shown + shown));
    EXPECT_EQ(read(site_.docroot("d/f")), "d/f");
}

TEST_F(Extract, PathsThatAreTooLongEndInAnError)
{
    package({"f"});
    std::string subdir = "s";
    while (subdir.size() < 4100)
        subdir += "/" + std::string(200, 's');
    EXPECT_EQ(extract({"--application-subdirectory=" + subdir}).status, 1);
    EXPECT_EQ(extract({"--application-subdirectory=" + std::string(256, 's')}),
              fails("Filesystem error: boost::filesystem::status: File name too long: \""
                    + site_.docroot(std::string(256, 's')) + "/\"(system:36)" + site_.package("htdocs") + " -> "
                    + site_.docroot(std::string(256, 's')) + "/"));
    EXPECT_TRUE(site_.tree().empty());
}

/// The widening as root, whose changes of a mode never fail.
TEST_F(Extract, ModesOfWritableMappingsGainBitsByOwnerAndGroup)
{
    package({"data/new"},
            "<mapping url='data' path='htdocs/data'>"
            "<php:permissions writable='true'/></mapping>");
    struct Case {
        uid_t owner;
        gid_t group;
        const char* file;
        const char* directory;
    };
    const Case cases[] = {
        {kWebServer, kClients, "660 www-data:oxacln", "770 www-data:oxacln"},
        {kWebServer, kServices, "606 www-data:oxaserv", "707 www-data:oxaserv"},
        {kAlice, kServices, "660 alice:oxaserv", "770 alice:oxaserv"},
        {kAlice, kClients, "606 alice:oxacln", "707 alice:oxacln"},
        {kBob, kClients, "666 bob:oxacln", "777 bob:oxacln"},
        {kBob, kServices, "666 bob:oxaserv", "777 bob:oxaserv"},
    };
    site_.put("data/", "", 02000);
    Tree expected;
    for (const Case& c : cases) {
        const std::string name = "data/" + std::to_string(&c - cases);
        site_.put(name, "", 0001, c.owner, c.group);
        site_.put(name + ".d/", "", 04000, c.owner, c.group);
        std::string file = c.file;
        file[2] = static_cast<char>(file[2] | 1);  // what was there stays
        expected[name] = "- " + file + " ";
        expected[name + ".d"] = "d 4" + std::string(c.directory);
    }
    const tarvik::FSAMetaDataReader metadata(site_.package("APP-META.xml"));
    ASSERT_TRUE(tarvik::fsa_install_htdocsfiles(site_.path("package"), site_.path("vhost/httpdocs"), ".", metadata,
                                                "alice", true));
    expected["data"] = "d 2707 alice:oxacln";
    expected["data/new"] = "- 666 root:oxacln data/new";  // the set-group-id directory's group
    EXPECT_EQ(site_.tree(), expected);
}

TEST_F(Extract, DirectoriesThatReceiveFilesAreOpenedToTheSitesPeople)
{
    package({"u/f", "g/f", "o/f"});
    site_.put("u/", "", 0005);
    site_.put("g/", "", 0500, kBob);
    site_.put("o/", "", 0500, kBob, kServices);
    const tarvik::FSAMetaDataReader metadata(site_.package("APP-META.xml"));
    ASSERT_TRUE(tarvik::fsa_install_htdocsfiles(site_.path("package"), site_.path("vhost/httpdocs"), "/", metadata,
                                                "alice", true));
    const Tree tree = site_.tree();
    EXPECT_EQ(tree.at("u"), "d 705 alice:oxacln");
    EXPECT_EQ(tree.at("g"), "d 570 bob:oxacln");
    EXPECT_EQ(tree.at("o"), "d 507 bob:oxaserv");
}

/// Gives a directory a default ACL, which takes bits away from what is created in it.
void set_default_acl(const std::string& dir, unsigned char user, unsigned char others)
{
    const unsigned char acl[] = {2,      0, 0,   0,   1,   0,   user, 0, 255,    255, 255, 255, 4,   0,
                                 others, 0, 255, 255, 255, 255, 32,   0, others, 0,   255, 255, 255, 255};
    ASSERT_EQ(setxattr(dir.c_str(), "system.posix_acl_default", acl, sizeof acl, 0), 0);
}

TEST_F(Extract, ModesDoNotDependOnUmaskOrInheritedAccess)
{
    package({"a", "b.pl", "new/a", "half/a", "half/b.pl", "none/a", "none/b", "none/c.pl"},
            "<mapping url='/' path='htdocs'><cgi:handler><cgi:extension>pl</cgi:extension>"
            "</cgi:handler></mapping>");
    site_.put("half/");
    set_default_acl(site_.docroot("half"), 6, 4);  // would do for files, but not for programs
    site_.put("none/");
    set_default_acl(site_.docroot("none"), 4, 0);
    Words words = {"sh", "-c", "umask 077; exec \"$@\"", "sh", ZENDREL_PROGRAM};
    for (const std::string& word : site_.extract())
        words.push_back(word);
    EXPECT_EQ(run(words), says(0, ""));
    EXPECT_EQ(site_.tree(),
              (Tree {{"a", "- 644 alice:oxacln a"},
                     {"b.pl", "- 755 alice:oxacln b.pl"},
                     {"half", "d 755 alice:oxacln"},
                     {"half/a", "- 644 alice:oxacln half/a"},
                     {"half/b.pl", "- 755 alice:oxacln half/b.pl"},
                     {"new", "d 755 alice:oxacln"},
                     {"new/a", "- 644 alice:oxacln new/a"},
                     {"none", "d 755 alice:oxacln"},
                     {"none/a", "- 644 alice:oxacln none/a"},
                     {"none/b", "- 644 alice:oxacln none/b"},
                     {"none/c.pl", "- 755 alice:oxacln none/c.pl"}}));
}

TEST_F(Extract, ForeignFilesInAWritableMappingStayAsTheyAre)
{
    package({"data/f"},
            "<mapping url='data' path='htdocs/data'>"
            "<php:permissions writable='true'/></mapping>");
    site_.put("data/");
    site_.put("data/bobs", "", 0644, kBob);
    EXPECT_EQ(extract(), says(0, ""));
    EXPECT_EQ(site_.tree().at("data/bobs"), "- 644 bob:oxacln ");

    site_.put("data/", "", 0775, kBob);  // but the mapping itself has to be widened
    const std::string error = "Unable to change mode for: " + site_.docroot("data") + " Error: Operation not permitted";
    EXPECT_EQ(extract(), fails(error));
}

TEST_F(Extract, ChecksItsOptionsFirst)
{
    package({"f"});
    const std::string fatal = "Fatal error: boost::wrapexcept<boost::program_options::";
    struct Case {
        std::string words;
        std::string error;
    };
    const Case cases[] = {
        {"--user-name=alice", "required_option>(the option '--application-full-name' is required but missing)"},
        {"--no-such=1", "unknown_option>(unrecognised option '--no-such=1')"},
        {"--www-root", "invalid_command_line_syntax>(the required argument for option '--www-root' is missing)"},
        {"--skip-webserver-write=",
         "invalid_command_line_syntax>(option '--skip-webserver-write' does not take any "
         "arguments)"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(zendrel({"--extract-application", c.words}), says_twice(1, fatal + c.error + "\n"));

    // Values may follow as words of their own, empty ones too, and names may be cut short.
    EXPECT_EQ(zendrel({"--extract-application", "--application-full", "file:///" + site_.path("package"),
                       "--vhost-path", site_.vhost(), "--user=alice", "--application-sub", ".", "--metadata-file", "",
                       "--www-root", site_.path("vhost/httpdocs"), "stray"}),
              says(0, ""));
    EXPECT_EQ(site_.tree().count("f"), 1u);
}

TEST_F(Extract, RefusesInItsOrderOfChecks)
{
    package({"f"});
    site_.write("good.xml", read(site_.package("APP-META.xml")));
    site_.write("empty/x", "");
    fs::create_directories(site_.path("odd/APP-META.xml"));
    const std::string full = "--application-full-name=";
    const auto no_metadata = [this](const std::string& dir) {
        return says(1, "Application metadata file " + site_.path(dir) + "/APP-META.xml does not exist\n");
    };
    for (const std::string& name : {"file:/" + site_.path("package"), std::string("file:"), std::string()})
        EXPECT_EQ(extract({full + name}), says(1, "Invalid value " + name + "for --application-full-name option\n"));
    const std::string good = "--metadata-file=" + site_.path("good.xml");
    EXPECT_EQ(extract({full + "file:///" + site_.path("empty"), good}), no_metadata("empty"));
    EXPECT_EQ(extract({full + "file:///" + site_.path("odd"), good}), no_metadata("odd"));
    EXPECT_EQ(extract({full + "file:///"}), says(1, "Application metadata file /APP-META.xml does not exist\n"));
    for (const std::string& vhost : {site_.path("none"), site_.path("good.xml"), std::string()})
        EXPECT_EQ(extract({"--vhost-path=" + vhost, "--metadata-file=none", "--user-name=nosuch"}),
                  says(1, "Virtual host root directory" + vhost + "does not exist\n"));
    EXPECT_EQ(extract({"--metadata-file=none", "--user-name=nosuch"}), says(1, "Unable to load file: none\n"));
    EXPECT_EQ(extract({"--user-name=root"}), says_twice(1, "Cannot run as forbidden uid: 0\n"));
    EXPECT_TRUE(site_.tree().empty());

    const std::string groups = read("/etc/group");
    std::string without = groups;
    without.replace(without.find("oxacln"), 6, "others");
    std::ofstream("/etc/group") << without;
    const Result result = extract({"--vhost-path=none"});
    std::ofstream("/etc/group") << groups;
    EXPECT_EQ(result, says(255, ""));
}

TEST_F(Extract, CanCleanTheDocumentRootFirst)
{
    package({"f"});
    site_.put("old/");
    site_.put("old/f");
    static const Site* site;
    static const char* subdir;
    site = &site_;
    for (const char* where : {"blog", "."}) {
        subdir = where;
        EXPECT_EQ(in_child([] {
                      _exit(tarvik::fsa_extract_application("file:///" + site->path("package"), site->vhost(),
                                                            site->path("vhost/httpdocs"), "alice", subdir, 1, "",
                                                            true));
                  }),
                  says(0, ""));
        // Only an installation into the document root itself cleans it.
        EXPECT_EQ(site_.tree().count("old/f"), subdir == std::string("blog") ? 1u : 0u);
    }
    EXPECT_EQ(site_.tree(), (Tree {{"f", "- 644 alice:oxacln f"}}));
}

TEST(PackagePath, IsWhatFollowsThePrefix)
{
    char path[4096] = "untouched";
    for (const char* name : {"", "file:///", "file://a/b", "File:///ab"})
        EXPECT_EQ(get_orsa_application_path(path, name), 0) << name;
    EXPECT_STREQ(path, "untouched");
    EXPECT_EQ(get_orsa_application_path(path, "file:///opt/app"), 1);
    EXPECT_STREQ(path, "opt/app");
    EXPECT_EQ(get_orsa_application_path(path, ("file:///" + std::string(5000, 'p')).c_str()), 1);
    EXPECT_EQ(std::string(path, sizeof path), std::string(4096, 'p'));
}

/// Every call of a whole run that could change a file comes after the identity is gone for good,
/// and nothing is opened for it or connected to before that but what reading needs.
TEST_F(Extract, RootChangesNothing)
{
    package({"f", "d/g", "data/s"},
            "<mapping url='/' path='htdocs'><mapping url='data'>"
            "<php:permissions writable='true'/></mapping></mapping>");
    const auto trace = [this](const Words& command, const std::string& input) {
        // The leak check cannot run under a tracer.
        Words words = {"env", "ASAN_OPTIONS=detect_leaks=0", "strace",       "-f", "-s", "999",
                       "-o",  site_.path("trace"),           ZENDREL_PROGRAM};
        words.insert(words.end(), command.begin(), command.end());
        EXPECT_EQ(run(words, input), says(0, ""));
        return read(site_.path("trace"));
    };
    const Words changing = {"O_CREAT",   "O_WRONLY",   "O_RDWR", " mkdir",    " rmdir",         " unlink", " rename",
                            " chmod",    " fchmod",    " chown", " fchown",   " lchown",        " link",   " symlink",
                            " truncate", " ftruncate", " mknod", " setxattr", " socket(AF_INET"};
    for (const std::string& text :
         {trace(site_.extract(), ""), trace(site_.remove(), site_.list({"f", "d/g", "d", "data/s"}))}) {
        const std::size_t groups = text.find("setgroups(1, [28010])");
        const std::size_t gid = text.find("setgid(28010)", groups);
        const std::size_t uid = text.find("setuid(28001)", gid);
        ASSERT_NE(uid, std::string::npos) << text;
        for (const std::string& call : changing)
            EXPECT_GT(text.find(call), uid) << call;
        EXPECT_EQ(text.find("setuid", uid + 1), std::string::npos);
        EXPECT_NE(text.find("unlink", uid) != std::string::npos, text.find("mkdir(", uid) != std::string::npos);
    }
}

}  // namespace
