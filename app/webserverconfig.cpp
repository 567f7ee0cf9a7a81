#include "app/webserverconfig.h"

#include "app/VirtualHost.h"
#include "app/fsappmetadata.h"
#include "app/options.h"
#include "clib/read_configuration.h"
#include "common/ExSystemError.h"
#include "common/TmpFile.h"

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <iostream>
#include <list>

namespace fs = boost::filesystem;
namespace po = boost::program_options;

namespace tarvik {

namespace {

/// By the texts alone: only root can have put links below a host's configuration directory.
bool lies_below(const fs::path& path, const fs::path& directory)
{
    const fs::path way = path.lexically_normal().lexically_relative(directory.lexically_normal());
    return !way.empty() && way != "." && *way.begin() != "..";
}

}  // namespace

const char* unfit_for_config(const std::string& value)
{
    const bool controls = std::any_of(
        value.begin(), value.end(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; });
    const bool variable = value.find("${") != std::string::npos;
    return controls ? "control character" : variable ? "variable" : nullptr;
}

const std::string& within_line(const std::string& value, const std::string& holder,
                               const std::string& place)
{
    if (const char* const unfit = unfit_for_config(value))
        throw FSAXMLException(holder + " has a " + unfit + place + ".");
    return value;
}

layout::VirtualHost virtual_host(const std::string& vhostPath)
{
    return {fs::path(remove_trailing_slashes(vhostPath)).filename().native(),
            oxaConfGetDefaultByIndex(OXA_HTTPD_VHOSTS_D)};
}

std::string apache_config_path(const std::string& vhostPath, const std::string& fileName)
{
    const layout::VirtualHost host = virtual_host(vhostPath);
    std::string path = host.conf() + "/siteapp.d/" + fileName;
    if (host.name() == "." || host.name() == ".." || !lies_below(path, host.conf()))
        throw fs::filesystem_error("configuration file", path,
                                   make_error_code(boost::system::errc::invalid_argument));
    return path;
}

bool provide_apache_config_directory(const std::string& configFile)
{
    const fs::path directory = fs::path(configFile).parent_path();
    return directory.empty() || fs::exists(directory) || fs::create_directory(directory);
}

std::string apache_config_temporary(const std::string& configFile)
{
    return configFile + ".new";
}

namespace {

constexpr char kHeader[] =
    "# ATTENTION!\n"
    "# DO NOT MODIFY THIS FILE OR ANY PART OF IT. THIS CAN RESULT IN IMPROPER TARVIK\n"
    "# FUNCTIONING OR FAILURE, CAUSE DAMAGE AND LOSS OF DATA.\n";

constexpr char kPhpOff[] = "<IfModule mod_php4.c>\n"
                           "  php_admin_flag engine off\n"
                           "</IfModule>\n"
                           "<IfModule mod_php5.c>\n"
                           "  php_admin_flag engine off\n"
                           "</IfModule>\n";

constexpr char kCgiOff[] = "<IfModule mod_cgi.c>\n"
                           "  Options -ExecCGI\n"
                           "</IfModule>\n";

constexpr char kCgiAll[] = "<IfModule mod_cgi.c>\n"
                           "  Options +ExecCGI\n"
                           "  <Files *>\n"
                           "    SetHandler None\n"
                           "    SetHandler cgi-script\n"
                           "  </Files>\n"
                           "</IfModule>\n";

constexpr char kMapping[] = "Invalid package metadata file format: <s:mapping>";
constexpr char kPhpExtension[] = "Invalid package metadata file format: <php:extension>";
constexpr char kCgiExtension[] = "Invalid package metadata file format: <cgi:extension>";

using Extensions = std::list<std::string>;

/// ".a .b ", each followed by a blank, those that equal `except` left out.
std::string extension_list(const Extensions& extensions, const char* holder,
                           const char* except = "")
{
    std::string text;
    for (const std::string& extension : extensions) {
        if (*except == '\0' || extension != except)
            text += "." + within_line(extension, holder) + " ";
    }
    return text;
}

std::string php_on(const std::string& extensions)
{
    return "<IfModule mod_php4.c>\n"
           "  php_admin_flag engine on\n"
           "  AddHandler php-script "
        + extensions
        + "\n"
          "</IfModule>\n"
          "\n"
          "<IfModule mod_php5.c>\n"
          "  php_admin_flag engine on\n"
          "  AddHandler php5-script "
        + extensions
        + "\n"
          "</IfModule>\n";
}

std::string cgi_by_extension(const Extensions& extensions)
{
    constexpr char kPhp[] = "php";
    // The pattern is ".pl" whatever the extensions are.
    std::string text = "<IfModule mod_cgi.c>\n"
                       "  Options +ExecCGI\n"
                       "  <Files ~ (\\.pl$)>\n"
                       "    SetHandler None\n"
                       "  </Files>\n";
    const std::string programs = extension_list(extensions, kCgiExtension, kPhp);
    if (!programs.empty())
        text += "  AddHandler cgi-script " + programs + "\n";
    if (std::find(extensions.begin(), extensions.end(), kPhp) != extensions.end())
        text += "  AddHandler php-script .php\n";
    return text + "</IfModule>\n";
}

std::string php_text(const FSAMetaDataWebContent& mapping)
{
    std::string text;
    for (const auto& handler : mapping.phpHandlers) {
        if (handler.disabled)
            text += kPhpOff;
        else if (const std::string list = extension_list(handler.extensions, kPhpExtension);
                 !list.empty())
            text += php_on(list);
    }
    return text;
}

std::string cgi_text(const FSAMetaDataWebContent& mapping)
{
    std::string text;
    for (const auto& handler : mapping.cgiHandlers) {
        text += handler.disabled ? kCgiOff
            : handler.allFiles   ? kCgiAll
                                 : cgi_by_extension(handler.extensions);
    }
    return text;
}

/// What one configuration file is written from.
struct ConfigSource {
    bool php;
    bool cgi;
    const std::string& wwwRoot;
    std::string suffix;  ///< of the document root: "" or "/" and the application's directory
};

/// Where a mapping lies below the document root and in the site's URLs.
std::string site_path(const FSAMetaDataWebContent& mapping, const ConfigSource& source)
{
    return within_line(source.suffix, "--application-subdirectory")
        + within_line(mapping.url, kMapping, " in its url");
}

/// @return the lines for one mapping; empty when it asks for nothing.
std::string mapping_text(const FSAMetaDataWebContent& mapping, const ConfigSource& source)
{
    require_inner_url(mapping.url);
    if (!mapping.redirect.empty()) {
        // Within the site's URLs, so without the document root.
        const std::string path = site_path(mapping, source);
        return "RedirectPermanent " + (path == "/" ? path : remove_trailing_slashes(path)) + " "
            + within_line(mapping.redirect, kMapping, " in its href") + "\n\n";
    }
    std::string body = (source.php ? php_text(mapping) : std::string())
        + (source.cgi ? cgi_text(mapping) : std::string());
    if (body.empty())
        return body;
    return "<Directory " + within_line(source.wwwRoot, "--www-root") + site_path(mapping, source)
        + " >\n\n" + body + "\n</Directory>\n\n";
}

[[noreturn]] void throw_failed(const char* step, const TmpFile& file, int error)
{
    throw fs::filesystem_error(step, file.name(),
                               {error == 0 ? EIO : error, boost::system::system_category()});
}

/// On a full disk the old file is better than half of a new one.
void write_or_throw(TmpFile& file, const std::string& text)
{
    errno = 0;
    file << text << std::flush;
    if (!file)
        throw_failed("write", file, errno);
}

/// @return whether anything but the header was written.
bool write_config(TmpFile& file, const FSAMetaDataReader& metadata, const ConfigSource& source)
{
    bool written = false;
    write_or_throw(file, kHeader);
    for (const FSAMetaDataWebContent& mapping : metadata.webContents()) {
        const std::string text = mapping_text(mapping, source);
        write_or_throw(file, text);
        written = written || !text.empty();
    }
    return written;
}

void remove_if_there(const std::string& path)
{
    if (fs::exists(path))
        fs::remove(path);
}

int install_config(const std::string& metadataFile, const std::string& configFile,
                   const ConfigSource& source)
{
    if (!provide_apache_config_directory(configFile)) {
        std::cerr << "Unable to create directory: " << fs::path(configFile).parent_path();
        return -1;
    }
    const std::string temporary = apache_config_temporary(configFile);
    remove_stray_files(temporary);
    if (!source.php && !source.cgi) {
        remove_if_there(configFile);
        return 0;
    }
    TmpFile file(temporary, true);
    const bool written = write_config(file, FSAMetaDataReader(metadataFile), source);
    if (!file.close())
        throw_failed("close", file, errno);
    remove_if_there(configFile);
    if (written)
        fs::rename(file.name(), configFile);
    return 0;
}

int report_failure(const fs::filesystem_error& e)
{
    std::cerr << "Filesystem exception during config creation: " << e.what() << " error code: ("
              << e.code() << ")\n";
    return -1;
}

}  // namespace

int veska_install_apache_conf(const std::string& metadataFile, int disablePhp, int disableCgi,
                              std::string& configFile, const std::string& appSubdir,
                              const std::string& wwwRoot)
try {
    const ConfigSource source = {disablePhp == 0, disableCgi == 0, wwwRoot,
                                 appSubdir == "." ? "" : "/" + appSubdir};
    return install_config(metadataFile, configFile, source);
} catch (const fs::filesystem_error& e) {
    return report_failure(e);
} catch (const FSAXMLException& e) {
    std::cerr << "XML occured during processing the package file " << metadataFile << ": "
              << e.what() << '\n';
    return -1;
}

int installWebserverConfig(int argc, char** argv)
{
    std::string vhostPath;
    std::string wwwRoot;
    std::string appSubdir;
    std::string metadataFile;
    std::string fileName;
    int disablePhp = 0;
    int disableCgi = 0;
    po::options_description description("Webserver configuration options");
    auto add = description.add_options();
    add("vhost-path", options::required(vhostPath), "path to virutal host root directory");
    add("www-root", options::required(wwwRoot), "path to domain www-root");
    add("application-subdirectory", options::required(appSubdir),
        "application subdirectory inside documents directory");
    add("metadata-file", options::required(metadataFile),
        "path to generated Veska 1.0 APP-META.xml file with URL mappings "
        "(required for Veska 1.1 support in Orsa)");
    add("config-file-name", options::required(fileName), "filename for configuration directives");
    // Written without a value the two change nothing: callers rely on it.
    add("disable-php-support", po::value<int>(&disablePhp)->implicit_value(0), "");
    add("disable-cgi-support", po::value<int>(&disableCgi)->implicit_value(0), "");
    options::parse(argc, argv, description);

    umask(umask(0) | S_IWGRP | S_IWOTH);  // root's Apache reads whatever lies in the directory
    try {
        std::string configFile = apache_config_path(vhostPath, fileName);
        return veska_install_apache_conf(metadataFile, disablePhp, disableCgi, configFile,
                                         appSubdir, wwwRoot);
    } catch (const fs::filesystem_error& e) {
        return report_failure(e);  // of the path
    } catch (...) {
        std::terminate();  // with the temporary file already gone
    }
}

int removeWebserverConfig(int argc, char** argv)
{
    std::string vhostPath;
    std::string fileName;
    std::string wwwRoot;
    po::options_description description("Webserver deconfiguration options");
    auto add = description.add_options();
    add("vhost-path", options::required(vhostPath), "path to virutal host root directory");
    add("config-file-name", options::required(fileName), "filename for configuration directives");
    add("www-root", options::required(wwwRoot), "path to domain www-root");
    options::parse(argc, argv, description);

    const std::string configFile = apache_config_path(vhostPath, fileName);
    remove_stray_files(apache_config_temporary(configFile));
    fs::remove(configFile);
    return 0;
}

}  // namespace tarvik
