#pragma once

#include <cstdlib>
#include <memory>

struct FreeMallocText {
    void operator()(char* text) const noexcept { std::free(text); }
};
/// Owns a text from malloc, as C interfaces hand them over.
using MallocText = std::unique_ptr<char, FreeMallocText>;
