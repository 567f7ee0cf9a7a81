#include "tests/support/Sandbox.h"

#include <boost/algorithm/string.hpp>
#include <boost/filesystem.hpp>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <set>
#include <sstream>

using namespace sandbox;
namespace fs = boost::filesystem;

namespace {

using Json = nlohmann::json;

constexpr char kWithData[] = "<mapping url='/' path='htdocs'><mapping url='bin'><cgi:handler><cgi:all-files/>"
                             "</cgi:handler></mapping><mapping url='data'><php:permissions writable='true'/>"
                             "<mapping url='in'/></mapping></mapping>";

/// A line of a tree: "type mode owner:group content".
struct Line {
    explicit Line(const std::string& line)
        : type(line[0]), mode(line.substr(2, line.find(' ', 2) - 2)), rest(line.substr(line.find(' ', 2)))
    {
        mode.insert(0, 4 - mode.size(), '0');
    }
    char type;
    std::string mode, rest;
};

class Plan : public testing::Test {
protected:
    /// A package in which each file holds its name.
    void package(const Words& files, const std::string& mappings = kWithData) const
    {
        site_.metadata(mappings);
        for (const std::string& file : files)
            site_.write("package/htdocs/" + file, file);
    }
    /// In what it prints, "@" is the site's directory.
    Result plan(const Words& options = {}) const
    {
        Words words = site_.ctl({"plan", site_.path("package")}, {"--application-subdirectory=" + subdirectory_});
        words.insert(words.end(), options.begin(), options.end());
        Result result = zendrelctl(words);
        boost::replace_all(result.out, site_.path(), "@");
        boost::replace_all(result.err, site_.path(), "@");
        return result;
    }

    /// The place that a path of the plan means: links on its way are followed, as far as it is there.
    std::string place(const std::string& path) const
    {
        const fs::path top = fs::canonical(site_.vhost());
        const fs::path whole = path[0] == '@' ? site_.path(path.substr(2)) : path == "." ? app() : app() + "/" + path;
        return (fs::weakly_canonical(whole.parent_path()) / whole.filename()).lexically_relative(top).native();
    }
    std::string app() const { return site_.path("vhost/httpdocs") + (subdirectory_ == "." ? "" : "/" + subdirectory_); }

    /// Plans, extracts, and compares what has happened with what was planned.
    /// @return whether nothing is to fail.
    bool compare(Words options = {}) const
    {
        const Tree before = site_.tree("vhost");
        options.push_back("--json");
        const Result told = plan(options);
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
        options.back() = "--application-subdirectory=" + subdirectory_;
        const Result done = zendrel(site_.extract(options));
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
            const bool told = byPlace.count(path) != 0;
            const Json step = told ? byPlace[path] : Json::object();
            const auto old = before.find(path);
            EXPECT_EQ(happened(old == before.end() ? "" : old->second, line, step.value("replaced", "")),
                      told ? described(step) : "nothing")
                << path;
            byPlace.erase(path);
        }
        for (const auto& [path, step] : byPlace)
            EXPECT_EQ(step["path"], ".");  // of the document root, which is not in the tree
    }

    static std::string described(const Json& step)
    {
        const std::string action = step["action"], mode = step["mode"], before = step.value("before", "");
        if (action == "keep")
            return "nothing";
        if (action == "replace" && step["replaced"] == "equal" && before == mode)
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
            return std::string("create ") + (now.type == 'd' ? "dir" : "file") + "  " + now.mode;
        const Line old(from);
        const std::string modes = " " + old.mode + " " + now.mode;
        const auto content = [](const Line& line) { return line.rest.substr(line.rest.find(' ', 1)); };
        if (old.type == now.type && old.rest == now.rest)
            return (told.empty() ? std::string("mode ") + (now.type == 'd' ? "dir" : "file") : "replace equal") + modes;
        const std::string kind = old.type == 'd' ? "dir"
            : old.type == 'l'                    ? "link"
            : content(old) == content(now)       ? "foreign"
                                                 : "different";
        return "replace " + kind + modes;
    }

