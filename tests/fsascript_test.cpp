#include "app/fsascript.h"

#include "clib/forkexec.h"
#include "tests/support/Sandbox.h"

#include <boost/filesystem.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>

using namespace sandbox;
namespace fs = boost::filesystem;

namespace {

/// Prints what the script was given, one line each.
constexpr char kShowArguments[] = "for word; do echo \"[$word]\"; done\n";

class RunScript : public testing::Test {
protected:
    RunScript()
    {
        configure("PRODUCT_ROOT_D " + site_.path("product") + "\nCLIENT_PHP_BIN " + site_.path("client-php") + "\n");
    }
    ~RunScript() override { fs::remove("/etc/oxa/oxa.conf"); }

    static void configure(const std::string& text) { std::ofstream("/etc/oxa/oxa.conf") << text; }
    void metadata(const std::string& language, const std::string& version = "1.0") const
    {
        site_.write("package/APP-META.xml",
                    "<application xmlns='http://veska.example/ns/1' version='" + version
                        + "'><name/><version/><release/><configuration-script-language>" + language
                        + "</configuration-script-language></application>");
    }
    void script(const std::string& text, const std::string& name = "configure") const
    {
        site_.write("package/scripts/" + name, text, 0755);
    }
    /// Something that may be taken for an interpreter and tells its own name and arguments.
    void interpreter(const std::string& name, mode_t mode = 0755) const
    {
        site_.write(name, "#!/bin/sh\necho " + name + "\n" + kShowArguments, mode);
    }
    Result run_script(const Words& changes = {}, const Words& positional = {}) const
    {
        Words words = changed({"--run-application-script", "--application-full-name=file:///" + site_.path("package"),
                               "--script-name=install", "--user-name=alice", "--script-file-name=mine",
                               "--script-language=binary"},
                              changes);
        words.insert(words.end(), positional.begin(), positional.end());
        return zendrel(words);
    }
    std::string path(const std::string& name) const { return site_.package("scripts/" + name); }
    static Result prints(const std::string& out) { return {0, out, "", 0}; }

