// Several threads leave behind and say what one does, whatever is in their way.
#include "tests/support/Sandbox.h"

#include <boost/algorithm/string.hpp>
#include <boost/filesystem.hpp>

#include <sys/stat.h>

#include <fstream>
#include <random>
#include <sstream>
#include <tuple>

namespace fs = boost::filesystem;
using namespace sandbox;

namespace {

constexpr unsigned kScenes = 40;
constexpr gid_t kServices = 28011;

/// Packages, sites and lists that come out the same for the same number. Paths are short and of few names, so
/// that they meet; some of the names sort before a separator.
class Scene {
public:
    explicit Scene(unsigned number) : engine_(number) { }

    unsigned below(std::size_t limit) { return static_cast<unsigned>(engine_() % limit); }
    bool once_in(unsigned times) { return below(times) == 0; }
    const std::string& one_of(const Words& words) { return words[below(words.size())]; }

    std::string path(unsigned levels)
    {
        static const Words names = {"a", "a-b", "a.c", "b", "c", "ab", "d", "e"};
        std::string path = one_of(names);
        for (unsigned more = below(levels); more > 0; --more)
            path += "/" + one_of(names);
        return path;
    }

    /// A package of new things, and a few that cannot be copied, or only by one who comes in time.
    void make_package(const Site& site)
    {
        site.metadata(mappings());
        const std::string htdocs = site.package("htdocs/");
        put(htdocs + "f1", 9);
        put(htdocs + "z/f1", 9);
        for (unsigned files = 10 + below(200); files > 0; --files) {
            const std::string path = htdocs + this->path(4);
            once_in(8) ? make(path) : put(path + "/f" + std::to_string(files), below(3000));
        }
        for (unsigned odd = once_in(3) ? below(4) : 0; odd > 0; --odd) {
            const std::string path = htdocs + this->path(3) + one_of({"", "/A", "/z"});
            switch (below(4)) {
            case 0:
                ::mkfifo(path.c_str(), 0644);
                break;
            case 1:
                put(path, 9, 0600);
                break;
            case 2:
                ::mkdir(path.c_str(), 0700);
                break;
            default:
                link(one_of({"f1", "a", "nowhere", "/etc/passwd", site.docroot("b/A"), "/proc/self/fd/5"}), path);
            }
        }
    }

    /// What stands in the document root already.
    void make_site(const Site& site)
    {
        Words made;
        for (unsigned things = below(3) * below(6); things > 0; --things) {
            made.push_back(this->path(3));
            const std::string path = site.docroot(made.back());
            switch (below(5)) {
            case 0:
                link(somewhere(site), path);
                break;
            case 1:
                put(path, 9);
                break;
            case 2:
                put(path + one_of({"/own", "/f1", "/f2"}), 9);
                break;
            case 3:
                make(path, once_in(2) ? 0500 : 0300);
                break;
            default:
                make(path);
            }
        }
        give(site, made);
        if (once_in(3)) {  // an undo stops here, so that what was done before can be seen
            put(site.docroot("z/f2"), 9);
            own(site.docroot("z"), kBob, kServices);
        }
    }

    /// What an application left in a document root. @return its list, and things that never were.
    std::string make_instance(const Site& site)
    {
        Words listed = {"a"};
        for (unsigned files = 20 + below(150); files > 0; --files) {
            const std::string path = this->path(4);
            listed.push_back(path + "/f" + std::to_string(files));
            put(site.docroot(listed.back()), 9);
            listed.push_back(once_in(3) ? path : one_of(listed));
        }
        // Links that are listed and lead to what is listed, so that it matters which goes first.
        for (unsigned links = below(4); links > 0; --links) {
            const std::string path = this->path(2) + one_of({"", "l"});
            link(somewhere(site), site.docroot(path));
            listed.push_back(one_of({"./", "b/../", "", ""}) + path);
            for (unsigned times = 20; times > 0; --times)
                listed.push_back(one_of({path, one_of({"a", "b", "c"}) + "/l"}) + "/" + one_of(listed));
        }
        for (const std::string odd : {"a/", "a//b", "c/.", "d/f1/x", "no/f1", "/e"}) {
            if (once_in(16))
                listed.push_back(odd);
        }
        give(site, listed);
        return site.list(listed);
    }

private:
    std::string mappings()
    {
        const std::string writable = "<php:permissions writable='true'/>";
        std::string text = "<mapping url='/' path='htdocs'>" + one_of({"", "", writable}) + "</mapping>";
        for (const std::string url : {"a", "a/b/", "c//d", "b/./c", "a/b/..", "x/y", "d/l/b/"}) {
            if (once_in(8))
                text +=
                    "<mapping url='" + url + "' path='htdocs/" + path(2) + "'>" + one_of({"", writable}) + "</mapping>";
        }
        return text;
    }

