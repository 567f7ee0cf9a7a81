#include "tests/support/Sandbox.h"

#include <sys/stat.h>

#include <boost/filesystem.hpp>

using namespace sandbox;
namespace fs = boost::filesystem;

namespace {

class Delete : public testing::Test {
protected:
    Result remove(const std::string& list, const Words& changes = {}) const
    {
        return zendrel(site_.remove(changes), list);
    }
    std::string docroot(const std::string& below = "") const { return site_.docroot(below); }

    Site site_;
};

TEST_F(Delete, TakesExactlyWhatIsListedChildrenFirst)
{
    for (const char* path : {"a/", "a/f", "a/b/", "a/b/g", "a-z", "a.txt", "own", "sp ace/", "sp ace/-n\nl",
                             "caf\xc3\xa9", "full/", "full/x", "full/y"})
        site_.put(path);
    fs::create_symlink("/", docroot("link"));
    fs::create_symlink("nowhere", docroot("a/dangling"));
    const std::string name(255, 'n');
    site_.put(name);
    EXPECT_EQ(
        remove(site_.list({"a", "a/b", "a.txt", "a/f", "link", "a-z", "a/b/g", "missing/f", "a/dangling", name,
                           "sp ace", "sp ace/-n\nl", "caf&#233;", "full", "", "full/x", "full/x", "<b>ow</b>n2"})),
        says(0, "rmdir(\"" + docroot("full") + "\"): Directory not empty\n"));
    EXPECT_EQ(
        site_.tree(),
        (Tree {{"full", "d 755 alice:oxacln"}, {"full/y", "- 644 alice:oxacln "}, {"own", "- 644 alice:oxacln "}}));
}

/// "Htdocs" before "CgiBin", descending; what cannot be removed is reported a line each, in that
/// order.
TEST_F(Delete, ReportsInTheOrderOfRemoval)
{
    site_.put("d/", "", 0755, kBob);
    site_.put("d/f", "", 0644, kBob);
    site_.put("d-x");
    site_.put("e/", "", 0755, kBob);
    const std::string list = "<INSTANCE-DATA><SECTION PREFIX='cgi-bin'><FILE>c</FILE></SECTION>"
                             "<SECTION PREFIX='htdocs'><FILE>d</FILE><FILE>e/</FILE><FILE>/d/f</FILE>"
                             "<FILE>d/f</FILE><FILE>d-x/y</FILE><FILE>../../x</FILE><FILE>d/f/g</FILE></SECTION></"
                             "INSTANCE-DATA>";
    EXPECT_EQ(remove(list),
              says(0,
                   "rmdir(\"" + docroot("e/.") + "\"): Invalid argument\n" + "lstat(\"" + docroot("d-x/y")
                       + "\"): Not a directory\n" + "lstat(\"" + docroot("d/f/g") + "\"): Not a directory\n"
                       + "unlink(\"" + docroot("d/f") + "\"): Permission denied\n" + "rmdir(\"" + docroot("d")
                       + "\"): Directory not empty\n" + "unlink(\"" + docroot("d/f") + "\"): Permission denied\n"));
    EXPECT_EQ(site_.tree().size(), 4u);
}

TEST_F(Delete, ReportsNamesThatAreTooLong)
{
    const std::string name(256, 'n');
    std::string path;
    while (path.size() < 4100)
        path += std::string(200, 'p') + "/";
    path += "f";
    EXPECT_EQ(remove(site_.list({name, path})),
              says(0,
                   "lstat(\"" + docroot(path) + "\"): File name too long\n" + "lstat(\"" + docroot(name)
                       + "\"): File name too long\n"));
}

TEST_F(Delete, RemovesThePrefixDirectoryLast)
{
    const std::string list = site_.list({"f", "d/g", "d"});
    const std::string empty = "<INSTANCE-DATA><OTHER><FILE>k</FILE></OTHER>"
                              "<SECTION PREFIX='htdocs'><FILE/></SECTION></INSTANCE-DATA>";
    for (const char* path : {"blog/", "blog/f", "blog/d/", "blog/d/g", "f", "keep/", "keep/k"})
        site_.put(path);
    EXPECT_EQ(remove(list, {"--application-subdirectory=blog"}), says(0, ""));
    EXPECT_EQ(remove(empty, {"--application-subdirectory=keep"}),
              says(0, "rmdir(\"" + docroot("keep") + "\"): Directory not empty\n"));
    for (const char* whole : {"", ".", "/"}) {
        EXPECT_EQ(remove(empty, {"--application-subdirectory=" + std::string(whole)}), says(0, ""));
    }
    EXPECT_EQ(site_.tree().size(), 3u);  // f, keep and its k
    EXPECT_EQ(remove(list, {"--application-subdirectory=/"}), says(0, ""));
    EXPECT_EQ(site_.tree().count("f"), 0u);
}

TEST_F(Delete, WorksInsideTheDocumentRoot)
{
    site_.put("f");
    EXPECT_EQ(remove(site_.list({"f"}),
                     {"--www-root=" + docroot(".."),
                      "--application-subdirectory="
                      "httpdocs",
                      "--application-full-name=ignored"}),
              says(0, "rmdir(\"" + docroot("../httpdocs") + "\"): Permission denied\n"));
    EXPECT_TRUE(site_.tree().empty());
}

/// The list is read as a stream: well beyond the size at which the XML library gives up on a text.
TEST_F(Delete, TakesListsOfAnyLength)
{
    site_.put("f");
    std::string list = "<INSTANCE-DATA><SECTION PREFIX='htdocs'><FILE>f</FILE>";
    const std::string line = "<FILE>" + std::string(200, 'm') + "</FILE>\n";
    while (list.size() < 12'000'000)
        list += line;
    EXPECT_EQ(remove(list + "</SECTION></INSTANCE-DATA>"), says(0, ""));
    EXPECT_TRUE(site_.tree().empty());
}

TEST_F(Delete, AMalformedListEndsTheProcessWithNothingRemoved)
{
    site_.put("f");
    const std::string list = site_.list({"f"});
    for (const std::string& bad : {std::string(), list.substr(0, list.size() - 3),
                                   "<!DOCTYPE x [<!ENTITY a '" + std::string(100, 'x') + "'>]>" + list, list + list,
                                   std::string("\x1f\x8b\x08\x00", 4)}) {
        const Result result = remove(bad);
        EXPECT_EQ(result.status, 128 + SIGABRT);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err.find("terminate called after throwing an instance of "
                                  "'std::runtime_error'\n  what():  "),
                  0u)
            << result.err;
    }
    EXPECT_EQ(site_.tree().count("f"), 1u);
}

TEST_F(Delete, ChecksTheDocumentRootAsTheSiteUser)
{
    const std::string none = site_.path("none");
    EXPECT_EQ(remove("", {"--www-root=" + none}), says(255, "Www root directory" + none + " does not exist\n"));
    site_.write("file", "");
    EXPECT_EQ(remove("", {"--www-root=" + site_.path("file")}),
              says(255, "Cannot chdir to " + site_.path("file") + ": Not a directory\n"));
    site_.put("closed/", "", 0700, kBob);
    EXPECT_EQ(remove("", {"--www-root=" + docroot("closed")}),
              says(255, "Cannot chdir to " + docroot("closed") + ": Permission denied\n"));
    const std::string inside = docroot("closed/x");
    EXPECT_EQ(remove("", {"--www-root=" + inside}),
              says_twice(1,
                         "Fatal error: boost::filesystem::filesystem_error("
                         "boost::filesystem::status: Permission denied: \""
                             + inside + "\")\n"));
    EXPECT_EQ(remove("", {"--user-name=nosuch"}),
              says_twice(1, "Unable to getpwnam for user nosuch\nUser nosuch not found\n"));
}

}  // namespace
