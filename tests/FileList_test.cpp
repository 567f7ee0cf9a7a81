#include "app/FileList.h"

#include "app/Listing.h"
#include "tests/support/Sandbox.h"

#include <boost/filesystem/path.hpp>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>

#include <iostream>
#include <numeric>

using namespace sandbox;
using namespace tarvik;
namespace fs = boost::filesystem;

namespace {

bool typesTold = true;  // by directories; not all file systems do

std::string listed(const std::string& dir)
{
    std::list<fs::path> paths = readDirContent(dir);
    paths.sort();
    return std::accumulate(paths.begin(), paths.end(), std::string(),
                           [](const std::string& text, const fs::path& path) { return text + path.native() + "|"; });
}

TEST(Listing, NamesTheTreeWithoutFollowingLinks)
{
    const Site site;
    site.shell("mkdir -p t/a deep$(printf '/d%.0s' $(seq 60)); touch t/a/f t/b; ln -s / t/root; mkdir deeper");
    typesTold = false;
    EXPECT_EQ(listed(site.path("t/")), "|a|a/f|b|root|");
    typesTold = true;
    EXPECT_EQ(listed(site.path("t/root")) + listed(site.path("none")), "||");
    testing::internal::CaptureStderr();
    EXPECT_EQ(listed(site.path("t/b/x")), "|");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), site.path("t/b/x") + ": Not a directory\n");

    const rlimit few = {16, 16};  // fewer descriptors than the tree is deep
    EXPECT_EXIT(_exit(setrlimit(RLIMIT_NOFILE, &few) == 0 && readDirContent(site.path("deep")).size() == 61 ? 0 : 1),
                testing::ExitedWithCode(0), "^$");

    const TDescriptor top(open(site.path().c_str(), O_PATH));
    DirectoryChain chain(top.get());
    EXPECT_TRUE(chain.at("deep/d") >= 0 && chain.at("deeper") >= 0);  // which is not in "deep"
}

TEST(Directories, AreThoseOfAVirtualHost)
{
    const auto dirs = vhostUsedDirs(AllDirs), others = vhostUsedDirs(AllButHttpdocs);
    EXPECT_TRUE(dirs.size() == 6 && std::equal(++dirs.begin(), dirs.end(), others.begin(), others.end()));
    EXPECT_TRUE(ExtractParams(extract_params_t {nullptr, 2, 0, 0, nullptr}).extra_flag);
    EXPECT_EQ(in_child([] {
                  sapp_cpp_init();
                  std::terminate();  // without a word
              }),
              says(128 + SIGABRT, ""));

    const Site site;
    site.shell("mkdir -p t/a; touch t/a/f");
    std::list<fs::path> paths = {"first"};
    EXPECT_EQ(readDirContent(&paths, site.path("t"), static_cast<unsigned>(pathLength(site.path("t/")))), 0);
    paths.sort();
    EXPECT_EQ(paths, (std::list<fs::path> {"", "a", "a/f", "first"}));
}

TEST(Removal, EmptiesApplicationDirectoriesAndTakesInstancesInOrder)
{
    const Site site;
    site.shell("mkdir -p docs/a v/private/p v/cgi-bin v/error_docs v/httpdocs bin/x; ln -s ../v/error_docs docs/link\n"
               "touch docs/a/f docs/g v/private/p/q v/cgi-bin/c v/error_docs/e bin/x/y v/httpdocs/kept");
    const std::string v = site.path("v"), docs = site.path("docs/"), bin = site.path("bin");
    const extract_params_t kept = {docs.c_str(), 0, 2, 2, nullptr}, open = {docs.c_str(), 3, 0, 0, bin.c_str()};
    std::list<fs::path> errors = {"error_docs", "error_docs/e"};  // parents come first here
    EXPECT_EQ(clean_docroot(v.c_str(), &kept), 0);
    cleanDirContent(&errors, v, ExtractParams(kept));
    EXPECT_EQ(listed(docs) + listed(bin), "||x|x/y|");
    EXPECT_EQ(listed(v), "|cgi-bin|cgi-bin/c|error_docs|error_docs/e|httpdocs|httpdocs/kept|private|");

    site.shell("touch v/private/q");
    EXPECT_EQ(clean_docroot((v + "/").c_str(), &open), 0);
    cleanDirContent(&errors, v, ExtractParams(open));
    EXPECT_EQ(listed(bin) + listed(v), "||cgi-bin|cgi-bin/c|httpdocs|httpdocs/kept|private|");

    // The document root is cleared before cgi-bin, whatever the order of the list.
    site.shell("mkdir -p docs/a bin/b bin/d/e; touch docs/a/left bin/b/left bin/c bin/d/e/f");
    std::istringstream list("<INSTANCE-DATA><SECTION PREFIX='cgi-bin'><FILE>b</FILE><FILE>c</FILE>"
                            "<FILE>d</FILE><FILE>d/e</FILE><FILE>d//e/f</FILE></SECTION>"
                            "<SECTION PREFIX='htdocs'><FILE>a</FILE></SECTION></INSTANCE-DATA>");
    std::streambuf* const standard = std::cin.rdbuf(list.rdbuf());
    testing::internal::CaptureStderr();
    sapp_delete_instance("/nonexistent", &open, ".");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "rmdir(\"" + docs + "a\"): Directory not empty\nrmdir(\"" + bin + "/b\"): Directory not empty\n");
    EXPECT_EQ(listed(bin), "|b|b/left|");
    EXPECT_THROW(sapp_delete_instance("/nonexistent", &open, "."), std::runtime_error);  // the end of the input
    std::cin.rdbuf(standard);
}

}  // namespace

dirent* readdir(DIR* directory)
{
    static const auto next = reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir64"));
    dirent* const entry = next(directory);
    if (entry != nullptr && !typesTold)
        entry->d_type = DT_UNKNOWN;
    return entry;
}
