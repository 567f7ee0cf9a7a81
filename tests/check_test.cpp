#include "app/Interpreter.h"
#include "app/fsappmetadata.h"
#include "common/ExSystemError.h"
#include "ctl/MetadataSchema.h"
#include "tests/support/Sandbox.h"

using namespace sandbox;
using namespace tarvik;

namespace {

bool is_read(const std::string& text)
try {
    FSAMetaDataReader(*read_xml_tree(xml_source(text)), "");
    return true;
} catch (const FSAXMLException&) {
    return false;
}

std::string package(const std::string& content, const std::string& attributes = "")
{
    return application(content, "xmlns:f='urn:f' " + attributes);
}

std::string named(const std::string& content, const std::string& attributes = "")
{
    return package("<name/><version/><release/>" + content, attributes);
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
    const std::string together = " lacks something, or has what does not go together\n";  // "#" in the table
    const std::tuple<const char*, std::string, std::string> cases[] = {
        // what the reader refuses, too, is "!"
        {"all there is, in any order",
         package("<m '/' path=''><c:handler><c:extension>pl</c:extension><c:extension> a</c:extension></c:handler>"
                 "<p:permissions/><m 'x'><p:permissions writable='false'/><c:handler><c:all-files/></c:handler></m>"
                 "<p:handler><p:disabled/></p:handler><m 'r' virtual='redirect' href='/x'/></m><release>1</release>"
                 "<configuration-script-language>perl</configuration-script-language><version/><m 'y'/><name>n</name>",
                 "version='1.2'"),
         ""},
        {"what is foreign",
         named("<f:x><name/>t<m a='b'/></f:x><m 'x' f:x='' xml:lang='en'><f:y>t</f:y>"
               "<p:handler><f:y/><p:extension/><f:y/></p:handler><c:handler><f:y/><c:all-files/></c:handler></m>"),
         ""},
        {"entities",
         "<!DOCTYPE a [<!ENTITY t 'true'><!ENTITY v '1&w;'><!ENTITY w '2'>]>"
             + package("<name>&v;</name><version>&w;.&v;</version><release/><m '&v;'><p:permissions writable='&t;'/>"
                       "</m>"),
         ""},
        {"no package", "<x/>", "!1 this is no package: it begins with \"x\" of no namespace\n"},
        {"nothing in it", package(""), "!1 Expecting an element name, got nothing\n"},
        {"a name twice", named("<name/>"), "1 Extra element name in interleave\n"},
        {"unknown names, each on its line",
         named("\n<maping url='x'/><m 'x' writable='true'>\n<handler/>\n<m 'y' p:path='x'/></m>"
               "<mapping xmlns='' url='z'/><p:handler/><name2>\n<m/></name2>"),
         "2 unknown element \"maping\"\n2 unknown attribute \"writable\" of \"mapping\"\n"
         "3 unknown element \"handler\"\n4 unknown attribute \"php:path\" of \"mapping\"\n"
         "4 unknown element \"mapping\" of no namespace\n4 \"php:handler\" means nothing in \"application\"\n"
         "4 unknown element \"name2\"\n"},
        {"values that mean another thing",
         named("<m 'x'><p:permissions writable='yes'/><p:permissions writable=' true'/></m>"
               "<m 'x' virtual='moved' href='x'/>"
               "<configuration-script-language> php</configuration-script-language>",
               "version='2.0'"),
         "1 \"version\" of \"application\" is \"2.0\", not \"1.0\" or \"1.1\" or \"1.2\"\n"
         "1 \"writable\" of \"php:permissions\" is \"yes\", not \"true\" or \"false\"\n"
         "1 \"writable\" of \"php:permissions\" is \" true\", not \"true\" or \"false\"\n"
         "1 \"virtual\" of \"mapping\" is \"moved\", not \"redirect\"\n"
         "1 \"configuration-script-language\" is \" php\", not \"php\" or \"mo-engine-tarvikrun\" or \"perl\" or "
         "\"binary\"\n"},
        {"no url", named("<m 'x'>\n<mapping path='y'/></m>"), "!2 \"mapping\"#"},
        {"a target without a redirect; a redirect with none, with an empty one, with something in it",
         named("<m 'x' href='/y'/>\n<m 'x' virtual='redirect'/>\n<m 'x' virtual='redirect' href=''/>\n"
               "<m 'x' virtual='redirect' href='/y'><m 'z'/></m>"),
         "1 \"mapping\"#2 \"mapping\"#3 \"mapping\"#4 \"mapping\"#"},
        {"handlers in doubt, others beside them, and foreign text that would be read",
         named("<m 'x'><c:handler><c:extension/><c:all-files/></c:handler>\n"
               "<p:handler><p:disabled/><p:extension>x</p:extension></p:handler>\n"
               "<c:handler><c:disabled/></c:handler><p:handler><p:disabled/><p:disabled/></p:handler>\n"
               "<p:handler><p:extension>a<f:x>b</f:x></p:extension></p:handler></m>"),
         "1 \"cgi:handler\"#2 \"php:handler\"#3 \"php:handler\"#4 \"php:handler\"#"},
        {"text where none is read", named("<m 'x'>t<c:handler>t</c:handler></m>"),
         "1 \"mapping\" has text, which means nothing\n1 \"cgi:handler\" has text, which means nothing\n"},
    };
    for (const auto& [why, text, errors] : cases)
        EXPECT_EQ((is_read(text) ? "" : "!") + errors_of(text), boost::replace_all_copy(errors, "#", together)) << why;
    for (const std::string language : {"php", "perl", "binary", "mo-engine-tarvikrun", "sh", ""}) {
        const std::string element = "<configuration-script-language>" + language + "</configuration-script-language>";
        EXPECT_EQ(errors_of(named(element)).empty(), is_script_language(language)) << language;
    }
    EXPECT_EQ(read(ZENDREL_SOURCE_DIR "/share/app-meta.rng"), ctl::kMetadataSchema);
}

class Check : public testing::Test {
protected:
    Result check(const Words& more = {}) const
    {
        return zendrelctl(Words {"check", site_.path("package")} + more, "", {0, 20});
    }
    const Site site_;
};

TEST_F(Check, FindsNothingInTheExamplesAndEverythingElsewhere)
{
    for (const std::string name : {"guestbook", "photos"})
        EXPECT_EQ(zendrelctl({"check", ZENDREL_SOURCE_DIR "/examples/packages/" + name}), says(0, ""));

    site_.metadata("<m '/' path='/'><m '../..'/></m>");
    EXPECT_EQ(check(),
              prints("error APP-META.xml:2: url \"/../..\" leads out of the application\n"
                     "warning APP-META.xml:2: path \"../..\" leads out of the package\n",
                     2));
    site_.metadata("<configuration-script-language>binary</configuration-script-language><m '/' path='/'>\n"
                   "<m 'none'/><m 'no' path='where'><p:permissions writable='true'/></m>\n"
                   "<m 'one' path='b/tool'><c:handler><c:all-files/></c:handler></m>\n"
                   "<m 'c d'/><m 'a b' path='b'><p:handler><p:extension>.php</p:extension>"
                   "<p:extension>a b</p:extension><p:extension/></p:handler></m>\n"
                   "<m 'r' virtual='redirect' href='/a b'/>\n"
                   "<m 's' virtual='redirect' href='/b\\\\'/>\n"
                   "<m 't' virtual='redirect' href='b/c'/>\n"
                   "<m 'u' virtual='redirect' href='http://x/${y}'/>\n"
                   "<m 'v' virtual='redirect' href='\"/x'/>\n"
                   "<m 'b/../d' path='b'><p:permissions writable='true'/><c:handler><c:extension>pl"
                   "</c:extension></c:handler></m>\n"
                   "<m 'd/' path='b'/><m 'e' path='e'/></m>\n");
    site_.write("package/b/tool", "", 0755);
    site_.write("package/scripts/configure", "#!/bin/sh\r\n");
    site_.shell(
        "cd package; chmod 0644 scripts/configure; mkdir -p e/in closed 'c d'; ln -s /nowhere 'c d/gone'\n"
        "ln -s ../b 'c d/directory'; ln -s ../b/tool 'c d/file'; mkfifo 'c d/pipe'; echo >e/secret\n"
        "chmod 0640 e/secret; chmod 0700 closed; chmod 0751 e/in; chmod 0700 b; touch \"$(printf 'c d/\\377')\"");
    EXPECT_EQ(check(),
              prints(R"(error APP-META.xml:3: there is no "where" in the package: the extraction fails on it
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
                     2));
}

TEST_F(Check, LooksForTheScriptThatThePackageNames)
{
    const std::string language = "<configuration-script-language>", end = "</configuration-script-language>";
    const std::tuple<const char*, std::string, const char*, std::string> cases[] = {
        {"none is named", "<m 'r' virtual='redirect' href='/x'/>", nullptr, ""},
        {"one is there and none named", "", "x", ": is never run: the metadata does not name its language\n"},
        {"one is named and none there", language + "php" + end, nullptr,
         ": cannot be found, and the metadata names its language: No such file or directory\n"},
        {"its first line need not say", language + "php" + end, "<?php\n", ""},
        {"nor be right to the digit", language + "perl" + end, "#! /usr/bin/perl5.36 -w", ""},
        {"it is another's", language + "php" + end, "#!/usr/bin/env -S perl -w\n",
         ": its first line asks for perl, the metadata for php\n"},
        {"a program needs it", language + "binary" + end, "echo", ": is no program and has no interpreter line\n"},
        {"a program of its own", language + "binary" + end, "\177ELF", ""},
    };
    for (const auto& [why, element, script, finding] : cases) {
        site_.metadata(element);
        site_.shell("rm -rf package/scripts");
        if (script != nullptr)
            site_.write("package/scripts/configure", script, 0755);
        const std::string line = finding.empty() ? "" : "error scripts/configure" + finding;
        EXPECT_EQ(check(), prints(line, finding.empty() ? 0 : 2)) << why;
    }
}

TEST_F(Check, TellsWhereMetadataIsMalformedAndWhatItCannotRead)
{
    const std::string beyond = ": goes beyond a limit, or is in an encoding that is not read";
    const std::pair<std::string, std::string> cases[] = {
        {"<a>\n<b>\n</a>", "3: Opening and ending tag mismatch: b line 2 and a"},
        {"<a>\n&none;</a>", "2: Entity 'none' not defined"},
        {"", "1: Document is empty"},
        {"<a>\n" + repeated(100'001, "<b/>"), "2" + beyond},
        {"<?xml version='1.0' encoding='EUC-JP'?>\n<a/>", "1" + beyond},
    };
    site_.write("package/APP-META.xml", "");
    for (const auto& [text, finding] : cases) {
        site_.write("other.xml", text);
        const std::string where = site_.path("other.xml");
        EXPECT_EQ(check({"--metadata-file=" + where}), prints("error " + where + ":" + finding + "\n", 2));
    }
    const std::string none = site_.path("none");
    EXPECT_EQ(check({"--metadata-file=" + none}), says(1, "zendrelctl: cannot read " + none + "\n"));
    EXPECT_EQ(zendrelctl({"check", none}),
              says(1, "zendrelctl: no directory with an unpacked package: " + none + "\n"));
}

TEST_F(Check, TellsProgramsWhichVersionItIs)
{
    site_.metadata("<mapping url='/' path='none'/>");
    Result told = check({"--json"});
    boost::erase_all(told.out, "\n");
    boost::erase_all(told.out, "  ");
    EXPECT_EQ(told,
              prints(R"({"package": "shop","version": "2","release": "7","findings": [{"severity": "error",)"
                     R"("where": "APP-META.xml:2","text": "there is no \"none\" in the package: )"
                     R"(nothing is installed of it"}]})",
                     2));
    site_.write("package/APP-META.xml", "<nothing/>");
    EXPECT_EQ(check({"--json"}).out.find("{\n  \"findings\": [\n    {\n"), 0U);
}

TEST_F(Check, TakesLittleTimeAndMemoryForHostileMetadata)
{
    const std::string contents[] = {
        "<m 'x'><c:handler>" + repeated(40'000, "<c:extension>x</c:extension>") + "</c:handler></m>",
        "<m 'x'>" + repeated(30'000, "<m 'y'/>") + "</m>",
        "<m 'x'>" + repeated(90'000, "<f:x/>") + "</m>",
        repeated(250, "<m ''>" + repeated(100, "<f:x/>")) + repeated(250, "</m>"),
    };
    for (const std::string& content : contents) {
        const std::string why = content.substr(0, 40);
        site_.write("package/APP-META.xml", named(content));
        const Result result = check();
        EXPECT_EQ(result.status, 2) << why << result;
#ifndef ZENDREL_SANITIZED
        EXPECT_LE(result.peakKilobytes, 128 * 1024) << why;
#endif
    }
}

}  // namespace
