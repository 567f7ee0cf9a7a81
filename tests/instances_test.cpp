// Instances on record: deployed, compared, removed, and kept from two commands at a time.

#include "tests/support/Sandbox.h"

#include <sys/file.h>

using namespace sandbox;

namespace {

class Instances : public testing::Test {
protected:
    Instances()
    {
        site_.write("package/htdocs/index.html", "i");
        site_.write("package/htdocs/a & <b>", "odd");
        site_.write("package/htdocs/cgi/run.pl", "r");
        site_.write("package/htdocs/data/seed", "s");
        site_.write("package/scripts/configure", "#!/bin/sh\necho $*; test ! -e ${0%/*}/fails\n", 0755);
        site_.metadata("<configuration-script-language>binary</configuration-script-language>"
                       "<m '/' path='htdocs'><m 'cgi'><c:handler><c:extension>pl</c:extension>"
                       "</c:handler></m><m 'data'><p:permissions writable='true'/></m></m>");
        site_.shell("chown alice:oxacln vhost/httpdocs");
    }

    /// A command on this site, and on the package where it takes one.
    Result ctl(const Words& words, const Words& changes = {}) const
    {
        Words all = words;
        if (words[0] == "deploy" || words[0] == "plan")
            all.insert(all.begin() + 1, site_.path("package"));
        return site_.plain(zendrelctl(site_.ctl(all, changes)));
    }
    /// One on all instances.
    Result all(const Words& words) const { return site_.plain(zendrelctl(words)); }
    static Result fails(const std::string& text) { return says(1, "zendrelctl: " + text + "\n"); }

