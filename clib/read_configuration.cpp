#include "clib/read_configuration.h"

#include "clib/malloc_text.h"
#include "clib/product_log.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <string_view>
#include <utility>

namespace {

constexpr int kLogError = 3;
constexpr int kLogDetail = 12;  // the user facility's warning: above the usual threshold, so silent

constexpr uint64_t kFirstSlots = 20;

// Spelled out, as the classes of <cctype> change with the locale.
constexpr char kWhite[] = " \t\n\v\f\r";
constexpr char kNameCharacters[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";

struct Key {
    const char* name;
    const char* value;
};

constexpr Key kKeys[] = {
    {"_MIN_POSSIBLE_OXA_CONF_VAR_NAME", "_MIN_POSSIBLE_OXA_CONF_VAR_VALUE"},
    {"TARVIK_MAILNAMES_D", "/var/qmail/mailnames"},
    {"RBLSMTPD", "/usr/sbin/rblsmtpd"},
    {"CLIENT_PHP_BIN", "/opt/oxa/bin/php-cli"},
    {"LIB_CRYPTO_PATH", "/lib/libcrypto.so"},
    {"LIB_SSL_PATH", "/lib/libssl.so"},
    {"AWSTATS_DOC_D", "/usr/share/awstats"},
    {"AWSTATS_TOOLS_D", "/usr/share/doc/awstats/examples"},
    {"AWSTATS_BIN_D", "/usr/lib/cgi-bin"},
    {"AWSTATS_ETC_D", "/etc/awstats"},
    {"CATALINA_HOME", "/var/lib/tomcat7"},
    {"MAILMAN_VAR_D", "/var/lib/mailman"},
    {"MAILMAN_ROOT_D", "/usr/lib/mailman"},
    {"PGSQL_DATA_D", "/var/lib/postgresql//main"},  // the empty component is part of it
    {"PGSQL_BIN_D", "/usr/lib/postgresql/9.3/bin"},
    {"MYSQL_BIN_D", "/usr/bin"},
    {"MYSQL_VAR_D", "/var/lib/mysql"},
    {"WEB_STAT", "/usr/bin/webalizer"},
    {"DUMP_D", "/var/lib/oxa/dumps"},
    {"DUMP_TMP_D", "/tmp"},
    {"NAMED_RUN_ROOT_D", "/var/named/run-root"},
    {"HTTPD_SERVICE", "apache2"},
    {"HTTPD_LOG_D", "/var/log/apache2"},
    {"HTTPD_INCLUDE_D", "/etc/apache2/conf-enabled"},
    {"HTTPD_CONF_D", "/etc/apache2"},
    {"HTTPD_VHOSTS_D", "/var/www/vhosts"},
    {"PRODUCT_ROOT_D", "/opt/oxa"},
    {"MYSQL_SOCKET", "/var/run/mysqld/mysqld.sock"},
    {"SA_MAX_MAIL_SIZE", "256000"},
    {"_MAX_POSSIBLE_OXA_CONF_VAR_NAME", "_MAX_POSSIBLE_OXA_CONF_VAR_VALUE"},
};

static_assert(std::size(kKeys) == OXA_CONF_KEYS);
static_assert(kKeys[OXA_CLIENT_PHP_BIN].name == std::string_view("CLIENT_PHP_BIN"));
static_assert(kKeys[OXA_HTTPD_VHOSTS_D].name == std::string_view("HTTPD_VHOSTS_D"));
static_assert(kKeys[OXA_PRODUCT_ROOT_D].name == std::string_view("PRODUCT_ROOT_D"));

using Column = const char* Key::*;

constexpr oxa_conf_strings column(Column member)
{
    oxa_conf_strings strings = {};
    for (std::size_t i = 0; i < strings.size(); ++i)
        strings[i] = kKeys[i].*member;
    return strings;
}

}  // namespace

const char* const theOxaConfFile = "/etc/oxa/oxa.conf";
conf_table* theOxaConfHash = nullptr;
oxa_conf_strings theOxaConfArray = {};
int arrayInitialized = 0;
constexpr oxa_conf_strings theOxaConfNames = column(&Key::name);
constexpr oxa_conf_strings theOxaConfDefauls = column(&Key::value);

namespace {

struct Release {
    void operator()(FILE* file) const noexcept { static_cast<void>(std::fclose(file)); }
    void operator()(conf_table* table) const noexcept { conf_free_r(table); }
};
using Text = MallocText;
using File = std::unique_ptr<FILE, Release>;
using Table = std::unique_ptr<conf_table, Release>;

/// The buffer of getline, which grows to the longest line of a file and serves all of them.
struct LineBuffer {
    LineBuffer() = default;
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;
    ~LineBuffer() { std::free(text); }

