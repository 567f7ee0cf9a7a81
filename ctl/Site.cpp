#include "ctl/Site.h"

#include "app/fsappactions.h"
#include "ctl/Trouble.h"

#include <boost/filesystem/path.hpp>

#include <algorithm>
#include <cctype>

namespace fs = boost::filesystem;

namespace tarvik::ctl {

namespace {

/// A path without empty and "." elements. @throws Trouble for one with "..".
std::string spelled_once(const std::string& path, const char* option)
{
    std::string result = path.front() == '/' ? "/" : "";
    for (const fs::path& element : fs::path(path)) {
        if (element == "..")
            throw Trouble(std::string(option) + " has a \"..\": " + path);
        if (element == "/" || element == ".")
            continue;
        result += (result.empty() || result.back() == '/' ? "" : "/") + element.native();
    }
    return result;
}

std::string settled_directory(const std::string& path, const char* option)
{
    if (path.empty())
        throw Trouble(std::string("no ") + option + " given");
    if (path.front() != '/')
        throw Trouble(std::string(option) + " is no absolute path: " + path);
    return spelled_once(path, option);
}

std::string settled_subdirectory(const std::string& path)
{
    if (path.empty())
        throw Trouble("no --application-subdirectory given");
    std::string result = spelled_once(path, "--application-subdirectory");
    result.erase(0, result.find_first_not_of('/'));
    return result.empty() ? kDocumentRootItself : result;
}

Location split(const std::string& path)
{
    const std::size_t slash = path.rfind('/');
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

}  // namespace

std::string Site::application_dir() const
{
    return tarvik::application_dir(wwwRoot, subdirectory);
}

Site settled(Site site)
{
    site.vhostPath = settled_directory(site.vhostPath, "--vhost-path");
    site.wwwRoot = settled_directory(site.wwwRoot, "--www-root");
    if (site.userName.empty())
        throw Trouble("no --user-name given");
    site.subdirectory = settled_subdirectory(site.subdirectory);
    return site;
}

std::string usual_instance_name(const Site& site)
{
    std::string name = split(site.vhostPath).name;
    if (site.subdirectory != kDocumentRootItself)
        name += "-" + site.subdirectory;
    std::replace_if(
        name.begin(), name.end(),
        [](unsigned char byte) { return std::isalnum(byte) == 0 && byte != '.' && byte != '-'; },
        '_');
    return name;
}

Location location_of(const Site& site)
{
    return split(site.application_dir());
}

Site beside(const Site& site, const std::string& name)
{
    Site other = site;
    if (site.subdirectory == kDocumentRootItself) {
        other.wwwRoot = split(site.wwwRoot).parent + "/" + name;
        return other;
    }
    const std::size_t slash = site.subdirectory.rfind('/') + 1;  // npos + 1 is 0
    other.subdirectory = site.subdirectory.substr(0, slash) + name;
    return other;
}

}  // namespace tarvik::ctl
