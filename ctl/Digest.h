#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct evp_md_ctx_st;

namespace tarvik::ctl {

/// What came of reading one file.
struct Digest {
    std::string sha256;  ///< in hexadecimal digits; empty when it could not be read
    int error = 0;       ///< why; an `errno` value
};

/// Reads one file after the other.
class DigestReader {
public:
    DigestReader();

    /**
     * @param file    open at its start. @param status  what it was then.
     * @param piece   shown each piece of what is read, all but the last one of kPieceSize bytes;
     * may be empty. Must not throw.
     */
    Digest read(int file, const struct stat& status,
                const std::function<void(std::string_view piece)>& piece = {});

    static constexpr std::size_t kPieceSize = 128 * 1024;

private:
    struct FreeContext {
        void operator()(evp_md_ctx_st* context) const noexcept;
    };

    std::unique_ptr<evp_md_ctx_st, FreeContext> context_;
    std::vector<char> buffer_;
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
