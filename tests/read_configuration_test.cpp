#include "clib/product_log.h"
#include "clib/read_configuration.h"
#include "tests/support/Sandbox.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>

using namespace sandbox;
using namespace std::string_literals;

namespace {

constexpr char kFile[] = "/etc/oxa/oxa.conf";

using Table = std::unique_ptr<conf_table, void (*)(conf_table*)>;

Table new_table() { return Table(static_cast<conf_table*>(std::calloc(1, sizeof(conf_table))), conf_free_r); }

void write_file(const std::string& text) { std::ofstream(kFile, std::ios::binary) << text; }

/// What a file of this text says about KEY; "(none)" when nothing.
std::string value_in(const std::string& text)
{
    write_file(text);
    const Table table = new_table();
    EXPECT_EQ(conf_read_file_r(kFile, table.get()), 0);
    EXPECT_EQ(table->sorted, 1);
    const char* const value = conf_get_r("KEY", table.get());
    return value != nullptr ? value : "(none)";
}

TEST(ConfReadFile, CutsNameAndValueOutOfALine)
{
    struct Case {
        const char* why;
        std::string text;
        std::string value;
    };
    const Case cases[] = {
        {"the newline alone is cut", "KEY /srv\n", "/srv"},
        {"one blank and the newline both stay", "KEY /srv \n", "/srv \n"},
        {"two blanks stay, the newline is cut", "KEY /srv  \n", "/srv  "},
        {"a carriage return counts as a blank", "KEY /srv\r\n", "/srv\r\n"},
        {"one blank before a comment is cut", "KEY\t\t/srv #c\n", "/srv"},
        {"two blanks before a comment stay", "KEY /srv  #c\n", "/srv  "},
        {"the scan stops right after one character", "KEY a#b\n", "a"},
        {"no final newline", "KEY /srv", "/srv"},
        {"blanks inside do not count for the end", "KEY a  b c \n", "a  b c \n"},
        {"all six kinds of white space separate", " \v\fKEY \t\v\f\r\v/srv\n", "/srv"},
        {"bytes beyond ASCII are not white", "KEY \xA0\x85\n", "\xA0\x85"},
        {"the last definition counts", "KEY a\nOTHER x\nKEY b\nKEYS c\n", "b"},
        {"a NUL ends its line early, not the next", "\0KEY a\nKEY /srv \0x\nB c\n"s, "/srv"},
        {"a comment after white space", "\t # KEY a\n", "(none)"},
        {"malformed lines change nothing", "KEY a\nKEY=b\nKEY\nKEY #b\nKEY-b c\n", "a"},
        {"an empty file", "", "(none)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(value_in(c.text), c.value);
    }
}

TEST(ConfReadFile, ReportsAtPriority12AndGoesOn)
{
    write_file("A=b \n \n#c\n  \xC3\x84 x\nNAME \t\nNAME #c\nGOOD x\nLAST");
    EXPECT_EQ(in_child([] {
                  const Table table = new_table();
                  if (conf_read_file_r(kFile, table.get()) != 0 || table->count != 1)
                      _exit(1);
                  LogLevel = 12;  // silent until here
                  conf_read_file_r(kFile, table.get());
                  if (conf_read_file_r("/no/file", table.get()) != -1 || errno != ENOENT
                      || conf_read_file_r("/etc", table.get()) != -1 || errno != EISDIR)
                      _exit(2);
              }),
              says_twice(0,
                         "Invalid variable definition A=b \n\n"
                         "Expected a space after variable name\n\n"
                         "Invalid variable definition \xC3\x84 x\n\n"
                         "Expected a space after variable name\n\n"
                         "Invalid variable definition NAME \t\n\nExpected a value\n"
                         "Invalid variable definition NAME #c\n\nExpected a value\n"
                         "Invalid variable definition LAST\n"
                         "Expected a space after variable name\n\n"
                         "unable to open configuration file /no/file: "
                         "No such file or directory\n\n"
                         "Unable to read configuration file: Is a directory\n"));
}

TEST(ConfReadFile, SurvivesRubbishInLinearTime)
{
    std::string lines;
    for (int i = 0; i < 1'000'000; ++i)
        lines += i % 2 == 0 ? "\xFF=\n" : "NAME\n";
    EXPECT_EQ(value_in(lines + "KEY v\n"), "v");
    const std::string blanks(1 << 24, ' ');
    EXPECT_EQ(value_in("KEY" + blanks + "v" + blanks), "v" + blanks);
    std::mt19937 random(12);
    for (char& c : lines)
        c = static_cast<char>(random() % (random() % 4 != 0 ? 48 : 256));
    EXPECT_EQ(value_in(lines + "\nKEY v\n"), "v");
}

TEST(ConfTable, GrowsAndFindsNamesSortedOrNot)
{
    const Table table = new_table();
    const auto name = [](int i) { return std::string(i % 9 + 1, char(0xD0 - i * 4)); };
    const auto get = [&](const std::string& key) { return conf_get_r(key.c_str(), table.get()); };
    const auto check_all = [&] {
        for (int i = 0; i < 41; ++i) {
            EXPECT_STREQ(get(name(i)), std::to_string(i).c_str());
            EXPECT_EQ(get(name(i) + "!"), nullptr);
        }
        EXPECT_EQ(get(""), nullptr);
    };
    EXPECT_EQ(get("A"), nullptr);
    EXPECT_EQ(conf_init_r(table.get()), 0);
    EXPECT_EQ(table->sorted, 1);
    for (int i = 0; i < 41; ++i) {
        ASSERT_EQ(conf_set_r(name(i).c_str(), std::to_string(i).c_str(), table.get()), 0);
        EXPECT_EQ(table->capacity, i < 20 ? 20u : i < 40 ? 40u : 80u);
    }
    EXPECT_EQ(table->sorted, 0);
    check_all();
    conf_finalize_r(table.get());
    check_all();
    EXPECT_STREQ(table->entries[40].name, "\xD0");  // bytes compare as unsigned

    conf_set_r("\xD0", "new", table.get());
    EXPECT_EQ(table->sorted, 1);  // nothing moved
    conf_set_r("!", "last", table.get());
    EXPECT_EQ(table->sorted, 0);
    EXPECT_EQ(table->count, 42u);
    EXPECT_STREQ(get("!"), "last");
    EXPECT_STREQ(get("\xD0"), "new");
}

#ifndef ZENDREL_SANITIZED
TEST(ConfTable, StaysAsItWasWhenMemoryRunsOut)
{
    EXPECT_EQ(in_child([] {
                  LogLevel = 12;
                  const Table empty = new_table();
                  const Table roomy = new_table();
                  const Table full = new_table();
                  conf_set_r("A", "old", roomy.get());
                  for (char name[] = "A"; full->count < 20; ++*name)
                      conf_set_r(name, "old", full.get());
                  const rlimit none = {1, 1};
                  setrlimit(RLIMIT_AS, &none);
                  void* volatile taken = nullptr;  // or the calls may be left out
                  for (std::size_t size = 1 << 20; size != 0; size -= size > 4096 ? 4096 : 16) {
                      do
                          taken = std::malloc(size);
                      while (taken != nullptr);
                  }
                  if (conf_read_file_r(kFile, empty.get()) != -1 || errno != ENOMEM
                      || conf_set_r("A", "new", full.get()) != -1 || errno != ENOMEM
                      || conf_set_r("A", "new", roomy.get()) != -1 || errno != ENOMEM || autoprepend() != -1
                      || *conf_get_r("A", full.get()) != 'o' || *conf_get_r("A", roomy.get()) != 'o')
                      _exit(1);
              }),
              says_twice(0,
                         "Unable to read configuration: Cannot allocate memory\n"
                         "Unable to read configuration: Cannot allocate memory\n"
                         "Unable to form configuration: Cannot allocate memory\n"
                         "Not enough memory to allocate Tarvik runtime configuration structure\n"));
}
#endif

TEST(OxaConf, TriesAgainUntilTheFileIsThereAndThenKeepsIt)
{
    const std::string missing = "unable to open configuration file /etc/oxa/oxa.conf: "
                                "No such file or directory\n\n";
    const std::string unknown = " was found neither in /etc/oxa/oxa.conf, "
                                "nor in compile-time defaults\n";
    EXPECT_EQ(
        in_child([] {
            unlink(kFile);
            LogLevel = 12;
            if (oxaConfGetByIndex(OXA_HTTPD_VHOSTS_D) != nullptr || arrayInitialized != 1
                || oxaConfGetDefaultByIndex(OXA_HTTPD_VHOSTS_D) != "/var/www/vhosts"s)
                _exit(1);
            LogLevel = 6;
            write_file("HTTPD_VHOSTS_D /srv\nOWN x\nCLIENT_PHP_BIN=/bin/php\n");
            const char* const value = oxaConfGetByIndex(OXA_HTTPD_VHOSTS_D);
            if (value != "/srv"s || theOxaConfArray[OXA_HTTPD_VHOSTS_D] != value)
                _exit(2);
            unlink(kFile);
            theOxaConfArray[OXA_PRODUCT_ROOT_D] = "kept";  // a filled slot is not looked up
            if (autoprepend() != 0 || oxaConfGetDefault("HTTPD_VHOSTS_D") != value
                || oxaConfGetDefaultByIndex(OXA_PRODUCT_ROOT_D) != "kept"s || oxaConfGet("PRODUCT_ROOT_D") != nullptr
                || oxaConfGet("OWN") != "x"s || oxaConfGetDefaultByIndex(OXA_CLIENT_PHP_BIN) != "/opt/oxa/bin/php-cli"s
                || theOxaConfArray[OXA_CLIENT_PHP_BIN] != nullptr)
                _exit(3);
            if (oxaConfGetDefault("_MIN_POSSIBLE_OXA_CONF_VAR_NAME") != "_MIN_POSSIBLE_OXA_CONF_VAR_VALUE"s
                || oxaConfGetDefault("SA_MAX_MAIL_SIZE") != theOxaConfDefauls[28] || oxaConfGetDefault("OWN") != nullptr
                || oxaConfGetDefault("_MAX_POSSIBLE_OXA_CONF_VAR_NAME") != nullptr)
                _exit(4);
        }),
        says_twice(0,
                   missing + missing + "variable 'OWN'" + unknown + "variable '_MAX_POSSIBLE_OXA_CONF_VAR_NAME'"
                       + unknown));
}

}  // namespace
