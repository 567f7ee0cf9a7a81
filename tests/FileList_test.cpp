#include "app/FileList.h"

#include "tests/support/Sandbox.h"

#include <boost/filesystem.hpp>

#include <sys/stat.h>
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

std::string sorted(std::list<fs::path> paths)
{
    paths.sort();
    return joined(paths);
}

TEST(VhostDirs, AreListedInOrder)
{
    EXPECT_EQ(joined(vhostAllDirs()), "cgi-bin|private|httpsdocs|httpdocs|");
    EXPECT_EQ(joined(vhostUsedDirs(AllDirs)), "httpdocs|conf|cgi-bin|anon_ftp|error_docs|statistics|");
    EXPECT_EQ(joined(vhostUsedDirs(ApplicationDirs)), "httpdocs|cgi-bin|private|");
    EXPECT_EQ(joined(vhostUsedDirs(AllButHttpdocs)), "conf|cgi-bin|anon_ftp|error_docs|statistics|");
    EXPECT_EQ(joined(vhostUsedDirs(static_cast<SetupSkeletonMode>(3))), "");
}

TEST(PathLength, CountsElementsWithoutATrailingSeparator)
{
    for (const auto& [path, length] : std::map<std::string, int> {
             {"/a/b", 3}, {"/a/b/", 3}, {"a", 1}, {"/", 1}, {"", 0}, {"a//b/.", 2}, {"a/./b", 3}})
        EXPECT_EQ(pathLength(path), length) << path;
}

TEST(Listing, NamesTheTreeWithoutFollowingLinks)
{
    const Site site;
    site.write("t/a/f", "");
    site.write("t/b", "");
    fs::create_symlink("/", site.path("t/root"));
    EXPECT_EQ(sorted(readDirContent(site.path("t"))), "|a|a/f|b|root|");
    EXPECT_EQ(sorted(readDirContent(site.path("t/"))), "|a|a/f|b|root|");
    EXPECT_EQ(joined(readDirContent(site.path("t/root"))), "|");
    EXPECT_EQ(joined(readDirContent(site.path("none"))), "|");
    std::list<fs::path> paths = {"first"};
    EXPECT_EQ(readDirContent(&paths, site.path("t/a"), unsigned(pathLength(site.path("t")))), 0);
    EXPECT_EQ(joined(paths), "first|a|a/f|");

    testing::internal::CaptureStderr();
    EXPECT_EQ(joined(readDirContent(site.path("t/b/x"))), "|");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), site.path("t/b/x") + ": Not a directory\n");
}

/// A directory tree deeper than there are descriptors is listed all the same.
TEST(Listing, HoldsNoDirectoryOpen)
{
    EXPECT_EQ(in_child([] {
                  const Site site;
                  std::string deep = "d";
                  for (int i = 0; i < 60; ++i)
                      deep += "/d";
                  fs::create_directories(site.path(deep));
                  while (dup(0) >= 0) { }
                  close(10);
                  const auto count = readDirContent(site.path("d")).size();
                  for (int fd = 11; fd < 100; ++fd)
                      close(fd);
                  if (count != 61)
                      _exit(1);
              }),
              says(0, ""));
}

TEST(DeleteDirEntry, MapsTheTopLevelDirectories)
{
    const extract_params_t kept = {"/docs", 0, 1, 1, nullptr};
    const extract_params_t open = {nullptr, 0, 0, 0, "/bin"};
    const DeleteDirEntry keeping("/v", ExtractParams(kept));
    const DeleteDirEntry removing("/v", ExtractParams(open));
    const auto place = [](const DeleteDirEntry& entry, const char* rel) {
        const auto location = entry.location(rel);
        return location ? location->native() : "kept";
    };
    EXPECT_EQ(place(keeping, "httpdocs/a//b"), "/docs/a/b");
    EXPECT_EQ(place(keeping, "cgi-bin/a"), "kept");
    EXPECT_EQ(place(keeping, "error_docs/a"), "kept");
    EXPECT_EQ(place(keeping, "private/a"), "/v/private/a");
    EXPECT_EQ(place(removing, "httpdocs/a/b"), "a/b");
    EXPECT_EQ(place(removing, "cgi-bin/a"), "/bin/a");
    EXPECT_EQ(place(removing, "error_docs/a"), "/v/error_docs/a");
}

