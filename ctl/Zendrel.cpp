#include "ctl/Zendrel.h"

#include "common/signals.h"
#include "ctl/Child.h"
#include "ctl/Trouble.h"
#include "sys/TExec.h"
#include "sys/exec_strategy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

namespace tarvik::ctl {

namespace {

/// Scripts are to meet SIGPIPE as this program was started with it.
class RestoreSignals : public sys::TExec::TPrepare {
public:
    void bef_exec(sys::TExec& /*exec*/) override { restore_write_signals(); }
};

/// zendrel moves the position in a file that is its standard stream back to the start when a script
/// has run. As long as this lives, what is written goes to the end all the same; so does what
/// follows.
class AppendingStream {
public:
    explicit AppendingStream(int stream) : stream_(stream), flags_(::fcntl(stream, F_GETFL))
    {
        struct stat status;
        if (::fstat(stream, &status) != 0 || !S_ISREG(status.st_mode))
            flags_ = -1;
        if (flags_ >= 0)
            static_cast<void>(::fcntl(stream_, F_SETFL, flags_ | O_APPEND));
    }
    AppendingStream(const AppendingStream&) = delete;
    AppendingStream& operator=(const AppendingStream&) = delete;
    ~AppendingStream()
    {
        if (flags_ < 0)
            return;
        static_cast<void>(::lseek(stream_, 0, SEEK_END));
        static_cast<void>(::fcntl(stream_, F_SETFL, flags_));
    }

private:
    int stream_;
    int flags_;  ///< negative for what is no file
};

std::string zendrel_path()
{
    std::array<char, PATH_MAX> self;
    const ssize_t length = ::readlink("/proc/self/exe", self.data(), self.size());
    if (length <= 0)
        throw Trouble(std::string("cannot find zendrel: ") + std::strerror(errno));
    const std::string path(self.data(), static_cast<std::size_t>(length));
    return path.substr(0, path.rfind('/')) + "/zendrel";
}

std::string full_name(const PackageSource& package)
{
    return "--application-full-name=file:///" + package.directory;
}

}  // namespace

int run_zendrel(const std::vector<std::string>& words, const std::string& inputFile)
{
    using namespace sys;
    const std::string path = zendrel_path();
    TEArgs args {path};
    for (const std::string& word : words)
        args.push_back({word});
    TExec exec = TExec(args, fork_mode | wait_mode) < inputFile;
    exec += make_prepare<RestoreSignals>();
    exec += exit_without_program();
    if (::access(path.c_str(), X_OK) != 0)
        throw Trouble(path + " cannot be run: " + std::strerror(errno));
    return run_in_child([&exec] { return exec.execute().exit_code; });
}

int extract(const PackageSource& package, const Site& site, bool skipWebserverWrite)
{
    std::vector<std::string> words = {
        "--extract-application",
        full_name(package),
        "--vhost-path=" + site.vhostPath,
        "--www-root=" + site.wwwRoot,
        "--user-name=" + site.userName,
        "--application-subdirectory=" + site.subdirectory,
        "--metadata-file=" + package.metadataFile,
    };
    if (skipWebserverWrite)
        words.emplace_back("--skip-webserver-write");
    return run_zendrel(words);
}

int delete_files(const Site& site, const std::string& list)
{
    return run_zendrel({"--delete-application", "--vhost-path=" + site.vhostPath,
                        "--www-root=" + site.wwwRoot, "--user-name=" + site.userName,
                        "--application-subdirectory=" + site.subdirectory},
                       list);
}

int run_script(const PackageSource& package, const Site& site, const std::string& action,
               const std::string& language, const std::vector<std::string>& parameters)
{
    std::vector<std::string> words = {
        "--run-application-script",     full_name(package),
        "--script-name=" + action,      "--user-name=" + site.userName,
        "--script-file-name=configure", "--script-language=" + language,
    };
    for (const std::string& parameter : parameters)
        words.push_back("--additional-script-params=" + parameter);
    const AppendingStream output(STDOUT_FILENO);
    const AppendingStream errors(STDERR_FILENO);
    return run_zendrel(words);
}

int install_apache_conf(const PackageSource& package, const Site& site, const std::string& name)
{
    return run_zendrel(
        {"--install-apache-conf", "--vhost-path=" + site.vhostPath, "--www-root=" + site.wwwRoot,
         "--application-subdirectory=" + site.subdirectory,
         "--metadata-file=" + package.metadata_path(), "--config-file-name=" + name});
}

int remove_apache_conf(const Site& site, const std::string& name)
{
    return run_zendrel({"--remove-apache-conf", "--vhost-path=" + site.vhostPath,
                        "--www-root=" + site.wwwRoot, "--config-file-name=" + name});
}

}  // namespace tarvik::ctl