    const Site site_;
    const std::string deployed_ = "installed shop 2-7 in @/vhost/httpdocs/app as vhost-app\n";
};

TEST_F(Instances, AreDeployedComparedAndRemoved)
{
    EXPECT_EQ(ctl({"deploy", "--script", "--script-parameter=--in={application}"}),
              prints("install --in=@/vhost/httpdocs/app\n" + deployed_));
    EXPECT_EQ(all({"instances"}), prints("vhost-app shop 2-7 installed @/vhost/httpdocs/app\n"));
    EXPECT_EQ(site_.listing("vhost/httpdocs/app"),
              "\n- 644 alice:oxacln: a & <b>=odd index.html=i\n- 646 alice:oxacln: data/seed=s\n- 755 alice:oxacln: "
              "cgi/run.pl=r\nd 755 alice:oxacln: cgi\nd 757 alice:oxacln: data\n");
    EXPECT_EQ(all({"verify"}), prints(""));
    EXPECT_EQ(run({"find", "/var/lib/zendrel", "-printf", "%m %f\n"}).out.find("44"), std::string::npos);

    const std::pair<std::string, std::string> damages[] = {
        {"mv package away; rm app/index.html", "missing index.html\n"},
        {"rm -r app/cgi", "missing cgi\nmissing cgi/run.pl\n"},
        {"echo >>app/index.html", "changed index.html\n"},
        {"echo x >app/data/seed", "changed data/seed\n"},
        {"chmod 600 app/index.html", "mode 0644 -> 0600 index.html\n"},
        {"chmod 700 app", "mode 0755 -> 0700 .\n"},
        {"chown bob app/cgi", "owner bob cgi\n"},
        {"chown bob app/index.html; chmod 0 app/index.html",
         "mode 0644 -> 0000 index.html\nowner bob index.html\nunreadable Permission denied index.html\n"},
        {"mv app/cgi app/x; ln -s x app/cgi",  // a known name in the way is told once
         "extra alice x\nmissing cgi/run.pl\ntype is no directory cgi\n"},
        {"rm app/index.html; ln -s /etc/passwd app/index.html", "type is no file index.html\n"},
        {"mkdir app/d app/data/d; touch app/d/f app/data/f 'app/n\nw'", "extra root d\nextra root n\\x0aw\n"},
        {"rm -r app; ln -s package/htdocs app",
         "missing .\nmissing a & <b>\nmissing cgi\nmissing cgi/run.pl\nmissing data\nmissing data/seed\n"
         "missing index.html\n"},
    };
    site_.shell("cp -a vhost/httpdocs/app sound");
    const std::string verify = "{ " ZENDREL_CONTROL_PROGRAM " verify --instance=vhost-app; echo $?; }";
    for (const auto& [damage, found] : damages) {
        site_.shell("cd vhost/httpdocs; mkdir -p package; " + damage);
        EXPECT_EQ(site_.output(verify + " | sed 's/^vhost-app //' | LC_ALL=C sort"), "2\n" + found) << damage;
        site_.shell("rm -rf vhost/httpdocs/*; cp -a sound vhost/httpdocs/app");
    }

    site_.put("app/data/photo", "p", 0644, 33, 33);
    site_.write("package/scripts/fails", "");
    EXPECT_EQ(ctl({"remove"}).err, "zendrelctl: the package's script ended remove with status 1\n");
    EXPECT_EQ(all({"verify"}), prints(""));
    site_.shell("rm package/scripts/fails; cp " + kStore + "vhost-app.xml list");
    const Result removed = ctl({"remove", "--script-parameter=x"});
    EXPECT_EQ(removed.out,
              "remove x\nleft alice @/vhost/httpdocs/app/data\nleft www-data @/vhost/httpdocs/app/data/photo\n"
              "removed shop 2-7 from @/vhost/httpdocs/app\n");
    EXPECT_EQ(site_.listing(),
              "\n- 644 www-data:www-data: app/data/photo=p\nd 755 alice:oxacln: app\n"
              "d 757 alice:oxacln: app/data\n");
    EXPECT_EQ(all({"instances"}), prints(""));
    EXPECT_EQ(all({"instances", "--json"}), prints("[]\n"));
    EXPECT_EQ(ctl({"remove"}), fails("no instance is recorded in @/vhost/httpdocs/app"));

    // What a program has to know to tell whether another deployment would differ.
    ASSERT_EQ(ctl({"deploy", "--script-parameter=a b", "--skip-webserver-write"}), prints(deployed_));
    const std::string told = all({"instances", "--json"}).out;
    EXPECT_NE(
        told.find("\"package-directory\": \"@/package\",\n    \"options\": {\n      \"metadata-file\": \"\",\n"
                  "      \"skip-webserver-write\": true,\n      \"script\": false,\n"
                  "      \"script-parameters\": [\n        \"a b\"\n      ],\n      \"apache-conf\": \"\"\n    }"),
        std::string::npos)
        << told;
    EXPECT_EQ(ctl({"remove"}).status, 0);

    // The recorded list is what removal takes by itself.
    ASSERT_EQ(ctl({"deploy"}), prints(deployed_));
    EXPECT_EQ(read(kStore + "vhost-app.xml"), read(site_.path("list")));
    EXPECT_EQ(zendrel(site_.remove({"--application-subdirectory=app"}), read(site_.path("list"))).status, 0);
    EXPECT_EQ(site_.listing(),
              "\n- 644 www-data:www-data: app/data/photo=p\nd 755 alice:oxacln: app\n"
              "d 757 alice:oxacln: app/data\n");
}

TEST_F(Instances, AreNotDeployedByMistake)
{
    const std::string plain = ": letters, digits, \".\", \"-\" and \"_\" make a name";
    const std::pair<Words, std::string> refused[] = {
        {{"--user-name=nobody-here"}, "no such user: nobody-here"},
        {{"--user-name=root"}, "a site cannot belong to root: root"},
        {{"--www-root=httpdocs"}, "--www-root is no absolute path: httpdocs"},
        {{"--vhost-path=/a/../b"}, "--vhost-path has a \"..\": /a/../b"},
        {{"--application-subdirectory=a/.."}, "--application-subdirectory has a \"..\": a/.."},
        {{"--frobnicate"}, "unrecognised option '--frobnicate'"},
    };
    for (const auto& [changes, message] : refused) {
        for (const std::string command : {"deploy", "plan"})
            EXPECT_EQ(ctl({command}, changes), fails(message)) << command;
    }
    EXPECT_EQ(ctl({"deploy", "--instance=../x"}), fails("an instance cannot be called \"../x\"" + plain));
    EXPECT_EQ(ctl({"deploy", "--metadata-file=/none"}), fails("cannot read /none"));
    EXPECT_EQ(zendrelctl({"deploy"}), fails("no PACKAGE given; see zendrelctl deploy --help"));
    EXPECT_EQ(zendrelctl({"frob"}), fails("no such command: frob; see zendrelctl --help"));
    EXPECT_EQ(zendrelctl({"verify", "--instance=none"}), fails("no instance is recorded as none"));
    EXPECT_EQ(site_.listing(), "\n");

    // An extraction that fails is no instance; a script that fails is one to go on with.
    site_.shell("ln -s nowhere package/htdocs/dangling");
    EXPECT_EQ(ctl({"deploy"}).err.substr(0, 6), "error ");
    EXPECT_EQ(ctl({"deploy", "--force"}).status, 1);
    EXPECT_EQ(all({"instances"}), prints(""));
    site_.shell("rm package/htdocs/dangling; touch package/scripts/fails; mkdir -p vhost/httpdocs/app/index.html/x; "
                "chown -R alice: vhost/httpdocs/app");
    EXPECT_EQ(ctl({"deploy"}).err,
              "fail index.html: Directory not empty\nzendrelctl: the extraction would fail; --force "
              "tries it all the same\n");
    site_.shell("rm -r vhost/httpdocs/app");
    EXPECT_EQ(ctl({"deploy", "--script"}).err, "zendrelctl: the package's script ended install with status 1\n");
    EXPECT_EQ(all({"instances"}), prints("vhost-app shop 2-7 deploying @/vhost/httpdocs/app\n"));
    EXPECT_EQ(ctl({"upgrade", site_.path("package")}), fails("instance vhost-app is recorded as deploying"));
    EXPECT_EQ(all({"verify"}), prints("vhost-app unfinished deploying\n", 2));
    EXPECT_EQ(ctl({"deploy", "--instance=other"}), fails("@/vhost/httpdocs/app already has instance vhost-app"));
    EXPECT_EQ(ctl({"deploy", "--instance=vhost-app"}, {"--application-subdirectory=x"}),
              fails("instance vhost-app is being deployed to @/vhost/httpdocs/app"));
    EXPECT_EQ(ctl({"deploy"}), prints(deployed_));
    EXPECT_EQ(ctl({"deploy"}), fails("instance vhost-app is recorded as installed"));

    site_.shell("echo '{}' >" + kStore + "bad.json");
    const Result bad = all({"instances"});
    EXPECT_EQ(bad.err.find("zendrelctl: a record cannot be read: "), 0u) << bad;
    site_.shell("rm " + kStore + "bad.json; sed -i 's/\"format\": 1/\"format\": 2/' " + kStore + "vhost-app.json");
    EXPECT_EQ(all({"verify"}), fails("a record was written by a newer zendrelctl"));
}

TEST_F(Instances, TakeOneCommandAtATime)
{
    ASSERT_EQ(ctl({"deploy"}), prints(deployed_));
    const std::string path = kStore + "vhost-app.lock";
    site_.shell("printf '4711 (upgrade)' >" + path);
    const int lock = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    EXPECT_EQ(ctl({"remove"}), fails("instance vhost-app is in use by process 4711 (upgrade)"));
    EXPECT_EQ(all({"verify"}), prints(""));
    // Who waits is seen to have opened the lock before it is given free.
    const pid_t waiting = fork();
    if (waiting == 0)
        _exit(ctl({"remove", "--wait=300"}).status);
    while (run({"sh", "-c", "ls -l /proc/[0-9]*/fd 2>/dev/null | grep -c '" + path + "'"}).out == "1\n") { }
    EXPECT_EQ(flock(lock, LOCK_UN), 0);
    int status = -1;
    EXPECT_EQ(waitpid(waiting, &status, 0), waiting);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(site_.listing(), "\n");

    // Of many that begin at once, one installs.
    const auto deploy = ZENDREL_CONTROL_PROGRAM " " + boost::join(site_.ctl({"deploy", site_.path("package")}), " ");
    const Result many =
        run({"sh", "-c", "for i in 1 2 3 4 5 6 7 8; do " + deploy + " --instance=i$i 2>/dev/null & done; wait"});
    EXPECT_EQ(std::count(many.out.begin(), many.out.end(), '\n'), 1) << many;
    EXPECT_EQ(all({"verify"}), prints(""));
}

/// A full disk, and a kill at each step: the record tells how far a command was, and it goes on.
TEST_F(Instances, SurviveAFullDiskAndAKill)
{
    // What is written, but not on standard streams, is the record: a hundred bytes have room for the lock alone.
    const Result full = zendrelctl(site_.ctl({"deploy", site_.path("package")}), "", {100, 0});
    EXPECT_EQ(full.err.find("zendrelctl: cannot write " + kStore + "vhost-app."), 0u) << full;
    EXPECT_NE(full.err.find(": File too large"), std::string::npos) << full;
    EXPECT_EQ(site_.listing(), "\n");
    EXPECT_EQ(all({"instances"}), prints(""));

    int kills = 0;
    for (const std::string word : {"deploy", "remove"}) {
        for (const std::string call : {"fsync", "rename", "wait4", "clone,clone3,fork,vfork", "unlink,unlinkat"}) {
            bool killed = true;
            for (int when = 1; killed; ++when) {
                ctl({word == "deploy" ? "remove" : "deploy"});
                const Words package = {word, site_.path("package")};
                killed = site_.kills(word == "deploy" ? package : Words {word}, call, when);
                kills += killed;
                const bool done = (all({"instances"}).out.find("installed") != std::string::npos) == (word == "deploy");
                const Result result = ctl({word});
                EXPECT_TRUE(result.status == 0 || done) << call << when << result;
                EXPECT_EQ(all({"verify"}), prints("")) << call << when;
                EXPECT_EQ(site_.tree().empty(), word == "remove");
            }
        }
    }
    EXPECT_GT(kills, 30);
}

}  // namespace
