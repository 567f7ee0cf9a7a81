#include "ctl/InstalledFiles.h"

#include "app/Listing.h"
#include "common/misc.h"
#include "ctl/Digest.h"
#include "ctl/SideBySide.h"
#include "ctl/TreeWalk.h"
#include "ctl/Trouble.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

namespace tarvik::ctl {

namespace {

constexpr int kReadOnly = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

/// @return none for what is no directory.
TDescriptor open_tree(const std::string& directory)
{
    TDescriptor tree(::open(directory.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!tree && errno != ENOENT && errno != ENOTDIR && errno != ELOOP)
        throw Trouble(directory + ": " + std::strerror(errno));
    return tree;
}

/// Looks at one path after the other.
class Looker {
public:
    Looker(int tree, const PackageSources* sources) : chain_(tree), sources_(sources) { }

    InstalledFile look(const std::string& path, std::size_t number)
    {
        InstalledFile found;
        struct stat status;
        const TDescriptor file = open(path, status);
        found.error = file ? 0 : errno;
        if (!file && !examine(path, status))
            return found;
        found.mode = status.st_mode;
        found.owner = status.st_uid;
        if (!S_ISREG(status.st_mode))
            found.error = 0;
        else if (file)
            read(file.get(), status, number, found);
        return found;
    }

private:
    TDescriptor open(const std::string& path, struct stat& status)
    {
        const std::string name = path.empty() ? "." : last_name(path);
        TDescriptor file = chain_.open(parent_path(path), name.c_str(), kReadOnly | O_NOFOLLOW);
        if (file && ::fstat(file.get(), &status) != 0)
            file.reset();
        return file;
    }

    /// For what cannot be opened.
    bool examine(const std::string& path, struct stat& status)
    {
        const int parent = chain_.at(parent_path(path));
        return parent >= 0
            && ::fstatat(parent, last_name(path).c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    }

    void read(int file, const struct stat& status, std::size_t number, InstalledFile& found)
    {
        const TDescriptor source = open_source(number, status.st_size);
        found.isSource = static_cast<bool>(source);
        Digest digest = reader_.read(file, status, [&](std::string_view piece) {
            found.isSource = found.isSource && goes_on_with(source.get(), piece);
        });
        found.sha256 = std::move(digest.sha256);
        found.error = digest.error;
    }

    /// @return none for what is no file of that size.
    TDescriptor open_source(std::size_t number, off_t size)
    {
        if (sources_ == nullptr)
            return TDescriptor();
        path_.assign(sources_->directory).append("/").append(sources_->paths[number]);
        const PathAt at = lastSource_.at(path_);
        TDescriptor source(::openat(at.directory, at.name, kReadOnly));
        struct stat status;
        if (source
            && (::fstat(source.get(), &status) != 0 || !S_ISREG(status.st_mode)
                || status.st_size != size))
            source.reset();
        return source;
    }

    bool goes_on_with(int source, std::string_view piece)
    {
        return read_fully(source, compared_.data(), piece.size())
            == static_cast<ssize_t>(piece.size())
            && std::memcmp(compared_.data(), piece.data(), piece.size()) == 0;
    }

    DirectoryChain chain_;
    const PackageSources* const sources_;
    std::string path_;  ///< of a source, written over what was allocated for the last one
    LastDirectory lastSource_;
    DigestReader reader_;
    std::vector<char> compared_ = std::vector<char>(DigestReader::kPieceSize);
};

}  // namespace

std::vector<InstalledFile> look_at_installed(const std::string& directory,
                                             const std::vector<std::string>& paths,
                                             const PackageSources* sources)
{
    InstalledFile missing;
    missing.error = ENOENT;
    std::vector<InstalledFile> found(paths.size(), missing);
    const TDescriptor tree = open_tree(directory);
    if (!tree)
        return found;
    side_by_side("Reading", paths.size(), [&](Pieces& pieces) {
        Looker looker(tree.get(), sources);
        for (std::size_t begin, end; pieces.take(begin, end);) {
            for (; begin < end; ++begin)
                found[begin] = looker.look(paths[begin], begin);
        }
    });
    return found;
}

}  // namespace tarvik::ctl
