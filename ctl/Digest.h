#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tarvik::ctl {

/// What came of reading one file.
struct Digest {
    std::string sha256;  ///< in hexadecimal digits; empty when it could not be read
    int error = 0;       ///< why; an `errno` value
};

/**
 * Reads files side by side; a process that has done so must not fork any more.
 * @param directory  what the paths are relative to; links in them are followed, no pipe or device
 * is read.
 * @return the digests, in the order of the paths.
 */
std::vector<Digest> digests(const std::string& directory, const std::vector<std::string>& paths);

/// @return the digest of a text, in hexadecimal digits.
std::string sha256_of(const std::string& text);

}  // namespace tarvik::ctl
