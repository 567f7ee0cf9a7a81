#include "app/fsappmetadata.h"

#include "common/ExSystemError.h"
#include "tests/support/Sandbox.h"

#include <boost/algorithm/string.hpp>

#include <sys/stat.h>

#include <fstream>

using namespace sandbox;
using namespace tarvik;

namespace {

const std::string kFile = std::string(getenv("SANDBOX_DIR")) + "/meta.xml";
const std::string kUnreadable = "Unable to load file: ";

std::string application(const std::string& content, const std::string& standard = "")
{
    const std::string uri = "='http://veska.example/ns/1";
    return "<application xmlns" + uri + "' xmlns:p" + uri + "/php' xmlns:c" + uri + "/cgi' " + standard + ">" + content
        + "</application>";
}

/// A package with these mappings, where "<m 'x'" is short for "<mapping url='x'".
std::string package(const std::string& mappings)
{
    const std::string text = boost::replace_all_copy(mappings, "<m '", "<mapping url='");
    return application("<name>a</name><version/><release/>" + boost::replace_all_copy(text, "</m>", "</mapping>"));
}

/// Why a text is refused, else its fields and, one a line, its mappings.
std::string result_of(const std::string& text)
try {
    std::ofstream(kFile) << text;
    const FSAMetaDataReader r(kFile);
    std::string lines = r.name() + "|" + r.version() + "|" + r.release() + "|" + r.configurationScriptLanguage() + "|"
        + r.packagingVersion() + "\n";
    for (const FSAMetaDataWebContent& content : r.webContents()) {
        lines += content.url + " " + std::to_string(content.depth) + " " + content.path
            + (content.writable ? " writable" : "") + (content.redirect.empty() ? "" : "-> " + content.redirect);
        for (const auto& php : content.phpHandlers)
            lines += (php.disabled ? " php-off(" : " php(") + boost::join(php.extensions, ",") + ")";
        for (const auto& cgi : content.cgiHandlers)
            lines += std::string(" cgi") + (cgi.disabled ? "-off" : "") + (cgi.allFiles ? "-all(" : "(")
                + boost::join(cgi.extensions, ",") + ")";
        lines += "\n";
    }
    return lines;
} catch (const FSAXMLException& e) {
    return e.what();
}

TEST(Metadata, FieldsAreTheTextsOfTheirFirstElements)
{
    const std::string missing = "Invalid package metadata file format: <s:";
    const std::string entities = "<!DOCTYPE a [<!ENTITY a 'x'><!ENTITY b '&a;&a;'><!ENTITY f SYSTEM '/etc/group'>]>";
    const std::string fields =
        "<name>a<b>b</b><!--x--><![CDATA[&c]]>&lt;</name><name>no</name><release>7</release>"
        "<version>[&f;]&b;-&b;</version><configuration-script-language>php</configuration-script-language>";
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"all of them", entities + application(fields, "version='1.1'"), "ab&c<|[]xx-xx|7|php|1.1\n"},
        {"no name", application("<version/><release/>"), missing + "name> element is missing."},
        {"no version", application("<name/><release/>"), missing + "version> element is missing."},
        {"no release reads as no name", application("<name/><version/>"), missing + "name> element is missing."},
        {"no namespace", "<application><name/></application>", missing + "name> element is missing."},
        {"no url", package("<mapping path='x'/>"), missing + "mapping> has no url attribute."},
        {"something after the root", package("") + "<x/>", kUnreadable + kFile},
        {"undeclared entity", package("<x>&nosuch;</x>"), kUnreadable + kFile},
    };
    for (const auto& [why, text, result] : cases)
        EXPECT_EQ(result_of(text), result) << why;
}

TEST(Metadata, MappingsNestTheirUrlsAndMostlyTheirPaths)
{
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"slashes at the joint", "<m '/a/'><m '//d//'/></m>", "/a/ 2 /a/\n/a/d// 4 /a/d//\n"},
        {"a child of / is as deep as /", "<m '/'><m 'x'/></m>", "/ 1 /\n/x 1 /x\n"},
        {"later siblings come first", "<m 'a'/><m 'b'/>", "/b 1 /b\n/a 1 /a\n"},
        {"an explicit path starts at the root, an empty one does not count",
         "<m 'a' path='//docs'><m 'b' path='files'/><m 'c' path=''/></m>",
         "/a 1 /docs\n/a/c 2 /docs/c\n/a/b 2 /files\n"},
        {"a redirect's children do not count", "<m 'r' virtual='redirect' href='/t'><p:handler/><m 'x'/></m>",
         "/r 1 -> /t\n"},
        {"no redirects", "<m 's' virtual='redirect'><m 'y'/></m><m 't' virtual='Redirect' href='/u'/>", ""},
        {"any true permission makes writable, and it is not inherited",
         "<m 'a'><p:permissions writable='false'/><p:permissions writable='true'/><m 'b'>"
         "<p:permissions writable='TRUE'/><p:permissions p:writable='true'/></m></m>",
         "/a 1 /a writable\n/a/b 2 /a/b\n"},
        {"what is disabled has no extensions; else they stay as written",
         "<m 'a'><p:handler><p:extension> .PHP </p:extension><p:extension/></p:handler><p:handler>"
         "<p:disabled/><p:extension>x</p:extension></p:handler></m>",
         "/a 1 /a php( .PHP ,) php-off()\n"},
        {"disabled before all files before extensions",
         "<m 'a'><c:handler><c:all-files/><c:disabled/></c:handler><c:handler><c:extension>x</c:extension>"
         "<c:all-files/></c:handler><c:handler><c:extension>x</c:extension></c:handler></m>",
         "/a 1 /a cgi-off() cgi-all() cgi(x)\n"},
        {"foreign names do not count", "<m 'a' c:url='z'><handler/></m><other/>", "/a 1 /a\n"},
        {"entities in attributes do", "<m 'a&amp;b&#47;c'/>", "/a&b/c 2 /a&b/c\n"},
    };
    for (const auto& [why, mappings, expected] : cases)
        EXPECT_EQ(result_of(package(mappings)), std::string("a||||1.0\n") + expected) << why;
}

