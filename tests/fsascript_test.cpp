#include "app/fsascript.h"

#include "tests/support/Sandbox.h"

#include <boost/filesystem.hpp>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

using namespace sandbox;
namespace fs = boost::filesystem;

namespace {

class RunScript : public testing::Test {
protected:
    ~RunScript() override { fs::remove("/etc/oxa/oxa.conf"); }

    /// Writes a package whose script is this text in this language.
    void package(const std::string& language, const std::string& text, const std::string& version = "1.0") const
    {
        site_.write("package/APP-META.xml",
                    "<application xmlns='http://veska.example/ns/1' version='" + version
                        + "'><name/><version/><release/><configuration-script-language>" + language
                        + "</configuration-script-language></application>");
        site_.write("package/scripts/configure", text, 0755);
    }
    Result run_script(const Words& changes = {}) const
    {
        return zendrel(changed({"--run-application-script", "--application-full-name=file:///" + site_.path("package"),
                                "--script-name=install", "--user-name=alice", "--script-file-name=mine",
                                "--script-language=binary"},
                               changes));
    }
    static Result prints(const std::string& out, int status = 0) { return {status, out, "", 0}; }

    const Site site_;
    const std::string scripts_ = site_.package("scripts");
    const std::string own_ = scripts_ + "/configure";
};

TEST_F(RunScript, TheStandardsVersionDecidesWhoNamesTheScript)
{
    site_.write("package/scripts/mine", "#!/bin/sh\necho given\n", 0755);
    for (const std::string version : {"1.0", "1.1", "1.2", "1.3"}) {
        package("binary", "#!/bin/sh\necho own\n", version);
        EXPECT_EQ(run_script(), prints(version == "1.1" || version == "1.2" ? "given\n" : "own\n")) << version;
    }
    EXPECT_EQ(run_script({"--script-language=cobol"}), prints("own\n"));
}

TEST_F(RunScript, InterpretersAreTriedInTheirOrder)
{
    package("php", "<?php echo implode('|', array_slice($argv, 1)), ini_get('variables_order'); exit(3);");
    EXPECT_EQ(run_script({"--php-cli=/usr/bin/php", "x"}), prints("install|xEGPCS", 3));
    const std::string engine = "product/bin/mo-engine-tarvikrun";
    const auto interpreter = [this](const std::string& name, mode_t mode) {
        site_.write(name, "#!/bin/sh\necho " + name + " $*\n", mode);
    };
    const Words cli = {"--php-cli=" + site_.path("cli-php")};
    const Result none = says(255, "Unable to find command line php interpreter.\n");
    const auto runs = [this](const std::string& program) {
        return prints(program + " -d variables_order=EGPCS -d safe_mode=0 -d open_basedir= " + own_ + " install\n");
    };
    EXPECT_EQ(run_script(cli), none);  // the compiled-in default is not installed here
    std::ofstream("/etc/oxa/oxa.conf") << "PRODUCT_ROOT_D " + site_.path("product") + "\nCLIENT_PHP_BIN "
            + site_.path("client-php") + "\n";
    interpreter(engine, 0755);
    EXPECT_EQ(run_script(cli), none);  // the engine is for its own language only
    interpreter("client-php", 0755);
    interpreter("cli-php", 0750);
    EXPECT_EQ(run_script(), runs("client-php"));
    EXPECT_EQ(run_script(cli), runs("client-php"));  // the other is not for everybody
    interpreter("cli-php", 0755);
    EXPECT_EQ(run_script(cli), runs("cli-php"));
    package("mo-engine-tarvikrun", "");
    EXPECT_EQ(run_script(cli), runs(engine));
    fs::remove(site_.path(engine));
    EXPECT_EQ(run_script(cli), runs("cli-php"));
}

TEST_F(RunScript, RefusesInItsOrderOfChecks)
{
    const std::string bad = "--script-name=explode";
    EXPECT_EQ(run_script({"--application-full-name=file:///", bad}), says(255, "Failed to get package path\n"));
    EXPECT_EQ(run_script({"--application-full-name=/srv/application"}), says(255, "Failed to get package path\n"));
    EXPECT_EQ(run_script({bad}),
              says(255, "Caught exception: Unable to load file: " + site_.package("APP-META.xml") + "\n"));
    package("PHP", "");
    EXPECT_EQ(run_script({bad}), says(255, "Config script language 'PHP' is not supported!\n"));
    package("binary", "");
    EXPECT_EQ(run_script({bad}), says(1, "Requested action `explode` is not allowed.\n"));
    EXPECT_EQ(run_script({"--user-name=root"}), says_twice(1, "Cannot run as forbidden uid: 0\n"));
    fs::permissions(scripts_, fs::owner_all);
    EXPECT_EQ(run_script(), says(1, "Unable to change current directory to " + scripts_ + "\n"));
    fs::remove(own_);
    EXPECT_EQ(run_script({"--user-name=nosuch"}), says(0, ""));  // nothing to do, whoever is to do it
    EXPECT_EQ(run_script({"--script-params=x"}).status, 1);
}

TEST_F(RunScript, TheScriptHasItsArgumentsAndTheSiteUsersRightsAndNothingElse)
{
    package("perl", "print join('|', @ARGV, $0); exit 7;\n");
    EXPECT_EQ(run_script({"--script-name=query"}), prints("query|" + own_, 7));
    // The shell itself keeps the script open, as 10.
    package(
        "binary",
        "#!/bin/sh\nfor word; do echo \"[$word]\"; done; pwd; readlink /proc/self/fd/0; ls /proc/$$/fd; echo $KEPT\n"
        "grep -E '^([UG]id|Groups|CapEff)' /proc/self/status; echo err >&2; exit 200\n");
    ASSERT_EQ(setenv("KEPT", "kept", 1), 0);
    const int leaked = open("/etc/passwd", O_RDONLY);  // inherited by the utility, not by its child
    EXPECT_EQ(run_script({"one", "--additional-script-params=t w o", "", "--", "--five"}),
              (Result {200,
                       "[install]\n[one]\n[t w o]\n[]\n[--five]\n" + scripts_
                           + "\n/dev/null\n0\n1\n10\n2\nkept\n"
                             "Uid:\t28001\t28001\t28001\t28001\nGid:\t28010\t28010\t28010\t28010\n"
                             "Groups:\t28010 \nCapEff:\t0000000000000000\n",
                       "err\n", 0}));
    close(leaked);
    package("binary", "#!/bin/sh\nkill -KILL $$\n");
    const Result killed = run_script();
    EXPECT_EQ(killed, says_twice(255, killed.err));
    EXPECT_NE(killed.err.find(": process '" + own_ + "' killed by signal 9\n"), std::string::npos) << killed;
    package("binary", "#!/no/such/interpreter\n");
    const std::string error = "No such file or directory\n";
    EXPECT_EQ(run_script(), says_twice(1, "forkExecvPipes: execv() failed: " + error + "\nSystem error 2: " + error));
}

TEST_F(RunScript, TheGuestbooksScriptDoesTheSameInItsThreeForms)
{
    site_.put("data/", "", 0775);
    std::string first;
    // Version, file, language. By 1.0 the last two are the package's own.
    for (const Words& form :
         {Words {"1.0", "?", "?"}, {"1.1", "", "perl"}, {"1.1", ".php", "php"}, {"1.1", ".sh", "binary"}}) {
        run({"cp", "-rT", ZENDREL_SOURCE_DIR "/examples/packages/guestbook", site_.path("package")});
        run({"sed", "-i", "s/version=\"1.0\">/version=\"" + form[0] + "\">/", site_.package("APP-META.xml")});
        std::string said;
        const Words words = {"--php-cli=/usr/bin/php", "--script-file-name=configure" + form[1],
                             "--script-language=" + form[2],
                             "--additional-script-params=--data=" + site_.docroot("data")};
        const auto expect = [&](int status, bool there, const Words& more) {
            const Result result = run_script(changed(words, more));
            const std::string file = site_.tree()["data/entries.txt"];
            EXPECT_TRUE(result.status == status && file.empty() != there) << form[1] << more[0] << result << file;
            said += result.out + result.err + file;
        };
        expect(0, true, {"--script-name=install"});
        expect(0, false, {"--script-name=remove"});
        expect(0, true, {"--script-name=install"});
        std::ofstream(site_.docroot("data/entries.txt"), std::ios::app) << "1\tAnn\thello\n";
        expect(3, true, {"--script-name=remove"});
        expect(0, false, {"--script-name=remove", "--", "--force"});
        EXPECT_EQ(said, first = first.empty() ? said : first);
    }
}

TEST(ForkExecvPipes, SwitchesUserAndSetsTheEnvironment)
{
    const std::string failure = "Fatal error: tarvik::SystemError(dup2Custom failed: Bad file descriptor)\n";
    EXPECT_EQ(in_child([] {
                  tarvik::ArgList words;
                  for (const char* word : {"sh", "-c", "id -un; echo $HOME; head -c 4"})
                      words.append(word);
                  for (const int in : {open("/etc/passwd", O_RDONLY), 99})
                      waitpid(tarvik::forkExecvPipes(in, 1, 2, "sh", words, "bob", {{"HOME", "new"}}), nullptr, 0);
              }),
              (Result {0, "bob\nnew\nroot" + failure, failure, 0}));
}

}  // namespace
