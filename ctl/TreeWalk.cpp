#include "ctl/TreeWalk.h"

#include "common/misc.h"

#include <boost/filesystem/exception.hpp>

#include <fcntl.h>

#include <cerrno>
#include <climits>

namespace tarvik::ctl {

namespace {

class Walk {
public:
    Walk(int top, const TreeVisitor& visitor) : visitor_(visitor), chain_(top) { }

    void below(const std::string& path)
    {
        for (const ListedEntry& entry : entries(path)) {
            const std::string next = path_below(path, entry.path);
            if (next.size() >= PATH_MAX)  // also bounds how deep this calls itself
                refuse(next, ENAMETOOLONG);
            else if (!visitor_.pass_over || !visitor_.pass_over(next, entry.type))
                one(path, entry.path, next);
        }
    }

private:
    std::vector<ListedEntry> entries(const std::string& path)
    try {
        return read_directory(chain_.open(path, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC), path);
    } catch (const boost::filesystem::filesystem_error& e) {
        refuse(path, e.code().value());
        return {};
    }

    void one(const std::string& directory, const std::string& name, const std::string& path)
    {
        struct stat status;
        int place = chain_.at(directory);
        if (place < 0 || ::fstatat(place, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
            return refuse(path, errno);
        if (!visitor_.visit({path, place, name.c_str(), status}) || !S_ISDIR(status.st_mode))
            return;
        below(path);
        place = chain_.at(directory);  // the way back may be another one
        if (visitor_.leave && place >= 0)
            visitor_.leave({path, place, name.c_str(), status});
    }

    void refuse(const std::string& path, int error)
    {
        if (visitor_.refused && error != ENOENT)
            visitor_.refused(path, error);
    }

    const TreeVisitor& visitor_;
    DirectoryChain chain_;
};

}  // namespace

void walk_tree(int top, const std::string& start, const TreeVisitor& visitor)
{
    Walk(top, visitor).below(start);
}

std::string parent_path(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

std::string last_name(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);  // npos + 1 is 0
}

}  // namespace tarvik::ctl
