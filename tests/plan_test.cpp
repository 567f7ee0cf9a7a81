#include "tests/support/Chance.h"

#include <boost/filesystem.hpp>

#include <nlohmann/json.hpp>

#include <set>

using namespace sandbox;
namespace fs = boost::filesystem;

namespace {

using Json = nlohmann::json;

constexpr char kWithData[] = "<m '/' path='htdocs'><m 'bin'><c:handler><c:all-files/></c:handler></m><m 'data'>"
                             "<p:permissions writable='true'/><m 'in'/></m></m>";

/// A line of a tree: "type mode owner:group content".
struct Line {
    explicit Line(const std::string& line)
        : kind(line[0] == 'd' ? "dir" : "file"), mode(line.substr(2, line.find(' ', 2) - 2)),
          owner(line.substr(line.find(' ', 2))), content(owner.substr(std::min(owner.find(' ', 1), owner.size())))
    {
        mode.insert(0, 4 - mode.size(), '0');
    }
    std::string kind, mode, owner, content;
};

class Plan : public testing::Test {
protected:
    void package(const Words& files, const std::string& mappings = kWithData) const { site_.pack(files, mappings); }
    /// In what it prints, "@" is the site's directory.
    Result plan(const Words& options = {}) const
    {
        const Words words = site_.ctl({"plan", site_.path("package")}, {"--application-subdirectory=" + subdirectory_});
        return site_.plain(zendrelctl(changed(words, options)));
    }

    std::string app() const { return site_.path("vhost/httpdocs") + (subdirectory_ == "." ? "" : "/" + subdirectory_); }
    /// A path of the plan in full.
    std::string whole(const std::string& path) const
    {
        return path[0] == '@' ? site_.path(path.substr(2)) : path == "." ? app() : app() + "/" + path;
    }
    /// The place that it means: links on its way are followed, as far as it is there.
    std::string place(const std::string& path) const
    {
        const fs::path top = fs::canonical(site_.vhost()), full = whole(path);
        return (fs::weakly_canonical(full.parent_path()) / full.filename()).lexically_relative(top).native();
    }

    /// Plans, extracts, and compares what has happened with what was planned.
    /// @return whether nothing is to fail.
    bool compare(const Words& options = {}) const
    {
        const Tree before = site_.tree("vhost");
        const Result told = plan(options + Words {"--json"});
        EXPECT_EQ(site_.tree("vhost"), before);
        const Json planned = Json::parse(told.out, nullptr, false);
        if (!planned.is_object()) {
            ADD_FAILURE() << told;
            return false;
        }
        EXPECT_EQ(told.status, planned["changes"] ? 2 : 0);
        std::set<std::string> atStake;
        for (const Json& path : planned["undo"])
            atStake.insert(place(path));
        const Result done = zendrel(site_.extract(options + Words {"--application-subdirectory=" + subdirectory_}));
        const Tree after = site_.tree("vhost");
        if (told.out.find("cannot be looked into now") != std::string::npos)
            return false;  // not all of it can be told
        EXPECT_EQ(planned["failures"].empty(), done.status == 0) << done << planned["failures"];
        if (done.status == 0)
            compare_steps(planned["steps"], before, after);
        else if (!planned["failures"].empty())
            compare_undo(planned, done, atStake, before, after);
        return planned["failures"].empty();
    }

    void compare_steps(const Json& steps, const Tree& before, const Tree& after) const
    {
        std::map<std::string, Json> byPlace;
        for (const Json& step : steps)
            EXPECT_TRUE(byPlace.emplace(place(step["path"]), step).second) << step << " comes twice";
        for (const auto& [path, line] : before)
            EXPECT_EQ(after.count(path), 1u) << path << " is gone";
        for (const auto& [path, line] : after) {
            const Json step = byPlace.count(path) != 0 ? byPlace[path] : Json {{"action", "keep"}};
            const auto old = before.find(path);
            EXPECT_EQ(happened(old == before.end() ? "" : old->second, line, step.value("replaced", "")),
                      described(step))
                << path;
            byPlace.erase(path);
        }
        for (const auto& [path, step] : byPlace)
            EXPECT_EQ(step["path"], ".");  // of the document root, which is not in the tree
    }

