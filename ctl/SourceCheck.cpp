#include "ctl/SourceCheck.h"

#include "app/InstallPlan.h"
#include "common/misc.h"
#include "ctl/SideBySide.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace tarvik::ctl {

namespace {

/// What opening an entry ends with that is no file.
int error_of_type(mode_t mode)
{
    return S_ISSOCK(mode) ? ENXIO : EOPNOTSUPP;
}

class Checker {
public:
    explicit Checker(const std::string& packageDir) : packageDir_(packageDir) { }

    Source check(const FSAInstallFileinfo& file)
    {
        if (file.type == EntryType::Directory)
            return {true, 0};
        // It is written over what was allocated for the last one.
        const PathAt at =
            sources_.at(path_.assign(packageDir_).append("/").append(file.sourcePath));
        struct stat status;
        status.st_mode = S_IFREG;
        if (file.type != EntryType::Regular && ::fstatat(at.directory, at.name, &status, 0) != 0)
            return {false, errno};
        if (S_ISDIR(status.st_mode))
            return {true, 0};
        if (!S_ISSOCK(status.st_mode) && ::faccessat(at.directory, at.name, R_OK, AT_EACCESS) != 0)
            return {false, errno};
        return {false, S_ISREG(status.st_mode) ? 0 : error_of_type(status.st_mode)};
    }

private:
    const std::string& packageDir_;
    std::string path_;
    LastDirectory sources_;
};

}  // namespace

std::vector<Source> check_sources(const PlannedFiles& files, const std::string& packageDir)
{
    std::vector<Source> sources(files.size());
    side_by_side("Looking at the package:", files.size(), [&](Pieces& pieces) {
        Checker checker(packageDir);
        for (std::size_t begin, end; pieces.take(begin, end);) {
            for (; begin < end; ++begin)
                sources[begin] = checker.check(*files[begin]);
        }
    });
    return sources;
}

}  // namespace tarvik::ctl
