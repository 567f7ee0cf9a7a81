#include "tests/support/Sandbox.h"

#include <boost/filesystem.hpp>

#include <sys/mman.h>
#include <sys/resource.h>

#include <stdexcept>

namespace fs = boost::filesystem;

namespace sandbox {

namespace {

/// Errors of a newer Boost also name their code: "No such file or directory [system:2]".
std::string without_codes(std::string text)
{
    for (const std::string code : {" [system:", " [generic:"}) {
        for (std::size_t at; (at = text.find(code)) != std::string::npos;)
            text.erase(at, text.find(']', at) + 1 - at);
    }
    return text;
}

template <class Body>
Result run_child(const std::string& input, Body body)
{
    int streams[3];
    for (int& stream : streams)
        stream = memfd_create("stream", MFD_CLOEXEC);
    const bool ready = ::pwrite(streams[0], input.data(), input.size(), 0) == ssize_t(input.size());
    const pid_t child = ready ? ::fork() : -1;
    if (child == 0) {
        for (int number = 0; number < 3; ++number)
            ::dup2(streams[number], number);
        body();
        ::_exit(127);
    }
    int status = 0;
    rusage usage = {};
    if (child < 0 || ::wait4(child, &status, 0, &usage) != child)
        std::abort();
    std::string texts[3];
    for (int number = 0; number < 3; ++number) {
        texts[number] = without_codes(read("/proc/self/fd/" + std::to_string(streams[number])));
        ::close(streams[number]);
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), texts[1], texts[2], usage.ru_maxrss};
}

/// A lower limit that the tests were started with stays: not every root may raise it.
void limit(__rlimit_resource resource, rlim_t value)
{
    rlimit both = {};
    ::getrlimit(resource, &both);
    both.rlim_cur = both.rlim_max = std::min(value, both.rlim_max);
    if (value != 0 && ::setrlimit(resource, &both) != 0)
        ::_exit(126);
}

}  // namespace

bool operator==(const Result& a, const Result& b) { return a.status == b.status && a.out == b.out && a.err == b.err; }

std::ostream& operator<<(std::ostream& out, const Result& result)
{
    return out << "status " << result.status << "\n--- out\n" << result.out << "--- err\n" << result.err << "---";
}

Words changed(Words words, const Words& changes)
{
    for (const std::string& change : changes) {
        const std::string name = change.substr(0, change.find('='));
        const auto same = [&name](const std::string& word) { return word.substr(0, word.find('=')) == name; };
        const auto old = std::find_if(words.begin(), words.end(), same);
        *(old == words.end() ? words.insert(old, change) : old) = change;
    }
    return words;
}

Words operator+(Words words, const Words& more)
{
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

std::string repeated(int count, const std::string& text)
{
    std::string result;
    for (int i = 0; i < count; ++i)
        result += text;
    return result;
}

std::string numbered(int count, const std::string& before, const std::string& after)
{
    std::string text;
    for (int i = 0; i < count; ++i)
        text += before + std::to_string(i) + after;
    return text;
}

std::string application(const std::string& content, const std::string& attributes)
{
    const std::string uri = "='http://veska.example/ns/1", root = "<application xmlns" + uri + "' xmlns:p" + uri;
    const std::string text = root + "/php' xmlns:c" + uri + "/cgi' " + attributes + ">" + content + "</application>";
    return boost::replace_all_copy(boost::replace_all_copy(text, "<m '", "<mapping url='"), "</m>", "</mapping>");
}

Result run(const Words& words, const std::string& input, const Limits& limits)
{
    return run_child(input, [&words, &limits] {
        std::vector<char*> arguments;
        for (const std::string& word : words)
            arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);
        limit(RLIMIT_CORE, 1);  // less than any core takes
        limit(RLIMIT_FSIZE, limits.fileSize);
        limit(RLIMIT_CPU, limits.cpuSeconds);
        ::execvp(arguments[0], arguments.data());
    });
}

Result zendrel(const Words& words, const std::string& input, const Limits& limits)
{
    return run(Words {ZENDREL_PROGRAM} + words, input, limits);
}

Result zendrelctl(const Words& words, const std::string& input, const Limits& limits)
{
    return run(Words {ZENDREL_CONTROL_PROGRAM} + words, input, limits);
}

Result in_child(const std::function<void()>& body)
{
    return run_child("", [&body] { body(), std::exit(0); });
}

Site::Site()
{
    static int count = 0;
    const char* const base = std::getenv("SANDBOX_DIR");
    if (base == nullptr)
        throw std::runtime_error("start the tests through tests/support/sandbox.sh");
    root_ = std::string(base) + "/site" + std::to_string(::getpid()) + "." + std::to_string(++count);
    ::umask(022);
    put("");
}

