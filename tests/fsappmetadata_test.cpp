#include "app/fsappmetadata.h"

#include "common/ExSystemError.h"
#include "tests/support/Sandbox.h"

using namespace sandbox;
using namespace tarvik;

namespace {

const std::string kFile = std::string(getenv("SANDBOX_DIR")) + "/meta.xml";
const std::string kUnreadable = "Unable to load file: ";
const std::string kRefused = kUnreadable + kFile;
const std::string kNamed = "<name>a</name><version/><release/>";

/// Why a text is refused, else its fields and, one a line, its mappings.
std::string result_of(const std::string& text)
try {
    std::ofstream(kFile) << text;
    const FSAMetaDataReader r(kFile);
    const Words fields = {r.name(), r.version(), r.release(), r.configurationScriptLanguage(), r.packagingVersion()};
    std::string lines = boost::join(fields, "|");
    for (const FSAMetaDataWebContent& content : r.webContents()) {
        lines += "\n" + content.url + " " + std::to_string(content.depth) + " " + content.path
            + (content.writable ? " writable" : "") + (content.redirect.empty() ? "" : "-> " + content.redirect);
        for (const auto& php : content.phpHandlers)
            lines += (php.disabled ? " php-off(" : " php(") + boost::join(php.extensions, ",") + ")";
        for (const auto& cgi : content.cgiHandlers)
            lines += std::string(cgi.disabled ? " cgi-off" : " cgi") + (cgi.allFiles ? "-all(" : "(")
                + boost::join(cgi.extensions, ",") + ")";
    }
    return lines;
} catch (const FSAXMLException& e) {
    return e.what();
}

TEST(Metadata, IsReadShallowMappingsFirstOrRefused)
{
    const std::string missing = "Invalid package metadata file format: <s:", xml = "<?xml version='1.0' encoding='";
    const std::string entities = "<!DOCTYPE a [<!ENTITY a 'x'><!ENTITY b '&a;&a;'><!ENTITY f SYSTEM '/etc/group'>]>";
    const std::tuple<const char*, std::string, std::string, std::string, std::string> cases[] = {
        {"the text of first elements", xml + "iso-8859-1'?>" + entities,
         "<name xmlns='x'/><name>a<b>\xe9</b><!--x--><![CDATA[&c]]>&lt;</name><name>no</name><release>7</release>"
         "<version>[&f;]&b;-&b;</version><configuration-script-language>php</configuration-script-language>",
         "", "a\xc3\xa9&c<|[]xx-xx|7|php|1.0"},
        {"an encoding that would load a module", xml + "EUC-JP'?>", kNamed, "", kRefused},
        {"one that would not", xml + "cp1251'?>", "<name>" + repeated(5'000, "\x88") + "</name><version/><release/>",
         "", repeated(5'000, "\xe2\x82\xac") + "||||1.0"},
        {"a byte without a character in it", xml + "cp1251'?>", kNamed, "\x98" + std::string(5'000, 'c'), kRefused},
        {"a byte order mark before it", "\xef\xbb\xbf" + xml + "cp1251'?>", kNamed, "", kRefused},
        {"an instruction that is no declaration", "<?xml-stylesheet encoding='x'?>", kNamed, "", "a||||1.0"},
        {"a long licence", "", kNamed, "<x><![CDATA[" + std::string(100'000, 'c') + "]]></x>", "a||||1.0"},
        {"a comment after a CDATA section", "", kNamed, "<![CDATA[c]]><!--" + std::string(100'000, 'c') + "-->",
         kRefused},
        {"a default", xml + "utf-8'?><!DOCTYPE a [<!ATTLIST application version CDATA '1.2'>]>", kNamed, "",
         "a||||1.2"},
        {"one namespace after another", "", kNamed, numbered(70, "<q", " xmlns:q='u'/>"), "a||||1.0"},
        {"something beside the root", "<x/>", kNamed, "", kRefused},
        {"no name", xml + "US-ASCII'?>", "<version/><release/>", "", missing + "name> element is missing."},
        {"no version", "", "<name/><release/>", "", missing + "version> element is missing."},
        {"no release reads as no name", "", "<name/><version/>", "", missing + "name> element is missing."},
        {"no url", "", kNamed, "<mapping path='x'/>", missing + "mapping> has no url attribute."},
        {"a slash at the joint is one level", "", kNamed, "<m '/'><m 'x'/></m><m '/a/'><m '//d//'/></m>",
         "a||||1.0\n/ 1 /\n/x 1 /x\n/a/ 2 /a/\n/a/d// 4 /a/d//"},
        {"explicit paths, later siblings first", "", kNamed, "<m 'a' path='//d'><m 'b' path='f'/><m 'c' path=''/></m>",
         "a||||1.0\n/a 1 /d\n/a/c 2 /d/c\n/a/b 2 /f"},
        {"any true permission makes writable, and it is not inherited", "", kNamed,
         "<m 'a'><p:permissions writable='false'/><p:permissions writable='true'/><m 'b'>"
         "<p:permissions writable='TRUE'/><p:permissions p:writable='true'/></m></m>",
         "a||||1.0\n/a 1 /a writable\n/a/b 2 /a/b"},
        {"disabled counts before all files before extensions, which stay as written", "", kNamed,
         "<m 'a'><p:handler><p:extension> .PHP </p:extension><p:extension/></p:handler>"
         "<p:handler><p:disabled/><p:extension>x</p:extension></p:handler>"
         "<c:handler><c:all-files/><c:disabled/></c:handler><c:handler><c:extension>x</c:extension><c:all-files/>"
         "</c:handler><c:handler><c:extension>x</c:extension></c:handler></m>",
         "a||||1.0\n/a 1 /a php( .PHP ,) php-off() cgi-off() cgi-all() cgi(x)"},
        {"what is foreign, virtual otherwise or below a redirect does not count", "", kNamed,
         "<m 'a&amp;b&#47;c' c:url='z'><handler/></m><other/><m 's' virtual='redirect'><m 'y'/></m>"
         "<m 't' virtual='Redirect' href='/u'/><m 'r' virtual='redirect' href='/t'><p:handler/><m 'x'/></m>",
         "a||||1.0\n/r 1 -> /t\n/a&b/c 2 /a&b/c"},
    };
    for (const auto& [why, prolog, fields, mappings, result] : cases)
        EXPECT_EQ(result_of(prolog + application(fields + mappings)), result) << why;

    static_assert(!std::is_assignable_v<FSAMetaDataReader&, FSAMetaDataReader>);
    const FSAMetaDataReader reader(kFile);
    FSAMetaDataWebContent content = reader.webContents().front();
    FSAMetaDataWebContent other = reader.webContents().back();
    other.reserved = 7;
    other.writable = true;
    content = other;  // not the handlers and the redirect
    EXPECT_EQ(content.url + content.path + content.redirect + std::to_string(content.depth), "/a&b/c/a&b/c/t2");
    EXPECT_EQ(content.reserved, 7);
    EXPECT_TRUE(content.writable);
}

TEST(Metadata, MayBeInTwoByteCharactersAndLoadsNoConversion)
{
    const std::string fields = "a||||1.0", unreadable = kRefused;
    const std::tuple<std::string, int, int, std::string> widths[] = {
        {"\xff\xfe", 0, 1, fields}, {"\xfe\xff", 1, 0, fields}, {"", 0, 1, fields}, {"", 0, 3, unreadable}};
    for (const auto& [mark, before, after, utf] : widths) {
        for (const auto& [encoding, result] :
             {std::pair("UTF-16", utf), {"UTF-8", utf}, {"EUC-JP", unreadable}, {"cp1252", unreadable}}) {
            std::string text = mark;
            for (const char c : "<?xml version='1.0' encoding='" + std::string(encoding) + "'?>" + application(kNamed))
                text += std::string(before, '\0') + c + std::string(after, '\0');
            EXPECT_EQ(result_of(text), result) << mark << before << after << encoding;
        }
    }
    EXPECT_EQ(read("/proc/self/maps").find("/gconv"), std::string::npos);
}

TEST(Metadata, IsReadUpToItsLimits)
{
    static const auto plain = [](const std::string& content) { return application(kNamed + content); };
    static const auto typed = [](const std::string& declarations, const std::string& content = "") {
        return "<!DOCTYPE x [" + declarations + "]>" + plain(content);
    };
    // What is accepted, what is not, and a document for each number.
    const std::tuple<std::size_t, std::size_t, std::string (*)(int)> limits[] = {
        {256, 257, [](int n) { return plain("<x" + numbered(n, " a", "=''") + "/>"); }},
        {61, 62, [](int n) { return plain("<x" + numbered(n, " xmlns:n", "='u'") + "/>"); }},  // beside the root's
        {100'000 - 8, 100'000 - 7, [](int n) { return plain(repeated(n, "<x/>")); }},  // beside the root and its fields
        {499'980, 500'001, [](int n) { return plain(repeated(n, "<?p?>")); }},
        {64'000, 68'000, [](int n) { return plain("<!--" + std::string(n, 'c') + "-->"); }},
        {4 * 1024 * 1024 - 3, 4 * 1024 * 1024 - 2,  // two nodes and the name are counted, too
         [](int n) {
             const std::string language = "configuration-script-language>";
             return plain("<" + language + std::string(n, 't') + "</" + language);
         }},
        {16 * 1024 * 1024 - plain("").size(), 16 * 1024 * 1024 - plain("").size() + 1,
         [](int n) {
             return plain(repeated(n / 1'024, "<!--" + std::string(1'017, 'c') + "-->") + std::string(n % 1'024, 't'));
         }},
        {1'000, 1'001, [](int n) { return typed("<!ATTLIST x a (" + numbered(n - 1, "n", "|") + "n) #IMPLIED>"); }},
        {1'000, 1'001, [](int n) { return typed(numbered(n, "<!ENTITY e", " ''>")); }},
        {1'000, 1'001, [](int n) { return typed(numbered(n, "<!ATTLIST x a", " CDATA ''>")); }},
        {1'000, 1'001, [](int n) { return typed(numbered(n, "<!ELEMENT x", " ANY>")); }},
        {4'000, 4'001, [](int n) { return typed("<!ENTITY % p ''>" + repeated(n, "%p;")); }},
        {250, 257, [](int n) { return typed("<!ENTITY % p '" + std::string(1'024, ' ') + "'>" + repeated(n, "%p;")); }},
        {16'000, 16'385,
         [](int n) { return typed("<!ENTITY e '" + std::string(1'024, 'e') + "'>", repeated(n, "&e;")); }},
    };
    for (const auto& [accepted, refused, text] : limits) {
        EXPECT_EQ(result_of(text(static_cast<int>(accepted))).substr(0, 4), "a|||") << accepted;
        EXPECT_EQ(result_of(text(static_cast<int>(refused))), kRefused) << refused;
    }
}

/// Documents of up to 1 MB that make a careless reader use gigabytes or minutes, and what is no local file.
TEST(Metadata, HostileFilesAreRefusedCheaply)
{
    const Site site;
    site.write("package/APP-META.xml", "");
    site.shell(
        "mkfifo fifo\nperl -MSocket -e 'socket(S, PF_UNIX, SOCK_STREAM, 0); bind(S, sockaddr_un(\"socket\")) or die'");
    const std::string large(60'000, 'x');
    std::string doubled;
    for (int i = 1; i < 38; ++i)
        doubled += boost::replace_all_copy("<!ENTITY % a" + std::to_string(i) + " '##'>", "#",
                                           "&#37;a" + std::to_string(i - 1) + ";");
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"many-with-an-attribute", "", numbered(33'400, "<a b='", "'/>")},
        {"long-URL-above-many", "", "<m '" + large + "'>" + numbered(10'000, "<m '", "'/>") + "</m>"},
        {"long-URL-above-redirects", "",
         "<m '" + large + "'>" + numbered(400, "<m '", "' virtual='redirect' href='x'/>") + "</m>"},
        {"many-references-to-no-node", "<!ENTITY a '" + repeated(12'000, "<?p?>") + "'>", repeated(60'000, "&a;")},
        {"many-defaults-after-an-error",
         numbered(900, "<!ATTLIST x xmlns:n", " CDATA 'u'>") + "<!ENTITY a '&#38;#0;" + repeated(14'000, "<x/>") + "'>",
         "&a;"},
        {"many-values",
         "<!ENTITY % a '<!ATTLIST x a (" + numbered(9'000, "n", "|") + "n) #IMPLIED>'>" + repeated(900, "%a;"), ""},
        {"hyphens-in-a-comment", "<!--" + std::string(100, '-') + "x", ""},
        {"doubling-blanks", "<!ENTITY % a0 ''>" + doubled + "%a37;", ""},
        {"long-entity-in-many",
         "<!ENTITY a '" + std::string(900, 'x') + "'>" + repeated(7, "<!--" + large + "-->") + "<!ENTITY b '"
             + repeated(5'000, "&a;") + "'>" + numbered(900, "<!ENTITY c", " '&b;'>"),
         numbered(900, "<x a='&c", ";'/>")},
    };
    Words files = {"/none", "/etc", "/dev/zero", "http://127.0.0.1:9/x", site.path("fifo"), site.path("socket")};
    for (const auto& [name, declarations, content] : cases) {
        site.write(name, "<!DOCTYPE application [" + declarations + "]>" + application(kNamed + content));
        files.push_back(site.path(name));
    }
    for (const std::string& file : files) {
        const Result result = zendrel(site.extract({"--metadata-file=" + file}), "", {0, 2});
        EXPECT_EQ(result, says(1, kUnreadable + file + "\n"));
#ifndef ZENDREL_SANITIZED
        EXPECT_LE(result.peakKilobytes, 64 * 1024) << file;
#endif
    }
}

/// A pipe is read as its writer writes, with a limit for each pause; devices are not even opened.
TEST(Metadata, ComesFromAFileOrAPatientlyReadPipe)
{
    const Site site;
    site.metadata("");
    site.write("package/htdocs/f", "");
    site.shell("mkfifo fifo");
    const std::string meta = site.path("package/APP-META.xml");
    const auto with = [&site](const std::string& file) {
        return ZENDREL_PROGRAM " " + boost::join(site.extract({"--metadata-file=" + file}), " ");
    };
    const std::string pausing = "<(sleep .1; head -c 99 " + meta + "; sleep .1; tail -c +100 " + meta + ")";
    EXPECT_EQ(run({"bash", "-c", with(pausing)}), says(0, ""));
    site.shell("ln -s package/APP-META.xml link; " + with(site.path("link")));

    // The writer is silent until the program waits for it, then gone.
    const std::string traced = "cd " + site.path() + "\nexport ASAN_OPTIONS=detect_leaks=0; trace=strace' -o trace'\n";
    const std::string silent = "exec 9<>fifo; : >trace; $trace " + with("fifo")
        + " 9>&- & for i in $(seq 300); do "
          "grep -q poll trace && break; sleep .01; done; exec 9>&-; wait $!";
    EXPECT_EQ(run({"sh", "-c", traced + silent}), says(1, kUnreadable + "fifo\n"));
    EXPECT_NE(read(site.path("trace")).find("events=POLLIN}], 1, 10000)"), std::string::npos);

    EXPECT_EQ(run({"sh", "-c", traced + "$trace " + with("/dev/zero")}), says(1, kUnreadable + "/dev/zero\n"));
    std::string calls = read(site.path("trace"));
    boost::erase_all(calls, "O_LARGEFILE|");  // as machines of 32 bits say
    EXPECT_NE(calls.find("zero\", O_RDONLY|O_CLOEXEC|O_PATH)"), std::string::npos);
    EXPECT_EQ(calls.find("/proc/self/fd"), std::string::npos);
}

}  // namespace