    void compare_undo(const Json& planned, const Result& done, const std::set<std::string>& atStake, const Tree& before,
                      const Tree& after) const
    {
        const std::string path = planned["failures"][0]["path"];
        const std::string where = path == "." ? app()
            : path[0] == '@'                  ? site_.path(path.substr(2))
                                              : app() + "/" + path;
        EXPECT_NE(done.err.find(where), std::string::npos) << done << planned["failures"];
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

/// Packages and sites at random, the same in every run.
class Chance {
public:
    explicit Chance(unsigned seed) : numbers_(seed) { }
    bool one_in(unsigned count) { return numbers_() % count == 0; }
    std::string pick(const Words& words) { return words[numbers_() % words.size()]; }
    std::string path(unsigned most)
    {
        std::string path = name();
        for (auto i = numbers_() % most; i > 0; --i)
            path += "/" + name();
        return path;
    }
    std::string name() { return pick({"a", "a-", "b", "data"}); }

    std::string package()
    {
        std::string commands = "exec 2>/dev/null; rm -rf package/htdocs; mkdir -p package/htdocs; cd package/htdocs\n";
        for (int i = 0; i < 8; ++i) {
            const std::string at = path(3);
            commands += "test ! -e " + at + " && mkdir -p $(dirname " + at + ") && "
                + (one_in(30)       ? "ln -s nowhere " + at
                       : one_in(30) ? "mkfifo " + at
                       : one_in(30) ? "touch " + at + " && chmod 600 " + at
                       : one_in(8)  ? "ln -s $PWD/" + path(2) + " " + at
                       : one_in(4)  ? "mkdir " + at
                                    : "echo " + pick({"x", "y", "xx"}) + " >" + at)
                + " || :\n";
        }
        return commands;
    }

    std::string site(const std::string& app)
    {
        std::string commands =
            "exec 2>/dev/null; rm -rf vhost; mkdir -p " + app + "; chown -R alice:oxacln vhost; cd " + app + "\n";
        for (int i = 0; i < 9; ++i) {
            const std::string at = path(3);
            commands += "mkdir -p $(dirname " + at + ") && "
                + (one_in(12)      ? "ln -sn " + pick({"a", "nowhere", "../b", "$PWD/data"}) + " " + at
                       : one_in(2) ? "mkdir " + at
                                   : "echo " + pick({"x", "y", "xx"}) + " >" + at)
                + " && chown -h " + pick({"alice", "alice", "alice", "bob", "root", "www-data"}) + ":"
                + pick({"oxacln", "oxacln", "oxaserv", "root"}) + " " + at
                + (one_in(2) ? " && test ! -h " + at + " && chmod "
                           + pick({"500", "700", "600", "644", "777", "1777", "2755", "2775", "300", "646", "757"})
                           + " " + at
                             : "")
                + " || :\n";
        }
        // What it takes to get in is there, mostly.
        return commands + (one_in(3) ? "" : "find . -type d -print0 | xargs -0 chown alice\n");
    }

    std::string mappings()
    {
        std::string nested;
        for (int i = 0; i < 3; ++i) {
            nested += "<mapping url='" + path(2) + "'" + (one_in(4) ? " path='htdocs/" + path(2) + "'" : "") + ">"
                + (one_in(2) ? "<php:permissions writable='true'/>" : "")
                + (one_in(4) ? "<cgi:handler><cgi:all-files/></cgi:handler>" : "") + "</mapping>";
        }
        return "<mapping url='" + pick({"/", "/", "/", path(2)}) + "' path='htdocs'>"
            + (one_in(4) ? "<php:permissions writable='true'/>" : "") + nested + "</mapping>";
    }

private:
    std::mt19937 numbers_;
};

TEST_F(Plan, ForetellsWhatAnExtractionDoesToAnySite)
{
    const char* const wish = std::getenv("PLAN_SEEDS");  // such as "1000": many more
    const unsigned count = wish == nullptr ? 60 : static_cast<unsigned>(std::atoi(wish));
    for (unsigned seed = 0; seed < count && !HasFailure(); ++seed) {
        Chance chance(seed);
        subdirectory_ = chance.pick({".", "app", "app", "b/app"});
        const std::string package = chance.package(), site = chance.site("vhost/httpdocs/" + subdirectory_);
        const std::string mappings = chance.mappings();
        SCOPED_TRACE("seed " + std::to_string(seed) + "\n" + mappings + "\n" + package + site);
        site_.metadata(mappings);
        site_.shell(package);
        site_.shell(site);
        const Words options = chance.one_in(5) ? Words {"--skip-webserver-write"} : Words();
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
        "mkdir -p bin/p; touch data/f; chown bob data/f; chmod 777 data",
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
              (Result {2, R"(create dir 0755 .
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
                       "", 0}));
    EXPECT_EQ(zendrel(site_.extract({"--application-subdirectory=app"})), says(0, ""));
    EXPECT_EQ(plan().status, 0);
    EXPECT_EQ(plan({"--skip-webserver-write"}).status, 2);  // a new file would not be writable
    EXPECT_NE(plan({"--json"}).out.find("\"\xef\xbf\xbd\\n\""), std::string::npos);
    site_.shell("cd vhost/httpdocs/app; printf A >a; chmod 700 bin/p; rm data/f; ln -s ../a data/f\n"
                "touch data/his data/in/his; chown alice data/h* data/in/h*; chmod 500 bin; mkfifo own\n"
                "touch data/hers; chown bob data/hers; mkdir bin/more");
    const Result expected = {2, R"(keep dir .
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
                             "", 0};
    EXPECT_EQ(plan(), expected);
}

TEST_F(Plan, TellsWhatFailsAndWhatThatTakesAlong)
{
    const std::string none = "undo would remove ";
    const std::string own = none + ".\n" + none + "own\n" + none + "own/er\n";
    const std::tuple<std::string, std::string, Words> cases[] = {
        {"ln -s nowhere z", "fail z: package/htdocs/z: No such file or directory\n" + own, {}},
        {"echo >z; chmod 600 z", "fail z: package/htdocs/z: Permission denied\n" + own, {}},
        {"mkdir -m 700 z", "fail @/package/htdocs/z: Permission denied\n", {}},
        {"mkfifo z", "fail z: package/htdocs/z: Operation not supported\n" + own, {}},
        {"perl -MSocket -e 'socket S, PF_UNIX, SOCK_STREAM, 0; bind S, pack_sockaddr_un(\"z\")'",
         "fail z: package/htdocs/z: No such device or address\n" + own,
         {}},
        {"touch z; mkdir -p $d/z/full; chown alice $d/z",
         "fail z: Directory not empty\n" + own + none + "z\n" + none + "z/full\n",
         {}},
        {"mkdir -p z/y; touch z/y/x z/w $d/z; ln -s nowhere zz",
         "fail z: a file stands where a directory must go\nfail zz: package/htdocs/zz: No such file or directory\n"
             + own + none + "z\n",
         {}},
        {"mkdir -p z/y; ln -s nowhere $d/z",
         "fail z: a link that leads nowhere stands where a directory must go\n" + own + none + "z\n",
         {}},
        // Full of another user's, a directory holds the undo up, and those that it is in.
        {"mkdir z; touch z/x z/y; mkdir -p $d/z/kept; chown bob:oxaserv $d/z",
         "warn z: its mode is another user's to change\nfail z/x: Permission denied\n" + own.substr(own.find('\n') + 1)
             + "undo would end at z: Permission denied\n",
         {}},
        {"mkdir $d/data; ln -s ../own $d/data/l; chown alice $d/data",
         "fail data/l: neither a file nor a directory, in a writable mapping\n" + none + ".\n" + none + "data\n" + none
             + "data/l\n" + own.substr(own.find('\n') + 1),
         {}},
        {"mkdir $d/data; ln -s ../own $d/data/l; chown alice $d/data", "", {"--skip-webserver-write"}},
        {"rm -r data/in; mkdir -m 775 $d/data; chown bob:oxacln $d/data",
         "fail data: Operation not permitted\n" + none + ".\n" + none + "data\n" + own.substr(own.find('\n') + 1),
         {}},
        {"",
         "fail @/nowhere: there is no such directory for the virtual host\n",
         {"--vhost-path=" + site_.path("nowhere")}},
        {"", "fail HOME: there is no such home directory of lost\n", {"--user-name=lost"}},
        {"sed s/oxacln/others/ /etc/group >../group; cp /etc/group ../kept; cp ../group /etc/group",
         "fail oxacln: there is no such group\n",
         {}},
        {"sed s/oxaserv/others/ /etc/group >../group; cp /etc/group ../kept; cp ../group /etc/group",
         "warn oxaserv: there is no such group\n",
         {}},
    };
    for (const auto& [prepare, expected, options] : cases) {
        SCOPED_TRACE(prepare);
        site_.shell("rm -rf package/htdocs package/kept vhost/httpdocs/app");
        package({"a", "data/in/f"});
        site_.put("app/own/er");
        site_.put("app/");
        site_.put("app/own/");
        site_.shell("d=$PWD/vhost/httpdocs/app; cd package/htdocs; " + prepare);
        Words words = site_.ctl({"plan", site_.path("package")}, options);
        Result result = zendrelctl(words);
        site_.shell("test ! -f package/kept || cp package/kept /etc/group");
        boost::replace_all(result.out, site_.path(), "@");
        boost::replace_all(result.out, getenv("SANDBOX_DIR") + std::string("/missing"), "HOME");
        EXPECT_EQ(result.status, 2);
        std::string told;
        std::istringstream lines(result.out);
        for (std::string line; std::getline(lines, line);) {
            if (boost::starts_with(line, "fail ") || boost::starts_with(line, "warn ")
                || boost::starts_with(line, "undo would"))
                told += line + "\n";
        }
        EXPECT_EQ(told, expected) << result;
    }
}

TEST_F(Plan, RefusesWhatIsNoPlan)
{
    package({"a"});
    const std::pair<Words, std::string> cases[] = {
        {{"--user-name=root"}, "a site cannot belong to root: root"},
        {{"--user-name=nosuch"}, "no such user: nosuch"},
        {{"--metadata-file=nowhere"}, "Unable to load file: "},
        {{"--no-such"}, "unrecognised option"},
        {{"--www-root=relative"}, "--www-root is no absolute path: relative"},
    };
    for (const auto& [options, reason] : cases) {
        const Result result = zendrelctl(site_.ctl({"plan", site_.path("package")}, options));
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err.find("zendrelctl: " + reason), std::string::npos) << result;
    }
    package({}, "<mapping url='../out' path='htdocs'/>");
    EXPECT_EQ(plan().status, 1);
}

TEST_F(Plan, AListTakesOutWhatAnExtractionPutsIn)
{
    package({"a", "b & <c>", "d/e/f", " \r"},
            "<mapping url='/' path='htdocs'/><mapping url='x/y' path='htdocs/d'/><mapping url='./v//w/' path='htdocs'/>"
            "<mapping url='x/y/../z' path='htdocs/d'/><mapping url='one/two' path='nowhere'/>");
    site_.put("app/own");
    site_.put("app/d/his");
    site_.shell("chown alice:oxacln vhost/httpdocs/app vhost/httpdocs/app/d");
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
    package({}, "<mapping url='/' path='htdocs'/>");
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
