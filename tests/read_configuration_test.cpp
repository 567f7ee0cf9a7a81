#include "clib/product_log.h"
#include "clib/read_configuration.h"
#include "tests/support/Sandbox.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

using namespace sandbox;
using namespace std::string_literals;

namespace {

constexpr char kFile[] = "/etc/oxa/oxa.conf";

conf_table* new_table() { return static_cast<conf_table*>(std::calloc(1, sizeof(conf_table))); }

TEST(ConfReadFile, CutsNameAndValueOutOfALine)
{
    const std::string blanks(1 << 24, ' ');
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"the newline alone is cut", "KEY /srv\n", "/srv"},
        {"one blank and the newline both stay", "KEY /srv \n", "/srv \n"},
        {"two blanks stay, the newline is cut", "KEY /srv  \n", "/srv  "},
        {"a carriage return counts as a blank", "KEY /srv\r\n", "/srv\r\n"},
        {"one blank before a comment is cut", "KEY\t\t/srv #c\n", "/srv"},
        {"the scan stops right after one character", "KEY a#b\n", "a"},
        {"no final newline, blanks inside", "KEY a  b c", "a  b c"},
        {"all white space separates, no byte beyond ASCII", " \v\fKEY \t\v\f\r\v\xA0\x85\n", "\xA0\x85"},
        {"the last definition counts", "KEY a\nOTHER x\nKEY b\nKEYS c\n", "b"},
        {"a NUL ends its line early, not the next", "\0KEY a\nKEY /srv \0x\nB c\n"s, "/srv"},
        {"comments and malformed lines change nothing", "KEY a\nKEY=b\nKEY\nKEY #b\nKEY-b c\n\t # KEY d\n", "a"},
        {"long lines in linear time", "KEY" + blanks + "v" + blanks, "v" + blanks},
    };
    for (const auto& [why, text, value] : cases) {
        std::ofstream(kFile, std::ios::binary) << text;
        conf_table* const table = new_table();
        EXPECT_TRUE(conf_read_file_r(kFile, table) == 0 && table->sorted == 1 && conf_get_r("KEY", table) == value)
            << why;
        conf_free_r(table);
    }
}

TEST(ConfTable, GrowsAndFindsNamesSortedOrNot)
{
    conf_table* const table = new_table();
    EXPECT_EQ(conf_get_r("A", table), nullptr);
    for (int last = 0; last < 41; ++last) {
        const auto name = [](int i) { return std::string(i % 9 + 1, char(0xD0 - i * 4)); };
        ASSERT_EQ(conf_set_r(name(last).c_str(), name(last).c_str(), table), 0);
        EXPECT_TRUE(table->capacity == (last < 20 ? 20u : last < 40 ? 40u : 80u) && table->sorted == 0) << last;
        for (int i = 0; i <= last; ++i) {
            EXPECT_EQ(conf_get_r(name(i).c_str(), table), name(i));
            EXPECT_EQ(conf_get_r((name(i) + "!").c_str(), table), nullptr);
            if (i == last / 2)
                conf_finalize_r(table);
        }
    }
    conf_set_r("\xD0", "new", table);
    EXPECT_EQ(table->sorted, 1);                    // nothing moved
    EXPECT_STREQ(table->entries[40].value, "new");  // bytes compare as unsigned
    conf_free_r(table);
}

#ifndef ZENDREL_SANITIZED
TEST(ConfTable, StaysAsItWasWhenMemoryRunsOut)
{
    EXPECT_EQ(in_child([] {
                  conf_table* const table = new_table();
                  conf_set_r("KEY", "old", table);
                  LogLevel = 12;
                  const rlimit none = {1, 1};
                  setrlimit(RLIMIT_AS, &none);
                  for (std::size_t size = 1 << 20; size != 0; size -= size > 4096 ? 4096 : 16)
                      for (void* volatile taken = &size; taken != nullptr;)
                          taken = std::malloc(size);
                  bool failed = autoprepend() == -1 && conf_set_r("KEY", "new", table) == -1 && errno == ENOMEM;
                  table->capacity = table->count;  // so that it has to grow
                  failed = failed && conf_set_r("KEY", "new", table) == -1 && errno == ENOMEM;
                  _exit(failed && conf_get_r("KEY", table) == std::string("old") ? 42 : 1);
              }),
              says_twice(42,
                         "Not enough memory to allocate Tarvik runtime configuration structure\n"
                         "Unable to form configuration: Cannot allocate memory\n"
                         "Unable to read configuration: Cannot allocate memory\n"));
}
#endif

TEST(OxaConf, TriesAgainUntilTheFileIsThereAndThenKeepsIt)
{
    const std::string space = "\nExpected a space after variable name\n\n";
    const std::string empty = "\n\nExpected a value\n";
    const std::string unknown = "' was found neither in /etc/oxa/oxa.conf, nor in compile-time defaults\n(none)\n";
    std::string log = "unable to open configuration file /etc/oxa/oxa.conf: No such file or directory\n\n(none)\n"
                      "Unable to read configuration file: Is a directory\n/var/www/vhosts\n";
    for (const std::string& line :
         {"A=b \n" + space, "\xC3\x84 x\n" + space, "B \t" + empty, "C #c" + empty, "LAST" + space})
        log += "Invalid variable definition " + line;
    log +=
        "/srv\n(none)\nkept\n(none)\n/opt/oxa/bin/php-cli\n(none)\n_MIN_POSSIBLE_OXA_CONF_VAR_VALUE\n(none)\n256000\n";
    log += "x\nvariable 'OWN" + unknown + "(none)\nvariable '_MAX_POSSIBLE_OXA_CONF_VAR_NAME" + unknown;
    EXPECT_EQ(in_child([] {
                  const auto show = [](const char* value) { tarvik_log(1, "%s", value != nullptr ? value : "(none)"); };
                  LogLevel = 12;  // silent until here
                  unlink(kFile);
                  show(oxaConfGetByIndex(OXA_HTTPD_VHOSTS_D));
                  mkdir(kFile, 0755);
                  show(oxaConfGetDefaultByIndex(OXA_HTTPD_VHOSTS_D));
                  rmdir(kFile);
                  std::ofstream(kFile) << "A=b \n \n#c\n  \xC3\x84 x\nB \t\nHTTPD_VHOSTS_D /srv\nC #c\nOWN x\nLAST";
                  show(oxaConfGetByIndex(OXA_HTTPD_VHOSTS_D));
                  unlink(kFile);
                  theOxaConfArray[OXA_PRODUCT_ROOT_D] = "kept";  // a filled slot is not looked up
                  for (const char* name : {"PRODUCT_ROOT_D", "CLIENT_PHP_BIN", "_MIN_POSSIBLE_OXA_CONF_VAR_NAME",
                                           "SA_MAX_MAIL_SIZE", "OWN", "_MAX_POSSIBLE_OXA_CONF_VAR_NAME"}) {
                      show(oxaConfGet(name));
                      show(oxaConfGetDefault(name));
                  }
              }),
              says_twice(0, log));
}

}  // namespace
