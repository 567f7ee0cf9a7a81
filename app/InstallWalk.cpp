#include "app/InstallWalk.h"

#include "app/FileCopier.h"
#include "app/InstallPlan.h"
#include "app/TargetDirectories.h"
#include "app/Workers.h"
#include "common/ExSystemError.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tarvik {

namespace {

constexpr std::size_t kFilesWorthAThread = 40;
constexpr std::size_t kBytesLikeAFile = 256 * 1024;
constexpr std::size_t kPiecesAWorker = 8;
constexpr std::size_t kMostFilesAPiece = 64;

using Position = std::map<std::string, FSAInstallFileinfo>::const_iterator;

/// @return how many small files take as long as the plan. The sizes of files are not known; they
/// are asked for where there are too few files to make a second thread worth it by their number.
std::size_t amount_of_work(const InstallPlan& plan, const std::string& packageDir)
{
    std::size_t amount = plan.files.size();
    for (auto at = plan.files.begin(); at != plan.files.end() && amount < 2 * kFilesWorthAThread;
         ++at) {
        struct stat status;
        if (at->second.type == EntryType::Regular
            && ::stat(join(packageDir, at->second.sourcePath).c_str(), &status) == 0)
            amount += static_cast<std::size_t>(status.st_size / kBytesLikeAFile);
    }
    return amount;
}

/// @return whether the package has a link that leads nowhere, at least not yet: to what is
/// installed meanwhile, or by "/proc" to what is held open for that.
bool has_stray_link(const InstallPlan& plan, const std::string& packageDir)
{
    return std::any_of(plan.files.begin(), plan.files.end(), [&](const auto& planned) {
        const FSAInstallFileinfo& file = planned.second;
        return file.type != EntryType::Regular && file.type != EntryType::Directory
            && ::access(join(packageDir, file.sourcePath).c_str(), F_OK) != 0;
    });
}

/// @return whether there is a directory without an entry.
bool is_empty(const std::string& path)
{
    const DirectoryStream directory(::opendir(path.c_str()));
    if (!directory)
        return false;
    for (;;) {
        errno = 0;
        const dirent* const entry = ::readdir(directory.get());
        if (entry == nullptr)
            return errno == 0;
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            return false;
    }
}

/// The failure that comes first in the plan's order, of those that several threads meet.
class FirstFailure {
public:
    explicit FirstFailure(std::size_t none) : index_(none) { }

    std::size_t index() const { return index_; }
    /// What to report; none where it may not come again.
    std::exception_ptr reason() const { return reason_; }

    void note(std::size_t index, std::exception_ptr reason)
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (index < index_) {
            index_ = index;
            reason_ = std::move(reason);
        }
    }

private:
    std::atomic<std::size_t> index_;
    std::mutex mutex_;
    std::exception_ptr reason_;
};

/// What may be made in a directory ahead of its turn.
enum class Room { Nothing, Directories, All };

/**
 * Goes through the plan in its order, and ahead of it where nothing but that can come of it: by
 * calls that make a new entry and nothing else. Such a call fails where something stands already,
 * so that two targets which meet are noticed, however differently they are spelled and wherever
 * links lead; and what it has made can be taken back. When anything goes wrong ahead, all that
 * comes after it in the plan is taken back, and from there on the walk goes step by step. Whatever
 * else there is to do is done when it is due, with all before it done and nothing after it.
 */
class InstallWalk {
public:
    InstallWalk(const InstallPlan& plan, const std::string& packageDir, const std::string& appDir,
                uid_t siteUser, TargetDirectories& directories)
        : plan_(plan), packageDir_(packageDir), appDir_(appDir), siteUser_(siteUser),
          directories_(directories), copier_(packageDir, appDir, siteUser, directories),
          workers_(has_stray_link(plan, packageDir)
                       ? 1
                       : worker_count(amount_of_work(plan, packageDir), kFilesWorthAThread,
                                      Work::Waits)),
          mostAPiece_(std::clamp<std::size_t>(plan.files.size() / (workers_ * kPiecesAWorker), 1,
                                              kMostFilesAPiece))
    {
    }

    void run()
    {
        for (Position next = plan_.files.begin(); next != plan_.files.end();) {
            if (workers_ > 1)
                next = go_ahead(next);
            if (next != plan_.files.end())
                copier_.install((next++)->second);
        }
    }

private:
    /// @return the first target that is not installed.
    Position go_ahead(Position next)
    {
        files_.clear();
        pieces_.clear();
        made_.clear();
        while (next != plan_.files.end() && prepare(next))
            ++next;
        if (files_.empty())
            return next;
        copied_.assign(files_.size(), false);
        FirstFailure failure(files_.size());
        copy_files(failure);
        if (failure.index() == files_.size())
            return next;
        workers_ = 1;
        next = files_[failure.index()];
        take_back_after(next);
        if (failure.reason())
            std::rethrow_exception(failure.reason());
        return next;
    }

