// Upgrades and rollbacks, of a site in use and with processes killed.

#include "tests/support/Sandbox.h"

#include <boost/algorithm/string.hpp>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

using namespace sandbox;

namespace {

class Upgrade : public testing::Test {
protected:
    /// Two versions of an application: "old" has a file that "new" lacks, and the other way round.
    Upgrade()
    {
        const std::string mappings =
            "<mapping url='/' path='htdocs'><mapping url='data'><php:permissions writable='true'/>"
            "<mapping url='fixed'/></mapping></mapping>";
        for (const std::string version : {"old", "new", "bad"}) {
            site_.write("package/htdocs/index.html", version);
            site_.write("package/htdocs/only/" + version, version);
            site_.write("package/htdocs/data/seed", version);
            site_.write("package/htdocs/data/untouched", version);
            site_.write("package/htdocs/data/fixed/f", version);
            site_.metadata(mappings);
            site_.write("package/scripts/configure",
                        "#!/bin/sh\nfor file in $2/*.txt; do test ! -f $file || echo $1 >>$file; done\n"
                        "test ! -e ${0%/*}/fails\n",
                        0755);
            site_.shell("sed -i 's#<version>2#<version>" + version
                        + "#; s#<mapping url=./#<configuration-script-language>"
                          "binary</configuration-script-language>&#' package/APP-META.xml; mv package "
                        + version);
        }
        site_.shell("ln -s nowhere bad/htdocs/dangling; chown alice:oxacln vhost/httpdocs");
        EXPECT_EQ(ctl({"deploy", "old"}).status, 0);
    }
    ~Upgrade() override { site_.shell("rm -rf " + kStore); }

    Result ctl(const Words& words, const Words& changes = {}) const
    {
        Words all = words;
        if (words.size() > 1)
            all[1] = site_.path(words[1]);
        Result result = zendrelctl(site_.ctl(all, changes));
        boost::replace_all(result.err, site_.path(), "@");
        return result;
    }
    /// What a site collects: by the web server, which also changes what was installed, and by its owner.
    void use() const
    {
        site_.put("app/data/entries", "1\n", 0644, kWebServer, kWebServer);
        site_.put("app/data/albums/", "", 0755, kWebServer, kWebServer);
        site_.put("app/data/albums/photo", "p", 0600, kWebServer, kWebServer);
        site_.put("app/data/private/", "", 0700, kWebServer, kWebServer);
        site_.put("app/data/private/key", "k", 0600, kWebServer, kWebServer);
        site_.put("app/data/seed", "grown", 0666, kAlice);
        site_.put("app/data/mine", "m", 0600, kAlice);
        site_.put("app/own.txt", "own\n", 0640, kAlice);
        site_.shell("ln -s data/entries vhost/httpdocs/app/link; chown -h alice:oxacln vhost/httpdocs/app/link");
    }
    /// All there is to know of the running tree, but for links that come and go.
    std::string state() const
    {
        return run({"find", site_.docroot("app"), "-printf", "%i %m %u %g %s %T@ %p %l\n"}).out;
    }

    static constexpr uid_t kWebServer = 33;
    const Site site_;
};

constexpr char kCollected[] = R"(
- 600 www-data:www-data: data/albums/photo=p data/private/key=k
- 606 alice:oxacln: data/mine=m
- 640 alice:oxacln: own.txt=own

- 644 alice:oxacln: data/fixed/f=# index.html=# only/#=#
- 644 www-data:www-data: data/entries=1

- 646 alice:oxacln: data/untouched=#
- 666 alice:oxacln: data/seed=grown
d 700 www-data:www-data: data/private
d 755 alice:oxacln: data/fixed only
d 755 www-data:www-data: data/albums
d 757 alice:oxacln: data
l 777 alice:oxacln: link=data/entries
)";

