#include "app/fsappactions.h"

#include "app/FileCopier.h"
#include "app/FileList.h"
#include "app/fsappmetadata.h"
#include "clib/tarvik_ugid.h"
#include "common/ExSystemError.h"

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace fs = boost::filesystem;

namespace tarvik {

namespace {

constexpr char kClientsGroup[] = "oxacln";
constexpr char kServicesGroup[] = "oxaserv";
constexpr char kWebServerUser[] = "www-data";

constexpr mode_t kModeBits = 07777;

/// What will be done, decided before anything is touched.
struct InstallPlan {
    std::map<std::string, FSAInstallFileinfo> files;
    std::list<std::string> writableDirs;  ///< destinations of writable mappings, in metadata order
    std::list<std::string> otherDirs;     ///< destinations of the others
};

std::string erase_starting_slashes(const std::string& s)
{
    return s.substr(std::min(s.find_first_not_of('/'), s.size()));
}

bool fileHasExtension(const std::string& name, const std::string& ext)
{
    const std::size_t last = name.rfind(ext);
    return last != std::string::npos && last + ext.size() == name.size();
}

// --- Planning ------------------------------------------------------------------------------------

/// What the CGI handlers of a mapping make of its files.
class CgiRule {
public:
    explicit CgiRule(const std::list<FSAMetaDataWebContent::CGIHandler>& handlers)
    {
        for (const auto& handler : handlers) {
            disabled_ = disabled_ || handler.disabled;
            allFiles_ = allFiles_ || handler.allFiles;
            for (const std::string& extension : handler.extensions)
                extensions_.push_back("." + extension);
        }
    }

