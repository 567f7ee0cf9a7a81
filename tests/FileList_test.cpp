#include "app/FileList.h"

#include "tests/support/Sandbox.h"

#include <boost/filesystem.hpp>

#include <sys/resource.h>
#include <unistd.h>

#include <iostream>
#include <sstream>

using namespace sandbox;
using namespace tarvik;
namespace fs = boost::filesystem;

namespace {

std::string joined(const std::list<fs::path>& paths)
{
    std::string text;
    for (const fs::path& path : paths)
        text += path.native() + "|";
    return text;
}

std::string sorted(std::list<fs::path> paths) { return paths.sort(), joined(paths); }

TEST(VhostDirs, AreListedInOrder)
{
    EXPECT_EQ(joined(vhostAllDirs()), "cgi-bin|private|httpsdocs|httpdocs|");
    EXPECT_EQ(joined(vhostUsedDirs(AllDirs)), "httpdocs|conf|cgi-bin|anon_ftp|error_docs|statistics|");
    EXPECT_EQ(joined(vhostUsedDirs(ApplicationDirs)), "httpdocs|cgi-bin|private|");
    EXPECT_EQ(joined(vhostUsedDirs(AllButHttpdocs)), "conf|cgi-bin|anon_ftp|error_docs|statistics|");
}

TEST(Listing, NamesTheTreeWithoutFollowingLinks)
{
    const Site site;
    site.shell("mkdir -p t/a; touch t/a/f t/b; ln -s / t/root");
    EXPECT_EQ(sorted(readDirContent(site.path("t"))), "|a|a/f|b|root|");
    EXPECT_EQ(sorted(readDirContent(site.path("t/"))), "|a|a/f|b|root|");
    EXPECT_EQ(joined(readDirContent(site.path("t/root"))), "|");
    EXPECT_EQ(joined(readDirContent(site.path("none"))), "|");
    std::list<fs::path> paths = {"first"};
    for (const char* parent : {"t", "t/"})  // the number of elements to leave out is the same
        EXPECT_EQ(readDirContent(&paths, site.path("t/a"), unsigned(pathLength(site.path(parent)))), 0);
    EXPECT_EQ(joined(paths), "first|a|a/f|a|a/f|");

    testing::internal::CaptureStderr();
    EXPECT_EQ(joined(readDirContent(site.path("t/b/x"))), "|");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), site.path("t/b/x") + ": Not a directory\n");
}

/// A directory tree deeper than there are descriptors is listed all the same.
TEST(Listing, HoldsNoDirectoryOpen)
{
    EXPECT_EQ(in_child([] {
                  const Site site;
                  site.shell("mkdir -p d$(printf '/d%.0s' $(seq 60))");
                  const rlimit few = {16, 16};
                  _exit(setrlimit(RLIMIT_NOFILE, &few) == 0 && readDirContent(site.path("d")).size() == 61 ? 0 : 1);
              }),
              says(0, ""));
}

TEST(CleanDocroot, EmptiesTheApplicationDirectoriesAndKeepsThem)
{
    const Site site;
    site.shell("mkdir -p docs/a v/private/p v/cgi-bin v/error_docs v/httpdocs bin/x; ln -s ../v/error_docs docs/link\n"
               "touch docs/a/f docs/g v/private/p/q v/cgi-bin/c v/error_docs/e bin/x/y v/httpdocs/kept");
    const std::string v = site.path("v"), docs = site.path("docs/"), bin = site.path("bin");
    const extract_params_t kept = {docs.c_str(), 0, 1, 1, nullptr}, open = {docs.c_str(), 0, 0, 0, bin.c_str()};
    EXPECT_EQ(clean_docroot(v.c_str(), &kept), 0);
    EXPECT_EQ(sorted(readDirContent(docs)) + sorted(readDirContent(bin)), "||x|x/y|");
    EXPECT_EQ(sorted(readDirContent(v)), "|cgi-bin|cgi-bin/c|error_docs|error_docs/e|httpdocs|httpdocs/kept|private|");
    EXPECT_EQ(clean_docroot((v + "/").c_str(), &open), 0);
    EXPECT_EQ(sorted(readDirContent(bin)), "|");

    const std::list<fs::path> paths = {"error_docs", "private", "error_docs/e"};  // parents come first here
    for (const auto& [params, left] :
         {std::pair(kept, "|cgi-bin|cgi-bin/c|error_docs|error_docs/e|"), std::pair(open, "|cgi-bin|cgi-bin/c|")}) {
        std::list<fs::path> list = paths;
        cleanDirContent(&list, v, ExtractParams(params));
        EXPECT_EQ(sorted(readDirContent(v)), left + std::string("httpdocs|httpdocs/kept|private|"));
    }
}

TEST(InstanceList, DocumentRootEntriesComeBeforeCgiBinOnes)
{
    const Site site;
    site.shell("mkdir -p docs/a bin/b; touch docs/a/left bin/b/left bin/c");
    const std::string docs = site.path("docs"), bin = site.path("bin");
    const extract_params_t params = {docs.c_str(), 0, 0, 0, bin.c_str()};
    std::istringstream list("<INSTANCE-DATA><SECTION PREFIX='cgi-bin'><FILE>b</FILE><FILE>c</FILE></SECTION>"
                            "<SECTION PREFIX='htdocs'><FILE>a</FILE></SECTION></INSTANCE-DATA>");
    std::streambuf* const standard = std::cin.rdbuf(list.rdbuf());
    testing::internal::CaptureStderr();
    sapp_delete_instance("/nonexistent", &params, ".");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "rmdir(\"" + docs + "/a\"): Directory not empty\nrmdir(\"" + bin + "/b\"): Directory not empty\n");
    EXPECT_EQ(sorted(readDirContent(bin)), "|b|b/left|");
    EXPECT_THROW(sapp_delete_instance("/nonexistent", &params, "."), std::runtime_error);  // the end of the input
    std::cin.rdbuf(standard);
}

}  // namespace
