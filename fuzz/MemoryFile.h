#pragma once

#include "common/misc.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

/// A file in memory for what only reads named files.
class MemoryFile {
public:
    MemoryFile(const std::uint8_t* data, std::size_t size) : file_(::memfd_create("input", 0))
    {
        if (::write(file_.get(), data, size) != static_cast<ssize_t>(size))
            std::abort();
    }
    std::string path() const { return "/proc/self/fd/" + std::to_string(file_.get()); }

private:
    tarvik::TDescriptor file_;
};
