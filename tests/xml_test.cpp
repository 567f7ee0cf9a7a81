#include "common/xml.h"

#include "app/InstanceList.h"
#include "app/fsappmetadata.h"
#include "tests/support/Sandbox.h"

#include <libxml/xmlmemory.h>

#include <cstring>
#include <fstream>
#include <new>
#include <sstream>

using namespace sandbox;
using namespace tarvik;

/// The library itself forgets what it holds where it can get no more.
extern "C" const char* __lsan_default_suppressions() { return "leak:libxml2"; }

namespace {

int allocationsLeft;  // before one fails
bool oneFails;        // or all from then on
bool failed;

template <class Call>
auto unless_due(Call call) -> decltype(call())
{
    const bool due = allocationsLeft-- == 0 || (failed && !oneFails);
    failed = failed || due;
    return due ? nullptr : call();
}

void fail_allocation(int number)
{
    allocationsLeft = number;
    failed = false;
    xmlMemSetup(
        free, [](std::size_t size) { return unless_due([size] { return std::malloc(size); }); },
        [](void* old, std::size_t size) { return unless_due([old, size] { return std::realloc(old, size); }); },
        [](const char* text) { return unless_due([text] { return ::strdup(text); }); });
}

const std::string kType = "<!DOCTYPE a [<!ENTITY % p \"<!ATTLIST s:mapping path CDATA 'd' id ID #IMPLIED>\">%p;"
                          "<!ENTITY e 'x&f;'><!ENTITY f 'y<b/>'><!ENTITY g 'z'>]>";

std::string metadata_text()
{
    const std::string file = std::string(getenv("SANDBOX_DIR")) + "/meta.xml", uri = "'http://veska.example/ns/1";
    std::ofstream(file)
        << kType << "<s:application xmlns:s=" << uri << "' xmlns:p=" << uri << "/php' xmlns:c=" << uri
        << "/cgi'><s:name>&e;</s:name><s:version/><s:release/><s:mapping url='a&g;'>"
           "<p:permissions writable='true'/><p:handler><p:extension>php</p:extension></p:handler>"
           "<c:handler><c:disabled/></c:handler><s:mapping url='b' path='c'/></s:mapping></s:application>";
    const FSAMetaDataReader reader(file);
    std::string text = reader.name();
    for (const FSAMetaDataWebContent& content : reader.webContents())
        text += "|" + content.url + "," + content.path + (content.writable ? ",writable" : "")
            + std::to_string(content.phpHandlers.size()) + std::to_string(content.cgiHandlers.size());
    return text;
}

std::string instances_text()
{
    std::istringstream list("<INSTANCE-DATA><SECTION PREFIX='htdocs'><FILE>a&amp;b</FILE><FILE>"
                            + std::string(9'000, 'c') + "</FILE></SECTION></INSTANCE-DATA>");
    std::string text;
    for (const InstanceFile& file : parse_instance_list(list))
        file.append_path(text += "|");
    return text;
}

std::string tree_text()
{
    const std::string text = kType + "<a><b/>&e;<c d='&g;'>" + std::string(9'000, 'c') + "</c></a>";
    return read_xml_tree(xml_source(text)) ? "whole" : "refused";
}

/// What the library does without memory may look like a document that says less.
TEST(Xml, GivesAllOrThrowsWhenAnAllocationFails)
{
    const std::tuple<std::string (*)(), bool> cases[] = {
        {metadata_text, true}, {instances_text, true}, {instances_text, false}, {tree_text, true}, {tree_text, false}};
    testing::internal::CaptureStderr();
    for (const auto& [text, one] : cases) {
        const std::string whole = text();
        int number = 0;
        oneFails = one;
        do {
            fail_allocation(number);
            try {
                EXPECT_EQ(text(), whole) << number;
            } catch (const std::bad_alloc&) {
                EXPECT_TRUE(failed);
            }
        } while (failed && ++number < 10'000);
        EXPECT_GT(number, 15);
        xmlMemSetup(free, malloc, realloc, strdup);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(metadata_text(), "xy|/az,/d,writable11|/az/b,/c00");
}

}  // namespace