    /// Makes a directory, or puts a file down to be copied. @return false for what is due now.
    bool prepare(Position at)
    {
        const EntryType type = at->second.type;
        if (type != EntryType::Directory && type != EntryType::Regular)
            return false;
        target_.assign(appDir_).append("/").append(at->first);
        enter(std::string_view(target_).substr(0, target_.rfind('/')));
        if (type == EntryType::Directory)
            return room_ != Room::Nothing && make_directory(at);
        if (room_ != Room::All)
            return false;
        if (pieces_.empty() || isNewRun_ || files_.size() - pieces_.back() >= mostAPiece_)
            pieces_.push_back(files_.size());
        isNewRun_ = false;
        files_.push_back(at);
        return true;
    }

    void enter(std::string_view directory)
    {
        if (directory == entered_)
            return;
        entered_ = directory;
        isNewRun_ = true;
        const auto [known, isNew] = rooms_.try_emplace(entered_, Room::Nothing);
        if (isNew)
            known->second = room_in(entered_);
        room_ = known->second;
    }

    /// A directory that has to be opened to the site's people is due, and so is all that is in it.
    Room room_in(const std::string& directory)
    {
        struct stat status;
        if (::stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)
            || !is_open_to_site(status, siteUser_))
            return Room::Nothing;
        directories_.remember(directory, status);
        return is_empty(directory) ? Room::All : Room::Directories;
    }

    bool make_directory(Position at)
    {
        struct stat status;
        if (::mkdir(target_.c_str(), 0777) != 0)
            return false;
        made_.push_back(at);
        if (::lstat(target_.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
            directories_.remember(target_, status);
            rooms_[target_] = is_open_to_site(status, siteUser_) ? Room::All : Room::Nothing;
        }
        return true;
    }

    void copy_files(FirstFailure& failure)
    {
        Pieces pieces(pieces_.size());
        side_by_side(std::min({workers_, pieces_.size(), files_.size() / mostAPiece_ + 1}),
                     [&] { copy_some(pieces, failure); });
    }

    void copy_some(Pieces& pieces, FirstFailure& failure)
    {
        std::size_t piece = 0;
        std::size_t file = 0;
        try {
            FileCopier copier(packageDir_, appDir_, siteUser_, directories_);
            while (pieces.take(piece)) {
                const std::size_t end =
                    piece + 1 < pieces_.size() ? pieces_[piece + 1] : files_.size();
                for (file = pieces_[piece]; file < end && file < failure.index(); ++file) {
                    copied_[file] = copier.copy_new(files_[file]->second);
                    if (!copied_[file])
                        failure.note(file, nullptr);
                }
            }
        } catch (const FSAFileException&) {
            failure.note(file, std::current_exception());
        } catch (const std::exception&) {
            failure.note(file, nullptr);
        }
    }

    /// All of it is new, so that nothing is lost.
    void take_back_after(Position failed)
    {
        for (std::size_t file = files_.size(); file-- > 0 && files_[file] != failed;) {
            if (copied_[file])
                take_back(files_[file]->first, 0);
        }
        while (!made_.empty() && made_.back()->first > failed->first) {
            directories_.forget(take_back(made_.back()->first, AT_REMOVEDIR));
            made_.pop_back();
        }
    }

    /// @return the target's path.
    std::string take_back(const std::string& target, int flags)
    {
        std::string path = join(appDir_, target);
        const std::size_t slash = path.rfind('/');
        if (const TDescriptor parent = directories_.open(path.substr(0, slash)))
            static_cast<void>(::unlinkat(parent.get(), path.c_str() + slash + 1, flags));
        return path;
    }

    const InstallPlan& plan_;
    const std::string& packageDir_;
    const std::string& appDir_;
    const uid_t siteUser_;
    TargetDirectories& directories_;
    FileCopier copier_;
    std::size_t workers_;
    const std::size_t mostAPiece_;

    std::string target_;
    std::string entered_;  ///< the directory of the last target
    Room room_ = Room::Nothing;
    bool isNewRun_ = true;  ///< no file of it has been put down yet
    std::unordered_map<std::string, Room> rooms_;

    std::vector<Position> files_;      ///< to be copied ahead
    std::vector<std::size_t> pieces_;  ///< where each starts in the files
    std::vector<char> copied_;         ///< for each file, by the thread that has its piece
    std::vector<Position> made_;       ///< directories
};

}  // namespace

void install_targets(const InstallPlan& plan, const std::string& packageDir,
                     const std::string& appDir, uid_t siteUser, TargetDirectories& directories)
{
    InstallWalk(plan, packageDir, appDir, siteUser, directories).run();
}

}  // namespace tarvik