Site::~Site()
{
    for (const std::string& path : {root_, std::string("/etc/oxa/oxa.conf"), std::string("/var/lib/zendrel")})
        fs::remove_all(path);
}

void Site::write(const std::string& below, const std::string& content, mode_t mode) const
{
    put("../../" + below, content, mode, 0, 0);
}

void Site::put(const std::string& below, const std::string& content, mode_t mode, uid_t owner, gid_t group) const
{
    const std::string target = docroot(below);
    const bool directory = target.back() == '/';
    fs::create_directories(fs::path(target).parent_path());
    if (!directory)
        std::ofstream(target, std::ios::binary) << content;
    ASSERT_EQ(0, ::chown(target.c_str(), owner, group)) << target;
    ASSERT_EQ(0, ::chmod(target.c_str(), directory && mode == 0644 ? 0755 : mode)) << target;
}

void Site::shell(const std::string& commands) const
{
    ASSERT_EQ(run({"sh", "-ec", "cd " + root_ + "\n" + commands}), says(0, "")) << commands;
}

std::string Site::output(const std::string& commands) const
{
    return run({"sh", "-c", "cd " + root_ + "\n" + commands}).out;
}

Result Site::plain(Result result) const
{
    boost::replace_all(result.out, root_, "@");
    boost::replace_all(result.err, root_, "@");
    return result;
}

void Site::metadata(const std::string& mappings) const
{
    const std::string named = "\n<name>shop</name><version>2</version><release>7</release>";
    const std::string prefixes = "xmlns:php='http://veska.example/ns/1/php' xmlns:cgi='http://veska.example/ns/1/cgi'";
    write("package/APP-META.xml", application(named + mappings, prefixes) + "\n");
}

void Site::pack(const Words& files, const std::string& mappings) const
{
    metadata(mappings);
    for (const std::string& file : files)
        write("package/htdocs/" + file, file);
}

Words Site::options(const std::string& subdirectory) const
{
    return {"--vhost-path=" + vhost(), "--www-root=" + path("vhost/httpdocs"), "--user-name=alice",
            "--application-subdirectory=" + subdirectory};
}

Words Site::extract(const Words& changes) const
{
    const std::string name = "--application-full-name=file:///" + path("package");
    return changed(Words {"--extract-application", name, "--metadata-file="} + options("."), changes);
}

Words Site::ctl(const Words& command, const Words& changes) const { return changed(command + options("app"), changes); }

Words Site::remove(const Words& changes) const
{
    return changed(Words {"--delete-application"} + options("."), changes);
}

std::string Site::list(const Words& files, const std::string& section) const
{
    std::string text = "<INSTANCE-DATA>\n<SECTION PREFIX=\"" + section + "\">\n";
    for (const std::string& file : files)
        text += "<FILE>" + file + "</FILE>\n";
    return text + "</SECTION>\n</INSTANCE-DATA>\n";
}

bool Site::kills(const Words& command, const std::string& calls, int when) const
{
    const std::string inject = "inject=" + calls + ":signal=KILL:when=" + std::to_string(when), trace = path("trace");
    run(Words {"strace", "-fo", trace, "-e", "trace=" + calls, "-e", inject, ZENDREL_CONTROL_PROGRAM} + ctl(command));
    run({"flock", kStore + "vhost-app.lock", "true"});
    return read(trace).find("killed by SIGKILL") != std::string::npos;
}

Tree Site::tree(const std::string& below) const
{
    const Result found = run({"find", path(below), "-mindepth", "1", "-printf", "%P\\0%y %m %u:%g %l\\0"});
    EXPECT_EQ(found, prints(found.out));
    Tree tree;
    std::istringstream texts(found.out);
    for (std::string name, line; std::getline(std::getline(texts, name, '\0'), line, '\0'); tree[name] = line) {
        if (line[0] == 'f')
            line = '-' + line.substr(1) + read(path(below) + '/' + name);
        else if (line[0] == 'd')
            line.pop_back();
    }
    return tree;
}

std::string Site::listing(const std::string& below) const
{
    Tree alike;
    for (const auto& [name, line] : tree(below)) {
        const std::size_t end = line.find(' ', line.find(':'));
        const std::string content = end == std::string::npos ? name : line.substr(end + 1);
        alike[line.substr(0, end)] += " " + name + (content == name ? "" : "=" + content);
    }
    std::string text = "\n";
    for (const auto& [attributes, names] : alike)
        text += attributes + ":" + names + "\n";
    return text;
}

std::string read(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

mode_t mode_of(const std::string& path) { return mode_t(fs::status(path).permissions()) & 07777; }

}  // namespace sandbox
