#pragma once

#include "tests/support/Sandbox.h"

#include <random>

namespace sandbox {

constexpr gid_t kServices = 28011;

/**
 * Packages, sites and lists of files at random, which come out the same for the same number. Paths are short
 * and of few names, so that they meet; some of the names sort before a separator.
 */
class Chance {
public:
    /// @param odd  URLs of mappings that paths are mixed with.
    explicit Chance(unsigned number, Words odd = {}) : numbers_(number), odd_(std::move(odd)) { }

    unsigned below(std::size_t limit) { return static_cast<unsigned>(numbers_() % limit); }
    bool once_in(unsigned times) { return below(times) == 0; }
    std::string one_of(const Words& words) { return words[below(words.size())]; }
    std::string path(unsigned levels);

    /// Metadata and so many new things, and a few that cannot be copied.
    void package(const Site& site, unsigned things);
    /// So many things that stand in a directory already, and whose they are.
    void populate(const std::string& directory, unsigned things);
    /// What an application has left in a document root. @return its list, and things that never were.
    std::string instance(const Site& site);

private:
    std::string mappings();

    std::mt19937 numbers_;
    const Words odd_;
};

}  // namespace sandbox
