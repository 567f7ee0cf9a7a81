#include "app/fsappmetadata.h"

#include "common/ExSystemError.h"
#include "tests/support/Sandbox.h"

#include <sys/stat.h>

#include <fstream>

using namespace sandbox;
using namespace tarvik;

namespace {

constexpr char kHead[] = "<name>shop</name><version>2</version><release>7</release>";

std::string application(const std::string& content, const std::string& attributes = "")
{
    return "<application xmlns='http://veska.example/ns/1' xmlns:p='http://veska.example/ns/1/php'"
           " xmlns:c='http://veska.example/ns/1/cgi' "
        + attributes + ">" + content + "</application>";
}

std::string package(const std::string& mappings) { return application(kHead + mappings); }

/// Everything read from the mappings, one line each.
std::string summary(const FSAMetaDataReader& reader)
{
    std::string text;
    for (const FSAMetaDataWebContent& content : reader.webContents()) {
        text += content.url + " " + std::to_string(content.depth) + " " + content.path;
        text += content.writable ? " writable" : "";
        text += content.redirect.empty() ? "" : " -> " + content.redirect;
        for (const auto& handler : content.phpHandlers) {
            text += handler.disabled ? " php-off" : " php";
            for (const auto& extension : handler.extensions)
                text += ":" + extension;
        }
        for (const auto& handler : content.cgiHandlers) {
            text += " cgi";
            text += handler.disabled ? "-off" : "";
            text += handler.allFiles ? "-all" : "";
            for (const auto& extension : handler.extensions)
                text += ":" + extension;
        }
        text += content.reserved == 0 ? "\n" : " reserved\n";
    }
    return text;
}

class Metadata : public testing::Test {
protected:
    std::string write(const std::string& text)
    {
        site_.write("meta.xml", text);
        return site_.path("meta.xml");
    }
    std::string mappings(const std::string& text) { return summary(FSAMetaDataReader(write(package(text)))); }
    std::string error(const std::string& text) { return error_of(write(text)); }
    static std::string error_of(const std::string& name)
    {
        try {
            const FSAMetaDataReader reader(name);
        } catch (const FSAXMLException& e) {
            return e.what();
        }
        return "";
    }

    Site site_;
};

TEST_F(Metadata, FieldsAreTheTextsOfTheirFirstElements)
{
    const FSAMetaDataReader reader(
        write(application("<name>a<b>b</b><!--x--><![CDATA[&c]]>&lt;</name><name>no</name><version/>"
                          "<release>7</release><configuration-script-language>php"
                          "</configuration-script-language>",
                          "version='1.1'")));
    EXPECT_EQ(reader.name(), "ab&c<");
    EXPECT_EQ(reader.version(), "");
    EXPECT_EQ(reader.release(), "7");
    EXPECT_EQ(reader.configurationScriptLanguage(), "php");
    EXPECT_EQ(reader.packagingVersion(), "1.1");

    const FSAMetaDataReader plain(write(package("")));
    EXPECT_EQ(plain.configurationScriptLanguage(), "");
    EXPECT_EQ(plain.packagingVersion(), "1.0");
    EXPECT_TRUE(plain.webContents().empty());
}

TEST_F(Metadata, RefusalsNameWhatIsMissing)
{
    const std::string format = "Invalid package metadata file format: ";
    struct Case {
        const char* why;
        std::string text;
        std::string error;
    };
    const std::string unreadable = "Unable to load file: " + site_.path("meta.xml");
    const Case cases[] = {
        {"no name", application("<version/><release/>"), format + "<s:name> element is missing."},
        {"no version", application("<name/><release/>"), format + "<s:version> element is missing."},
        {"no release reads as no name", application("<name/><version/>"), format + "<s:name> element is missing."},
        {"another namespace", "<application>" + std::string(kHead) + "</application>",
         format + "<s:name> element is missing."},
        {"no url", package("<mapping path='x'/>"), format + "<s:mapping> has no url attribute."},
        {"empty", "", unreadable},
        {"cut off", package("").substr(0, 100), unreadable},
        {"something after the root", package("") + "<x/>", unreadable},
        {"undeclared entity", package("<x>&nosuch;</x>"), unreadable},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(error(c.text), c.error);
    }
}

TEST_F(Metadata, OnlyNamesOfLocalFilesAreOpened)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(error_of(site_.path("none")), "Unable to load file: " + site_.path("none"));
    EXPECT_EQ(error_of("http://127.0.0.1:9/x"), "Unable to load file: http://127.0.0.1:9/x");
    EXPECT_EQ(error_of(site_.path()), "Unable to load file: " + site_.path());
    ASSERT_EQ(mkfifo(site_.path("fifo").c_str(), 0600), 0);
    EXPECT_EQ(error_of(site_.path("fifo")), "Unable to load file: " + site_.path("fifo"));
    EXPECT_EQ(error_of("/dev/zero"), "Unable to load file: /dev/zero");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // the library keeps quiet
}

