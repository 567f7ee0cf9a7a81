#include "ctl/Package.h"

#include "common/ExSystemError.h"
#include "ctl/Trouble.h"

#include <boost/filesystem/operations.hpp>

#include <sys/stat.h>

namespace fs = boost::filesystem;

namespace tarvik::ctl {

std::string PackageSource::metadata_path() const
{
    return metadataFile.empty() ? directory + "/APP-META.xml" : metadataFile;
}

PackageSource settled(PackageSource package)
{
    struct stat status;
    if (::stat(package.directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
        throw Trouble("no directory with an unpacked package: " + package.directory);
    package.directory = fs::absolute(package.directory).native();
    while (package.directory.size() > 1 && package.directory.back() == '/')
        package.directory.pop_back();
    if (!package.metadataFile.empty())
        package.metadataFile = fs::absolute(package.metadataFile).native();
    // What zendrel asks for, also where other metadata is read in its place.
    const std::string own = package.directory + "/APP-META.xml";
    if (::stat(own.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        throw Trouble("no package: there is no file " + own);
    return package;
}

FSAMetaDataReader read_metadata(const PackageSource& package)
try {
    return FSAMetaDataReader(package.metadata_path());
} catch (const FSACommonException& e) {
    throw Trouble(e.what());
}

}  // namespace tarvik::ctl
