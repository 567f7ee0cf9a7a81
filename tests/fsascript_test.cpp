#include "app/fsascript.h"
#include "clib/forkexec.h"
#include "common/ExSystemError.h"
#include "tests/support/Sandbox.h"

#include <linux/keyctl.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

#include <iostream>

using namespace sandbox;

namespace {

class RunScript : public testing::Test {
protected:
    /// Writes a package whose script is this text in this language.
    void package(const std::string& language, const std::string& text = "") const
    {
        site_.metadata("<configuration-script-language>" + language + "</configuration-script-language>");
        site_.write("package/scripts/configure", text, 0755);
    }
    /// By a shell that redirects, and a wrapper if there is one.
    Result run_script(const Words& changes = {}, const std::string& redirections = "", const Words& wrapper = {}) const
    {
        const std::string name = "--application-full-name=file:///" + site_.path("package");
        const Words words = changed({"--run-application-script", name, "--script-name=install", "--user-name=alice",
                                     "--script-file-name=?", "--script-language=?", "--php-cli=/usr/bin/php"},
                                    changes);
        return run(Words {"sh", "-c", "exec \"$@\" " + redirections, "sh"} + wrapper + Words {ZENDREL_PROGRAM} + words);
    }

    const Site site_;
    const std::string scripts_ = site_.package("scripts");
};

TEST_F(RunScript, InterpretersAreTriedInTheirOrder)
{
    site_.shell("printf 'PRODUCT_ROOT_D %s\nCLIENT_PHP_BIN %s\n' $PWD $PWD/client-php >/etc/oxa/oxa.conf\n"
                "mkdir bin; for name in bin/mo-engine-tarvikrun cli-php client-php; do\n"
                "echo '#!/bin/sh\necho ${0##*/} $*' >$name; done");
    // What happens to the candidates, the package's language, which of them is run, and an action.
    const std::string cases[][4] = {
        {"chmod 755 bin/* client-php; mv cli-php own; ln -s own cli-php; chmod 754 own", "php", "client-php",
         "configure"},
        {"chmod 751 own", "php", "client-php", "configure"},
        {"chmod 555 own", "php", "cli-php", "upgrade"},
        {"", "mo-engine-tarvikrun", "mo-engine-tarvikrun", "enable"},
        {"rm bin/*", "mo-engine-tarvikrun", "cli-php", "disable"},
    };
    for (const auto& [commands, language, program, action] : cases) {
        site_.shell(commands);
        package(language);
        EXPECT_EQ(run_script({"--php-cli=" + site_.path("cli-php"), "--script-name=" + action}).out,
                  program + " -d variables_order=EGPCS -d safe_mode=0 -d open_basedir= " + scripts_ + "/configure "
                      + action + "\n");
    }
}

TEST_F(RunScript, RefusesInItsOrderOfChecks)
{
    const std::string bad = "--script-name=explode";
    for (const std::string none : {"file:///", "File:///ab"})
        EXPECT_EQ(run_script({"--application-full-name=" + none, bad}), says(255, "Failed to get package path\n"));
    const std::string cut(4096, 'p');  // the most that is kept of a path
    EXPECT_EQ(run_script({"--application-full-name=file:///" + cut + "q"}),
              says(255, "Caught exception: Unable to load file: " + cut + "/APP-META.xml\n"));
    EXPECT_EQ(run_script({bad}),
              says(255, "Caught exception: Unable to load file: " + site_.package("APP-META.xml") + "\n"));
    package("PHP");
    EXPECT_EQ(run_script({bad}), says(255, "Config script language 'PHP' is not supported!\n"));
    package("php");  // which is not installed where it is looked for by default
    EXPECT_EQ(run_script({bad, "--php-cli="}), says(255, "Unable to find command line php interpreter.\n"));
    package("binary");
    EXPECT_EQ(run_script({bad}), says(1, "Requested action `explode` is not allowed.\n"));
    EXPECT_EQ(run_script({"--user-name=root"}), says_twice(1, "Cannot run as forbidden uid: 0\n"));
    site_.shell("chmod 700 package/scripts");
    EXPECT_EQ(run_script(), says(1, "Unable to change current directory to " + scripts_ + "\n"));
    site_.shell("rm package/scripts/configure");
    EXPECT_EQ(run_script({"--user-name=nosuch"}), says(0, ""));  // nothing to do, whoever is to do it
}

TEST_F(RunScript, TheScriptHasItsArgumentsAndTheSiteUsersRightsAndNothingElse)
{
    // The shell itself keeps the script open, as 10.
    package(
        "binary",
        "#!/bin/sh\nfor word; do echo \"[$word]\"; done; pwd; readlink /proc/self/fd/0; ls /proc/$$/fd\n"
        "grep -E '^([UG]id|Groups|Cap(Inh|Prm|Eff|Amb))' /proc/self/status; echo ${SANDBOX_DIR:+kept} >&2; exit 200\n");
    const int leaked = open("/etc/passwd", O_RDONLY);  // inherited by the utility, not by its child
    // So are capabilities, and secure bits that would spare them.
    const Words bits = {"setpriv", "--inh-caps=+chown", "--ambient-caps=+chown", "--securebits=+no_setuid_fixup"};
    const std::string zero = ":\t" + std::string(16, '0') + "\n";
    EXPECT_EQ(
        run_script({"--script-name=query", "one=", "--additional-script-params=t w o=", "", "--", "--five", "six"}, "",
                   bits),
        (Result {200,
                 "[query]\n[one=]\n[t w o=]\n[]\n[--five]\n[six]\n" + scripts_
                     + "\n/dev/null\n0\n1\n10\n2\n"
                       "Uid:\t28001\t28001\t28001\t28001\nGid:\t28010\t28010\t28010\t28010\n"
                       "Groups:\t28010 \nCapInh"
                     + zero + "CapPrm" + zero + "CapEff" + zero + "CapAmb" + zero,
                 "kept\n", 0}));
    close(leaked);
    package("binary", "#!/bin/sh\necho to nobody && echo nor this >&2\n");
    EXPECT_EQ(run_script({}, "0<&- 1>&- 2>&-"), says(0, ""));  // it has streams even if the caller has none
    package("binary", "#!/bin/sh\necho out; echo err >&2\n");  // who writes next does so at byte 2
    EXPECT_EQ(run_script({}, "", {"sh", "-c", "\"$@\"; printf T; printf R >&2", "sh"}), (Result {0, "ouT\n", "erR\n"}));
    package("binary", "#!/bin/sh\nkill -KILL $$\n");
    EXPECT_EQ(run_script().status, 255);
    EXPECT_EQ(run_script({}, "", {"env", "ASAN_OPTIONS=detect_leaks=0", "prlimit", "--nproc=0"}),
              says_twice(1,
                         "Fatal error: tarvik::ExSystemError<11>(forkExecvPipes: fork() failed: Resource temporarily "
                         "unavailable)\n"));
    site_.shell("ln -sf configure package/scripts/configure");  // it is not missing: nobody can tell
    const std::string error = "Too many levels of symbolic links\n";
    EXPECT_EQ(run_script(), says_twice(1, "forkExecvPipes: execv() failed: " + error + "\nSystem error 40: " + error));
}

TEST_F(RunScript, TheScriptStartsWithTheCallersSignals)
{
    package("binary", "#!/bin/sh\ngrep SigIgn /proc/self/status\nkill -PIPE $$; echo survived\n");
    const Result ended = run_script({}, "", {"env", "--default-signal"});
    EXPECT_EQ(ended.status, 255);
    EXPECT_EQ(ended.out.substr(0, ended.out.find("waitpid")), "SigIgn:\t0000000000000000\n");
    EXPECT_EQ(run_script({}, "", {"env", "--default-signal", "--ignore-signal=PIPE", "--ignore-signal=XFSZ"}),
              prints("SigIgn:\t0000000001001000\nsurvived\n"));
}

TEST_F(RunScript, TheScriptHasTheCallersProcessGroupButNotItsTerminalAndKeys)
{
    package("perl",
            "open my $stat, '/proc/self/stat'; my $own = (split ' ', <$stat>)[6] ? 'terminal' : 'none';\n"
            "print getpgrp == $ARGV[1] || 'other', \" $own \", open(my $tty, '<', '/dev/tty') || \"$!\",\n"
            "ioctl(STDERR, $ARGV[2], my $key = 'x') ? ' types' : ' mute',\n"
            "syscall($ARGV[3], 0, -3, 0) == $ARGV[4] && ' old'");
    const long keyring = std::max(syscall(SYS_keyctl, KEYCTL_JOIN_SESSION_KEYRING, nullptr), 0L);
    const std::string none = "1 none No such device or address mute", old = keyring > 0 ? " old" : "";
    if (keyring == 0)
        std::cout << "Keyrings are refused here and not tested.\n";
    const auto fails = [](const std::string& text) {
        return says_twice(1, "Fatal error: tarvik::SystemError(forkExecvPipes: giving up the " + text + ")\n");
    };
    const Result whole = prints(none), kept = prints(none + old), open = prints("1 terminal 1 mute");
    // A redirection, what goes wrong in the child, and what comes of it.
    const std::tuple<std::string, std::string, Result> cases[] = {
        {"", "", whole},
        {"2>/dev/tty", "openat:error=ENFILE", whole},
        {">/dev/tty", "openat:error=ENFILE", prints("")},
        {"", "openat:error=ENFILE", fails("terminal failed: Too many open files in system")},
        {"", "openat:error=EACCES", open},
        {"", "openat:error=ENOENT", open},
        {"", "keyctl:error=EPERM", kept},
        {"", "keyctl:error=EACCES", kept},
        {"", "keyctl:error=ENOSYS", kept},
        {"", "keyctl:error=EDQUOT", fails("keys failed: Disk quota exceeded")},
    };
    int terminal = -1;
    const pid_t leader = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (leader == 0) {
        const Words arguments = {std::to_string(getpgrp()), std::to_string(TIOCSTI), std::to_string(SYS_keyctl),
                                 std::to_string(keyring)};
        for (const auto& [redirection, fault, result] : cases) {
            const std::string traced = "strace -fqqo/dev/null -einject=" + fault + ":when=1 ";
            const std::string tracer = fault.empty() ? "" : fault[0] == 'o' ? traced + "-P/dev/tty " : traced;
            const Words wrapper = {"sh", "-c", "export ASAN_OPTIONS=detect_leaks=0; exec " + tracer + "\"$@\"", "sh"};
            EXPECT_EQ(run_script(arguments, redirection, wrapper), result) << redirection << fault;
        }
        _exit(HasFailure() ? 1 : 0);
    }
    std::string said;
    for (char each; ::read(terminal, &each, 1) == 1;)
        said += each;
    int status = -1;
    waitpid(leader, &status, 0);
    close(terminal);
    EXPECT_EQ(status, 0) << said;
}

TEST_F(RunScript, ThePackagesVersionTellsWhoNamesItsScript)
{
    // Version, the package's own language, the caller's file and language, and what is run.
    const std::string cases[][5] = {{"1.0", "binary", "?", "?", "configure"},
                                    {"1.1", "?", "mine", "binary", "mine"},
                                    {"1.2", "?", "mine", "binary", "mine"},
                                    {"1.3", "binary", "?", "?", "configure"}};
    site_.write("package/scripts/mine", "#!/bin/sh\necho ${0##*/}\n", 0755);
    for (const auto& [version, own, file, language, run] : cases) {
        package(own, "#!/bin/sh\necho ${0##*/}\n");
        site_.shell("sed -i 's/<application/& version=\"" + version + "\"/' package/APP-META.xml");
        EXPECT_EQ(run_script({"--script-file-name=" + file, "--script-language=" + language}), prints(run + "\n"))
            << version;
    }
}

TEST(ForkExecvPipes, SetsStreamsUserAndEnvironment)
{
    const std::tuple<const char*, int, int, int, Result> cases[] = {
        {"its own", 50, 1, 2, {0, "bob new root", "err", 0}},
        {"both to standard output", 50, 1, 1, prints("bob new rooterr")},
        {"both to another", 50, 51, 51, prints("bob new rooterr")},
        {"exchanged", 50, 2, 1, {0, "err", "bob new root", 0}},
        {"no such input", -2, 1, 2,
         says_twice(1, "Fatal error: tarvik::SystemError(dup2Custom failed: Bad file descriptor)\n")},
    };
    for (const auto& [why, in, out, err, result] : cases) {
        const auto body = [in = in, out = out, err = err] {
            tarvik::ArgList words;
            for (const char* word : {"name", "-c", "printf \"$(id -un) $HOME $(head -c 4)\"; printf err >&2"})
                words.append(word);
            dup2(open("/etc/passwd", O_RDONLY), 50);
            dup2(STDOUT_FILENO, 51);
            const pid_t child = tarvik::forkExecvPipes(in, out, err, "sh", words, "bob", {{"HOME", "new"}});
            std::_Exit(fork_exec_waitpid(child, "", nullptr));
        };
        EXPECT_EQ(in_child(body), result) << why;
    }
}

}  // namespace