    static std::string described(const Json& step)
    {
        const std::string action = step["action"], before = step.value("before", ""), mode = step.value("mode", "");
        if (action == "keep" || (action == "replace" && step["replaced"] == "equal" && before == mode))
            return "nothing";
        return action + " " + step.value("replaced", std::string(step["type"])) + " " + before + " " + mode;
    }

    /// The same of what is seen; an equal file is not told from one that was left alone.
    static std::string happened(const std::string& from, const std::string& to, const std::string& told)
    {
        if (from == to)
            return "nothing";
        const Line now(to);
        if (from.empty())
            return "create " + now.kind + "  " + now.mode;
        const Line old(from);
        const std::string modes = " " + old.mode + " " + now.mode;
        if (from[0] == to[0] && old.owner == now.owner)
            return (told.empty() ? "mode " + now.kind : "replace equal") + modes;
        const std::string kind = from[0] == 'd' ? "dir"
            : from[0] == 'l'                    ? "link"
            : old.content == now.content        ? "foreign"
                                                : "different";
        return "replace " + kind + modes;
    }

    void compare_undo(const Json& planned, const Result& done, const std::set<std::string>& atStake, const Tree& before,
                      const Tree& after) const
    {
        // Of several in one mapping, the order of a directory tells which comes first.
        const Json& failures = planned["failures"];
        EXPECT_TRUE(std::any_of(failures.begin(), failures.end(),
                                [&](const Json& failure) {
                                    return failure["reason"] == failures[0]["reason"]
                                        && done.err.find(whole(failure["path"])) != std::string::npos;
                                }))
            << done << failures;
        std::set<std::string> gone;
        for (const auto& [old, line] : before) {
            if (after.count(old) == 0)
                gone.insert(old);
        }
        if (!planned["undone"])
            EXPECT_EQ(gone, std::set<std::string>());
        else if (planned["undo-ends"].empty())
            EXPECT_EQ(gone, atStake) << planned["undo"] << done;
        else
            EXPECT_TRUE(std::includes(atStake.begin(), atStake.end(), gone.begin(), gone.end())) << planned;
    }

    Site site_;
    std::string subdirectory_ = "app";
};

TEST_F(Plan, ForetellsWhatAnExtractionDoesToAnySite)
{
    const char* const wish = std::getenv("PLAN_SEEDS");  // such as "1000": many more
    const unsigned count = wish == nullptr ? 60 : static_cast<unsigned>(std::atoi(wish));
    for (unsigned seed = 0; seed < count && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        Chance chance(seed);
        subdirectory_ = chance.one_of({".", "app", "app", "b/app"});
        site_.shell("rm -rf package vhost; mkdir -p " + app() + "; chown -R alice:oxacln vhost");
        chance.package(site_, 8);
        chance.populate(app(), 9);
        const Words options = chance.once_in(5) ? Words {"--skip-webserver-write"} : Words();
        if (compare(options))
            compare(options);  // over itself
    }
}

/// What chance seldom comes to.
TEST_F(Plan, ForetellsWhatIsRare)
{
    const std::string prepare[] = {
        "chown alice:oxaserv data; chmod 2755 data",  // loses the bit, as alice is not in the group
        "chown alice:oxacln data; chmod 2755 data",
        "chown alice:oxaserv . data; chmod 2755 .",  // hands its group on
        "mkdir bin; chown bob bin; chmod 1777 bin; echo >bin/p; chown www-data bin/p",
        "mkdir bin; chown bob bin; chmod 1777 bin; echo >bin/p; chown alice bin/p",
        "mkdir real; chown alice real; chmod 500 real; ln -s real bin",  // not opened by way of a link
        "mkdir real; chown alice real; touch real/kept real/p; ln -s real bin; mkdir -p z/full",
        "mkdir -p bin; chown alice bin; chmod 500 bin; touch bin/kept; mkdir -p a/full",  // fails before it is opened
        "mkdir -p a bin/p; touch data/f; chown bob data/f; chmod 777 data",               // nothing is in a
        "rm -r data; mkdir real; ln -s real data",
        "cp -p ../../../package/htdocs/a .; touch -d 2000-01-01 a; chown bob a",
    };
    for (const std::string& commands : prepare) {
        SCOPED_TRACE(commands);
        package({"a", "bin/p", "data/f", "data/in/g", "z"});
        site_.shell("a=$PWD/vhost/httpdocs/app; rm -rf $a; mkdir -p $a/data; chown -R alice:oxacln $a; cd $a\n"
                    + commands);
        if (compare())
            compare();
    }
}

TEST_F(Plan, IsReadByPeople)
{
    package({"a", "bin/p", "data/f", "data/in/g", "\xff\n"});
    EXPECT_EQ(plan(),
              prints(R"(create dir 0755 .
create file 0644 a
create dir 0755 bin
create file 0755 bin/p
create dir 0757 data
create file 0646 data/f
create dir 0755 data/in
create file 0644 data/in/g
create file 0644 \xff\x0a
program bin/p
writable data
writable data/f
9 to create, 0 to replace (0 equal), 0 to keep, 0 modes to change, 0 failures; an undo would remove 0 existing entries
)",
                     2));
    EXPECT_EQ(zendrel(site_.extract({"--application-subdirectory=app"})), says(0, ""));
    EXPECT_EQ(plan().status, 0);
    EXPECT_EQ(plan({"--skip-webserver-write"}).status, 2);  // a new file would not be writable
    EXPECT_NE(plan({"--json"}).out.find("\"\xef\xbf\xbd\\n\""), std::string::npos);
    site_.shell("cd vhost/httpdocs/app; printf A >a; chmod 700 bin/p; rm data/f; ln -s ../a data/f\n"
                "touch data/his data/in/his; chown alice data/h* data/in/h*; chmod 500 bin; mkfifo own\n"
                "touch data/hers; chown bob data/hers; mkdir bin/more");
    EXPECT_EQ(plan(),
              prints(R"(keep dir .
replace different 0644 a
mode 0500 -> 0700 bin
replace equal 0700 -> 0755 bin/p
keep dir data
replace link 0777 -> 0646 data/f
keep dir data/in
replace equal 0644 data/in/g
replace equal 0644 \xff\x0a
mode 0644 -> 0646 data/his
program bin/p
writable data/f
writable data/his
0 to create, 5 to replace (3 equal), 3 to keep, 2 modes to change, 0 failures; an undo would remove 14 existing entries
)",
                     2));
}