    Site site_;
};

TEST_F(RunScript, TheStandardsVersionDecidesWhoNamesTheScript)
{
    script("#!/bin/sh\necho own\n");
    script("#!/bin/sh\necho given\n", "mine");
    for (const auto& [version, out] : std::map<std::string, std::string> {
             {"1.0", "own\n"}, {"1.1", "given\n"}, {"1.2", "given\n"}, {"1.3", "own\n"}}) {
        metadata("binary", version);
        EXPECT_EQ(run_script(), prints(out)) << version;
    }
    EXPECT_EQ(run_script({"--script-language=cobol"}), prints("own\n"));
}

TEST_F(RunScript, ArgumentsArriveInOrder)
{
    metadata("binary");
    script(std::string("#!/bin/sh\n") + kShowArguments);
    EXPECT_EQ(run_script({"--script-name=query"}), prints("[query]\n"));
    EXPECT_EQ(run_script({},
                         {"one", "--additional-script-params=t w o", "", "three", "--additional-script-params", "four",
                          "--", "--five"}),
              prints("[install]\n[one]\n[t w o]\n[]\n[three]\n[four]\n[--five]\n"));
}

TEST_F(RunScript, ThePhpCandidatesAreTriedInTheirOrder)
{
    const auto php_run = [this](const std::string& name) {
        return prints(name + "\n[-d]\n[variables_order=EGPCS]\n[-d]\n[safe_mode=0]\n[-d]\n[open_basedir=]\n["
                      + path("configure") + "]\n[install]\n[more]\n");
    };
    const Words cli = {"--php-cli=" + site_.path("cli-php")};
    const Result none = says(255, "Unable to find command line php interpreter.\n");
    script("");
    metadata("php");
    EXPECT_EQ(run_script(cli), none);
    interpreter("product/bin/mo-engine-tarvikrun");
    EXPECT_EQ(run_script(cli), none);  // the engine is for its own language only
    interpreter("client-php");
    EXPECT_EQ(run_script({}, {"more"}), php_run("client-php"));
    interpreter("cli-php", 0750);
    EXPECT_EQ(run_script(cli, {"more"}), php_run("client-php"));  // not for everybody
    interpreter("cli-php", 0755);
    EXPECT_EQ(run_script(cli, {"more"}), php_run("cli-php"));
    metadata("mo-engine-tarvikrun");
    EXPECT_EQ(run_script(cli, {"more"}), php_run("product/bin/mo-engine-tarvikrun"));
    fs::remove(site_.path("product/bin/mo-engine-tarvikrun"));
    EXPECT_EQ(run_script(cli, {"more"}), php_run("cli-php"));
    configure("");
    EXPECT_EQ(run_script(), none);  // the compiled-in default is not installed here
}

TEST_F(RunScript, RealInterpretersRunRealScripts)
{
    metadata("perl");
    script("print join('|', @ARGV, $0), \"\\n\"; exit 7;\n");
    EXPECT_EQ(run_script({}, {"x"}), (Result {7, "install|x|" + path("configure") + "\n", "", 0}));
    metadata("php");
    script("<?php echo implode('|', array_slice($argv, 1)), ini_get('open_basedir'), "
           "ini_get('variables_order'), \"\\n\"; exit(3);");
    EXPECT_EQ(run_script({"--php-cli=/usr/bin/php"}, {"x"}), (Result {3, "install|xEGPCS\n", "", 0}));
}

TEST_F(RunScript, RefusesInItsOrderOfChecks)
{
    const std::string bad = "--script-name=explode";
    EXPECT_EQ(run_script({"--application-full-name=file:///", bad}), says(255, "Failed to get package path\n"));
    EXPECT_EQ(run_script({"--application-full-name=/srv/application"}), says(255, "Failed to get package path\n"));
    EXPECT_EQ(run_script({bad}),
              says(255, "Caught exception: Unable to load file: " + site_.package("APP-META.xml") + "\n"));
    metadata("cobol");
    EXPECT_EQ(run_script({bad}), says(255, "Config script language 'cobol' is not supported!\n"));
    metadata("PHP");
    EXPECT_EQ(run_script({bad}), says(255, "Config script language 'PHP' is not supported!\n"));
    metadata("binary");
    EXPECT_EQ(run_script({bad}), says(1, "Requested action `explode` is not allowed.\n"));
    // Without the script there is nothing to do, whoever is to do it.
    EXPECT_EQ(run_script({"--user-name=nosuch"}), says(0, ""));
    script("#!/bin/sh\n");
    EXPECT_EQ(run_script({"--user-name=root"}), says_twice(1, "Cannot run as forbidden uid: 0\n"));
    ASSERT_EQ(chmod(site_.package("scripts").c_str(), 0700), 0);
    EXPECT_EQ(run_script(), says(1, "Unable to change current directory to " + site_.package("scripts") + "\n"));
    EXPECT_EQ(run_script({"--script-params=x"}).status, 1);
    EXPECT_EQ(zendrel({"--run-application-script"}).status, 1);
}

TEST_F(RunScript, TheScriptHasTheSiteUsersRightsAndNothingElse)
{
    metadata("binary");
    script("#!/bin/sh\nid -u; id -G; pwd; readlink /proc/self/fd/0; ls /proc/$$/fd; echo $KEPT\n"
           "grep -E '^Cap(Prm|Eff|Inh)' /proc/self/status\n");
    ASSERT_EQ(setenv("KEPT", "kept", 1), 0);
    const int leaked = open("/etc/passwd", O_RDONLY);  // inherited by the utility, not by its child
    const Result result = run_script();
    close(leaked);
    const std::string none = "0000000000000000\n";
    // The shell itself keeps the script open, as 10.
    EXPECT_EQ(result,
              prints("28001\n28010\n" + site_.package("scripts") + "\n/dev/null\n0\n1\n10\n2\nkept\nCapInh:\t" + none
                     + "CapPrm:\t" + none + "CapEff:\t" + none));
}

TEST_F(RunScript, TheEndOfTheScriptIsReported)
{
    metadata("binary");
    script("#!/bin/sh\nkill -KILL $$\n");
    const Result killed = run_script();
    EXPECT_EQ(killed.status, 255);
    EXPECT_EQ(killed.out, killed.err);
    EXPECT_NE(killed.err.find(": process '" + path("configure") + "' killed by signal 9\n"), std::string::npos)
        << killed.err;
    script("#!/no/such/interpreter\n");
    EXPECT_EQ(run_script(),
              says_twice(1,
                         "forkExecvPipes: execv() failed: No such file or directory\n\n"
                         "System error 2: No such file or directory\n"));
    script("#!/bin/sh\necho out; echo err >&2; exit 200\n");
    EXPECT_EQ(run_script(), (Result {200, "out\n", "err\n", 0}));
}

TEST(ForkExecvPipes, SwitchesUserAndSetsTheEnvironment)
{
    EXPECT_EQ(in_child([] {
                  tarvik::ArgList words;
                  for (const char* word : {"sh", "-c", "id -un; echo $A$B; cat"})
                      words.append(word);
                  setenv("A", "old", 1);
                  int pipe_ends[2];
                  if (pipe(pipe_ends) != 0 || write(pipe_ends[1], "input\n", 6) != 6)
                      _exit(1);
                  close(pipe_ends[1]);
                  const pid_t child =
                      tarvik::forkExecvPipes(pipe_ends[0], 1, 2, "sh", words, "bob", {{"A", "new"}, {"B", "!"}});
                  _exit(fork_exec_waitpid(child, "sh", nullptr));
              }),
              (Result {0, "bob\nnew!\ninput\n", "", 0}));
    EXPECT_EQ(in_child([] {
                  const tarvik::ArgList words;
                  const pid_t child = tarvik::forkExecvPipes(99, 1, 2, "sh", words, "", {});
                  _exit(fork_exec_waitpid(child, "sh", nullptr));
              }),
              says_twice(1, "Fatal error: tarvik::SystemError(dup2Custom failed: Bad file descriptor)\n"));
}

}  // namespace
