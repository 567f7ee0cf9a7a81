#include "clib/product_log.h"
#include "clib/read_configuration.h"
#include "tests/support/Sandbox.h"

#include <cstdio>

using namespace sandbox;
using namespace std::string_literals;

namespace {

constexpr char kFile[] = "/etc/oxa/oxa.conf";

conf_table* new_table() { return static_cast<conf_table*>(std::calloc(1, sizeof(conf_table))); }

TEST(ConfReadFile, CutsNameAndValueOutOfALine)
{
    const std::string blanks(1 << 24, ' ');
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"one blank and the newline both stay", "KEY /srv \n", "/srv \n"},
        {"two blanks stay, the newline is cut", "KEY /srv  \n", "/srv  "},
        {"no final newline, one blank before a comment is cut", "KEY\t\ta  b c #d", "a  b c"},
        {"all white space separates, no byte beyond ASCII", " \v\fKEY \t\v\f\r\v\xA0\x85\n", "\xA0\x85"},
        {"the last definition counts, its scan stops at once", "KEY a\nOTHER x\nKEY b#c\nKEYS c\n", "b"},
        {"a NUL ends its line early, not the next", "\0KEY a\nKEY /srv \0x\nB c\n"s, "/srv"},
        {"comments and malformed lines change nothing", "KEY a\nKEY=b\nKEY\nKEY #b\nKEY-b c\n\t # KEY d\n", "a"},
        {"long lines in linear time", "KEY" + blanks + "v" + blanks, "v" + blanks},
    };
    for (const auto& [why, text, value] : cases) {
        std::ofstream(kFile, std::ios::binary) << text;
        conf_table* const table = new_table();
        EXPECT_EQ(conf_read_file_r(kFile, table), 0) << why;
        EXPECT_EQ(conf_get_r("KEY", table), value) << why;
        EXPECT_EQ(table->sorted, 1) << why;
        conf_free_r(table);
    }
    conf_free_r(nullptr);
    for (int c = 1; c < 256; ++c) {
        std::string line = std::string(1, static_cast<char>(c)) + " v\n";
        const bool names = c < 128 && (isalnum(c) != 0 || c == '_');
        EXPECT_EQ(conf_parse_line(line.data()).kind == CONF_LINE_DEFINITION, names) << c;
    }
}

TEST(ConfReadFile, SaysWhyItCannot)
{
    EXPECT_EQ(in_child([] {
                  LogLevel = 12;
                  for (const char* path : {"/no", "/etc"}) {
                      const int result = conf_read_file_r(path, new_table());
                      tarvik_log(1, "%d %d", result, errno);
                  }
                  _exit(0);  // with the tables
              }),
              says_twice(0,
                         "unable to open configuration file /no: No such file or directory\n\n-1 2\n"
                         "Unable to read configuration file: Is a directory\n-1 21\n"));
}

TEST(ConfTable, GrowsAndFindsNamesSortedOrNot)
{
    conf_table* const table = new_table();
    for (int count = 1; count <= 41; ++count) {
        const std::string name(count, char(0xD0 - 4 * count));
        EXPECT_EQ(conf_get_r(name.c_str(), table), nullptr);
        EXPECT_EQ(conf_set_r(name.c_str(), name.c_str(), table), 0);
        if (count % 2 == 0)
            conf_finalize_r(table);
        EXPECT_EQ(conf_get_r(name.c_str(), table), name);
    }
    conf_free_r(table);
}

TEST(OxaConf, HasADefaultForEveryKey)
{
    std::remove(kFile);
    // The sample shows each, commented out; the first and the last are there for the bounds.
    Words defaults;
    for (int index = 1; index < OXA_CONF_KEYS - 1; ++index)
        defaults.push_back(theOxaConfNames[index] + std::string(" ") + oxaConfGetDefaultByIndex(index) + "\n");
    std::sort(defaults.begin(), defaults.end());
    const char* const shown = "sed -n 's/^#\\([A-Z]\\)/\\1/p' " ZENDREL_SOURCE_DIR "/share/oxa.conf | LC_ALL=C sort";
    EXPECT_EQ(boost::join(defaults, ""), run({"sh", "-c", shown}).out);
}

TEST(OxaConf, TriesAgainUntilTheFileIsThereAndThenKeepsIt)
{
    EXPECT_EQ(in_child([] {
                  const auto show = [](const char* value) { tarvik_log(1, "%s", value != nullptr ? value : "(none)"); };
                  std::remove(kFile);
                  LogLevel = 11;  // silent up to here
                  oxaConfGet("A");
                  LogLevel = 12;
                  arrayInitialized = 0;
                  theOxaConfArray[OXA_HTTPD_VHOSTS_D] = "from before the first lookup";
                  show(oxaConfGetByIndex(OXA_HTTPD_VHOSTS_D));
                  std::ofstream(kFile) << " \n#c\nHTTPD_VHOSTS_D /srv\n \tC #c\n"
                                          "_MAX_POSSIBLE_OXA_CONF_VAR_NAME x\nLAST";
                  show(oxaConfGetByIndex(OXA_HTTPD_VHOSTS_D));
                  std::remove(kFile);
                  show(oxaConfGet("_MAX_POSSIBLE_OXA_CONF_VAR_NAME"));
                  theOxaConfArray[OXA_PRODUCT_ROOT_D] = "kept";  // a filled slot is not looked up
                  LogLevel = 3;
                  for (const char* name : {"PRODUCT_ROOT_D", "_MIN_POSSIBLE_OXA_CONF_VAR_NAME", "SA_MAX_MAIL_SIZE",
                                           "_MAX_POSSIBLE_OXA_CONF_VAR_NAME"})
                      show(oxaConfGetDefault(name));
              }),
              says_twice(0,
                         "unable to open configuration file /etc/oxa/oxa.conf: No such file or directory\n\n(none)\n"
                         "Invalid variable definition C #c\n\nExpected a value\n"
                         "Invalid variable definition LAST\nExpected a space after variable name\n\n"
                         "/srv\nx\nkept\n_MIN_POSSIBLE_OXA_CONF_VAR_VALUE\n256000\nvariable "
                         "'_MAX_POSSIBLE_OXA_CONF_VAR_NAME' was found neither in "
                         "/etc/oxa/oxa.conf, nor in compile-time defaults\n(none)\n"));
}

}  // namespace
