#include "ctl/KeptTrees.h"

#include "app/SiteUser.h"
#include "common/misc.h"
#include "ctl/Child.h"
#include "ctl/InstanceStore.h"
#include "ctl/Output.h"
#include "ctl/SideBySide.h"
#include "ctl/TreeWalk.h"
#include "ctl/Trouble.h"
#include "ctl/commands.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <vector>

namespace tarvik::ctl {

namespace {

constexpr int kPlace = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

/// Removes entries of a tree, what this user may of them.
class Remover {
public:
    explicit Remover(int tree) : chain_(tree) { }

    void remove(const std::string& path, int flags)
    {
        const int parent = chain_.at(parent_path(path));
        if (parent >= 0)
            static_cast<void>(::unlinkat(parent, last_name(path).c_str(), flags));
    }

private:
    DirectoryChain chain_;
};

/// Removes what this user may.
void empty_tree(int tree)
{
    std::vector<std::string> files;
    std::vector<std::string> directories;  // after what is in them
    const auto takeFile = [&](const std::string& path, bool isFile) {
        if (isFile)
            files.push_back(path);
        return isFile;
    };
    walk_tree(tree, "",
              {[&](const TreeEntry& entry) {
                   return !takeFile(entry.path, !S_ISDIR(entry.status.st_mode));
               },
               [&](const TreeEntry& entry) { directories.push_back(entry.path); },
               [&](const std::string& path, EntryType type) {
                   return takeFile(path, type == EntryType::Regular || type == EntryType::Other);
               }});
    side_by_side("Removing", files.size(), [&](Pieces& pieces) {
        Remover remover(tree);
        for (std::size_t begin, end; pieces.take(begin, end);) {
            for (; begin < end; ++begin)
                remover.remove(files[begin], 0);
        }
    });
    Remover remover(tree);
    for (const std::string& path : directories)
        remover.remove(path, AT_REMOVEDIR);
}

/// @return whether the tree has gone, as far as this user can see.
bool remove_as_user(const std::string& path, bool open_to_others)
{
    const TDescriptor tree(::open(path.c_str(), kPlace));
    if (!tree)
        return errno == ENOENT;
    if (open_to_others)  // for the web server's turn
        static_cast<void>(::chmod(descriptor_path(tree.get()).c_str(), 0755));
    empty_tree(tree.get());
    return ::rmdir(path.c_str()) == 0;
}

void show_owner(Rows& rows, uid_t owner, const std::string& path)
{
    const passwd* const user = ::getpwuid(owner);
    rows.add({"left", user == nullptr ? std::to_string(owner) : user->pw_name, path}, Tone::Notice);
}

}  // namespace

std::string next_name(const std::string& name)
{
    return "." + name + ".next";
}

std::string previous_name(const std::string& name)
{
    return "." + name + ".previous";
}

void remove_tree(const Site& site, const std::string& name)
{
    const std::string path = location_of(site).parent + "/" + name;
    const auto remove = [&](bool open) {
        return run_as(site.userName,
                      [&] { return remove_as_user(path, open) ? kDone : kDifferent; })
            == kDone;
    };
    if (remove(true))
        return;
    static_cast<void>(run_as(kWebServerUser, [&] {
        if (const TDescriptor tree(::open(path.c_str(), kPlace)); tree)
            empty_tree(tree.get());
        return kDone;
    }));
    if (!remove(false))
        throw Trouble(path + " cannot be removed");
}

void drop_kept(InstanceRecord& record, std::size_t from)
{
    while (record.kept.size() > from) {
        remove_tree(record.site, record.kept.back().directory);
        record.kept.pop_back();
        save(record);
    }
}

void print_left(const InstanceRecord& record)
{
    const std::string appDir = record.site.application_dir();
    std::set<std::string> ours;
    for (const RecordedFile& file : record.current.files)
        ours.insert(file.path);
    const bool shared = record.site.subdirectory == kDocumentRootItself;
    static_cast<void>(run_as(record.site.userName, [&] {
        const TDescriptor tree(::open(appDir.c_str(), kPlace));
        Rows rows;
        if (!tree)
            return kDone;
        walk_tree(tree.get(), "", {[&](const TreeEntry& entry) {
                      if (shared && parent_path(entry.path).empty() && ours.count(entry.path) == 0)
                          return false;
                      show_owner(rows, entry.status.st_uid, appDir + "/" + entry.path);
                      return true;
                  }});
        return kDone;
    }));
}

}  // namespace tarvik::ctl
