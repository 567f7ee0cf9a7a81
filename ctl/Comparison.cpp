#include "ctl/Comparison.h"

#include "common/misc.h"
#include "ctl/SideBySide.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>

namespace tarvik::ctl {

namespace {

constexpr std::size_t kBufferSize = 128 * 1024;

TDescriptor open_file(const PathAt& at)
{
    const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    TDescriptor file(::openat(at.directory, at.name, flags));
    struct stat status;
    if (file && (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)))
        file.reset();
    return file;
}

/// Compares one pair after the other.
class Comparer {
public:
    bool same(const FilePair& pair)
    {
        struct stat status;
        const PathAt first = first_.at(pair.first);
        if (::fstatat(first.directory, first.name, &status, 0) != 0 || status.st_size != pair.size)
            return false;
        return same_content(open_file(first), open_file(second_.at(pair.second)));
    }

private:
    /// What runs of files in one directory have in common.
    class Place {
    public:
        PathAt at(const FileIn& file)
        {
            return directory_.at(path_.assign(file.directory).append("/").append(file.path));
        }

    private:
        std::string path_;
        LastDirectory directory_;
    };

    bool same_content(const TDescriptor& first, const TDescriptor& second)
    {
        while (first && second) {
            const ssize_t count = read_fully(first.get(), buffers_[0].data(), kBufferSize);
            if (count < 0 || count != read_fully(second.get(), buffers_[1].data(), kBufferSize))
                return false;
            const auto size = static_cast<std::size_t>(count);
            if (std::memcmp(buffers_[0].data(), buffers_[1].data(), size) != 0)
                return false;
            if (size < kBufferSize)
                return true;
        }
        return false;
    }

    Place first_, second_;
    std::vector<char> buffers_[2] = {std::vector<char>(kBufferSize),
                                     std::vector<char>(kBufferSize)};
};

}  // namespace

std::vector<char> same_contents(const std::vector<FilePair>& pairs)
{
    std::vector<char> same(pairs.size());
    side_by_side("Comparing", pairs.size(), [&](Pieces& pieces) {
        Comparer comparer;
        for (std::size_t begin, end; pieces.take(begin, end);) {
            for (; begin < end; ++begin)
                same[begin] = comparer.same(pairs[begin]) ? 1 : 0;
        }
    });
    return same;
}

}  // namespace tarvik::ctl