TEST_F(Upgrade, ExchangesTheTreeWithWhatTheSiteHasCollected)
{
    use();
    const std::string app = site_.docroot("app"), previous = site_.docroot(".app.previous");
    const std::string inode = run({"stat", "-c%i", app}).out;
    EXPECT_EQ(ctl({"upgrade", "new"}), (Result {0, "upgraded vhost-app from shop old-7 to shop new-7\n", ""}));
    EXPECT_EQ(site_.listing("vhost/httpdocs/app"), boost::replace_all_copy(std::string(kCollected), "#", "new"));
    EXPECT_EQ(run({"stat", "-c%i %a", previous}).out, inode.substr(0, inode.size() - 1) + " 700\n");

    // Who writes to a file writes to both; what is replaced, new or changed goes along.
    site_.shell(
        "cd vhost/httpdocs; echo 2 >>.app.previous/data/entries; echo q >app/data/photo.tmp\n"
        "chown www-data: app/data/photo.tmp; mv app/data/photo.tmp app/data/albums/photo\n"
        "rm app/data/private/key; echo n >app/data/new; chown www-data app/data/new; echo more >>app/data/seed");
    EXPECT_EQ(ctl({"rollback"}), (Result {0, "rolled vhost-app back from shop new-7 to shop old-7\n", ""}));
    EXPECT_EQ(
        run({"sh", "-c", "cd " + app + "; cat data/entries data/albums/photo data/new data/seed data/untouched only/*"})
            .out,
        "1\n2\nq\nn\ngrownmore\noldold");
    EXPECT_EQ(ctl({"verify"}).out,
              "vhost-app mode 0646 -> 0666 data/seed\nvhost-app changed data/seed\nvhost-app extra alice link\n"
              "vhost-app extra alice own.txt\n");

    // Forward again, then on: so many old trees are kept, the last one under its own name.
    EXPECT_EQ(ctl({"rollback"}).status, 0);
    EXPECT_EQ(ctl({"upgrade", "old", "--keep=2"}).status, 0);
    EXPECT_EQ(ctl({"upgrade", "new", "--keep=2"}).status, 0);
    EXPECT_EQ(run({"sh", "-c", "cd " + site_.docroot() + "; cat .app.prev*/index.html; ls -A"}).out,
              "newold.app.previous\n.app.previous.2\napp\n");  // "." comes before "/"
    EXPECT_EQ(ctl({"upgrade", "old", "--keep=0"}).status, 0);
    EXPECT_EQ(run({"ls", "-A", site_.docroot()}).out, "app\n");
    EXPECT_EQ(ctl({"rollback"}), says(1, "zendrelctl: nothing is kept of instance vhost-app\n"));
    EXPECT_EQ(ctl({"upgrade", "new"}).status, 0);
    site_.shell("rm -r vhost/httpdocs/.app.previous");
    EXPECT_EQ(ctl({"rollback"}), says(1, "zendrelctl: @/vhost/httpdocs/.app.previous: No such file or directory\n"));
    EXPECT_EQ(ctl({"upgrade", "old"}).status, 0);
}

TEST_F(Upgrade, DoesNothingToWhatIsInstalledAlready)
{
    use();
    const std::string before = state();
    EXPECT_EQ(ctl({"upgrade", "old"}), (Result {0, "vhost-app is shop old-7 already\n", ""}));
    EXPECT_EQ(state(), before);
    EXPECT_EQ(run({"ls", "-A", site_.docroot()}).out, "app\n");
    for (const std::string damage : {"rm -r vhost/httpdocs/app/only", "rm vhost/httpdocs/app/data/untouched",
                                     "echo x >vhost/httpdocs/app/index.html", "chmod 600 vhost/httpdocs/app/index.html",
                                     "echo x >old/htdocs/data/untouched",
                                     "sed -i 's/<release>7/<release>8/' old/APP-META.xml", ": a matter of --force"}) {
        site_.shell(damage);
        const Result result = ctl({"upgrade", "old", damage[0] == ':' ? "--force" : "--wait=0"});
        EXPECT_EQ(result.out.substr(0, result.out.find(' ')), "upgraded") << damage << result;
        const std::string left = ctl({"verify"}).out;
        EXPECT_EQ(left.find("index.html") + left.find("only") + left.find("untouched"), 3 * std::string::npos) << left;
    }
}

