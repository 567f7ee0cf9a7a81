#include "app/fsappactions.h"

#include "app/FileList.h"
#include "app/fsappmetadata.h"
#include "clib/tarvik_ugid.h"
#include "common/ExSystemError.h"
#include "common/misc.h"

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <list>
#include <map>
#include <optional>
#include <sstream>
#include <string_view>
#include <vector>

namespace fs = boost::filesystem;

namespace tarvik {

namespace {

constexpr char kClientsGroup[] = "oxacln";
constexpr char kServicesGroup[] = "oxaserv";
constexpr char kWebServerUser[] = "www-data";

constexpr mode_t kModeBits = 07777;
constexpr mode_t kFileMode = 0644;
constexpr mode_t kProgramMode = 0755;

/// One planned step: a file or directory of the package and the place it goes to.
struct FSAInstallFileinfo {
    std::string sourcePath;  ///< relative to the package directory
    std::string targetPath;  ///< relative to the application directory; the key in the plan
    bool executable = false;
    EntryType type = EntryType::Unknown;  ///< of the source, as far as its listing told
};

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
    for (const ListedEntry& entry : list_tree(source)) {
        FSAInstallFileinfo file = {path, url, false, EntryType::Unknown};
        if (!entry.path.empty()) {
            const std::string below = "/" + erase_starting_slashes(entry.path);
            file = {erase_starting_slashes(path + below), erase_starting_slashes(url + below),
                    cgi.executes(entry.path), entry.type};
        }
        std::string key = file.targetPath;
        plan.files.insert_or_assign(std::move(key), std::move(file));
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

// --- Copying -------------------------------------------------------------------------------------

[[noreturn]] void throw_unable_to_create(const std::string& path, const char* reason = "")
{
    throw FSAFileException("Unable to create directory " + path + reason);
}

bool create_directories(const std::string& path)
{
    if (path.empty())
        return false;
    if (::mkdir(path.c_str(), 0777) == 0)  // nearly always: parents come first
        return true;
    const fs::file_status status = fs::status(path);
    if (fs::is_directory(status))
        return false;
    if (fs::exists(status))
        throw_unable_to_create(path, " - filename occupied");
    create_directories(fs::path(path).parent_path().native());
    boost::system::error_code error;
    fs::create_directory(path, error);
    if (error)
        throw_unable_to_create(path);
    return true;
}

/// Lets the site's people work in a directory that the installation puts something into.
/// @return false when the mode had to be changed and could not be, which is reported.
bool makeUserWritableDir(const std::string& dir, const struct stat& status,
                         const std::string& userName)
{
    static const uid_t user = tarvik_ugid(userName.c_str(), 0);
    static const gid_t clients = get_group_id(kClientsGroup);
    const mode_t wanted = status.st_uid == user ? 0700 : status.st_gid == clients ? 0070 : 0007;
    const mode_t mode = status.st_mode & kModeBits;
    if ((mode | wanted) == mode || ::chmod(dir.c_str(), mode | wanted) == 0)
        return true;
    std::cerr << "Unable to change mode for " << dir << ": " << std::strerror(errno) << '\n';
    return false;
}

/// Copies the planned files in the order of the plan. What holds for all files of one directory is
/// found out once for each run of files in it.
class Copier {
public:
    Copier(const std::string& packageDir, const std::string& appDir, const std::string& userName)
        : packageDir_(packageDir), appDir_(appDir), userName_(userName), buffer_(kBufferSize)
    {
    }

    void install(const FSAInstallFileinfo& file)
    {
        const std::string source = join(packageDir_, file.sourcePath);
        const std::string target = join(appDir_, file.targetPath);
        try {
            enter_parent(target);
            if (is_directory(source, file.type))
                create_directories(target);
            else
                copy_file(source, target, file);
        } catch (const fs::filesystem_error& e) {
            std::ostringstream text;
            text << "Filesystem error: " << e.what() << "(" << e.code() << ")" << source << " -> "
                 << target;
            throw FSAFileException(text.str());
        }
    }

private:
    // Most files of a web application are read and written with one call each.
    static constexpr std::size_t kBufferSize = 128 * 1024;
    static constexpr std::size_t kKernelStep = std::size_t {1} << 30;

    void enter_parent(const std::string& target)
    {
        const std::string parent = fs::path(target).parent_path().native();
        if (parent == settledParent_)
            return;
        settledParent_.clear();
        modesHold_[false] = modesHold_[true] = false;
        struct stat status;
        if (::lstat(parent.c_str(), &status) == 0 && S_ISDIR(status.st_mode)
            && makeUserWritableDir(parent, status, userName_))
            settledParent_ = parent;
    }

    static bool is_directory(const std::string& source, EntryType type)
    {
        if (type == EntryType::Directory || type == EntryType::Regular)
            return type == EntryType::Directory;
        return fs::is_directory(source);  // links are followed
    }

    void copy_file(const std::string& source, const std::string& target,
                   const FSAInstallFileinfo& file)
    {
        const mode_t mode = file.executable ? kProgramMode : kFileMode;
        const TDescriptor out = create_in_place_of(target, mode);
        const TDescriptor in = out ? open_source(source, file.type) : TDescriptor();
        if (!in || !copy_content(in.get(), out.get())) {
            const int error = errno;
            if (out)
                static_cast<void>(::unlink(target.c_str()));  // the error to report is the first
            throw fs::filesystem_error("boost::filesystem::copy_file", source, target,
                                       {error, boost::system::system_category()});
        }
        settle_mode(out.get(), mode, modesHold_[file.executable]);
    }

    /// @return the new file, empty; none with `errno`. Whatever stood there is removed first.
    TDescriptor create_in_place_of(const std::string& target, mode_t mode)
    {
        const auto create = [this, mode](const std::string& path) {
            const PathAt at = targets_.at(path);
            const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
            return TDescriptor(::openat(at.directory, at.name, flags, mode));
        };
        TDescriptor out = create(target);
        if (!out && (errno == EEXIST || errno == EISDIR)) {
            fs::remove(target);
            out = create(target);
        }
        return out;
    }

    /// @return the source, open for reading; none with `errno`, also for what is no file.
    TDescriptor open_source(const std::string& source, EntryType type)
    {
        const PathAt at = sources_.at(source);
        const int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;  // a named pipe must not block
        TDescriptor in(::openat(at.directory, at.name, flags));
        struct stat status;
        if (in && type != EntryType::Regular
            && (::fstat(in.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
            in.reset();
            errno = EOPNOTSUPP;
        }
        return in;
    }

    /// @return false with `errno`.
    bool copy_content(int in, int out)
    {
        for (;;) {
            const ssize_t count = retried(::read, in, buffer_.data(), buffer_.size());
            if (count <= 0)
                return count == 0;
            if (!write_all(out, static_cast<std::size_t>(count)))
                return false;
            if (count == static_cast<ssize_t>(buffer_.size()))
                copy_in_kernel(in, out);
        }
    }

    /// Takes a large file as far as the kernel can without the data coming here: to its end, not at
    /// all between some file systems, or to an error, which the next read or write then meets.
    static void copy_in_kernel(int in, int out)
    {
        while (::copy_file_range(in, nullptr, out, nullptr, kKernelStep, 0) > 0) { }
    }

    bool write_all(int out, std::size_t size)
    {
        for (const char* next = buffer_.data(); size > 0;) {
            const ssize_t count = retried(::write, out, next, size);
            if (count < 0)
                return false;
            next += count;
            size -= static_cast<std::size_t>(count);
        }
        return true;
    }

    template <class Call, class Data>
    static ssize_t retried(Call call, int fd, Data data, std::size_t size)
    {
        ssize_t count = 0;
        do {
            count = call(fd, data, size);
        } while (count < 0 && errno == EINTR);
        return count;
    }

    /// The mode asked for on creation holds unless the umask, a default ACL or the file system
    /// takes bits away, which is the same for all files of a directory: the first one shows it.
    static void settle_mode(int out, mode_t mode, bool& holds)
    {
        struct stat status;
        if (holds)
            return;
        holds = ::fstat(out, &status) == 0 && (status.st_mode & kModeBits) == mode;
        if (!holds)
            static_cast<void>(::fchmod(out, mode));  // the content is there all the same
    }

    const std::string& packageDir_;
    const std::string& appDir_;
    const std::string& userName_;
    LastDirectory sources_;
    LastDirectory targets_;
    std::string settledParent_;
    bool modesHold_[2] = {false, false};
    std::vector<char> buffer_;
};

// --- Write access for the web server -------------------------------------------------------------

bool is_dot(const fs::path& element)
{
    return element == ".";
}

/// Matches the elements of `parent` against the first ones of `child`, "." skipped in both.
/// @return the rest of `child`; none when it is not inside `parent`.
std::optional<fs::path> part_below(const fs::path& child, const fs::path& parent)
{
    auto next = child.begin();
    for (const fs::path& element : parent) {
        if (is_dot(element))
            continue;
        next = std::find_if_not(next, child.end(), is_dot);
        if (next == child.end() || *next != element)
            return std::nullopt;
        ++next;
    }
    fs::path rest;
    for (; next != child.end(); ++next) {
        if (!is_dot(*next))
            rest /= *next;
    }
    return rest;
}

bool isSubdir(const fs::path& child, const fs::path& parent)
{
    return part_below(child, parent).has_value();
}

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
std::vector<fs::path> nested_exclusions(const std::string& dir, const InstallPlan& plan)
{
    std::vector<fs::path> exclusions;
    for (const std::string& other : plan.otherDirs) {
        if (std::optional<fs::path> below = part_below(other, dir))
            exclusions.push_back(*std::move(below));
    }
    return exclusions;
}

void widen_modes(const std::string& dir, const InstallPlan& plan, const std::string& userName)
{
    const std::vector<fs::path> exclusions = nested_exclusions(dir, plan);
    for (const ListedEntry& entry : list_tree(dir)) {
        if (std::any_of(exclusions.begin(), exclusions.end(), [&entry](const fs::path& excluded) {
                return isSubdir(entry.path, excluded);
            }))
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
    Copier copier(packageDir, appDir, userName);
    for (const auto& [target, file] : plan.files)
        copier.install(file);
    if (makeWebserverWritable) {
        for (const std::string& dir : plan.writableDirs)
            widen_modes(dir, plan, userName);
    }
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
