#pragma once

#include <array>
#include <cstdint>

/**
 * The paths of this installation: "/etc/oxa/oxa.conf", read once per process, with a compile-time
 * default for each well-known key. Failures are logged through `tarvik_log`: what is wrong with
 * the file at priority 12, which is silent at the initial threshold, the rest at priority 3.
 *
 * Every string given out belongs to the library and stays valid for the life of the process. The
 * first lookup loads the file and is not guarded: do one before starting threads.
 */
extern "C" {

/// Indexes of well-known keys. Their order is fixed: programs are built with these numbers.
enum oxa_conf_index {
    OXA_CLIENT_PHP_BIN = 3,   ///< the panel's own command-line PHP
    OXA_HTTPD_VHOSTS_D = 25,  ///< root of all virtual hosts
    OXA_PRODUCT_ROOT_D = 26,  ///< installation root of the product
    OXA_CONF_KEYS = 30        ///< how many there are, the sentinels 0 and 29 included
};

using oxa_conf_strings = std::array<const char*, OXA_CONF_KEYS>;  ///< laid out like a plain array

/// What a line of the file is.
enum conf_line_kind {
    CONF_LINE_EMPTY,         ///< or a comment
    CONF_LINE_NO_SEPARATOR,  ///< malformed: no white space after the name, if there is a name
    CONF_LINE_NO_VALUE,      ///< malformed: a name alone
    CONF_LINE_DEFINITION
};

/// A line cut into its parts, which point into it; NULL unless it is a definition.
struct conf_line {
    conf_line_kind kind;
    const char* name;
    const char* value;
};

struct conf_entry {
    char* name;  ///< both from malloc, owned by the table
    char* value;
};

/// One parsed file, from calloc: all zero is an empty table.
struct conf_table {
    conf_entry* entries;  ///< NULL until there is room for the first
    uint64_t capacity;
    uint64_t count;
    int32_t sorted;  ///< 1 when the entries ascend by the bytes of their names
};

extern const char* const theOxaConfFile;  ///< its path
extern conf_table* theOxaConfHash;        ///< the parsed file; NULL until a read succeeded
extern oxa_conf_strings theOxaConfArray;  ///< values found in the file so far, never defaults
extern int arrayInitialized;              ///< 1 once theOxaConfArray has been cleared
extern const oxa_conf_strings theOxaConfNames;
extern const oxa_conf_strings theOxaConfDefauls;  ///< the spelling is the name other tools link to

/// @return the value in the file; NULL when it lacks the name or cannot be read.
const char* oxaConfGet(const char* name);

/**
 * The same for a well-known key. A value found is kept, so the next call does not search.
 * @param index  0 to 29, not checked.
 */
const char* oxaConfGetByIndex(int index);

/**
 * @param index  0 to 29, not checked.
 * @return the value in the file, else the compile-time default; never NULL.
 */
const char* oxaConfGetDefaultByIndex(int index);

/**
 * @param name  a well-known key; the sentinel that opens the list is one, the closing one is not.
 * @return the value in the file, else the compile-time default; NULL for any other name (logged).
 */
const char* oxaConfGetDefault(const char* name);

/**
 * Loads the file unless that is done. A load that failed is tried again by the next call, and
 * logged again; one that succeeded is never repeated.
 * @return 0; -1 when the file could not be loaded (logged).
 */
int autoprepend();

/**
 * Reads one line: a name of ASCII letters, digits and underscores is separated from its value by
 * white space; "#" starts a comment anywhere, and nothing is quoted or expanded.
 *
 * White space at the end of a value, the newline counted, is cut at its last character when it is
 * an odd number of characters, and kept when it is an even one.
 * @param line  with its newline; a definition is cut up in place, another line stays as it is.
 */
conf_line conf_parse_line(char* line);

/**
 * Adds what a file defines to a table, line by line as `conf_parse_line` has it, and sorts it.
 * Lines that are malformed are logged and skipped.
 * @return 0; -1 with `errno` when the file cannot be opened or read to its end or memory ran out
 *         (logged). The table then keeps what had been read by that time.
 */
int conf_read_file_r(const char* path, conf_table* table);

/**
 * Stores copies of a name and its value, in place of the value the name had before.
 * @return 0; -1 with `errno` ENOMEM (logged), the table's content unchanged.
 */
int conf_set_r(const char* name, const char* value, conf_table* table);

/// @return the value, owned by the table until it is set again or freed; NULL when not there.
const char* conf_get_r(const char* name, const conf_table* table);

/**
 * Makes room for one more entry.
 * @return 0; -1 with `errno` ENOMEM (logged), the table unchanged.
 */
int conf_init_r(conf_table* table);

/// Sorts the entries by name unless they are, so that lookups need not walk all of them.
void conf_finalize_r(conf_table* table);

/// Frees the table with all it owns. NULL is ignored.
void conf_free_r(conf_table* table);

/**
 * Compares two `conf_entry` by the bytes of their names, in the form qsort and bsearch take.
 * @return below, equal to or above 0.
 */
int cmp_conf(const void* left, const void* right);
}
