// Several threads leave behind and say what one does, whatever is in their way.
#include "tests/support/Chance.h"

using namespace sandbox;

namespace {

constexpr unsigned kScenes = 40;

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
        std::string input;
        const Words command = make(site, input);
        // The tracer has threads take turns at each call, however few processors there are.
        Words tracer = {"prlimit", limit, "strace", "-fqqo", "/dev/null", "-e", "trace=/unlink|openat"};
        if (!slow.empty())
            tracer = tracer + Words {"-e", "inject=openat:delay_enter=100000", "-P", site.docroot(slow)};
        tracer.push_back(&outcome == outcomes ? ZENDREL_WORKERS_1 : ZENDREL_WORKERS_8);
        std::ostringstream text;
        text << site.plain(run(tracer + command, input)) << site.plain(prints(site.listing())).out;
        outcome = text.str();
    }
    EXPECT_EQ(outcomes[0], outcomes[1]);
}

std::string few_descriptors(int count)
{
#ifdef ZENDREL_SANITIZED  // where checks open some themselves
    count = 1024;
#endif
    return "--nofile=" + std::to_string(count);
}

TEST(Workers, InstallWhatOneDoes)
{
    const Words limits = {"--core=0", "--core=0", few_descriptors(12), "--nproc=1", "--fsize=2500"};
    for (unsigned number = 0; number < kScenes; ++number) {
        SCOPED_TRACE(number);
        expect_the_same(limits[number % limits.size()], [number](const Site& site, std::string&) {
            Chance chance(number, {"c//d", "b/./c", "a/b/..", "d/l/b/"});
            chance.package(site, 10 + chance.below(200));
            chance.populate(site.docroot(), chance.below(3) * chance.below(6));
            // An undo stops here, so that what was done before can be seen.
            site.shell(chance.once_in(3) ? "cd vhost/httpdocs; mkdir -p z; touch z/f2; chown bob:oxaserv z" : "");
            return site.extract();
        });
    }
}

TEST(Workers, RemoveWhatOneDoes)
{
    const Words limits = {"--core=0", "--core=0", few_descriptors(6), "--nproc=1"};
    for (unsigned number = 0; number < kScenes; ++number) {
        SCOPED_TRACE(number);
        expect_the_same(limits[number % limits.size()], [number](const Site& site, std::string& list) {
            list = Chance(number).instance(site);
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
            site.metadata("<m '/' path='htdocs'/>");
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
        const auto make = [&files = files, &other = other](const Site& site, std::string& list) {
            list = site.list({other + numbered(400, "</FILE><FILE>" + files, "")});
            site.shell("cd vhost/httpdocs; mkdir d e; ln -s d m; ln -s ../e d/l; ln -s e ./-l\n"
                       "(cd e; seq 0 399 | xargs touch); chown -hR alice:oxacln .");
            return site.remove();
        };
        expect_the_same("--core=0", make, "m/l");
    }
}

}  // namespace
