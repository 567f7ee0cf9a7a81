#include "ctl/KeptTrees.h"

#include "app/SiteUser.h"
#include "common/misc.h"
#include "ctl/Child.h"
#include "ctl/InstanceStore.h"
#include "ctl/Output.h"
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

namespace tarvik::ctl {

namespace {

constexpr int kPlace = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

void remove_entry(const TreeEntry& entry)
{
    const bool directory = S_ISDIR(entry.status.st_mode);
    static_cast<void>(::unlinkat(entry.directory, entry.name, directory ? AT_REMOVEDIR : 0));
}

/// Removes what this user may.
void empty_tree(int tree)
{
    walk_tree(tree, "",
              {[](const TreeEntry& entry) {
                   if (!S_ISDIR(entry.status.st_mode))
                       remove_entry(entry);
                   return true;
               },
               remove_entry});
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
