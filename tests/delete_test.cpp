#include "tests/support/Sandbox.h"

using namespace sandbox;

namespace {

class Delete : public testing::Test {
protected:
    Result remove(const std::string& list, const Words& words = {}) const { return zendrel(site_.remove(words), list); }
    /// What the removal reports of an entry that it leaves.
    std::string left(const std::string& call, const std::string& below, const std::string& reason) const
    {
        return call + "(\"" + site_.docroot(below) + "\"): " + reason + "\n";
    }

    Site site_;
};

TEST_F(Delete, TakesExactlyWhatIsListedChildrenFirst)
{
    for (const std::string& path :
         Words {"a/", "a/f", "a/b/", "a/b/g", "a-z", "a.txt", "own", "sp ace/", "sp ace/-n\nl", "caf\xc3\xa9", "full/",
                "full/x", "full/y", "own2", std::string(255, 'n')})
        site_.put(path, path);
    site_.shell("cd vhost/httpdocs; ln -s / link; ln -s nowhere a/dangling");
    Words files(60'000, std::string(200, 'm'));  // more text than the XML library takes at once
    for (const char* file : {"a", "a/b", "a.txt", "a/f", "link", "a-z", "a/b/g", "missing/f", "a/dangling", "sp ace",
                             "sp ace/-n\nl", "caf&#233;", "full", "", "full/x", "full/x", "<b>ow</b>n2"})
        files.push_back(file);
    files.push_back(std::string(255, 'n'));
    EXPECT_EQ(remove(site_.list(files)), says(0, left("rmdir", "full", "Directory not empty")));
    EXPECT_EQ(remove(site_.list({"own"}, "cgi-bin")), says(0, ""));  // a section that is kept
    EXPECT_EQ(site_.listing(), "\n- 644 alice:oxacln: full/y own\nd 755 alice:oxacln: full\n");
}

TEST_F(Delete, ReportsInTheOrderOfRemoval)
{
    for (const char* foreign : {"d/", "d/f", "e/"})
        site_.put(foreign, "", 0755, kBob);
    site_.put("d-x");
    const std::string name(256, 'n');
    std::string path = "p";
    while (path.size() < 4100)
        path += "/" + std::string(200, 'p');
    EXPECT_EQ(remove(site_.list({"d", name, "e/", "/d/f", "d/f", "d-x/y", path, "../../x", "d/f/g"})),
              says(0,
                   left("lstat", path, "File name too long") + left("lstat", name, "File name too long")
                       + left("rmdir", "e/.", "Invalid argument") + left("lstat", "d-x/y", "Not a directory")
                       + left("lstat", "d/f/g", "Not a directory") + left("unlink", "d/f", "Permission denied")
                       + left("rmdir", "d", "Directory not empty") + left("unlink", "d/f", "Permission denied")));
    EXPECT_EQ(site_.tree().size(), 4u);
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
              says(0, left("rmdir", "keep", "Directory not empty")));
    for (const char* whole : {"", ".", "/"})
        EXPECT_EQ(remove(empty, {"--application-subdirectory=" + std::string(whole)}), says(0, ""));
    EXPECT_EQ(site_.tree().size(), 3u);  // f, keep and its k
    EXPECT_EQ(remove(list, {"--application-subdirectory=/", "--application-full-name=ignored"}), says(0, ""));
    EXPECT_EQ(site_.tree().count("f"), 0u);
}

TEST_F(Delete, AMalformedListEndsTheProcessWithNothingRemoved)
{
    site_.put("f");
    const std::string list = site_.list({"f"});
    const std::string parse = "XML parse error", root = "Wrong root node name";
    const std::pair<std::string, std::string> cases[] = {
        {"", parse},
        {list.substr(0, list.size() - 3), parse},
        {list + list, parse},
        {"<WRONG>", parse},
        {"<!DOCTYPE INSTANCE-DATA><INSTANCE-DATA>", parse},
        {"<!DOCTYPE INSTANCE-DATA>" + list, root},
        {"<WRONG/>", root},
        {"<!-- c -->" + list, root},
        {"<p:INSTANCE-DATA/>", root},
        {"<INSTANCE-DATA><SECTION P:PREFIX='htdocs' xmlns:P='u'/></INSTANCE-DATA>",
         "Attribute name is required for section"},
        {"<INSTANCE-DATA><SECTION PREFIX='httpdocs'/><SECTION/></INSTANCE-DATA>", "Bad sttribute name value"},
    };
    const std::string thrown = "terminate called after throwing an instance of 'std::runtime_error'\n  what():  ";
    for (const auto& [bad, what] : cases)
        EXPECT_EQ(remove(bad), says(128 + SIGABRT, thrown + what + "\n")) << bad;
    EXPECT_EQ(site_.tree().count("f"), 1u);
    EXPECT_EQ(remove("<?xml version='1.0'?><n:INSTANCE-DATA xmlns:n='u'><x><SECTION/></x><SECTION PREFIX='ht&#100;ocs'>"
                     "<FILE>f</FILE></SECTION><FILE>a</FILE></n:INSTANCE-DATA><!-- after -->"),
              says(0, ""));
    EXPECT_TRUE(site_.tree().empty());
}

TEST_F(Delete, ChecksTheDocumentRootAsTheSiteUser)
{
    site_.write("file", "");
    site_.put("closed/", "", 0700, kBob);
    const std::string none = site_.path("none"), file = site_.path("file"), closed = site_.docroot("closed");
    const std::pair<std::string, Result> cases[] = {
        {"--www-root=" + none, says(255, "Www root directory" + none + " does not exist\n")},
        {"--www-root=" + file, says(255, "Cannot chdir to " + file + ": Not a directory\n")},
        {"--www-root=" + closed, says(255, "Cannot chdir to " + closed + ": Permission denied\n")},
        {"--www-root=" + closed + "/x",
         says_twice(1,
                    "Fatal error: boost::filesystem::filesystem_error(boost::filesystem::status: Permission denied: \""
                        + closed + "/x\")\n")},
        {"--user-name=nosuch", says_twice(1, "Unable to getpwnam for user nosuch\nUser nosuch not found\n")},
    };
    for (const auto& [change, expected] : cases)
        EXPECT_EQ(remove("", {change}), expected) << change;
}

}  // namespace