TEST_F(Plan, TellsWhatFailsAndWhatThatTakesAlong)
{
    const std::string none = "undo would remove ", nowhere = site_.path("nowhere");
    const std::string own = none + ".\n" + none + "own\n" + none + "own/er\n";
    const std::string gone = none + ".\n" + none + "data\n", rest = own.substr(own.find('\n') + 1);
    const struct {
        std::string prepare, expected;
        Words options = {};
    } cases[] = {
        {"ln -s nowhere z", "fail z: package/htdocs/z: No such file or directory\n" + own},
        {"echo >z; chmod 600 z", "fail z: package/htdocs/z: Permission denied\n" + own},
        {"mkdir -m 700 z", "fail @/package/htdocs/z: Permission denied\n"},
        {"mkfifo z", "fail z: package/htdocs/z: Operation not supported\n" + own},
        {"perl -MSocket -e 'socket S, PF_UNIX, SOCK_STREAM, 0; bind S, pack_sockaddr_un(\"z\")'",
         "fail z: package/htdocs/z: No such device or address\n" + own},
        {"touch z; mkdir -p $d/z/full; chown alice $d/z",
         "fail z: Directory not empty\n" + own + none + "z\n" + none + "z/full\n"},
        {"mkdir -p z/y; touch z/y/x z/w $d/z; ln -s nowhere zz",
         "fail z: a file stands where a directory must go\nfail zz: package/htdocs/zz: No such file or directory\n"
             + own + none + "z\n"},
        {"mkdir -p z/y; ln -s nowhere $d/z",
         "fail z: a link that leads nowhere stands where a directory must go\n" + own + none + "z\n"},
        // Full of another user's, a directory holds the undo up, and those that it is in.
        {"mkdir z; touch z/x z/y; mkdir -p $d/z/kept; chown bob:oxaserv $d/z",
         "warn z: its mode is another user's to change\nfail z/x: Permission denied\n" + rest
             + "undo would end at z: Permission denied\n"},
        {"mkdir $d/data; ln -s ../own $d/data/l; chown alice $d/data",
         "fail data/l: neither a file nor a directory, in a writable mapping\n" + gone + none + "data/l\n" + rest},
        {"mkdir $d/data; ln -s ../own $d/data/l; chown alice $d/data", "", {"--skip-webserver-write"}},
        {"mkdir -p $d/data/r; touch $d/data/r/f; chown -R alice $d/data; chmod 644 $d/data/r",
         "warn data/r: cannot be looked into now: what happens there is not told\n"},
        {"rm -r data/in; mkdir -m 775 $d/data; chown bob:oxacln $d/data",
         "fail data: Operation not permitted\n" + gone + rest},
        {"", "fail @/nowhere: there is no such directory for the virtual host\n", {"--vhost-path=" + nowhere}},
        {"", "fail HOME: there is no such home directory of lost\n", {"--user-name=lost"}},
        {"sed -i s/oxacln/others/ /etc/group", "fail oxacln: there is no such group\n"},
        {"sed -i s/oxaserv/others/ /etc/group", "warn oxaserv: there is no such group\n"},
    };
    site_.shell("cp /etc/group group");
    for (const auto& [prepare, expected, options] : cases) {
        SCOPED_TRACE(prepare);
        site_.shell("rm -rf package/htdocs vhost/httpdocs/app");
        package({"a", "data/in/f"});
        for (const char* path : {"app/own/er", "app/", "app/own/"})
            site_.put(path);
        site_.shell("d=$PWD/vhost/httpdocs/app; cd package/htdocs; " + prepare);
        Result result = plan(options);
        site_.shell("cp group /etc");
        boost::replace_all(result.out, getenv("SANDBOX_DIR") + std::string("/missing"), "HOME");
        EXPECT_EQ(result.status, 2);
        std::string told;
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);) {
            const std::string word = line.substr(0, line.find(' '));
            if (word == "fail" || word == "warn" || boost::starts_with(line, "undo would"))
                told += line + "\n";
        }
        EXPECT_EQ(told, expected) << result;
    }
    package({}, "<m '../out' path='htdocs'/>");
    EXPECT_EQ(plan().status, 1);
}