TEST(Metadata, AssignmentIsPartial)
{
    std::ofstream(kFile) << package("<m 'a' virtual='redirect' href='/t'/><m 'b/c'><p:handler/></m>");
    const FSAMetaDataReader reader(kFile);
    FSAMetaDataWebContent content(reader.webContents().front());
    content = reader.webContents().back();
    EXPECT_EQ(content.url + content.path + content.redirect, "/b/c/b/c/t");
    EXPECT_TRUE(content.depth == 2 && content.phpHandlers.empty());
}

/// Many texts that differ by a number.
std::string many(int count, const std::string& before, const std::string& after)
{
    std::string text;
    for (int i = 0; i < count; ++i)
        text += before + std::to_string(i) + after;
    return text;
}

TEST(Metadata, TakesWhatOtherWritersMake)
{
    const std::string local = many(70, "<m 'a", "'><q:handler xmlns:q='http://veska.example/ns/1/php'/></mapping>");
    EXPECT_NE(result_of(package(local)).find("/a69 1 /a69 php()\n"), std::string::npos);
    const std::string latin = "<name>\xe9</name><version/><release/>";
    const auto declared = [&latin](const std::string& encoding) {
        return result_of("<?xml version='1.0' encoding='" + encoding + "'?>" + application(latin));
    };
    EXPECT_EQ(declared("iso-8859-1"), "\xc3\xa9||||1.0\n");
    EXPECT_EQ(declared("ISO-8859-2"), kUnreadable + kFile);  // would have the system load a module
    const std::string standard = "<!DOCTYPE application [<!ATTLIST application version CDATA '1.2'>]>";
    EXPECT_EQ(result_of(standard + package("")), "a||||1.2\n");
}

/// Documents of up to 1 MB that make a careless reader use gigabytes or minutes, and what is no local file.
TEST(Metadata, HostileFilesAreRefusedCheaply)
{
    const Site site;
    site.write("package/APP-META.xml", "");
    const auto expect_refusal = [&site](const std::string& name, const std::string& why) {
        const Result result = zendrel(site.extract({"--metadata-file=" + name}), "", {0, 2});
        EXPECT_EQ(result, says(1, kUnreadable + name + "\n")) << why;
#ifndef ZENDREL_SANITIZED
        EXPECT_LE(result.peakKilobytes, 64 * 1024) << why;
#endif
    };
    const auto extension = [](const std::string& text) {
        return "<m 'a'><p:handler><p:extension>" + text + "</p:extension></p:handler></m>";
    };
    const std::string large(60'000, 'x');
    std::string laughs = "<!ENTITY a ''>";
    for (std::string name = "a"; name.size() < 39; name += "a")
        laughs += "<!ENTITY a" + name + " '&" + name + ";&" + name + ";'>";
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"a long entity named often", "<!ENTITY a '" + large + "'>", "<m '" + many(8'000, "&a;", "") + "'/>"},
        {"entities of entities", laughs, extension("&" + std::string(39, 'a') + ";")},
        {"entities that name each other", "<!ENTITY a '&b;'><!ENTITY b '&a;'>", extension("&a;")},
        {"many attributes", "", "<x" + many(4'000, " a", "=''") + "/>"},
        {"a long tag", "", "<m '" + std::string(900'000, 'a') + "'/>"},
        {"many default attributes", many(20'000, "<!ATTLIST x b", " CDATA ''>"), many(20'000, "<y/>", "")},
        {"many namespaces", "", "<x" + many(4'000, " xmlns:n", "='u'") + ">" + many(60'000, "<n0:x", "/>") + "</x>"},
        {"many small nodes", "", many(80'000, "<a/>", "")},
        {"deep nesting", "", many(20'000, "<m '", "'>")},
        {"a long URL above many", "", "<m '" + large + "'>" + many(10'000, "<m '", "'/>") + "</m>"},
    };
    for (const auto& [why, declarations, mappings] : cases) {
        std::ofstream(kFile) << "<!DOCTYPE application [" + declarations + "]>" + package(mappings);
        expect_refusal(kFile, why);
    }
    ASSERT_EQ(mkfifo(site.path("fifo").c_str(), 0600), 0);
    for (const std::string& name : Words {"/none", "/etc", "/dev/zero", "http://127.0.0.1:9/x", site.path("fifo")})
        expect_refusal(name, "no regular local file");
}

}  // namespace
