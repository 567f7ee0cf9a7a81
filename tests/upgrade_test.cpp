// Upgrades and rollbacks, of a site in use and with processes killed.

#include "tests/support/Apache.h"

using namespace sandbox;

namespace {

class Upgrade : public testing::Test {
protected:
    /// Two versions of an application: "old" has a file that "new" lacks, and the other way round.
    Upgrade()
    {
        for (const std::string version : {"old", "new", "bad"}) {
            for (const std::string file : {"index.html", "only/", "data/seed", "data/untouched", "data/fixed/f"})
                site_.write("package/htdocs/" + (file == "only/" ? file + version : file), version);
            site_.metadata("<configuration-script-language>binary</configuration-script-language>"
                           "<m '/' path='htdocs'><m 'data'><p:permissions writable='true'/><m 'fixed'/></m></m>");
            site_.write("package/scripts/configure",
                        "#!/bin/sh\nfor file in $2/*.txt; do test ! -f $file || echo $1 >>$file; done\n"
                        "test ! -e ${0%/*}/fails\n",
                        0755);
            site_.shell("sed -i 's#<version>2#<version>" + version + "#' package/APP-META.xml; mv package " + version);
        }
        site_.shell("ln -s nowhere bad/htdocs/dangling; chown alice:oxacln vhost/httpdocs");
        EXPECT_EQ(ctl({"deploy", "old"}).status, 0);
    }

    Result ctl(const Words& words, const Words& changes = {}) const
    {
        Words all = words;
        if (words.size() > 1)
            all[1] = site_.path(words[1]);
        return site_.plain(zendrelctl(site_.ctl(all, changes)));
    }
    /// What a site collects: by the web server, which also changes what was installed, and by its owner.
    void use() const
    {
        site_.shell(
            "cd vhost/httpdocs/app/data; mkdir albums; mkdir -m 700 private; echo 1 >entries; printf p >albums/photo\n"
            "printf k >private/key; chown -R www-data: albums entries private; chmod 600 albums/photo private/key\n"
            "printf grown >seed; chmod 666 seed; printf m >mine; chmod 600 mine; echo own >../own.txt\n"
            "chmod 640 ../own.txt; ln -s data/entries ../link; chown -h alice:oxacln mine ../own.txt ../link");
    }
    /// All there is to know of the running tree, but for links that come and go.
    std::string state() const
    {
        return run({"find", site_.docroot("app"), "-printf", "%i %m %u %g %s %T@ %p %l\n"}).out;
    }

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
    site_.shell("chmod 711 vhost/httpdocs/app/only");
    const std::string inode = site_.output("stat -c%i vhost/httpdocs/app | tr -d '\\n'");
    EXPECT_EQ(ctl({"upgrade", "new"}), prints("upgraded vhost-app from shop old-7 to shop new-7\n"));
    const std::string collected = boost::replace_all_copy(std::string(kCollected), "#", "new");
    EXPECT_EQ(site_.listing("vhost/httpdocs/app"),
              boost::replace_first_copy(collected, "d 755 alice:oxacln: data/fixed only",
                                        "d 711 alice:oxacln: only\nd 755 alice:oxacln: data/fixed"));
    EXPECT_EQ(site_.output("stat -c'%i %a' vhost/httpdocs/.app.previous"), inode + " 700\n");

    // Who writes to a file writes to both; what is replaced, new or changed goes along.
    site_.shell(
        "cd vhost/httpdocs; echo 2 >>.app.previous/data/entries; echo q >app/data/photo.tmp\n"
        "chown www-data: app/data/photo.tmp; mv app/data/photo.tmp app/data/albums/photo\n"
        "rm app/data/private/key; echo n >app/data/new; chown www-data app/data/new; echo more >>app/data/seed");
    EXPECT_EQ(ctl({"rollback"}), prints("rolled vhost-app back from shop new-7 to shop old-7\n"));
    EXPECT_EQ(
        site_.output("cd vhost/httpdocs/app; cat data/entries data/albums/photo data/new data/seed data/untouched "
                     "only/*"),
        "1\n2\nq\nn\ngrownmore\noldold");
    EXPECT_EQ(ctl({"verify"}).out,
              "vhost-app mode 0646 -> 0666 data/seed\nvhost-app mode 0755 -> 0711 only\n"
              "vhost-app changed data/seed\nvhost-app extra alice link\nvhost-app extra alice own.txt\n");

