#include "tests/support/Sandbox.h"

#include <boost/filesystem.hpp>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <ostream>
#include <sstream>

namespace fs = boost::filesystem;

namespace sandbox {

namespace {

/// A file without a name that a child reads or writes.
class MemoryFile {
public:
    explicit MemoryFile(const std::string& content = "") : fd_(memfd_create("stream", MFD_CLOEXEC))
    {
        if (fd_ < 0 || ::write(fd_, content.data(), content.size()) != ssize_t(content.size())
            || ::lseek(fd_, 0, SEEK_SET) != 0)
            std::abort();
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    ~MemoryFile() { ::close(fd_); }
    int fd() const { return fd_; }
    std::string content() const { return read("/proc/self/fd/" + std::to_string(fd_)); }

private:
    int fd_;
};

template <class Body>
Result run_child(const std::string& input, Body body)
{
    const MemoryFile in(input);
    const MemoryFile out;
    const MemoryFile err;
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(in.fd(), 0);
        ::dup2(out.fd(), 1);
        ::dup2(err.fd(), 2);
        body();
        ::_exit(127);
    }
    int status = 0;
    rusage usage = {};
    if (child < 0 || ::wait4(child, &status, 0, &usage) != child)
        std::abort();
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out.content(), err.content(),
            usage.ru_maxrss};
}

void limit(int resource, rlim_t value)
{
    const rlimit both = {value, value};
    if (::setrlimit(static_cast<__rlimit_resource>(resource), &both) != 0)
        ::_exit(126);
}

}  // namespace

bool operator==(const Result& a, const Result& b) { return a.status == b.status && a.out == b.out && a.err == b.err; }

std::ostream& operator<<(std::ostream& out, const Result& result)
{
    return out << "status " << result.status << "\n--- out\n" << result.out << "--- err\n" << result.err << "---";
}

Result says(int status, const std::string& err) { return {status, "", err, 0}; }

Result says_twice(int status, const std::string& text) { return {status, text, text, 0}; }

Words changed(Words words, const Words& changes)
{
    for (const std::string& change : changes) {
        const std::string name = change.substr(0, change.find('='));
        bool found = false;
        for (std::string& word : words) {
            if (word.substr(0, word.find('=')) == name) {
                word = change;
                found = true;
            }
        }
        if (!found)
            words.push_back(change);
    }
    return words;
}

Result run(const Words& words, const std::string& input, const Limits& limits)
{
    return run_child(input, [&words, &limits] {
        std::vector<char*> arguments;
        for (const std::string& word : words)
            arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);
        limit(RLIMIT_CORE, 0);
        if (limits.fileSize != 0) {
            ::signal(SIGXFSZ, SIG_IGN);
            limit(RLIMIT_FSIZE, limits.fileSize);
        }
        if (limits.cpuSeconds != 0)
            limit(RLIMIT_CPU, limits.cpuSeconds);
        ::execvp(arguments[0], arguments.data());
    });
}

Result zendrel(const Words& words, const std::string& input, const Limits& limits)
{
    Words all = {ZENDREL_PROGRAM};
    all.insert(all.end(), words.begin(), words.end());
    return run(all, input, limits);
}

Result in_child(void (*body)())
{
    return run_child("", [body] {
        body();
        std::exit(0);
    });
}

Site::Site()
{
    static int count = 0;
    const char* const base = std::getenv("SANDBOX_DIR");
    if (base == nullptr) {
        std::fprintf(stderr, "start the tests through tests/support/sandbox.sh\n");
        std::abort();
    }
    root_ = std::string(base) + "/site" + std::to_string(::getpid()) + "." + std::to_string(++count);
    ::umask(022);
    fs::create_directories(vhost());
    put("");
}

Site::~Site() { fs::remove_all(root_); }

std::string Site::path(const std::string& below) const { return below.empty() ? root_ : root_ + "/" + below; }

void Site::write(const std::string& below, const std::string& content, mode_t mode) const
{
    fs::create_directories(fs::path(path(below)).parent_path());
    std::ofstream(path(below), std::ios::binary) << content;
    ASSERT_EQ(0, ::chmod(path(below).c_str(), mode));
}

void Site::put(const std::string& below, const std::string& content, mode_t mode, uid_t owner, gid_t group) const
{
    const std::string target = docroot(below);
    if (target.back() == '/') {
        fs::create_directories(target);
        mode = mode == 0644 ? 0755 : mode;
    } else {
        std::ofstream(target, std::ios::binary) << content;
    }
    ASSERT_EQ(0, ::chown(target.c_str(), owner, group)) << target;
    ASSERT_EQ(0, ::chmod(target.c_str(), mode)) << target;
}

void Site::metadata(const std::string& mappings) const
{
    write("package/APP-META.xml",
          "<application xmlns='http://veska.example/ns/1' xmlns:php='http://veska.example/ns/1/php'"
          " xmlns:cgi='http://veska.example/ns/1/cgi'>\n<name>shop</name><version>2</version>"
          "<release>7</release>"
              + mappings + "</application>\n");
}

Words Site::extract(const Words& changes) const
{
    return changed({"--extract-application", "--application-full-name=file:///" + path("package"),
                    "--vhost-path=" + vhost(), "--user-name=alice", "--application-subdirectory=.",
                    "--metadata-file=", "--www-root=" + path("vhost/httpdocs")},
                   changes);
}

Words Site::remove(const Words& changes) const
{
    return changed({"--delete-application", "--vhost-path=" + vhost(), "--user-name=alice",
                    "--application-subdirectory=.", "--www-root=" + path("vhost/httpdocs")},
                   changes);
}

std::string Site::list(const Words& files, const std::string& section) const
{
    std::string text = "<INSTANCE-DATA>\n<SECTION PREFIX=\"" + section + "\">\n";
    for (const std::string& file : files)
        text += "<FILE>" + file + "</FILE>\n";
    return text + "</SECTION>\n</INSTANCE-DATA>\n";
}

Tree Site::tree(const std::string& below) const
{
    static const std::map<uid_t, std::string> users = {
        {0, "root"}, {kAlice, "alice"}, {kBob, "bob"}, {kCarol, "carol"}, {kWebServer, "www-data"}};
    static const std::map<gid_t, std::string> groups = {
        {0, "root"}, {kClients, "oxacln"}, {kServices, "oxaserv"}, {kEditors, "editors"}, {kWebServer, "www-data"}};
    Tree tree;
    const fs::path top = path(below);
    for (fs::recursive_directory_iterator entry(top), end; entry != end; ++entry) {
        struct stat status;
        EXPECT_EQ(0, ::lstat(entry->path().c_str(), &status));
        std::ostringstream line;
        line << (S_ISDIR(status.st_mode)       ? 'd'
                     : S_ISLNK(status.st_mode) ? 'l'
                                               : '-')
             << ' ' << std::oct << (status.st_mode & 07777) << ' ' << users.at(status.st_uid) << ':'
             << groups.at(status.st_gid);
        if (S_ISREG(status.st_mode))
            line << ' ' << read(entry->path().native());
        else if (S_ISLNK(status.st_mode))
            line << ' ' << fs::read_symlink(entry->path()).native();
        tree[entry->path().native().substr(top.native().size() + 1)] = line.str();
    }
    return tree;
}

std::string read(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

mode_t mode_of(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(0, ::stat(path.c_str(), &status)) << path;
    return status.st_mode & 07777;
}

}  // namespace sandbox
