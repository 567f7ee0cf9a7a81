#pragma once

#include "common/misc.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tarvik::ctl {

/// What a mode belongs to, and who owns it.
struct Attributes {
    mode_t mode = 0;  ///< with the type
    uid_t owner = 0;
    gid_t group = 0;

    /// The same as the system has it, the rest being 0.
    struct stat status() const;
};

/**
 * A site as it would be after steps that are only thought of: what is there is looked at when it is
 * asked for, and what the steps would make or change lies over it. What they make belongs to the
 * user of this process, whose rights are those that count. A link to what is only thought of leads
 * nowhere.
 */
class SiteView {
public:
    static constexpr std::size_t kNoStep = static_cast<std::size_t>(-1);
    /// In place of an `errno` value: nobody knows what is there, as a step has failed here, or as
    /// only a step opens the directory.
    static constexpr int kBlocked = -1;

    struct Directory;

    struct Entry {
        bool is_directory() const { return error == 0 && S_ISDIR(attributes.mode); }
        bool is_file() const { return error == 0 && S_ISREG(attributes.mode); }
        bool is_link() const { return error == 0 && S_ISLNK(attributes.mode); }

        int error = 0;                   ///< why it cannot be looked at; ENOENT: nothing is there
        Attributes attributes;           ///< links are not followed
        off_t size = 0;                  ///< as it is on the disk
        Directory* directory = nullptr;  ///< which it is or leads to
        std::size_t step = kNoStep;      ///< that has made it
    };

    /// Entries by name. They mostly come in the order of their names, and mostly go to the end.
    class Made {
    public:
        /// @return the entry; null when nothing has been made of that name.
        const Entry* find(std::string_view name) const;
        void set(std::string_view name, const Entry& entry);
        const std::vector<std::pair<std::string_view, Entry>>& all() const { return entries_; }

    private:
        std::vector<std::pair<std::string_view, Entry>> entries_;
    };

    struct Directory {
        bool is_there() const { return !path.empty(); }

        std::string path;       ///< leads to it; empty for one that is only thought of
        Directory* parent;      ///< of such a one
        Attributes attributes;  ///< as they are by now
        std::size_t step;       ///< that is about it
        bool walked[2];         ///< for who walks through the site in two ways
        Made made;
        bool willBeOpened = false;  ///< to this process, once it has been listed
    };

    SiteView();

    uid_t user() const { return user_; }

    /// @param path  absolute. A link at its end is not followed, but for `Entry::directory`.
    Entry at(const std::string& path);
    /// @param name  of an entry; "", "." and ".." will do.
    Entry at(Directory& directory, std::string_view name);
    /// @return the names of what is in a directory. @throws boost::filesystem::filesystem_error
    std::vector<std::string> names(const Directory& directory);
    /// Directories that could not be looked into: only the steps open them to this process, or
    /// nothing does. What is in them is blocked.
    const std::set<std::string>& hidden() const { return hidden_; }

    /// @return an `errno` value: why no entries can be made and removed here; 0: they can.
    int denial(const Directory& directory) const;
    /// @return whether an entry cannot be removed although others can.
    bool is_protected(const Directory& directory, const Attributes& entry) const;
    /// @return whether the steps let this process read a directory that it cannot read now.
    bool is_opened(const Directory& directory) const;
    gid_t group_of_new(const Directory& directory) const;

    Directory& make_directory(Directory& in, std::string_view name, mode_t mode, std::size_t step);
    /// @param name  kept as it is: its text has to outlive this.
    void make_file(Directory& in, std::string_view name, mode_t mode, std::size_t step);
    void hide(const Directory& directory) { hidden_.insert(directory.path); }
    void block(Directory& in, std::string_view name);

    /// @return the mode that something has with more bits; the one it has when only another user
    ///         may give them.
    mode_t widened(const Attributes& attributes, mode_t bits) const;

private:
    Directory& known(const std::string& path, const struct stat& status);
    Entry examine(const Directory& directory, std::string_view name);
    int open(const Directory& directory);
    bool hides(const Directory& directory, int error);
    bool is_member(gid_t group) const;

    uid_t user_;
    gid_t group_;
    std::vector<gid_t> groups_;
    std::deque<Directory> directories_;
    std::deque<std::string> names_;  ///< of what the steps make
    std::map<std::pair<dev_t, ino_t>, Directory*> byIdentity_;
    std::unordered_map<std::string, Entry> byPath_;  ///< those that lead to directories
    std::string name_;                               ///< the last one that the system was asked for
    std::set<std::string> hidden_;
    const Directory* opened_ = nullptr;
    TDescriptor descriptor_;
};

}  // namespace tarvik::ctl
