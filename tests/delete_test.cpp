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
    for (const char* path : {"a/", "a/f", "a/b/", "a/b/g", "a-z", "a.txt", "own", "sp ace/", "sp ace/-n\nl",
                             "caf\xc3\xa9", "own2", "d/", "d/f", "d-x", "e/", "caf\xc3\xa9-2", "\xe3\x81\x82"})
        site_.put(path, path);
    site_.shell("cd vhost/httpdocs; chown -R bob d e; ln -s / link; ln -s nowhere a/dangling");
    const std::string name(256, 'n');
    Words files = {"a",         "a/b",        "a.txt",  "a/f",          "a/f",       "link",    "a-z",         "a/b/g",
                   "missing/f", "a/dangling", "sp ace", "sp ace/-n\nl", "caf&#233;", "",        "<b>ow</b>n2", "d",
                   name,        "e/",         "/d/f",   "d/f",          "d-x/y",     "../../x", "d/f/g"};
    files.insert(files.end(), 60'000, std::string(200, 'm'));  // more text than the XML library takes at once
    const std::string denied = left("unlink", "d/f", "Permission denied");
    EXPECT_EQ(remove(site_.list(files)),
              says(0,
                   left("lstat", name, "File name too long") + left("rmdir", "e/.", "Invalid argument")
                       + left("lstat", "d-x/y", "Not a directory") + left("lstat", "d/f/g", "Not a directory") + denied
                       + left("rmdir", "d", "Directory not empty") + denied));
    EXPECT_EQ(remove(site_.list({"own"}, "cgi-bin")), says(0, ""));  // a section that is kept
    const std::string encoding = "<?xml version='1.0' encoding='", longest(100'000, 'n'),
                      tooLong = left("lstat", longest, "File name too long");
    EXPECT_EQ(remove(encoding + "latin1'?>" + site_.list({"caf\xe9-2"})), says(0, ""));
    EXPECT_EQ(remove(encoding + "EUC-JP'?>" + site_.list({"\xa4\xa2", "<![CDATA[" + longest + "]]>", longest})),
              says(0, tooLong + tooLong));
    EXPECT_EQ(site_.listing(), "\n- 644 alice:oxacln: d-x own\n- 644 bob:oxacln: d/f\nd 755 bob:oxacln: d e\n");
}

TEST_F(Delete, RemovesThePrefixDirectoryLast)
{
    const std::string list = site_.list({"", "f", "d/g", "d"}), subdir = "--application-subdirectory=";
    for (const char* path : {"blog/", "blog/f", "blog/d/", "blog/d/g", "keep/", "keep/k"})
        site_.put(path);
    EXPECT_EQ(remove(list, {subdir + "blog"}), says(0, ""));
    EXPECT_EQ(remove(list, {subdir + "keep"}), says(0, left("rmdir", "keep", "Directory not empty")));
    for (const char* whole : {"", ".", "/"}) {
        site_.put("f");
        EXPECT_EQ(remove(list, {subdir + whole, "--application-full-name=ignored"}), says(0, ""));
    }
    EXPECT_EQ(site_.listing(), "\n- 644 alice:oxacln: keep/k=\nd 755 alice:oxacln: keep\n");
}

TEST_F(Delete, AMalformedListEndsTheProcessWithNothingRemoved)
{
    site_.put("f");
    const std::string list = site_.list({"f"}), parse = "XML parse error", root = "Wrong root node name";
    const std::pair<std::string, std::string> cases[] = {
        {list.substr(0, list.size() - 3), parse},
        {"<!DOCTYPE INSTANCE-DATA><INSTANCE-DATA>", parse},
        {"<!DOCTYPE INSTANCE-DATA>" + list, root},
        {"<WRONG/>", root},
        {"<!-- c -->" + list, root},
        {"<!--" + std::string(9'000, 'c') + "--><!DOCTYPE INSTANCE-DATA>" + list, root},  // read twice
        {"<INSTANCE-DATA><SECTION prefix='htdocs'/></INSTANCE-DATA>", "Attribute name is required for section"},
        {"<INSTANCE-DATA xmlns:p='u'><SECTION p:PREFIX='htdocs'/></INSTANCE-DATA>",
         "Attribute name is required for section"},
        {"<?xml version='1.0' encoding='none'?>" + list, parse},
        {"<INSTANCE-DATA><SECTION PREFIX='httpdocs'/><SECTION/></INSTANCE-DATA>", "Bad sttribute name value"},
    };
    const std::string thrown = "terminate called after throwing an instance of 'std::runtime_error'\n  what():  ";
    for (const auto& [bad, what] : cases)
        EXPECT_EQ(remove(bad), says(128 + SIGABRT, thrown + what + "\n")) << bad;
#ifdef ZENDREL_LTO_PROGRAM
    EXPECT_EQ(run(Words {ZENDREL_LTO_PROGRAM} + site_.remove(), "<WRONG/>"), says(128 + SIGABRT, thrown + root + "\n"));
#endif
    EXPECT_EQ(site_.tree().count("f"), 1u);
    site_.put("own");
    EXPECT_EQ(remove("<?xml version='1.0'?><n:INSTANCE-DATA xmlns:n='u'><x><SECTION/></x><SECTION PREFIX='ht&#100;ocs'>"
                     "<FILE>f</FILE><u:FILE>own</u:FILE><x><FILE>own</FILE></x></SECTION><FILE>own</FILE><x>"
                     "<FILE>own</FILE></x></n:INSTANCE-DATA><!-- after -->"),
              says(0, ""));
    EXPECT_EQ(site_.tree().size(), 1u);
}

TEST_F(Delete, KeepsOnlyThePathsOfALongListAndLetsItsWriterFinish)
{
    const std::string program = " | " ZENDREL_PROGRAM " " + boost::join(site_.remove(), " ");
    const Result result =
        run({"sh", "-c",
             "perl -e 'print \"<INSTANCE-DATA><SECTION PREFIX=\\\"htdocs\\\">\"; "
             "print \"<FILE>\", \"x\" x 60, $_, \"</FILE>\" for 1..300000; print \"</SECTION></INSTANCE-DATA>\"'"
                 + program});
    EXPECT_EQ(result, says(0, ""));
#ifndef ZENDREL_SANITIZED
    EXPECT_LE(result.peakKilobytes, 64 * 1024);
#endif
    run({"sh", "-c",
         "{ echo '<a><b></a>'; head -c 999999 /dev/zero && echo written >" + site_.path("end") + "; }" + program});
    EXPECT_EQ(read(site_.path("end")), "written\n");
}

TEST_F(Delete, ChecksTheDocumentRootAsTheSiteUser)
{
    site_.put("closed/", "", 0700, kBob);
    const std::string none = site_.path("none"), closed = site_.docroot("closed");
    EXPECT_EQ(remove("", {"--www-root=" + none}), says(255, "Www root directory" + none + " does not exist\n"));
    site_.put("file");
    EXPECT_EQ(remove("", {"--www-root=" + site_.docroot("file")}),
              says(255, "Cannot chdir to " + site_.docroot("file") + ": Not a directory\n"));
    EXPECT_EQ(remove("", {"--www-root=" + closed}), says(255, "Cannot chdir to " + closed + ": Permission denied\n"));
}

}  // namespace