    bool executes(const std::string& path) const
    {
        if (disabled_ || allFiles_)
            return !disabled_;  // the safer of two contradicting handlers wins
        return std::any_of(extensions_.begin(), extensions_.end(),
                           [&path](const auto& ext) { return fileHasExtension(path, ext); });
    }

private:
    bool disabled_ = false;
    bool allFiles_ = false;
    std::vector<std::string> extensions_;
};

std::string join(const std::string& directory, const std::string& path)
{
    return directory + "/" + path;
}

bool source_exists(const std::string& path)
{
    boost::system::error_code error;
    return fs::exists(fs::status(path, error));
}

/// Plans one mapping: its own root, then everything below. What is planned later replaces the same.
void plan_mapping(const FSAMetaDataWebContent& mapping, const std::string& packageDir,
                  const std::string& appDir, InstallPlan& plan)
{
    const std::string path = erase_starting_slashes(mapping.path);
    const std::string url = erase_starting_slashes(mapping.url);
    const std::string source = join(packageDir, path);
    (mapping.writable ? plan.writableDirs : plan.otherDirs)
        .push_back(url.empty() ? appDir : join(appDir, url));
    if (!source_exists(source)) {
        std::cerr << "Source directory \"" << source << "\" is not exist\n";
        return;
    }

    const CgiRule cgi(mapping.cgiHandlers);
    const std::string sourceStart = path.empty() ? "" : path + "/";
    const std::string targetStart = url.empty() ? "" : url + "/";
    for (const ListedEntry& entry : list_tree(source)) {
        if (entry.path.empty())
            plan.files.insert_or_assign(url, FSAInstallFileinfo {path, url});
        else
            plan.files.insert_or_assign(targetStart + entry.path,
                                        FSAInstallFileinfo {sourceStart + entry.path,
                                                            targetStart + entry.path,
                                                            cgi.executes(entry.path), entry.type});
    }
}

InstallPlan plan_install(const std::string& packageDir, const std::string& appDir,
                         const FSAMetaDataReader& metadata)
{
    InstallPlan plan;
    for (const FSAMetaDataWebContent& mapping : metadata.webContents()) {
        if (mapping.redirect.empty())
            plan_mapping(mapping, packageDir, appDir, plan);
    }
    return plan;
}

// --- Write access for the web server -------------------------------------------------------------

/// A path by its elements, "." skipped, each ended by a NUL: what lies in a directory starts with
/// the directory's key. Thousands of mappings are compared by their keys, made once for each.
std::string path_key(const fs::path& path)
{
    std::string key;
    for (const fs::path& element : path) {
        if (element != ".")
            key += element.native() + '\0';
    }
    return key;
}

/// Compares keys. A directory is inside itself.
bool isSubdir(const std::string& child, const std::string& parent)
{
    return child.compare(0, parent.size(), parent) == 0;
}

using KeySet = std::set<std::string>;

enum class Owner { WebServer, SiteUser, Other };

struct RequiredBits {
    Owner owner;
    bool sharedGroup;  ///< the group through which that owner and the web server meet
    mode_t file;
    mode_t directory;
};

// clang-format off
constexpr RequiredBits kRequiredBits[] = {
    // owner           shared group  file  directory
    {Owner::WebServer, true,         0660, 0770},
    {Owner::WebServer, false,        0606, 0707},
    {Owner::SiteUser,  true,         0660, 0770},
    {Owner::SiteUser,  false,        0606, 0707},
    {Owner::Other,     true,         0666, 0777},
    {Owner::Other,     false,        0666, 0777},
};
// clang-format on

mode_t required_bits(const struct stat& status, const std::string& userName)
{
    static const uid_t user = tarvik_ugid(userName.c_str(), 0);
    static const uid_t webServer = tarvik_ugid(kWebServerUser, 0);
    static const gid_t services = get_group_id(kServicesGroup);
    static const gid_t clients = get_group_id(kClientsGroup);

    const Owner owner = status.st_uid == webServer ? Owner::WebServer
        : status.st_uid == user                    ? Owner::SiteUser
                                                   : Owner::Other;
    const gid_t shared = owner == Owner::WebServer ? clients : services;
    const auto* const row = std::find_if(
        std::begin(kRequiredBits), std::end(kRequiredBits), [&](const RequiredBits& bits) {
            return bits.owner == owner && bits.sharedGroup == (status.st_gid == shared);
        });
    return S_ISDIR(status.st_mode) ? row->directory : row->file;
}

/// @return false with `errno` when the mode had to be changed and could not be.
bool makeWritableByWebserver(const std::string& path, const struct stat& status,
                             const std::string& userName)
{
    if (!S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode))
        throw FSAFileException("Unknown type of file `" + path + "`. Unable to change file mode.");
    const mode_t mode = status.st_mode & kModeBits;
    const mode_t widened = mode | required_bits(status, userName);
    return widened == mode || ::chmod(path.c_str(), widened) == 0;
}

/// What lies below `dir` and belongs to a mapping that is not writable, relative to `dir`.
KeySet nested_exclusions(const std::string& dir, const KeySet& others)
{
    const std::string key = path_key(dir);
    KeySet exclusions;
    for (auto other = others.lower_bound(key); other != others.end() && isSubdir(*other, key);
         ++other)
        exclusions.insert(other->substr(key.size()));
    return exclusions;
}

/// @return whether `path` or a directory above it is excluded.
bool is_excluded(const std::string& path, const KeySet& exclusions)
{
    if (exclusions.empty())
        return false;
    const std::string key = path_key(path);
    for (std::size_t end = 0; end < key.size(); end = key.find('\0', end) + 1) {
        if (exclusions.count(key.substr(0, end)) != 0)
            return true;
    }
    return exclusions.count(key) != 0;
}

void widen_modes(const std::string& dir, const KeySet& others, const std::string& userName)
{
    const KeySet exclusions = nested_exclusions(dir, others);
    for (const ListedEntry& entry : list_tree(dir)) {
        if (is_excluded(entry.path, exclusions))
            continue;
        const std::string path = entry.path.empty() ? dir : join(dir, entry.path);
        struct stat status;
        if (::lstat(path.c_str(), &status) != 0)
            throw FSAFileException("Unable to stat file  " + path
                                   + " mode: " + std::strerror(errno));
        const bool widened = makeWritableByWebserver(path, status, userName);
        if (!widened && entry.path.empty())  // below it, a foreign file may well stay as it is
            throw FSAFileException("Unable to change mode for: " + path
                                   + " Error: " + std::strerror(errno));
    }
}

void widen_writable_mappings(const InstallPlan& plan, const std::string& userName)
{
    KeySet others;
    for (const std::string& dir : plan.otherDirs)
        others.insert(path_key(dir));
    KeySet done;
    for (const std::string& dir : plan.writableDirs) {
        if (done.insert(path_key(dir)).second)  // once is enough
            widen_modes(dir, others, userName);
    }
}

// --- The whole installation ----------------------------------------------------------------------

/// Ends without a word at the first target that cannot be removed.
void remove_targets(const InstallPlan& plan, const std::string& appDir)
{
    boost::system::error_code error;
    for (auto file = plan.files.rbegin(); file != plan.files.rend() && !error; ++file)
        fs::remove_all(join(appDir, file->first), error);
}

void install(const InstallPlan& plan, const std::string& packageDir, const std::string& appDir,
             const std::string& userName, bool makeWebserverWritable)
{
    FileCopier copier(packageDir, appDir, userName);
    for (const auto& [target, file] : plan.files)
        copier.install(file);
    if (makeWebserverWritable)
        widen_writable_mappings(plan, userName);
}

bool report_failure(const FSACommonException& e)
{
    std::cerr << e.what() << '\n';
    return false;
}

void install_or_undo(const InstallPlan& plan, const std::string& packageDir,
                     const std::string& appDir, const std::string& userName,
                     bool makeWebserverWritable)
{
    try {
        install(plan, packageDir, appDir, userName, makeWebserverWritable);
    } catch (const FSAFileException& e) {
        report_failure(e);
        remove_targets(plan, appDir);
        throw;
    }
}

std::string application_dir(const std::string& documentRoot, const std::string& appSubdir)
{
    const bool isDocumentRoot = appSubdir == "." || appSubdir == "/";
    return isDocumentRoot ? documentRoot : join(documentRoot, appSubdir);
}

}  // namespace

bool fsa_install_htdocsfiles(const std::string& packageDir, const std::string& documentRoot,
                             const std::string& appSubdir, const FSAMetaDataReader& metadata,
                             const std::string& userName, bool makeWebserverWritable)
try {
    const std::string appDir = application_dir(documentRoot, appSubdir);
    const InstallPlan plan = plan_install(packageDir, appDir, metadata);  // touches nothing
    install_or_undo(plan, packageDir, appDir, userName, makeWebserverWritable);
    return true;
} catch (const FSAFileException& e) {
    return report_failure(e);  // the second print of a file error is wanted
} catch (const FSAXMLException& e) {
    return report_failure(e);
}

}  // namespace tarvik