TEST_F(Upgrade, ThatFailsLeavesTheRunningTreeAsItWas)
{
    use();
    const std::string before = state();
    const std::string record = read(kStore + "vhost-app.json");
    site_.shell("cp -r new script; touch script/scripts/fails");
    site_.put("app/closed/", "", 0000, kAlice);
    const auto fails = [&](const Words& words, const std::string& message) {
        const Result result = ctl(words);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err.substr(result.err.rfind("zendrelctl: ")), "zendrelctl: " + message + "\n");
        EXPECT_EQ(read(kStore + "vhost-app.json"), record);
        EXPECT_EQ(run({"ls", "-A", site_.docroot()}).out, "app\n");
    };
    fails({"upgrade", "new"}, "closed cannot be taken over: Permission denied");
    site_.shell("rmdir vhost/httpdocs/app/closed; touch -d 2001-01-01 vhost/httpdocs/app/own.txt");
    const std::string used = state();
    fails({"upgrade", "bad"}, "the package has mistakes; --force goes on with them");
    fails({"upgrade", "bad", "--force"}, "the package was not extracted; the running application is as it was");
    fails({"upgrade", "script", "--script", "--script-parameter={application}"},
          "the package's script ended upgrade with status 1");
    fails({"upgrade", "none"}, "no directory with an unpacked package: @/none");
    EXPECT_EQ(state(), used);
    EXPECT_EQ(ctl({"upgrade", "new", "--script", "--script-parameter={application}"}).status, 0);
    EXPECT_EQ(read(site_.docroot("app/own.txt")), "own\nupgrade\n");
    EXPECT_EQ(read(site_.docroot(".app.previous/own.txt")), "own\n");
    EXPECT_EQ(run({"stat", "-c%Y", site_.docroot("app/data/entries")}).out,
              run({"stat", "-c%Y", site_.docroot(".app.previous/data/entries")}).out);
    EXPECT_NE(before, used);
}

TEST_F(Upgrade, IsRefusedWhereNothingCanBeExchanged)
{
    const Result refused = says(1,
                                "zendrelctl: @/vhost/httpdocs/app cannot be exchanged: alice may not write in "
                                "@/vhost/httpdocs; see --in-place\n");
    site_.shell("chown root vhost/httpdocs");
    EXPECT_EQ(ctl({"upgrade", "new"}), refused);
    use();
    site_.shell("rm -r vhost/httpdocs/app/data/private");  // which an extraction stumbles on
    EXPECT_EQ(ctl({"upgrade", "new", "--in-place"}),
              (Result {0, "upgraded vhost-app from shop old-7 to shop new-7\n", ""}));
    EXPECT_EQ(site_.tree("vhost/httpdocs/app/only"), (Tree {{"new", "- 644 alice:oxacln new"}}));
    EXPECT_EQ(run({"ls", "-A", site_.docroot()}).out, "app\n");
    EXPECT_EQ(read(site_.docroot("app/own.txt")), "own\n");
    site_.shell("chown alice vhost/httpdocs; mkdir vhost/httpdocs/.app.next");
    EXPECT_EQ(ctl({"upgrade", "old"}), says(1, "zendrelctl: @/vhost/httpdocs/.app.next is in the way\n"));
}

/// Whichever process of an upgrade or a rollback is killed, and when: the visitors see one of the two
/// releases, and the same command then goes on to its end.
TEST_F(Upgrade, GoesOnAfterAKill)
{
    use();
    site_.shell("chmod 606 vhost/httpdocs/app/data/mine");  // as an upgrade makes it
    int kills = 0;
    const auto killed = [&](const Words& words, const std::string& inject) {
        Words command = {"sh",
                         "-c",
                         "strace \"$@\" >/dev/null 2>&1",
                         "sh",
                         "-o",
                         site_.path("trace"),
                         "-fe",
                         "trace=" + inject.substr(0, inject.find(':')),
                         "-e",
                         "inject=" + inject,
                         ZENDREL_CONTROL_PROGRAM};
        const Words more = site_.ctl(words);
        command.insert(command.end(), more.begin(), more.end());
        static_cast<void>(run(command));
        // Processes that were left alone are at their end, too.
        static_cast<void>(run({"flock", kStore + "vhost-app.lock", "true"}));
        return read(site_.path("trace")).find("killed by SIGKILL") != std::string::npos;
    };
    for (const std::string call : {"fsync", "renameat2,rename", "linkat", "wait4", "mkdirat", "unlink,unlinkat"}) {
        bool again = true;
        for (int when = 1; again; ++when) {
            const std::string before = read(site_.docroot("app/index.html"));
            const Words words = before == "old" ? Words {"upgrade", site_.path("new")} : Words {"rollback"};
            again = killed(words, call + ":signal=KILL:when=" + std::to_string(when));
            const std::string seen = read(site_.docroot("app/index.html"));
            EXPECT_EQ(run({"ls", site_.docroot("app/only")}).out, seen + "\n");
            const Result result = zendrelctl(site_.ctl(words));
            const bool other = seen != before;  // a command that had come to its very end begins anew
            EXPECT_EQ(result.status, other && words[0] == "rollback" ? result.status : 0) << call << when << result;
            const std::string index = read(site_.docroot("app/index.html"));
            EXPECT_EQ(site_.listing("vhost/httpdocs/app"),
                      boost::replace_all_copy(std::string(kCollected), "#", index));
            EXPECT_EQ(run({"ls", "-A", site_.docroot()}).out, ".app.previous\napp\n");
            kills += again;
        }
    }
    EXPECT_GT(kills, 20);
}

