#include "app/application.h"

#include "app/FileCopier.h"
#include "app/FileList.h"
#include "app/SiteUser.h"
#include "app/fsappactions.h"
#include "app/fsappmetadata.h"
#include "app/options.h"
#include "common/ExSystemError.h"

#include <boost/filesystem/operations.hpp>
#include <boost/program_options.hpp>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <optional>

namespace fs = boost::filesystem;
namespace po = boost::program_options;

namespace tarvik {

namespace {

constexpr char kFileUrl[] = "file:///";
constexpr std::size_t kFileUrlLength = sizeof kFileUrl - 1;
constexpr std::size_t kMaxPackagePath = 4096;
constexpr char kMetadataName[] = "/APP-META.xml";

/// Looking a missing group up by the host library would print a message.
bool group_exists(const char* name)
{
    const group* const found = getgrnam(name);
    return found != nullptr && found->gr_gid != 0;
}

/// @return the metadata; none when it cannot be read, which is reported.
std::optional<FSAMetaDataReader> read_metadata(const std::string& fileName)
{
    try {
        return FSAMetaDataReader(fileName);
    } catch (const FSACommonException& e) {
        std::cerr << e.what() << std::endl;
        return std::nullopt;
    }
}

/// @return parameters for both commands, borrowing the document root's name.
extract_params_t document_root_params(const std::string& wwwRoot)
{
    return {wwwRoot.c_str(), 0, 0, 1, nullptr};
}

/// An exception of a malformed list ends the process here: nothing has been removed by then. It is
/// caught for that, since at the end of a function alone its reason may be lost to optimisation.
void delete_instance_or_terminate(const std::string& vhostPath, const extract_params_t& params,
                                  const std::string& appSubdir) noexcept
try {
    sapp_delete_instance(vhostPath.c_str(), &params, appSubdir.c_str());
} catch (...) {
    std::terminate();
}

}  // namespace

std::string package_directory(const std::string& fullName)
{
    std::array<char, kMaxPackagePath + 1> path = {};  // one more: a long path stays terminated
    get_orsa_application_path(path.data(), fullName.c_str());
    return path.data();
}

int extractApplication(int argc, char** argv)
{
    std::string fullName;
    std::string vhostPath;
    std::string userName;
    std::string appSubdir;
    std::string metadataFile;
    std::string wwwRoot;
    bool skipWebserverWrite = false;
    po::options_description description("Application extraction options");
    auto add = description.add_options();
    add("application-full-name", options::required(fullName), "application full name");
    add("vhost-path", options::required(vhostPath), "path to virutal host root directory");
    add("user-name", options::required(userName), "system user name");
    add("application-subdirectory", options::required(appSubdir),
        "application subdirectory inside documents directory");
    add("metadata-file", options::required(metadataFile),
        "path to generated Veska 1.0 APP-META.xml file with URL mappings "
        "(required for Veska 1.1 support");
    add("www-root", options::required(wwwRoot), "path to domain www-root");
    add("skip-webserver-write", po::bool_switch(&skipWebserverWrite),
        "Do not make webserver writeable files, needed for cgi/fcgi applications");
    options::parse(argc, argv, description);

    if (fullName.compare(0, kFileUrlLength, kFileUrl) != 0) {
        std::cerr << "Invalid value " << fullName << "for --application-full-name option"
                  << std::endl;
        return 1;
    }
    const std::string ownMetadata = fullName.substr(kFileUrlLength) + kMetadataName;
    if (!fs::is_regular_file(ownMetadata)) {
        std::cerr << "Application metadata file " << ownMetadata << " does not exist" << std::endl;
        return 1;
    }
    return fsa_extract_application(fullName, vhostPath, wwwRoot, userName, appSubdir, 0,
                                   metadataFile, !skipWebserverWrite);
}

int fsa_extract_application(const std::string& fullName, const std::string& vhostPath,
                            const std::string& wwwRoot, const std::string& userName,
                            const std::string& appSubdir, int cleanDocroot,
                            const std::string& metadataFile, bool makeWebserverWritable)
{
    if (!group_exists(kClientsGroup))
        std::exit(-1);
    const std::string packageDir = package_directory(fullName);
    if (!fs::is_directory(vhostPath)) {
        std::cerr << "Virtual host root directory" << vhostPath << "does not exist" << std::endl;
        return 1;
    }
    const std::optional<FSAMetaDataReader> metadata =
        read_metadata(metadataFile.empty() ? packageDir + kMetadataName : metadataFile);
    if (!metadata)
        return 1;

    become_site_user(userName);
    if (appSubdir == "." && cleanDocroot != 0) {
        const extract_params_t params = document_root_params(wwwRoot);
        clean_docroot(vhostPath.c_str(), &params);
    }
    umask(kInstallUmask);
    const bool installed = fsa_install_htdocsfiles(packageDir, wwwRoot, appSubdir, *metadata,
                                                   userName, makeWebserverWritable);
    return installed ? 0 : 1;
}

int deleteApplication(int argc, char** argv)
{
    std::string userName;
    std::string vhostPath;
    std::string appSubdir;
    std::string wwwRoot;
    po::options_description description("Application removal options");
    auto add = description.add_options();
    add("user-name", options::required(userName), "system user name");
    add("vhost-path", options::required(vhostPath), "path to virutal host root directory");
    add("application-subdirectory", options::required(appSubdir),
        "application subdirectory inside documents directory");
    add("www-root", options::required(wwwRoot), "path to domain www-root");
    add("application-full-name", po::value<std::string>(), "application full name");
    options::parse(argc, argv, description);

    become_site_user(userName);
    return delete_application_user(vhostPath, wwwRoot, appSubdir);
}

int delete_application_user(const std::string& vhostPath, const std::string& wwwRoot,
                            const std::string& appSubdir)
{
    if (!fs::exists(wwwRoot)) {
        std::cerr << "Www root directory" << wwwRoot << " does not exist" << std::endl;
        return -1;
    }
    if (chdir(wwwRoot.c_str()) != 0) {
        std::cerr << "Cannot chdir to " << wwwRoot << ": " << std::strerror(errno) << std::endl;
        return -1;
    }
    delete_instance_or_terminate(vhostPath, document_root_params(wwwRoot), appSubdir);
    return 0;
}

}  // namespace tarvik

int get_orsa_application_path(char* dst, const char* fullName)
{
    using namespace tarvik;
    if (std::strlen(fullName) <= kFileUrlLength
        || std::strncmp(fullName, kFileUrl, kFileUrlLength) != 0)
        return 0;
    std::strncpy(dst, fullName + kFileUrlLength, kMaxPackagePath);
    return 1;
}