TEST(CleanDocroot, EmptiesTheApplicationDirectoriesAndKeepsThem)
{
    const Site site;
    for (const char* file :
         {"docs/a/f", "docs/g", "v/private/p/q", "v/cgi-bin/c", "v/conf/k", "bin/x/y", "v/httpdocs/not-this"})
        site.write(file, "");
    fs::create_symlink(site.path("v/conf"), site.path("docs/link"));
    const std::string docs = site.path("docs/");
    extract_params_t params = {docs.c_str(), 0, 0, 1, nullptr};
    EXPECT_EQ(clean_docroot(site.path("v").c_str(), &params), 0);
    EXPECT_TRUE(site.tree("docs").empty());
    EXPECT_EQ(sorted(readDirContent(site.path("v"))),
              "|cgi-bin|cgi-bin/c|conf|conf/k|httpdocs|httpdocs/not-this|private|");

    const std::string bin = site.path("bin");
    params = {docs.c_str(), 0, 0, 0, bin.c_str()};
    EXPECT_EQ(clean_docroot(site.path("v/").c_str(), &params), 0);
    EXPECT_TRUE(site.tree("bin").empty());
}

TEST(CleanDirContent, RemovesChildrenBeforeParents)
{
    const Site site;
    site.write("v/conf/a/f", "");
    site.write("v/conf/a.b/f", "");
    const extract_params_t params = {nullptr, 0, 0, 0, nullptr};
    std::list<fs::path> paths = {"conf/a", "conf", "conf/a.b", "conf/a/f", "conf/a.b/f"};
    cleanDirContent(&paths, site.path("v"), ExtractParams(params));
    EXPECT_TRUE(site.tree("v").empty());
}

/// Removes what `list` names, given on standard input. @return the text of an exception
std::string removal(const std::string& list, const extract_params_t& params)
{
    std::istringstream input(list);
    std::streambuf* const standard = std::cin.rdbuf(input.rdbuf());
    std::string text = "none";
    try {
        sapp_delete_instance("/nonexistent", &params, ".");
    } catch (const std::runtime_error& e) {
        text = e.what();
    }
    std::cin.rdbuf(standard);
    std::cin.clear();
    return text;
}

std::string malformed(const std::string& list) { return removal(list, {nullptr, 0, 0, 1, nullptr}); }

TEST(InstanceList, DocumentRootEntriesComeBeforeCgiBinOnes)
{
    const Site site;
    const std::string docs = site.path("docs");
    const std::string bin = site.path("bin");
    site.write("docs/a/left", "");
    site.write("bin/b/left", "");
    site.write("bin/c", "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(removal("<INSTANCE-DATA><SECTION PREFIX='cgi-bin'><FILE>b</FILE><FILE>c</FILE></SECTION>"
                      "<SECTION PREFIX='htdocs'><FILE>a</FILE></SECTION></INSTANCE-DATA>",
                      {docs.c_str(), 0, 0, 0, bin.c_str()}),
              "none");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "rmdir(\"" + docs + "/a\"): Directory not empty\nrmdir(\"" + bin + "/b\"): Directory not empty\n");
    EXPECT_EQ(site.tree("bin").size(), 2u);
}

TEST(InstanceList, ErrorsAreThrownForACallerToCatch)
{
    struct Case {
        const char* list;
        const char* error;
    };
    const Case cases[] = {
        {"", "XML parse error"},
        {"<INSTANCE-DATA>", "XML parse error"},
        {"<WRONG>", "XML parse error"},
        {"<WRONG/>", "Wrong root node name"},
        {"<!-- c --><INSTANCE-DATA/>", "Wrong root node name"},
        {"<?pi?><INSTANCE-DATA/>", "Wrong root node name"},
        {"<!DOCTYPE INSTANCE-DATA><INSTANCE-DATA/>", "Wrong root node name"},
        {"<!DOCTYPE INSTANCE-DATA><INSTANCE-DATA>", "XML parse error"},
        {"<!DOCTYPE x [<!ENTITY a 'b'>]><INSTANCE-DATA>&a;</INSTANCE-DATA>", "Wrong root node name"},
        {"<p:INSTANCE-DATA/>", "Wrong root node name"},
        {"<INSTANCE-DATA><SECTION/></INSTANCE-DATA>", "Attribute name is required for section"},
        {"<INSTANCE-DATA><SECTION x:PREFIX='htdocs' xmlns:x='u'/></INSTANCE-DATA>",
         "Attribute name is required for section"},
        {"<INSTANCE-DATA><SECTION PREFIX='httpdocs'/></INSTANCE-DATA>", "Bad sttribute name value"},
        {"<INSTANCE-DATA><SECTION PREFIX='x'/><SECTION/></INSTANCE-DATA>", "Bad sttribute name value"},
        {"<?xml version='1.0'?><INSTANCE-DATA/><!-- after -->", "none"},
        {"<n:INSTANCE-DATA xmlns:n='u'><SECTION PREFIX='ht&#100;ocs'/></n:INSTANCE-DATA>", "none"},
        {"<INSTANCE-DATA><x><SECTION/></x><FILE>a</FILE></INSTANCE-DATA>", "none"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(malformed(c.list), c.error) << c.list;
}

}  // namespace