    // What something else stands in the way of is not made.
    static void make(const std::string& path, mode_t mode = 0755)
    {
        boost::system::error_code error;
        if (fs::create_directories(path, error))
            ::chmod(path.c_str(), mode);
    }
    static void put(const std::string& path, unsigned size, mode_t mode = 0644)
    {
        make(path.substr(0, path.rfind('/')));
        std::ofstream(path) << path.substr(path.rfind("/f") + 1) << std::string(size, ' ');
        ::chmod(path.c_str(), mode);
    }
    static void link(const std::string& to, const std::string& path)
    {
        boost::system::error_code error;
        fs::create_symlink(to, path, error);
    }
    static void own(const std::string& path, uid_t owner, gid_t group)
    {
        const bool done = ::lchown(path.c_str(), owner, group) == 0;
        EXPECT_TRUE(done || errno == ENOENT || errno == ENOTDIR || errno == ELOOP) << path;
    }
    std::string somewhere(const Site& site)
    {
        return one_of({".", "..", "a", "a-b", "c/d", "/", "nowhere", site.docroot("b")});
    }
    /// All that is there is alice's, but some of what is named.
    void give(const Site& site, const Words& paths)
    {
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(site.docroot()))
            own(entry.path().native(), kAlice, kClients);
        for (const std::string& path : paths) {
            if (once_in(paths.size() < 20 ? 5 : 60))
                own(site.docroot(path), kBob, kServices);
        }
    }

    std::mt19937 engine_;
};

/// Runs both programs, each in a site of its own, and compares what they say and what they leave.
/// @param make  prepares a site and its input, and returns the command.
/// @param slow  a directory below the document root that is opened late.
template <class Make>
void expect_the_same(const std::string& limit, Make make, const std::string& slow = "")
{
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);  // which a tracer would be in the way of
    std::string outcomes[2];
    for (std::string& outcome : outcomes) {
        const Site site;
        site.put("");
        std::string input;
        Words words = make(site, input);
        // The tracer has threads take turns at each call, however few processors there are.
        Words tracer = {"prlimit", limit, "strace", "-fqqo", "/dev/null", "-e", "trace=/unlink|openat"};
        if (!slow.empty())
            tracer.insert(tracer.end(), {"-e", "inject=openat:delay_enter=100000", "-P", site.docroot(slow)});
        tracer.push_back(&outcome == outcomes ? ZENDREL_WORKERS_1 : ZENDREL_WORKERS_8);
        words.insert(words.begin(), tracer.begin(), tracer.end());
        std::ostringstream text;
        text << run(words, input) << site.listing();
        outcome = boost::replace_all_copy(text.str(), site.path(), "@");
    }
    EXPECT_EQ(outcomes[0], outcomes[1]);
}

TEST(Workers, InstallWhatOneDoes)
{
    const Words limits = {"--core=0", "--core=0", "--nofile=12", "--nproc=1", "--fsize=2500"};
    for (unsigned number = 0; number < kScenes; ++number) {
        SCOPED_TRACE(number);
        expect_the_same(limits[number % limits.size()], [number](const Site& site, std::string&) {
            Scene scene(number);
            scene.make_package(site);
            scene.make_site(site);
            return site.extract();
        });
    }
}

TEST(Workers, RemoveWhatOneDoes)
{
    const Words limits = {"--core=0", "--core=0", "--nofile=6", "--nproc=1"};
    for (unsigned number = 0; number < kScenes; ++number) {
        SCOPED_TRACE(number);
        expect_the_same(limits[number % limits.size()], [number](const Site& site, std::string& list) {
            list = Scene(number).make_instance(site);
            return site.remove();
        });
    }
}

TEST(Workers, InstallInTheirOrderWhatDependsOnIt)
{
    const std::pair<std::string, std::string> cases[] = {
        {"a directory that has to be opened receives directories only", "install -d -m 300 -o alice vhost/httpdocs/d"},
        {"the same, with an error before it", "install -d -m 300 -o alice vhost/httpdocs/d; mkfifo package/htdocs/a/p"},
        {"a link to what is open meanwhile", "ln -s /proc/self/fd/4 package/htdocs/m"},
        {"a link to what is installed later", "ln -s $PWD/vhost/httpdocs/z/f1 package/htdocs/m"},
        {"a link of the site to what is made later", "ln -s z vhost/httpdocs/d"},
        {"a link of the site to what has been made", "ln -s a vhost/httpdocs/d; mkdir -p package/htdocs/d/f1"},
        {"a file in the place of a directory", "echo >vhost/httpdocs/d"},
    };
    for (const auto& [why, prepare] : cases) {
        SCOPED_TRACE(why);
        expect_the_same("--core=0", [&prepare = prepare](const Site& site, std::string&) {
            site.metadata("<mapping url='/' path='htdocs'/>");
            site.shell("mkdir -p package/htdocs/d/d package/htdocs/a package/htdocs/z; cd package/htdocs\n"
                       "for i in $(seq 40); do echo $i | tee a/f$i d/d/f$i >z/f$i; done; cd ../..\n"
                       + prepare);
            return site.extract();
        });
    }
}

TEST(Workers, RemoveInTheirOrderWhatDependsOnIt)
{
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"by a link that is listed under another name", "m/l/", "d/l"},
        {"by a link that is listed, as if from the root", "/-l/", "-l"},
        {"by a way that comes after the directory", "d/../e/", "e"},
    };
    for (const auto& [why, files, other] : cases) {
        SCOPED_TRACE(why);
        expect_the_same(
            "--core=0",
            [&files = files, &other = other](const Site& site, std::string& list) {
                Words listed = {other};
                for (int i = 0; i < 400; ++i)
                    listed.push_back(files + std::to_string(i));
                list = site.list(listed);
                site.shell("cd vhost/httpdocs; mkdir d e; ln -s d m; ln -s ../e d/l; ln -s e ./-l\n"
                           "(cd e; seq 0 399 | xargs touch); chown -hR alice:oxacln .");
                return site.remove();
            },
            "m/l");
    }
}

}  // namespace