/// Visitors sign and read a guestbook through a hundred upgrades and rollbacks, one in three of which fails.
TEST(Visitors, LoseNothingAndSeeNoError)
{
    const Site site;
    const std::string address = "127." + std::to_string(getpid()) + ":18081", url = "http://" + address + "/app/";
    site.shell(
        "for v in 1 2 bad; do cp -r " ZENDREL_SOURCE_DIR "/examples/packages/guestbook $v\n"
        "sed -i \"s#<version>1.0#<version>$v#\" $v/APP-META.xml; done; ln -s nowhere bad/htdocs/dangling\n"
        "chown alice vhost/httpdocs; mkdir server; cat >httpd.conf <<END\n"
        "$(for name in mpm_prefork authz_core mime cgi; do\n"
        "echo \"LoadModule ${name}_module /usr/lib/apache2/modules/mod_$name.so\"; done)\n"
        "ServerRoot $PWD/server\nDefaultRuntimeDir $PWD/server\nPidFile pid\nErrorLog log\nServerName localhost\n"
        "User www-data\nGroup www-data\nTypesConfig /dev/null\nDocumentRoot $PWD/vhost/httpdocs\n"
        "Listen "
        + address
        + "\n<Directory $PWD/vhost/httpdocs>\nOptions +ExecCGI\nAddHandler cgi-script .pl\n"
          "</Directory>\nEND");
    const auto ctl = [&site](const std::string& word, const std::string& package) {
        Words words = {word};
        if (!package.empty())
            words.insert(words.end(), {site.path(package), "--force"});
        return zendrelctl(site.ctl(words)).status;
    };
    ASSERT_EQ(ctl("deploy", "1"), 0);
    std::vector<pid_t> processes;
    const auto start = [&](const std::string& command) {
        processes.push_back(fork());
        if (processes.back() == 0 && setpgid(0, 0) == 0)
            _exit(execl("/bin/sh", "sh", "-c", ("cd " + site.path() + "\n" + command).c_str(), nullptr));
    };
    start("exec apache2 -f $PWD/httpd.conf -DFOREGROUND");
    while (run({"curl", "-so/dev/null", url}).status == 7)  // it does not listen yet
        ASSERT_EQ(waitpid(processes[0], nullptr, WNOHANG), 0) << read(site.path("server/log"));
    const std::string curl = "until test -e stop; do curl -so /dev/null -w '%{http_code}\n' " + url;
    for (const std::string name : {"ann", "ben"})
        start(curl + "cgi-bin/guestbook.pl -d name=" + name + " -d message=hello; done >" + name);
    start(curl + "cgi-bin/guestbook.pl; done >cat");
    start(curl + "index.html; done >dan");

    std::string newest = "1";
    for (int i = 0; i < 100; ++i) {
        const std::string next = newest == "1" ? "2" : "1";
        const int expected = i % 3 == 1 ? 1 : 0;
        EXPECT_EQ(i % 3 == 2 ? ctl("rollback", "") : ctl("upgrade", expected == 1 ? "bad" : next), expected) << i;
        newest = expected == 1 ? newest : next;
    }
    site.write("stop", "");
    for (std::size_t i = 1; i < processes.size(); ++i)
        EXPECT_EQ(waitpid(processes[i], nullptr, 0), processes[i]);
    EXPECT_EQ(kill(processes[0], SIGTERM), 0);
    EXPECT_EQ(waitpid(processes[0], nullptr, 0), processes[0]);

    const std::string signed_book = read(site.path("ann")) + read(site.path("ben"));
    EXPECT_EQ(boost::replace_all_copy(signed_book, "303\n", ""), "");
    EXPECT_EQ(boost::replace_all_copy(read(site.path("cat")) + read(site.path("dan")), "200\n", ""), "");
    const std::string entries = read(site.docroot("app/data/entries.txt"));
    EXPECT_EQ(std::count(entries.begin(), entries.end(), '\n'), signed_book.size() / 4);
    EXPECT_GT(signed_book.size(), 100 * 4);
    site.shell("rm -rf " + kStore);
}

}  // namespace