TEST_F(Plan, AListTakesOutWhatAnExtractionPutsIn)
{
    package({"a", "b & <c>", "d/e/f", " \r"},
            "<m '/' path='htdocs'/><m 'x/y' path='htdocs/d'/><m './v//w/' path='htdocs'/>"
            "<m 'x/y/../z' path='htdocs/d'/><m 'one/two' path='nowhere'/>");
    for (const char* path : {"app/own", "app/d/his", "app/", "app/d/"})
        site_.put(path);
    const Result list = zendrelctl({"list", site_.path("package")});
    EXPECT_EQ(list.status, 0);
    for (const char* spelled : {"//", ">./", "x/y/..<"})
        EXPECT_EQ(list.out.find(spelled), std::string::npos) << spelled;
    EXPECT_EQ(zendrel(site_.extract({"--application-subdirectory=app"})).status, 0);
    const Result removed = zendrel(site_.remove({"--application-subdirectory=app"}), list.out);
    EXPECT_EQ(removed, says(0, removed.err));
    EXPECT_EQ(site_.listing(), R"(
- 644 alice:oxacln: app/d/his= app/own=
d 755 alice:oxacln: app app/d
)");

    // What an upgrade leaves over.
    site_.write("new.xml", site_.list({"a", "./d//e/", "x"}));
    package({}, "<m '/' path='htdocs'/>");
    const Result stale = zendrelctl({"list", site_.path("package"), "--not-in", site_.path("new.xml")});
    EXPECT_EQ(stale.status, 0);
    EXPECT_EQ(stale.out.substr(stale.out.find("<FILE>")),
              "<FILE> &#13;</FILE>\n<FILE>b &amp; &lt;c&gt;</FILE>\n<FILE>d</FILE>\n<FILE>d/e/f</FILE>\n"
              "</SECTION>\n</INSTANCE-DATA>\n");
    site_.write("bad.xml", "<LIST/>");
    for (const char* bad : {"bad.xml", "nowhere.xml"}) {
        const Result refused = zendrelctl({"list", site_.path("package"), "--not-in", site_.path(bad)});
        EXPECT_EQ(refused.status, 1);
        EXPECT_EQ(refused.out, "");
        EXPECT_NE(refused.err.find(bad), std::string::npos) << refused;
    }
    package({"\xff"});
    EXPECT_EQ(zendrelctl({"list", site_.path("package")}).status, 1);
}

}  // namespace
