#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace tarvik {

class InstanceFiles;

/// Which entries of an instance may be removed before it is their turn, as pieces of the list.
struct RemovalPieces {
    std::vector<std::size_t> starts;  ///< of the pieces, which reach to each other; empty: none may
    std::vector<char> inAnyOrder;     ///< for each entry; what others are listed in is not
};

/// @return whether the entry before this one lies in it, or in what lies in it.
bool holds_the_one_before(const InstanceFiles& files, std::size_t index);

/**
 * Finds out whether it makes no difference in which order the entries are removed that hold no
 * others. It does where one of them is a link by which another one is reached, and where a
 * directory has two names. So the list must name all by the shortest way, and no link and no mount
 * may be on the way from the top to an entry.
 * @param files  all in one section, in the order of removal: children before their parents.
 * @param top    the directory that they lie in; links on the way to it do not matter.
 */
RemovalPieces removal_pieces(const InstanceFiles& files, const std::string& top);

}  // namespace tarvik
