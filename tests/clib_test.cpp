#include "clib/forkexec.h"
#include "clib/liblog.h"
#include "clib/libuser.h"
#include "clib/product_log.h"
#include "clib/tarvik_ugid.h"
#include "tests/support/Sandbox.h"

#include <grp.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

using namespace sandbox;

namespace {

const std::string kHome = getenv("SANDBOX_DIR");
const std::string kNoFile = "System error 2: No such file or directory\n";

TEST(Log, WritesBothStreamsUpToTheThreshold)
{
    EXPECT_EQ(in_child([] {
                  tarvik_log(6, "info %d", LogFacility == LOG_MAIL);
                  tarvik_log(12, "silent");
                  tarvik_log_init("ConSole", 12, LOG_DAEMON, 0, "id");
                  tarvik_log(12, "heard %d %d %d", LogEnabled, LogLevel, LogFacility == LOG_DAEMON);
                  tarvik_log_init("file", 3, LOG_MAIL, 0, "id");
                  tarvik_log(3, "enabled %d", LogEnabled);
                  tarvik_log_init("console", 0, LOG_MAIL, 0, "id");
                  tarvik_log(1, "below");
                  tarvik_log_init(nullptr, 7, LOG_USER, 0, "zendrel-test");
                  tarvik_log(7, "to the system's log");
                  _exit(tarvik_log == syslog && tarvik_logv == vsyslog ? 42 : 1);
              }),
              says_twice(42, "info 1\nheard 1 12 1\nenabled 0\n"));
}

TEST(Messlog, PrintsTheMessageAndTheSystemErrorOnBothStreams)
{
    static const auto zeros = [](std::size_t count) { return std::string(count, '0'); };
    EXPECT_EQ(in_child([] {
                  const auto say = [](int error, const std::string& message) {
                      errno = error;
                      messlog2(0, 0, "%s", message.c_str());
                      if (errno != error)
                          _exit(99);
                  };
                  say(0, "newline added");
                  say(0, "no second newline\n");
                  say(2, zeros(4095));  // no room for the suffix
                  say(2, zeros(4060));  // room for most of it is not enough
                  say(2, zeros(5000));  // printed whole
                  PROGNAME = "/usr/bin/tool";
                  say(2, "path");
                  PROGNAME = "dir/";  // no name
                  messlog2(7, 0, "gone\n");
              }),
              says_twice(7,
                         "newline added\nno second newline\n" + zeros(4095) + "\n" + zeros(4060) + "\n" + zeros(5000)
                             + "\ntool: path\n" + kNoFile + "gone\n\n" + kNoFile));
}

TEST(Accounts, AreFoundByNameAndNumberElseReportedAndZero)
{
    EXPECT_TRUE(tarvik_ugid("alice", 0) == kAlice && tarvik_ugid("alice", 1) == kClients && get_user_id("bob") == kBob);
    EXPECT_TRUE(get_group_id("oxaserv") == kServices && get_group_id("28011") == kServices);
    EXPECT_EQ(in_child([] {
                  unsigned ids = 0;
                  for (const char* group : {"0", "", "4242", "99999999999999999999", "12x"}) {
                      errno = EINTR;  // an older error is not theirs
                      ids |= get_group_id(group);
                  }
                  _exit((ids | get_user_id("nosuch") | tarvik_ugid("nosuch", 0)) == 0 ? 42 : 1);
              }),
              says_twice(42,
                         "getgrgid(4242): Success\ngetgrgid(-1): Success\ngetgrnam(12x): Success\n"
                         "Unable to find uid for user nosuch: Success\nUnable to getpwnam for user nosuch\n"));
}

TEST(Identity, IsGivenUpForGood)
{
    EXPECT_EQ(in_child([] {
                  const gid_t roots[] = {0, kServices};
                  _exit(setgroups(2, roots) != 0 || p_setuid("bob") != 0
                        || system("grep -E '^([UG]id|Groups|CapEff):' /proc/$PPID/status; pwd") != 0);
              }),
              (Result {0,
                       "Uid:\t28002\t28002\t28002\t28002\nGid:\t28010\t28010\t28010\t28010\n"
                       "Groups:\t28010 28012 \nCapEff:\t0000000000000000\n"
                           + kHome + "\n",
                       "", 0}));
    EXPECT_EQ(in_child([] { _exit(chdir("/usr") != 0 || p_setuid_ex("root", 0, 1) != 0 || system("pwd") != 0); }),
              (Result {0, "/usr\n", "", 0}));
}

TEST(Identity, FailuresEndTheProcess)
{
    const std::string denied = "Operation not permitted\nSystem error 1: Operation not permitted\n";
    EXPECT_EQ(in_child([] { p_setuid("nosuch"); }),
              says_twice(1, "Unable to getpwnam for user nosuch\nUser nosuch not found\n"));
    EXPECT_EQ(in_child([] { p_setuid("root"); }), says_twice(1, "Cannot run as forbidden uid: 0\n"));
    EXPECT_EQ(in_child([] { p_setuid("lost"); }),
              says_twice(1, "Cannot chdir to lost homedir " + kHome + "/missing\n" + kNoFile));
    EXPECT_EQ(in_child([] { p_setuid(p_setuid("alice") == 0 ? "bob" : ""); }),
              says_twice(1, "Unable to init new groups for user bob: " + denied));
}

TEST(Waiting, ReducesAStatusToAnExitCode)
{
    const pid_t child = fork();
    if (child == 0) {
        raise(SIGSTOP);
        raise(SIGTERM);
    }
    int raw = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(fork_exec_waitpid(-1, nullptr, nullptr), -1);
    for (const int status : {SIGSTOP << 8 | 0x7f, SIGTERM, SIGTERM}) {
        EXPECT_EQ(fork_exec_waitpid(child, "job", &raw), -1);
        EXPECT_EQ(raw, status);
        kill(child, SIGCONT);  // the first time it was reported and left stopped
    }
    const std::string id = std::to_string(child);
    const std::string process = "waitpid(" + id + ")=" + id + ": process 'job' ";
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "fork before spawning '<unknown>' failed\n" + process + "stopped by signal 19\n" + process
                  + "killed by signal 15\nwaitpid(" + id + ") for 'job' process failed: No child processes (10)\n");
}

TEST(Spawning, GivesTheChildItsStreamsAndNothingElse)
{
    EXPECT_EQ(
        in_child([] {
            dup2(1, 77);
            for (const char* path : {"/bin/sh", "/no/such"}) {
                const char* const list[] = {"sh", "-c", "ls /proc/$$/fd; readlink /proc/$$/fd/0; exit 3", nullptr};
                const pid_t child = fork_execv_pipes(-1, dup(1), dup(2), path, const_cast<char* const*>(list));
                std::printf("%d\n", fork_exec_waitpid(child, path, nullptr));
            }
        }),
        (Result {0, "0\n1\n2\n/dev/null\n3\n255\n",
                 "fork_execv: execv(\"/no/such\") failed: No such file or directory\n", 0}));
}

}  // namespace
