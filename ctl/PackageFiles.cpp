#include "ctl/PackageFiles.h"

#include "app/InstallPlan.h"
#include "app/Interpreter.h"
#include "app/fsascript.h"
#include "common/misc.h"
#include "ctl/ListWriter.h"
#include "ctl/QuietErrors.h"

#include <boost/filesystem/operations.hpp>
#include <boost/filesystem/path.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <sstream>

namespace fs = boost::filesystem;

namespace tarvik::ctl {

namespace {

// More than the kernel looks at.
constexpr std::size_t kFirstLine = 512;

/// What a mapping can put on the site that was not meant for it.
const char* const kOwnParts[] = {"APP-META.xml", "scripts"};

/// How the name of the program in a script's first line begins.
constexpr std::pair<const char*, const char*> kInterpreters[] = {{"php", "php"}, {"perl", "perl"}};

bool begins_with(const std::string& text, const std::string& start)
{
    return text.compare(0, start.size(), start) == 0;
}

std::string octal(mode_t mode)
{
    std::ostringstream text;
    text << "mode 0" << std::oct << (mode & 07777);
    return text.str();
}

/// What the site's user may do.
class Access {
public:
    Access(const std::string& directory, Findings& findings)
        : directory_(directory), findings_(findings)
    {
    }

    /// Looks at the directories on the way to a path, at each once.
    void require_way(const std::string& path)
    {
        boost::system::error_code error;
        const fs::path real = fs::canonical(path, error);
        for (fs::path above = real.parent_path(); !above.empty(); above = above.parent_path()) {
            if (!passed_.insert(above.native()).second)
                return;
            struct stat status;
            if (::stat(above.c_str(), &status) == 0)
                require(in_package(above.native()), status, S_IXOTH);
        }
    }

    /// @param bits  permissions that everyone has to have.
    void require(const std::string& where, const struct stat& status, mode_t bits)
    {
        const mode_t missing = bits & ~status.st_mode;
        if (missing == 0)
            return;
        const char* const verb = (missing & S_IXOTH) != 0 ? "enter" : "read";
        findings_.error(where,
                        octal(status.st_mode) + " does not let everyone " + verb
                            + " it: the site's user has to");
    }

private:
    std::string in_package(const std::string& path) const
    {
        return begins_with(path, directory_ + "/") ? path.substr(directory_.size() + 1) : path;
    }

    const std::string& directory_;
    Findings& findings_;
    std::set<std::string> passed_;
};

/// What an extraction would make of the files.
class FileCheck {
public:
    FileCheck(const std::string& directory, Findings& findings)
        : directory_(directory), findings_(findings), access_(directory, findings)
    {
    }

    void run(const FSAMetaDataReader& metadata)
    {
        for (const FSAMetaDataWebContent& mapping : metadata.webContents())
            access_.require_way(join(directory_, remove_starting_slashes(mapping.path)));
        for (const auto& [target, file] : plan(metadata).files)
            check(file);
    }

private:
    InstallPlan plan(const FSAMetaDataReader& metadata) const
    {
        const QuietErrors quiet;  // what it reports is found here as well
        return plan_install(directory_, "", metadata);
    }

    void check(const FSAInstallFileinfo& file)
    {
        const std::string where = file.sourcePath.empty() ? directory_ : file.sourcePath;
        if (!fits_a_list(file.targetPath))
            findings_.error(where, "no instance file list can hold its name");
        if (std::find(std::begin(kOwnParts), std::end(kOwnParts), file.sourcePath)
            != std::end(kOwnParts))
            findings_.warning(where, "is put on the site, where every visitor may read it");
        check_kind(where,
                   sources_.at(path_.assign(directory_).append("/").append(file.sourcePath)));
    }

