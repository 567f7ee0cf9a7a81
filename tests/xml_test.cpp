#include "common/xml.h"

#include "app/InstanceList.h"
#include "app/fsappmetadata.h"
#include "common/charsets.h"
#include "tests/support/Sandbox.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlmemory.h>

#include <cstring>
#include <new>

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

TEST(Xml, RefusesWhatCannotBeReadToItsEnd)
{
    EXPECT_FALSE(read_xml_tree([text = xml_source("<a/>")](char* buffer, int size) mutable {
        const int count = text(buffer, size);
        return count > 0 ? count : -1;
    }));
}

/// What the library does without memory may look like a document that says less.
TEST(Xml, GivesAllOrThrowsWhenAnAllocationFails)
{
    const std::tuple<std::string (*)(), bool> cases[] = {
        {metadata_text, true}, {instances_text, true}, {instances_text, false}, {tree_text, true}, {tree_text, false}};
    testing::internal::CaptureStderr();
    const auto loader = xmlGetExternalEntityLoader();
    int heard = 0;
    xmlSetStructuredErrorFunc(&heard, [](void* count, auto*) { ++*static_cast<int*>(count); });
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
    // What the program has set is silent meanwhile, and there again.
    EXPECT_EQ(xmlStructuredErrorContext, &heard);
    EXPECT_EQ(heard, 0);
    xmlSetStructuredErrorFunc(nullptr, nullptr);
    EXPECT_EQ(xmlGetExternalEntityLoader(), loader);
    xmlGenericError(xmlGenericErrorContext, "the program's own");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "the program's own");
    EXPECT_EQ(metadata_text(), "xy|/az,/d,writable11|/az/b,/c00");
}

TEST(Charsets, GiveEachByteTheCharacterThatTheSystemGivesIt)
{
    Words names = {"KOI8-R", "KOI8-U", "CSKOI8R", "CYRILLIC", "ARABIC", "GREEK", "HEBREW"};
    for (int i = 1; i <= 16; ++i)
        names.push_back("ISO-8859-" + std::to_string(i == 12 ? 11 : i));
    for (int i = 1; i <= 10; ++i)
        names.push_back("latin" + std::to_string(i));
    for (int i = 1250; i <= 1258; ++i)
        names.insert(names.end(), {"windows-" + std::to_string(i), "cp" + std::to_string(i)});
    for (const std::string& name : names) {
        const auto* const encoding = find_single_byte_encoding(name);
        ASSERT_NE(encoding, nullptr) << name;
        std::string bytes, utf8;
        for (int byte = 0; byte < 256; ++byte) {  // each apart, as some marks are drawn into what is before them
            bytes += {static_cast<char>(byte), '\n'};
            append_as_utf8(utf8, *encoding, bytes.substr(bytes.size() - 2, 1));
            utf8 += '\n';
        }
        EXPECT_EQ(utf8, run({"iconv", "-c", "-f", name, "-t", "UTF-8"}, bytes).out) << name;
    }
    for (const char* unknown : {"", "-", "ISO-8859-12", "ISO-8859-", "latin", "cp125", "KOI8-RU"})
        EXPECT_EQ(find_single_byte_encoding(unknown), nullptr) << unknown;
}

}  // namespace
