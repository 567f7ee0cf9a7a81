#pragma once

#include <sys/types.h>

#include <string_view>
#include <vector>

namespace tarvik::ctl {

/// A file and its path, in two pieces that are borrowed.
struct FileIn {
    std::string_view directory, path;
};

struct FilePair {
    FileIn first, second;
    off_t size;  ///< of the second
};

/**
 * Compares files side by side, and reads only those of one size; a process that has done so must
 * not fork any more. Links are followed, no pipe or device is read.
 * @return for each pair whether both hold the same; not 0: they do. What cannot be read is another.
 */
std::vector<char> same_contents(const std::vector<FilePair>& pairs);

}  // namespace tarvik::ctl
