#pragma once

#include "app/Listing.h"
#include "common/misc.h"
#include "ctl/TreeWalk.h"

#include <sys/stat.h>

#include <functional>
#include <string>
#include <vector>

/**
 * Taking what is in one tree over into another one, by hard links where the system lets it: who
 * writes to a file that is there goes on writing to both. A link is made by the file's owner, as
 * the system refuses it to others; so the work is done by one user after the other, each leaving to
 * the next what it may not.
 */
namespace tarvik::ctl {

/// What is to become of an entry.
enum class Take {
    Skip,      ///< it stays where it is; what is below a directory is asked for all the same
    Link,      ///< as a hard link; a directory with its mode
    Copy,      ///< its content in a file of its own
    IfNeeded,  ///< a directory that is made only for what is taken in it
};

/// What is to become of a file that is in the way.
enum class Existing { Stays, StaysUnlessOlder, Goes };

struct TakeoverRules {
    std::function<Take(const std::string& path, const struct stat& status)> decide;
    /// Permission bits that a directory gets beside its old ones; may be empty.
    std::function<mode_t(const std::string& path, const struct stat& made)> bits = {};
    /// As in a TreeVisitor; may be empty.
    std::function<bool(const std::string& path, EntryType type)> pass_over = {};
    Existing existing = Existing::Stays;
    bool last = false;  ///< nobody comes after: what cannot be linked is copied, or it is an error
};

/// The work of one user.
class Takeover {
public:
    /// @param from, to  the trees, opened as places (O_PATH) and borrowed.
    Takeover(int from, int to, const TakeoverRules& rules)
        : from_(from), rules_(rules), targets_(to)
    {
    }

    /// Takes an entry and everything below it; everything there is for the empty path.
    /// @throws Trouble for what nobody can take.
    void take(const std::string& path);

    /// @return what another user has to take, each without what is below it.
    const std::vector<std::string>& left() const { return left_; }

private:
    struct Made {
        std::string path;
        mode_t mode;  ///< what it will be
    };

    bool take_entry(const TreeEntry& entry);
    void take_file(const TreeEntry& entry, Take how);
    bool link(const TreeEntry& entry, const PathAt& target);
    bool copy(const TreeEntry& entry, const PathAt& target);
    bool put_in_place(const PathAt& target) const;
    bool gives_way(const TreeEntry& entry, const PathAt& target) const;
    bool provide_directory(const std::string& path);
    void leave_to_others(const std::string& path, int error);
    void settle_modes();

    int from_;
    const TakeoverRules& rules_;
    DirectoryChain targets_;
    std::vector<Made> made_;
    std::vector<std::string> left_;
};

/**
 * This process' turn.
 * @param from, to  directories. @param paths  in them, with all that is below; the empty path is
 * all.
 * @return what is left to others. @throws Trouble for what nobody can take.
 */
std::vector<std::string> take_over(const std::string& from, const std::string& to,
                                   const TakeoverRules& rules,
                                   const std::vector<std::string>& paths);

/// The same in directories that are opened as places.
std::vector<std::string> take_over(int from, int to, const TakeoverRules& rules,
                                   const std::vector<std::string>& paths);

/// The turn of a user: the site's, who takes but what the web server owns, or the web server's.
std::vector<std::string> take_over_as(const std::string& user, const std::string& from,
                                      const std::string& to, const TakeoverRules& rules,
                                      const std::vector<std::string>& paths);

/// The turns that follow: the web server's, then again the user's, for what neither has taken.
void take_over_rest(const std::string& siteUser, const std::string& from, const std::string& to,
                    Existing existing, const std::vector<std::string>& left);

}  // namespace tarvik::ctl
