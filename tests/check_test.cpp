#include "app/Interpreter.h"
#include "app/fsappmetadata.h"
#include "common/ExSystemError.h"
#include "ctl/MetadataSchema.h"
#include "tests/support/Sandbox.h"

#include <boost/algorithm/string.hpp>
#include <libxml/relaxng.h>

#include <algorithm>
#include <cstring>

using namespace sandbox;
using namespace tarvik;

namespace {

const std::string kNamed = "<name/><version/><release/>";

/// A package, where "<m 'x'" is short for "<mapping url='x'".
std::string package(const std::string& content, const std::string& attributes = "")
{
    const std::string uri = "='http://veska.example/ns/1", root = "<application xmlns" + uri + "' xmlns:p" + uri;
    const std::string text = root + "/php' xmlns:c" + uri + "/cgi' xmlns:f='urn:f' " + attributes + ">" + content;
    return boost::replace_all_copy(boost::replace_all_copy(text, "<m '", "<mapping url='"), "</m>", "</mapping>")
        + "</application>";
}

bool is_read(const std::string& text)
try {
    FSAMetaDataReader(*read_xml_tree(xml_source(text)), "");
    return true;
} catch (const FSAXMLException&) {
    return false;
}

/// The library's judgement of a whole document, as other programs come to it.
bool is_valid(const std::string& text)
{
    const XmlSilence silence;
    xmlRelaxNGParserCtxt* const parser =
        xmlRelaxNGNewMemParserCtxt(ctl::kMetadataSchema, static_cast<int>(std::strlen(ctl::kMetadataSchema)));
    xmlRelaxNG* const schema = xmlRelaxNGParse(parser);
    xmlRelaxNGValidCtxt* const context = xmlRelaxNGNewValidCtxt(schema);
    const bool valid = xmlRelaxNGValidateDoc(context, read_xml_tree(xml_source(text)).get()) == 0;
    xmlRelaxNGFreeValidCtxt(context);
    xmlRelaxNGFree(schema);
    xmlRelaxNGFreeParserCtxt(parser);
    return valid;
}

std::string errors_of(const std::string& text)
{
    std::string lines;
    for (const auto& error : ctl::schema_errors(read_xml_tree(xml_source(text))))
        lines += std::to_string(error.line) + " " + error.text + "\n";
    return lines;
}

TEST(Schema, TakesWhatTheReaderReadsAsItStandsAndTellsTheRest)
{
    enum Reader { Read, Refused };
    const std::string together = " lacks something, or has what does not go together\n";
    const std::string languages = "\"php\" or \"mo-engine-tarvikrun\" or \"perl\" or \"binary\"\n";
    const std::tuple<const char*, std::string, Reader, std::string> cases[] = {
        {"all there is, in any order",
         package("<m '/' path=''><c:handler><c:extension>pl</c:extension><c:extension> a</c:extension></c:handler>"
                 "<p:permissions/><m 'x'><p:permissions writable='false'/><c:handler><c:all-files/></c:handler></m>"
                 "<p:handler><p:disabled/></p:handler><m 'r' virtual='redirect' href='/x'/></m><release>1</release>"
                 "<configuration-script-language>perl</configuration-script-language><version/><m 'y'/><name>n</name>",
                 "version='1.2'"),
         Read, ""},
        {"what is foreign",
         package(kNamed
                 + "<f:x><name/>t<m a='b'/></f:x><m 'x' f:x='' xml:lang='en'><f:y>t</f:y>"
                   "<p:handler><f:y/><p:extension/><f:y/></p:handler><c:handler><f:y/><c:all-files/></c:handler></m>"),
         Read, ""},
        {"entities",
         "<!DOCTYPE a [<!ENTITY t 'true'><!ENTITY v '1&w;'><!ENTITY w '2'>]>"
             + package("<name>&v;</name><version>&w;.&v;</version><release/><m '&v;'><p:permissions writable='&t;'/>"
                       "</m>"),
         Read, ""},
        {"no package", "<x/>", Refused, "1 this is no package: it begins with \"x\" of no namespace\n"},
        {"nothing in it", package(""), Refused, "1 Expecting an element name, got nothing\n"},
        {"a name twice", package(kNamed + "<name/>"), Read, "1 Extra element name in interleave\n"},
        {"unknown names, each on its line",
         package(kNamed
                 + "\n<maping url='x'/><m 'x' writable='true'>\n<handler/>\n<m 'y' p:path='x'/></m>"
                   "<mapping xmlns='' url='z'/><p:handler/><name2>\n<m/></name2>"),
         Read,
         "2 unknown element \"maping\"\n2 unknown attribute \"writable\" of \"mapping\"\n"
         "3 unknown element \"handler\"\n4 unknown attribute \"php:path\" of \"mapping\"\n"
         "4 unknown element \"mapping\" of no namespace\n4 \"php:handler\" means nothing in \"application\"\n"
         "4 unknown element \"name2\"\n"},
        {"values that mean another thing",
         package(kNamed
                     + "<m 'x'><p:permissions writable='yes'/><p:permissions writable=' true'/></m>"
                       "<m 'x' virtual='moved' href='x'/>"
                       "<configuration-script-language> php</configuration-script-language>",
                 "version='2.0'"),
         Read,
         "1 \"version\" of \"application\" is \"2.0\", not \"1.0\" or \"1.1\" or \"1.2\"\n"
         "1 \"writable\" of \"php:permissions\" is \"yes\", not \"true\" or \"false\"\n"
         "1 \"writable\" of \"php:permissions\" is \" true\", not \"true\" or \"false\"\n"
         "1 \"virtual\" of \"mapping\" is \"moved\", not \"redirect\"\n"
         "1 \"configuration-script-language\" is \" php\", not "
             + languages},
        {"no url", package(kNamed + "<m 'x'>\n<mapping path='y'/></m>"), Refused, "2 \"mapping\"" + together},
        {"a target without a redirect", package(kNamed + "<m 'x' href='/y'/>"), Read, "1 \"mapping\"" + together},
        {"a redirect without a target", package(kNamed + "<m 'x' virtual='redirect'/>"), Read,
         "1 \"mapping\"" + together},
        {"one with an empty target stands for the package", package(kNamed + "<m 'x' virtual='redirect' href=''/>"),
         Read, "1 \"mapping\"" + together},
        {"a redirect with something in it", package(kNamed + "<m 'x' virtual='redirect' href='/y'><m 'z'/></m>"), Read,
         "1 \"mapping\"" + together},
        {"handlers in doubt, and others beside them",
         package(kNamed
                 + "<m 'x'><c:handler><c:extension/><c:all-files/></c:handler>\n"
                   "<p:handler><p:disabled/><p:extension>x</p:extension></p:handler>\n"
                   "<c:handler><c:disabled/></c:handler><p:handler><p:disabled/><p:disabled/></p:handler></m>"),
         Read, "1 \"cgi:handler\"" + together + "2 \"php:handler\"" + together + "3 \"php:handler\"" + together},
        {"text where none is read", package(kNamed + "<m 'x'>t<c:handler>t</c:handler></m>"), Read,
         "1 \"mapping\" has text, which means nothing\n1 \"cgi:handler\" has text, which means nothing\n"},
        {"foreign text that would be read",
         package(kNamed
                 + "<m 'x'><p:handler><p:extension>a<f:x>b</f:x>"
                   "</p:extension></p:handler></m>"),
         Read, "1 \"php:handler\"" + together},
    };
    for (const auto& [why, text, reader, errors] : cases) {
        SCOPED_TRACE(why);
        EXPECT_EQ(is_read(text), reader == Read);
        EXPECT_EQ(errors_of(text), errors);
        EXPECT_EQ(is_valid(text) || text.find("<!ENTITY") != std::string::npos, errors.empty());
        EXPECT_TRUE(!is_valid(text) || is_read(text));
    }
    for (const std::string language : {"php", "perl", "binary", "mo-engine-tarvikrun", "sh", ""}) {
        const std::string element = "<configuration-script-language>" + language + "</configuration-script-language>";
        EXPECT_EQ(is_valid(package(kNamed + element)), is_script_language(language)) << language;
    }
    EXPECT_EQ(read(ZENDREL_SOURCE_DIR "/share/app-meta.rng"), ctl::kMetadataSchema);
}

class Check : public testing::Test {
protected:
    Result check(const Words& more = {}) const
    {
        Words words = {"check", site_.path("package")};
        words.insert(words.end(), more.begin(), more.end());
        return zendrelctl(words, "", {0, 20});
    }
    const Site site_;
};

TEST_F(Check, FindsNothingInTheExamplesAndEverythingElsewhere)
{
    for (const std::string name : {"guestbook", "photos"})
        EXPECT_EQ(zendrelctl({"check", ZENDREL_SOURCE_DIR "/examples/packages/" + name}), says(0, ""));

    site_.metadata("<configuration-script-language>php</configuration-script-language><mapping url='/' path='/'>\n"
                   "<mapping url='../..'/>\n</mapping>");
    site_.write("package/scripts/configure", "#!/usr/bin/env -S perl -w\n", 0600);
    EXPECT_EQ(check(),
              (Result {2,
                       "error APP-META.xml:3: url \"/../..\" leads out of the application\n"
                       "warning APP-META.xml:3: path \"../..\" leads out of the package\n"
                       "error scripts/configure: mode 0600 does not let everyone read it: the site's user has to\n"
                       "error scripts/configure: its first line asks for perl, the metadata for php\n",
                       ""}));

    site_.metadata("<configuration-script-language>binary</configuration-script-language><mapping url='/' path='/'>\n"
                   "<mapping url='none'/><mapping url='no' path='where'><php:permissions writable='true'/></mapping>\n"
                   "<mapping url='one' path='b/tool'><cgi:handler><cgi:all-files/></cgi:handler></mapping>\n"
                   "<mapping url='c d'/><mapping url='a b' path='b'><php:handler><php:extension>.php</php:extension>"
                   "<php:extension>a b</php:extension><php:extension/></php:handler></mapping>\n"
                   "<mapping url='r' virtual='redirect' href='/a b'/>\n"
                   "<mapping url='s' virtual='redirect' href='/b\\\\'/>\n"
                   "<mapping url='t' virtual='redirect' href='b/c'/>\n"
                   "<mapping url='u' virtual='redirect' href='http://x/${y}'/>\n"
                   "<mapping url='v' virtual='redirect' href='\"/x'/>\n"
                   "<mapping url='b/../d' path='b'><php:permissions writable='true'/><cgi:handler><cgi:extension>pl"
                   "</cgi:extension></cgi:handler></mapping>\n"
                   "<mapping url='d/' path='b'/><mapping url='e' path='e'/></mapping>\n");
    site_.write("package/b/tool", "", 0755);
    site_.write("package/scripts/configure", "#!/bin/sh\r\n");
    site_.shell(
        "cd package; chmod 0644 scripts/configure; mkdir -p e/in closed 'c d'; ln -s /nowhere 'c d/gone'\n"
        "ln -s ../b 'c d/directory'; ln -s ../b/tool 'c d/file'; mkfifo 'c d/pipe'; echo >e/secret\n"
        "chmod 0640 e/secret; chmod 0700 closed; chmod 0751 e/in; chmod 0700 b; touch \"$(printf 'c d/\\377')\"");
    EXPECT_EQ(check(),
              (Result {2, R"(error APP-META.xml:3: there is no "where" in the package: the extraction fails on it
error APP-META.xml:3: there is no "none" in the package: nothing is installed of it
warning APP-META.xml:4: "b/tool" is a single file: no handler makes it a program
error APP-META.xml:5: url "/a b" has a blank: Apache does not start with it
error APP-META.xml:5: extension ".php" begins with a dot: only names with two dots end so
error APP-META.xml:5: extension "a b" has a blank: to Apache these are two
error APP-META.xml:5: extension "" is empty
error APP-META.xml:6: href "/a b" has a blank: Apache does not start with it
error APP-META.xml:7: href "/b\\\\" ends in two backslashes: Apache draws the next line into it
error APP-META.xml:8: href "b/c" is neither an absolute URL nor a path: Apache does not start with it
error APP-META.xml:9: href "http://x/${y}" has a variable: no Apache file is made
error APP-META.xml:10: href ""/x" begins with a quote: Apache takes it for its own
warning APP-META.xml:11: what the web server writes here runs as a program
warning APP-META.xml:12: url "/d" has a mapping in line 11 already
error b: mode 0700 does not let everyone enter it: the site's user has to
warning APP-META.xml: is put on the site, where every visitor may read it
warning c d/directory: is a link to a directory: it becomes an empty directory
error c d/gone: is a link that leads nowhere: No such file or directory
error c d/pipe: is a pipe, socket or device: no extraction copies it
error c d/\xff: no instance file list can hold its name
error closed: mode 0700 does not let everyone enter it: the site's user has to
error e/in: mode 0751 does not let everyone read it: the site's user has to
error e/secret: mode 0640 does not let everyone read it: the site's user has to
warning scripts: is put on the site, where every visitor may read it
error scripts/configure: is not readable and executable for everyone, as a program has to be
error scripts/configure: has a Windows line break after the interpreter's name
)",
                       ""}));
}

