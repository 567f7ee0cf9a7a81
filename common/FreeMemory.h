#pragma once

#include <cstdlib>
#include <memory>

namespace tarvik {

/// Releases memory that a C interface handed over.
struct FreeMemory {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

/// Owns a text from malloc.
using MallocText = std::unique_ptr<char, FreeMemory>;

}  // namespace tarvik
