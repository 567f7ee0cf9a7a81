#include "ctl/Digest.h"

#include "common/misc.h"
#include "ctl/SideBySide.h"
#include "ctl/Trouble.h"

#include <openssl/evp.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

namespace tarvik::ctl {

namespace {

struct FreeAlgorithm {
    void operator()(EVP_MD* algorithm) const noexcept { EVP_MD_free(algorithm); }
};

/// To look it up for each file would take as long as a small file does.
const EVP_MD* algorithm()
{
    static const std::unique_ptr<EVP_MD, FreeAlgorithm> sha256(
        EVP_MD_fetch(nullptr, "SHA256", nullptr));
    return sha256.get();
}

std::string hexadecimal(const unsigned char* bytes, unsigned length)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text(2 * std::size_t {length}, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        text[2 * i] = kDigits[bytes[i] >> 4U];
        text[2 * i + 1] = kDigits[bytes[i] & 0x0fU];
    }
    return text;
}

/// Finds one file after the other.
class Finder {
public:
    explicit Finder(const std::string& directory) : directory_(directory) { }

    Digest read(const std::string& path)
    {
        const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
        const PathAt at = last_.at(path_.assign(directory_).append("/").append(path));
        const TDescriptor file(::openat(at.directory, at.name, flags));
        struct stat status;
        if (!file || ::fstat(file.get(), &status) != 0)
            return {"", errno};
        return S_ISREG(status.st_mode) ? reader_.read(file.get(), status) : Digest {"", EOPNOTSUPP};
    }

private:
    const std::string& directory_;
    std::string path_;  ///< written over what was allocated for the last one
    LastDirectory last_;
    DigestReader reader_;
};

}  // namespace

DigestReader::DigestReader() : context_(EVP_MD_CTX_new()), buffer_(kPieceSize) { }

Digest DigestReader::read(int file, const struct stat& status,
                          const std::function<void(std::string_view piece)>& piece)
{
    bool hashes = context_ && EVP_DigestInit_ex(context_.get(), algorithm(), nullptr) == 1;
    for (off_t left = status.st_size;;) {
        // No more than is there: finding the end would be another call for each file.
        const std::size_t wanted =
            left <= 0 ? kPieceSize : static_cast<std::size_t>(std::min<off_t>(kPieceSize, left));
        const ssize_t count = read_fully(file, buffer_.data(), wanted);
        if (count < 0)
            return {"", errno};
        const auto size = static_cast<std::size_t>(count);
        hashes = hashes && EVP_DigestUpdate(context_.get(), buffer_.data(), size) == 1;
        if (piece)
            piece({buffer_.data(), size});
        left -= count;
        if (size < wanted || left == 0)
            break;
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes;
    unsigned length = 0;
    if (!hashes || EVP_DigestFinal_ex(context_.get(), bytes.data(), &length) != 1)
        return {"", ENOMEM};
    return {hexadecimal(bytes.data(), length), 0};
}

void DigestReader::FreeContext::operator()(evp_md_ctx_st* context) const noexcept
{
    EVP_MD_CTX_free(context);
}

std::vector<Digest> digests(const std::string& directory, const std::vector<std::string>& paths)
{
    std::vector<Digest> results(paths.size());
    side_by_side("Reading", paths.size(), [&](Pieces& pieces) {
        Finder finder(directory);
        for (std::size_t begin, end; pieces.take(begin, end);) {
            for (; begin < end; ++begin)
                results[begin] = finder.read(paths[begin]);
        }
    });
    return results;
}

std::string sha256_of(const std::string& text)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes;
    unsigned length = 0;
    if (EVP_Digest(text.data(), text.size(), bytes.data(), &length, EVP_sha256(), nullptr) != 1)
        throw Trouble("the cryptographic library has no SHA-256");
    return hexadecimal(bytes.data(), length);
}

}  // namespace tarvik::ctl