TEST_F(Check, LooksForTheScriptThatThePackageNames)
{
    const std::string language = "<configuration-script-language>", end = "</configuration-script-language>";
    const std::tuple<const char*, std::string, const char*, std::string> cases[] = {
        {"none is named", "<mapping url='r' virtual='redirect' href='/x'/>", nullptr, ""},
        {"one is there and none named", "", "x", ": is never run: the metadata does not name its language\n"},
        {"one is named and none there", language + "php" + end, nullptr,
         ": cannot be found, and the metadata names its language: No such file or directory\n"},
        {"its first line need not say", language + "php" + end, "<?php\n", ""},
        {"nor be right to the digit", language + "perl" + end, "#! /usr/bin/perl5.36 -w", ""},
        {"a program needs it", language + "binary" + end, "echo", ": is no program and has no interpreter line\n"},
        {"a program of its own", language + "binary" + end, "\177ELF", ""},
    };
    for (const auto& [why, element, script, finding] : cases) {
        site_.metadata(element);
        site_.shell("rm -rf package/scripts");
        if (script != nullptr)
            site_.write("package/scripts/configure", script, 0755);
        const std::string line = finding.empty() ? "" : "error scripts/configure" + finding;
        EXPECT_EQ(check(), (Result {finding.empty() ? 0 : 2, line, ""})) << why;
    }
}

