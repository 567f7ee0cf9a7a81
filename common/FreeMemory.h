#pragma once

#include <cstdlib>

namespace tarvik {

/// Releases memory that a C interface handed over.
struct FreeMemory {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

}  // namespace tarvik