TEST_F(Metadata, MappingsNestTheirUrlsAndMostlyTheirPaths)
{
    struct Case {
        const char* why;
        const char* mappings;
        const char* expected;
    };
    const Case cases[] = {
        {"slashes at the joint only", "<mapping url='/app/'><mapping url='///docs//'/></mapping>",
         "/app/ 2 /app/\n/app/docs// 4 /app/docs//\n"},
        {"a child of / is as deep as /", "<mapping url='/'><mapping url='x'/></mapping>", "/ 1 /\n/x 1 /x\n"},
        {"an explicit path starts at the root, an empty one does not count",
         "<mapping url='a' path='//htdocs'><mapping url='b' path='files'/><mapping url='c' "
         "path=''/>"
         "</mapping>",
         "/a 1 /htdocs\n/a/c 2 /htdocs/c\n/a/b 2 /files\n"},
        {"siblings in reverse", "<mapping url='a'/><mapping url='b'/>", "/b 1 /b\n/a 1 /a\n"},
        {"a subtree before the next sibling, then by depth",
         "<mapping url='/'><p:handler><p:extension>php</p:extension><p:extension>php5</p:extension>"
         "</p:handler><mapping url='cgi-bin'><c:handler><c:all-files/></c:handler></mapping>"
         "</mapping><mapping url='admin' path='/www/admin'/>",
         "/admin 1 /www/admin\n/ 1 / php:php:php5\n/cgi-bin 1 /cgi-bin cgi-all\n"},
        {"only a redirect with a target counts, and its children never do",
         "<mapping url='r' virtual='redirect' href='/t'><p:handler/><mapping url='x'/></mapping>"
         "<mapping url='s' virtual='redirect'><mapping url='y'/></mapping>"
         "<mapping url='t' virtual='Redirect' href='/u'/><mapping url='u' virtual=''/>",
         "/r 1  -> /t\n"},
        {"any true permission makes writable, and it is not inherited",
         "<mapping url='a'><p:permissions writable='false'/><p:permissions writable='true'/>"
         "<mapping url='b'><p:permissions writable='TRUE'/><p:permissions writable='1'/>"
         "<p:permissions p:writable='true'/></mapping></mapping>",
         "/a 1 /a writable\n/a/b 2 /a/b\n"},
        {"handlers: disabled, then all files, then extensions as written",
         "<mapping url='a'><p:handler><p:extension> .PHP </p:extension><p:extension/></p:handler>"
         "<p:handler><p:disabled/><p:extension>x</p:extension></p:handler>"
         "<c:handler><c:all-files/><c:disabled/></c:handler>"
         "<c:handler><c:extension>x</c:extension><c:all-files/></c:handler>"
         "<c:handler><c:extension>pl</c:extension><c:extension>pl</c:extension></c:handler></"
         "mapping>",
         "/a 1 /a php: .PHP : php-off cgi-off cgi-all cgi:pl:pl\n"},
        {"foreign elements and attributes are ignored",
         "<mapping c:url='z' url='a'><x:handler xmlns:x='u'/><handler/></mapping><other/>", "/a 1 /a\n"},
        {"entities in attributes", "<mapping url='a&amp;b&#47;c'/>", "/a&b/c 2 /a&b/c\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(mappings(c.mappings), c.expected);
    }
}

TEST_F(Metadata, AssignmentIsPartial)
{
    const FSAMetaDataReader reader(write(package("<mapping url='a' virtual='redirect' href='/t'/>"
                                                 "<mapping url='b/c'><p:handler/></mapping>")));
    FSAMetaDataWebContent content(reader.webContents().front());
    content = reader.webContents().back();
    EXPECT_EQ(content.url + content.path, "/b/c/b/c");
    EXPECT_EQ(content.depth, 2);
    EXPECT_EQ(content.redirect, "/t");
    EXPECT_TRUE(content.phpHandlers.empty());
}

std::string repeated(const std::string& unit, std::size_t bytes)
{
    std::string text;
    while (text.size() + unit.size() <= bytes)
        text += unit;
    return text;
}

TEST_F(Metadata, EntitiesAreSubstitutedWithinReason)
{
    const std::string two = "<!DOCTYPE application [<!ENTITY a 'x'><!ENTITY b '&a;&a;'>]>";
    const FSAMetaDataReader reader(
        write(two + application("<name>&b;-&b;</name><version/><release/><mapping url='&b;'/>")));
    EXPECT_EQ(reader.name(), "xx-xx");
    EXPECT_EQ(summary(reader), "/xx 1 /xx\n");

    site_.write("secret", "leaked");
    const FSAMetaDataReader outside(write("<!DOCTYPE application [<!ENTITY e SYSTEM '" + site_.path("secret") + "'>]>"
                                          + application("<name>[&e;]</name><version/><release/>")));
    EXPECT_EQ(outside.name(), "[]");
}

/// Documents of up to 1 MB that make a careless reader use gigabytes or minutes.
TEST_F(Metadata, HostileFilesAreReadOrRefusedCheaply)
{
    const std::string entity = "<!DOCTYPE application [<!ENTITY a '" + std::string(60'000, 'x') + "'>]>";
    std::string laughs = "<!DOCTYPE application [<!ENTITY a0 ''>";
    for (int i = 1; i < 39; ++i) {
        const std::string inner = "&a" + std::to_string(i - 1) + ";";
        laughs += "<!ENTITY a" + std::to_string(i) + " '" + inner + inner + "'>";
    }
    laughs += "]>";
    std::string attributes;
    std::string defaults = "<!DOCTYPE application [";
    std::string prefixes;
    for (int i = 0; attributes.size() < 900'000; ++i) {
        attributes += " a" + std::to_string(i) + "=''";
        defaults += i < 20'000 ? "<!ATTLIST x b" + std::to_string(i) + " CDATA ''>" : "";
        prefixes += i < 4'000 ? " xmlns:n" + std::to_string(i) + "='u'" : "";
    }
    const std::string refs = repeated("&a;", 60'000);
    const std::pair<const char*, std::string> cases[] = {
        {"a long entity named often", entity + application("<name>" + refs + "</name><version/><release/>")},
        {"the same in attributes", entity + package(repeated("<mapping url='" + refs + "'/>", 900'000))},
        {"entities of entities", laughs + application("<name>&a38;</name><version/><release/>")},
        {"the same in an attribute", laughs + package("<mapping url='&a38;'/>")},
        {"entities that name each other",
         "<!DOCTYPE application [<!ENTITY a '&b;'><!ENTITY b '&a;'>]>" + package("<x>&a;</x>")},
        {"many attributes", package("<mapping url='a'" + attributes + "/>")},
        {"many default attributes", defaults + "]>" + package(repeated("<x/>", 300'000))},
        {"many namespaces", package("<x" + prefixes + ">" + repeated("<n0:x/>", 900'000) + "</x>")},
        {"many small nodes", package(repeated("<a/>x", 990'000))},
        {"many mappings", package(repeated("<mapping url='a'/>\n", 990'000))},
        {"deep nesting", package(repeated("<mapping url='a'>", 500'000))},
        {"a long URL above many",
         package("<mapping url='" + std::string(60'000, 'a') + "'>" + repeated("<mapping url='b'/>", 300'000)
                 + "</mapping>")},
    };
    for (const auto& [why, text] : cases) {
        SCOPED_TRACE(why);
        EXPECT_LE(text.size(), 1'000'000u);
        site_.write("hostile.xml", text);
        site_.metadata("");
        const Result result = zendrel(site_.extract({"--metadata-file=" + site_.path("hostile.xml")}));
        EXPECT_EQ(result, says(1, "Unable to load file: " + site_.path("hostile.xml") + "\n"));
#ifndef ZENDREL_SANITIZED
        EXPECT_LE(result.peakKilobytes, 64 * 1024);
#endif
    }
}

}  // namespace