TEST_F(Check, TellsWhereMetadataIsMalformedAndWhatItCannotRead)
{
    const std::tuple<std::string, std::string> cases[] = {
        {"<a>\n<b>\n</a>", "3: Opening and ending tag mismatch: b line 2 and a"},
        {"<a>\n&none;</a>", "2: Entity 'none' not defined"},
        {"", "1: Document is empty"},
        {"<a>\n" + repeated(100'001, "<b/>"), "2: goes beyond a limit, or is in an encoding that is not read"},
        {"<?xml version='1.0' encoding='EUC-JP'?>\n<a/>",
         "1: goes beyond a limit, or is in an encoding that is not read"},
    };
    site_.write("package/APP-META.xml", "");
    for (const auto& [text, finding] : cases) {
        site_.write("other.xml", text);
        const std::string where = site_.path("other.xml");
        EXPECT_EQ(check({"--metadata-file=" + where}), (Result {2, "error " + where + ":" + finding + "\n", ""}));
    }
    const std::string none = site_.path("none");
    EXPECT_EQ(check({"--metadata-file=" + none}), says(1, "zendrelctl: cannot read " + none + "\n"));
    EXPECT_EQ(zendrelctl({"check", none}),
              says(1, "zendrelctl: no directory with an unpacked package: " + none + "\n"));
}

TEST_F(Check, TakesLittleTimeAndMemoryForHostileMetadata)
{
    std::string entities = "<!ENTITY a '" + std::string(1'000, 'x') + "'>";
    for (char name = 'b'; name < 'm'; ++name)
        entities +=
            std::string("<!ENTITY ") + name + " '" + repeated(8, std::string("&") + char(name - 1) + ";") + "'>";
    const std::tuple<const char*, std::string> cases[] = {
        {"siblings",
         package(kNamed + "<m 'x'><c:handler>" + repeated(40'000, "<c:extension>x</c:extension>")
                 + "</c:handler></m>")},
        {"mappings side by side", package(kNamed + "<m 'x'>" + repeated(30'000, "<m 'y'/>") + "</m>")},
        {"foreign elements", package(kNamed + "<m 'x'>" + repeated(90'000, "<f:x/>") + "</m>")},
        {"nested mappings",
         package(kNamed + repeated(250, "<m ''>" + repeated(100, "<f:x/>")) + repeated(250, "</m>"))},
        {"entities in attributes that nobody reads",
         "<!DOCTYPE a [" + entities + "]>" + package(kNamed + "<f:x y='&l;'/><m 'x'/>")},
        {"entities in texts", "<!DOCTYPE a [" + entities + "]>" + package(kNamed + "<m 'x'><f:x>&l;</f:x></m>")},
    };
    for (const auto& [why, text] : cases) {
        site_.write("package/APP-META.xml", text);
        const Result result = check();
        EXPECT_EQ(result.status, 2) << why << result;
#ifndef ZENDREL_SANITIZED
        EXPECT_LE(result.peakKilobytes, 128 * 1024) << why;
#endif
    }
}

}  // namespace
