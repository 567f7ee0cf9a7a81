#include "ctl/Digest.h"

#include "common/misc.h"
#include "ctl/SideBySide.h"
#include "ctl/Trouble.h"

#include <openssl/evp.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

namespace tarvik::ctl {

namespace {

constexpr std::size_t kBufferSize = 128 * 1024;

struct FreeContext {
    void operator()(EVP_MD_CTX* context) const noexcept { EVP_MD_CTX_free(context); }
};
struct FreeAlgorithm {
    void operator()(EVP_MD* algorithm) const noexcept { EVP_MD_free(algorithm); }
};
using Algorithm = std::unique_ptr<EVP_MD, FreeAlgorithm>;

std::string hexadecimal(const unsigned char* bytes, unsigned length)
{
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < length; ++i) {
        text += kDigits[bytes[i] >> 4U];
        text += kDigits[bytes[i] & 0x0fU];
    }
    return text;
}

/// Reads one file after the other.
class Reader {
public:
    explicit Reader(const EVP_MD* algorithm)
        : algorithm_(algorithm), context_(EVP_MD_CTX_new()), buffer_(kBufferSize)
    {
    }

    Digest read(int directory, const std::string& path)
    {
        const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
        const TDescriptor file(::openat(directory, path.c_str(), flags));
        struct stat status;
        if (!file || ::fstat(file.get(), &status) != 0)
            return {"", errno};
        if (!S_ISREG(status.st_mode))
            return {"", EOPNOTSUPP};
        if (!context_ || EVP_DigestInit_ex(context_.get(), algorithm_, nullptr) != 1)
            return {"", ENOMEM};
        for (;;) {
            const ssize_t count =
                retried([&] { return ::read(file.get(), buffer_.data(), buffer_.size()); });
            if (count < 0)
                return {"", errno};
            if (count == 0)
                break;
            EVP_DigestUpdate(context_.get(), buffer_.data(), static_cast<std::size_t>(count));
        }
        std::array<unsigned char, EVP_MAX_MD_SIZE> bytes;
        unsigned length = 0;
        EVP_DigestFinal_ex(context_.get(), bytes.data(), &length);
        return {hexadecimal(bytes.data(), length), 0};
    }

private:
    const EVP_MD* algorithm_;
    std::unique_ptr<EVP_MD_CTX, FreeContext> context_;
    std::vector<char> buffer_;
};

}  // namespace

std::vector<Digest> digests(const std::string& directory, const std::vector<std::string>& paths)
{
    std::vector<Digest> results(paths.size());
    const TDescriptor top(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!top) {
        std::fill(results.begin(), results.end(), Digest {"", errno});
        return results;
    }
    const Algorithm algorithm(EVP_MD_fetch(nullptr, "SHA256", nullptr));
    if (!algorithm)
        throw Trouble("the cryptographic library has no SHA-256");
    side_by_side("Reading", paths.size(), [&](Pieces& pieces) {
        Reader reader(algorithm.get());
        for (std::size_t i; pieces.take(i);)
            results[i] = reader.read(top.get(), paths[i]);
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
