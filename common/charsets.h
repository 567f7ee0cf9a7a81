#pragma once

#include <string>
#include <string_view>

/**
 * Encodings of one byte a character, for a process that must not have the system load a conversion
 * module at the wish of whoever wrote a text.
 */
namespace tarvik {

struct SingleByteEncoding {
    const char* name;
    const char* alias;
    /// The characters of the last bytes up to 255; "_" where a byte has none. The bytes before them
    /// are the characters of the same number.
    std::u16string_view last;
};

/// A character of these encodings takes at most so many bytes of UTF-8.
constexpr std::size_t kMaxUtf8Length = 3;

/**
 * @param name  such as "ISO-8859-2", "latin2", "windows-1251", "CP1251" or "koi8-r": letters and
 *              digits count, their case and what is between them does not.
 * @return the encoding, a constant; null when it is none of ISO 8859, Windows 125x, KOI8-R, KOI8-U.
 */
const SingleByteEncoding* find_single_byte_encoding(std::string_view name);

/**
 * Appends a text to `utf8`; what the encoding writes as a letter and a mark stays these two.
 * @return false when a byte of it has no character; what comes before is appended then.
 */
bool append_as_utf8(std::string& utf8, const SingleByteEncoding& encoding, std::string_view text);

}  // namespace tarvik