    char* text = nullptr;
    std::size_t size = 0;
};

void clear_cache_once()
{
    if (arrayInitialized != 0)
        return;
    theOxaConfArray.fill(nullptr);
    arrayInitialized = 1;
}

conf_entry* find_linear(const conf_table& table, const char* name)
{
    conf_entry* const end = table.entries + table.count;
    conf_entry* const found = std::find_if(table.entries, end, [name](const conf_entry& entry) {
        return std::strcmp(entry.name, name) == 0;
    });
    return found != end ? found : nullptr;
}

conf_entry* find_sorted(const conf_table& table, const char* name)
{
    conf_entry* const end = table.entries + table.count;
    conf_entry* const found =
        std::lower_bound(table.entries, end, name, [](const conf_entry& entry, const char* wanted) {
            return std::strcmp(entry.name, wanted) < 0;
        });
    return found != end && std::strcmp(found->name, name) == 0 ? found : nullptr;
}

/// @return -1 with `errno`, for the caller to hand on.
int report_memory_shortage(const char* problem)
{
    tarvik_log(kLogDetail, "%s: %s", problem, std::strerror(ENOMEM));
    errno = ENOMEM;
    return -1;
}

bool is_white(char c)
{
    return c != '\0' && std::strchr(kWhite, c) != nullptr;
}

/**
 * The marker toggles with each white character of a run: an odd number of them at the end loses
 * the last one, an even number stays whole. Strange, but callers and files count on it.
 * @param value  its first character, which always belongs to it.
 */
char* value_end(char* value)
{
    char* marker = nullptr;
    char* at = value + 1;
    for (; *at != '\0' && *at != '#'; ++at)
        marker = is_white(*at) && marker == nullptr ? at : nullptr;
    return marker != nullptr ? marker : at;
}

void log_malformed(conf_line_kind kind, const char* line)
{
    constexpr char kProblem[] = "Invalid variable definition %s\n%s";
    const char* const definition = line + std::strspn(line, kWhite);
    if (kind == CONF_LINE_NO_SEPARATOR)
        tarvik_log(kLogDetail, kProblem, definition, "Expected a space after variable name\n");
    if (kind == CONF_LINE_NO_VALUE)
        tarvik_log(kLogDetail, kProblem, definition, "Expected a value");
}

/// @return 0, or the error number once everything is closed and freed.
int read_file(const char* path, conf_table* table)
{
    const File file(std::fopen(path, "rt"));
    if (!file) {
        const int error = errno;
        tarvik_log(kLogDetail, "unable to open configuration file %s: %s\n", path,
                   std::strerror(error));
        return error;
    }
    LineBuffer line;
    while (getline(&line.text, &line.size, file.get()) >= 0) {
        const conf_line parsed = conf_parse_line(line.text);
        if (parsed.kind != CONF_LINE_DEFINITION)
            log_malformed(parsed.kind, line.text);
        else if (conf_set_r(parsed.name, parsed.value, table) != 0)
            return errno;
    }
    const int error = errno;
    conf_finalize_r(table);
    if (std::feof(file.get()) != 0 && std::ferror(file.get()) == 0)
        return 0;
    tarvik_log(kLogDetail, "Unable to read configuration file: %s", std::strerror(error));
    return error != 0 ? error : EIO;
}

}  // namespace

const char* oxaConfGet(const char* name)
{
    return autoprepend() == 0 ? conf_get_r(name, theOxaConfHash) : nullptr;
}

const char* oxaConfGetByIndex(int index)
{
    clear_cache_once();
    if (theOxaConfArray[index] == nullptr)
        theOxaConfArray[index] = oxaConfGet(theOxaConfNames[index]);
    return theOxaConfArray[index];
}

const char* oxaConfGetDefaultByIndex(int index)
{
    const char* const value = oxaConfGetByIndex(index);
    return value != nullptr ? value : theOxaConfDefauls[index];
}

const char* oxaConfGetDefault(const char* name)
{
    constexpr int kClosingSentinel = OXA_CONF_KEYS - 1;
    for (int index = 0; index < kClosingSentinel; ++index) {
        if (std::strcmp(name, theOxaConfNames[index]) == 0)
            return oxaConfGetDefaultByIndex(index);
    }
    tarvik_log(kLogError, "variable '%s' was found neither in %s, nor in compile-time defaults",
               name, theOxaConfFile);
    return nullptr;
}

int autoprepend()
{
    if (theOxaConfHash != nullptr)
        return 0;
    clear_cache_once();
    Table table(static_cast<conf_table*>(std::calloc(1, sizeof(conf_table))));
    if (!table) {
        tarvik_log(kLogError,
                   "Not enough memory to allocate Tarvik runtime configuration structure");
        return -1;
    }
    if (conf_read_file_r(theOxaConfFile, table.get()) != 0)
        return -1;
    theOxaConfHash = table.release();
    return 0;
}

/// A NUL byte ends the line early, and what follows it is not looked at: no value could hold it.
conf_line conf_parse_line(char* line)
{
    char* const name = line + std::strspn(line, kWhite);
    if (*name == '\0' || *name == '#')
        return {CONF_LINE_EMPTY, nullptr, nullptr};
    char* const separator = name + std::strspn(name, kNameCharacters);
    if (!is_white(*separator))
        return {CONF_LINE_NO_SEPARATOR, nullptr, nullptr};
    char* const value = separator + std::strspn(separator, kWhite);
    if (*value == '\0' || *value == '#')
        return {CONF_LINE_NO_VALUE, nullptr, nullptr};
    *value_end(value) = '\0';
    *separator = '\0';
    return {CONF_LINE_DEFINITION, name, value};
}

int conf_read_file_r(const char* path, conf_table* table)
{
    if (conf_init_r(table) != 0)
        return -1;
    const int error = read_file(path, table);
    if (error == 0)
        return 0;
    errno = error;
    return -1;
}

int conf_set_r(const char* name, const char* value, conf_table* table)
{
    if (conf_init_r(table) != 0)
        return -1;
    Text ownName(strdup(name));
    Text ownValue(strdup(value));
    if (!ownName || !ownValue)
        return report_memory_shortage("Unable to form configuration");
    if (conf_entry* const known = find_linear(*table, name)) {
        const Text old(std::exchange(known->value, ownValue.release()));
    } else {
        table->entries[table->count++] = {ownName.release(), ownValue.release()};
        table->sorted = 0;
    }
    return 0;
}

const char* conf_get_r(const char* name, const conf_table* table)
{
    const conf_entry* const found =
        table->sorted != 0 ? find_sorted(*table, name) : find_linear(*table, name);
    return found != nullptr ? found->value : nullptr;
}

int conf_init_r(conf_table* table)
{
    if (table->entries == nullptr) {
        void* const slots = std::calloc(kFirstSlots, sizeof(conf_entry));
        if (slots == nullptr)
            return report_memory_shortage("Unable to read configuration");
        *table = {static_cast<conf_entry*>(slots), kFirstSlots, 0, 1};
    } else if (table->count >= table->capacity) {
        const auto capacity = static_cast<std::size_t>(
            std::max(table->capacity * 2, table->count + kFirstSlots));  // far less than memory
        void* const slots = reallocarray(table->entries, capacity, sizeof(conf_entry));
        if (slots == nullptr)
            return report_memory_shortage("Unable to read configuration");
        table->entries = static_cast<conf_entry*>(slots);
        table->capacity = capacity;
    }
    return 0;
}

void conf_finalize_r(conf_table* table)
{
    if (table->sorted != 0)
        return;
    std::sort(table->entries, table->entries + table->count,
              [](const conf_entry& a, const conf_entry& b) { return cmp_conf(&a, &b) < 0; });
    table->sorted = 1;
}

void conf_free_r(conf_table* table)
{
    if (table == nullptr)
        return;
    for (uint64_t i = 0; i < table->count; ++i) {
        std::free(table->entries[i].name);
        std::free(table->entries[i].value);
    }
    std::free(table->entries);
    std::free(table);
}

int cmp_conf(const void* left, const void* right)
{
    return std::strcmp(static_cast<const conf_entry*>(left)->name,
                       static_cast<const conf_entry*>(right)->name);
}
