#pragma once

#include "common/FreeMemory.h"

#include <cstddef>
#include <iosfwd>
#include <memory>
#include <string>

namespace tarvik {

/**
 * The call stack at the place of construction. An exception class inherits it beside its exception
 * base; `reportException` then prints it after the message.
 */
class Traceback {
public:
    /// Captures at most 11 frames. @param skip  innermost frames to leave out when printing.
    explicit Traceback(std::size_t skip = 0);
    /// A copy finds its frame texts anew, so that each object owns what it frees.
    Traceback(const Traceback& other);
    Traceback& operator=(const Traceback& other);
    virtual ~Traceback();

private:
    friend std::ostream& operator<<(std::ostream& out, const Traceback& traceback);

    static constexpr std::size_t kMaxFrames = 11;

    std::size_t frameCount_;
    std::size_t skip_;
    void* frames_[kMaxFrames];
    mutable std::unique_ptr<char*, FreeMemory> symbols_;
};

/// Writes a heading and one line for each frame: symbols with demangled names, else bare addresses.
std::ostream& operator<<(std::ostream& out, const Traceback& traceback);

/// @return the readable form of an ABI name; the name itself when it cannot be demangled.
std::string demangled(const char* mangledName);

}  // namespace tarvik
