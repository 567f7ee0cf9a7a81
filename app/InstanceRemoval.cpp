#include "app/InstanceRemoval.h"

#include "app/InstanceList.h"
#include "app/RemovalOrder.h"
#include "app/Workers.h"
#include "common/misc.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <new>
#include <optional>
#include <tuple>
#include <vector>

namespace fs = boost::filesystem;

namespace tarvik {

namespace {

// Starting a thread takes as long as removing so many files.
constexpr std::size_t kFilesWorthAThread = 64;

const char* section_directory(InstallSection section)
{
    return section == Htdocs ? kDocumentRoot : kCgiBin;
}

/// Where the files of one section are installed.
struct Place {
    fs::path rel;                  ///< relative to the virtual host
    std::optional<fs::path> real;  ///< none when the section is kept
};

/// Removes what takes one call, a run of files in one directory without resolving its path anew.
class QuickRemover {
public:
    /// @param flags  as for unlinkat(). @return false for what is not removed by that.
    bool remove(const InstanceFile& file, const Place& place, int flags)
    {
        if (!file.plain() || !place.real)
            return false;
        target_ = place.real->native();
        if (!target_.empty())
            target_ += '/';
        file.append_path(target_);
        const PathAt file_at = directory_.at(target_);
        return ::unlinkat(file_at.directory, file_at.name, flags) == 0;
    }

private:
    LastDirectory directory_;
    std::string target_;
};

/// Removes an instance's files.
class InstanceRemover {
public:
    /// @param files  in the order of removal.
    InstanceRemover(const InstanceFiles& files, const fs::path& vhost, const ExtractParams& params,
                    const fs::path& prefix)
        : files_(files), delete_(vhost, params)
    {
        for (const InstallSection section : {CgiBin, Htdocs}) {
            Place& place = places_[section];
            place.rel = section_directory(section);
            if (prefix != ".")
                place.rel /= prefix;
            place.real = delete_.location(place.rel);
        }
    }

    void run()
    {
        go_ahead();
        QuickRemover remover;
        for (std::size_t index = 0; index < files_.size(); ++index) {
            if (tried_.empty() || tried_[index] == Tried::Not)
                remove(remover, index);
            else if (tried_[index] == Tried::InVain)
                remove_slowly(files_[index]);
        }
    }

private:
    enum class Tried : char { Not, InVain, Removed };

    /// Removes by several threads what can be removed in any order. What that leaves, and what
    /// there is to say of it, comes in the order of the others.
    void go_ahead()
    {
        const std::size_t workers = worker_count(files_.size(), kFilesWorthAThread, Work::Waits);
        const std::optional<fs::path>& top = places_[Htdocs].real;
        if (workers == 1 || files_.size() == 0 || !top
            || files_[files_.size() - 1].section() != Htdocs)
            return;
        const RemovalPieces ready = removal_pieces(files_, top->native());
        tried_.assign(files_.size(), Tried::Not);
        Pieces pieces(ready.starts.size());
        side_by_side(std::min(workers, ready.starts.size()), [&] { remove_some(pieces, ready); });
    }

    void remove_some(Pieces& pieces, const RemovalPieces& ready)
    {
        std::size_t piece = 0;
        try {
            QuickRemover remover;
            while (pieces.take(piece)) {
                const bool isLast = piece + 1 == ready.starts.size();
                const std::size_t end = isLast ? files_.size() : ready.starts[piece + 1];
                for (std::size_t index = ready.starts[piece]; index < end; ++index) {
                    if (ready.inAnyOrder[index])
                        tried_[index] = remover.remove(files_[index], places_[Htdocs], 0)
                            ? Tried::Removed
                            : Tried::InVain;
                }
            }
        } catch (const std::bad_alloc&) {
            return;  // what this one has not tried comes in the order of the others
        }
    }

    /// Nearly every entry is a file that is there, or a directory that has been emptied: one call.
    void remove(QuickRemover& remover, std::size_t index) const
    {
        const InstanceFile& file = files_[index];
        const int flags = holds_the_one_before(files_, index) ? AT_REMOVEDIR : 0;
        if (!remover.remove(file, places_[file.section()], flags))
            remove_slowly(file);
    }

    void remove_slowly(const InstanceFile& file) const
    {
        std::string path;
        file.append_path(path);
        delete_(places_[file.section()].rel / path);
    }

    const InstanceFiles& files_;
    DeleteDirEntry delete_;
    Place places_[2];
    std::vector<Tried> tried_;  ///< each by the thread that has its piece; empty: none
};

}  // namespace

}  // namespace tarvik

void sapp_delete_instance(const char* vhost_dir, const extract_params_t* params, const char* prefix)
{
    using namespace tarvik;
    InstanceFiles files = parse_instance_list(std::cin);
    if (std::strcmp(prefix, ".") != 0 && std::strcmp(prefix, "/") != 0)
        files.add(Htdocs, "");  // the prefix directory itself, once empty
    std::sort(files.begin(), files.end(), [](const InstanceFile& a, const InstanceFile& b) {
        return std::tuple(b.section(), b.key()) < std::tuple(a.section(), a.key());
    });
    InstanceRemover(files, vhost_dir, ExtractParams(*params), prefix).run();
}