    // Forward again, then on: so many old trees are kept, the last one under its own name.
    EXPECT_EQ(ctl({"rollback"}).status, 0);
    EXPECT_EQ(ctl({"upgrade", "old", "--keep=2"}).status, 0);
    EXPECT_EQ(ctl({"upgrade", "new", "--keep=2"}).status, 0);
    EXPECT_EQ(site_.output("cd vhost/httpdocs; cat .app.prev*/index.html; ls -A"),
              "newold.app.previous\n.app.previous.2\napp\n");  // "." comes before "/"
    EXPECT_EQ(ctl({"upgrade", "old", "--keep=0"}).status, 0);
    EXPECT_EQ(site_.output("ls -A vhost/httpdocs"), "app\n");
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
    const std::string record = read(kStore + "vhost-app.json");
    site_.shell("cp -r new script; touch script/scripts/fails; cp -r old same; ln -s nowhere same/htdocs/dangling\n"
                "cp -r old broken; echo '<x/>' >broken/APP-META.xml");
    site_.put("app/closed/", "", 0000, kAlice);
    const auto fails = [&](const Words& words, const std::string& message) {
        const Result result = ctl(words);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err.substr(result.err.rfind("zendrelctl: ")), "zendrelctl: " + message + "\n");
        EXPECT_EQ(read(kStore + "vhost-app.json"), record);
        EXPECT_EQ(site_.output("ls -A vhost/httpdocs"), "app\n");
    };
    fails({"upgrade", "new"}, "closed cannot be taken over: Permission denied");
    site_.shell("rmdir vhost/httpdocs/app/closed; touch -d 2001-01-01 vhost/httpdocs/app/own.txt");
    const std::string used = state();
    for (const std::string mistaken : {"bad", "same", "broken"})
        fails({"upgrade", mistaken}, "the package has mistakes; --force goes on with them");
    fails({"upgrade", "bad", "--force"}, "the package was not extracted; the running application is as it was");
    fails({"upgrade", "script", "--script", "--script-parameter={application}"},
          "the package's script ended upgrade with status 1");
    fails({"upgrade", "none"}, "no directory with an unpacked package: @/none");
    EXPECT_EQ(state(), used);
    EXPECT_EQ(ctl({"upgrade", "new", "--script", "--script-parameter={application}"}).status, 0);
    EXPECT_EQ(read(site_.docroot("app/own.txt")), "own\nupgrade\n");
    EXPECT_EQ(read(site_.docroot(".app.previous/own.txt")), "own\n");
    site_.shell("cd vhost/httpdocs; test $(stat -c%Y app/data/entries) = $(stat -c%Y .app.previous/data/entries)");
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
    EXPECT_EQ(ctl({"upgrade", "new", "--in-place"}), prints("upgraded vhost-app from shop old-7 to shop new-7\n"));
    EXPECT_EQ(site_.tree("vhost/httpdocs/app/only"), (Tree {{"new", "- 644 alice:oxacln new"}}));
    EXPECT_EQ(site_.output("ls -A vhost/httpdocs"), "app\n");
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
    for (const std::string call : {"fsync", "renameat2,rename", "linkat", "wait4", "mkdirat", "unlink,unlinkat"}) {
        bool again = true;
        for (int when = 1; again; ++when) {
            const std::string before = read(site_.docroot("app/index.html"));
            const Words words = before == "old" ? Words {"upgrade", site_.path("new")} : Words {"rollback"};
            again = site_.kills(words, call, when);
            const std::string seen = read(site_.docroot("app/index.html"));
            EXPECT_EQ(site_.output("ls vhost/httpdocs/app/only"), seen + "\n");
            const Result result = zendrelctl(site_.ctl(words));
            const bool other = seen != before;  // a command that had come to its very end begins anew
            EXPECT_EQ(result.status, other && words[0] == "rollback" ? result.status : 0) << call << when << result;
            const std::string index = read(site_.docroot("app/index.html"));
            EXPECT_EQ(site_.listing("vhost/httpdocs/app"),
                      boost::replace_all_copy(std::string(kCollected), "#", index));
            EXPECT_EQ(site_.output("ls -A vhost/httpdocs"), ".app.previous\napp\n");
            kills += again;
        }
    }
    EXPECT_GT(kills, 20);
}

/// Visitors sign and read a guestbook through a hundred upgrades and rollbacks, one in three of which fails.
TEST(Visitors, LoseNothingAndSeeNoError)
{
    const Site site;
    site.shell("for v in 1 2 bad; do cp -r " ZENDREL_SOURCE_DIR "/examples/packages/guestbook $v\n"
               "sed -i \"s#<version>1.0#<version>$v#\" $v/APP-META.xml; done; ln -s nowhere bad/htdocs/dangling\n"
               "chown alice vhost/httpdocs");
    const auto ctl = [&site](const std::string& word, const std::string& package) {
        const Words operands = {site.path(package), "--force"};
        return zendrelctl(site.ctl(Words {word} + (package.empty() ? Words() : operands))).status;
    };
    ASSERT_EQ(ctl("deploy", "1"), 0);
    Apache apache(site, "<Directory $PWD/vhost/httpdocs>\nOptions +ExecCGI\nAddHandler cgi-script .pl\n</Directory>");
    apache.restart("-Dcgi -Dnophp");
    std::vector<pid_t> visitors;
    const auto start = [&](const std::string& request, const std::string& name) {
        const std::string curl = "curl -so /dev/null -w '%{http_code}\n' " + apache.address() + "/app/" + request;
        visitors.push_back(fork());
        if (visitors.back() == 0)
            _exit((site.shell("until test -e stop; do " + curl + "; done >" + name), 0));
    };
    for (const std::string name : {"ann", "ben"})
        start("cgi-bin/guestbook.pl -d name=" + name + " -d message=hello", name);
    start("cgi-bin/guestbook.pl", "cat");
    start("index.html", "dan");

    std::string newest = "1";
    for (int i = 0; i < 100; ++i) {
        const std::string next = newest == "1" ? "2" : "1";
        const int expected = i % 3 == 1 ? 1 : 0;
        EXPECT_EQ(i % 3 == 2 ? ctl("rollback", "") : ctl("upgrade", expected == 1 ? "bad" : next), expected) << i;
        newest = expected == 1 ? newest : next;
    }
    site.write("stop", "");
    for (const pid_t visitor : visitors)
        EXPECT_EQ(waitpid(visitor, nullptr, 0), visitor);

    const std::string signed_book = read(site.path("ann")) + read(site.path("ben"));
    EXPECT_EQ(boost::replace_all_copy(signed_book, "303\n", ""), "");
    EXPECT_EQ(boost::replace_all_copy(read(site.path("cat")) + read(site.path("dan")), "200\n", ""), "");
    const std::string entries = read(site.docroot("app/data/entries.txt"));
    EXPECT_EQ(std::count(entries.begin(), entries.end(), '\n'), signed_book.size() / 4);
    EXPECT_GT(signed_book.size(), 100 * 4);
}

}  // namespace