    void check_kind(const std::string& where, const PathAt& at)
    {
        struct stat status;
        if (::fstatat(at.directory, at.name, &status, AT_SYMLINK_NOFOLLOW) != 0)
            return findings_.error(where, std::string("cannot be examined: ") + strerror(errno));
        const bool link = S_ISLNK(status.st_mode);
        if (link && ::fstatat(at.directory, at.name, &status, 0) != 0)
            return findings_.error(where,
                                   std::string("is a link that leads nowhere: ") + strerror(errno));
        if (S_ISDIR(status.st_mode) && link)
            findings_.warning(where, "is a link to a directory: it becomes an empty directory");
        else if (S_ISDIR(status.st_mode))
            access_.require(where, status, S_IROTH | S_IXOTH);
        else if (S_ISREG(status.st_mode))
            access_.require(where, status, S_IROTH);
        else
            findings_.error(where, "is a pipe, socket or device: no extraction copies it");
    }

    const std::string& directory_;
    Findings& findings_;
    Access access_;
    std::string path_;  ///< written over what was allocated for the last one
    LastDirectory sources_;
};

/// @return the start of a file, at most up to the end of its first line; empty for what is none.
std::string first_line(const std::string& path)
{
    const TDescriptor found(::open(path.c_str(), O_PATH | O_CLOEXEC));
    struct stat status;
    if (!found || ::fstat(found.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return "";
    const TDescriptor file(::open(descriptor_path(found.get()).c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, kFirstLine> start;
    const ssize_t size = retried([&] { return ::read(file.get(), start.data(), start.size()); });
    const std::string text(start.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
    return text.substr(0, text.find('\n'));
}

/// @return the name of the program that a first line asks for, such as "perl" for
///         "#!/usr/bin/env perl"; empty when it asks for none.
std::string asked_interpreter(const std::string& line)
{
    if (!begins_with(line, "#!"))
        return "";
    std::istringstream words(line.substr(2));
    for (std::string word; words >> word;) {
        std::string name = word.substr(word.rfind('/') + 1);  // npos + 1 is 0
        if (name != "env" && !begins_with(name, "-"))
            return name;
    }
    return "";
}

void check_program(const std::string& where, const std::string& path, const std::string& line,
                   Findings& findings)
{
    if (!fsa_is_file_executable(path))
        findings.error(where,
                       "is not readable and executable for everyone, as a program has to be");
    if (begins_with(line, "#!") && line.back() == '\r')
        findings.error(where, "has a Windows line break after the interpreter's name");
    else if (!begins_with(line, "#!") && !begins_with(line, "\177ELF"))
        findings.error(where, "is no program and has no interpreter line");
}

void check_language(const std::string& where, const std::string& language, const std::string& line,
                    Findings& findings)
{
    const std::string asked = asked_interpreter(line);
    if (asked.empty())
        return;
    for (const auto& [name, start] : kInterpreters) {
        if (language == name && !begins_with(asked, start))
            findings.error(where,
                           "its first line asks for " + asked + ", the metadata for " + name);
    }
}

}  // namespace

void check_files(const std::string& directory, const FSAMetaDataReader& metadata,
                 Findings& findings)
{
    FileCheck(directory, findings).run(metadata);
}

void check_script(const std::string& directory, const FSAMetaDataReader& metadata,
                  Findings& findings)
{
    if (leaves_script_to_caller(metadata))
        return;
    const std::string& language = metadata.configurationScriptLanguage();
    const std::string where = std::string("scripts/") + kConfigureScript;
    const std::string path = join(directory, where);
    struct stat status;
    if (::stat(path.c_str(), &status) != 0) {
        if (!language.empty())
            findings.error(where,
                           "cannot be found, and the metadata names its language: "
                               + std::string(strerror(errno)));
        return;
    }
    if (language.empty())
        return findings.error(where, "is never run: the metadata does not name its language");
    if (!S_ISREG(status.st_mode))
        return findings.error(where, "is no file");
    Access access(directory, findings);
    access.require_way(path);
    const std::string line = first_line(path);
    if (language == kBinaryLanguage)
        return check_program(where, path, line, findings);
    access.require(where, status, S_IROTH);
    check_language(where, language, line, findings);
}

}  // namespace tarvik::ctl
