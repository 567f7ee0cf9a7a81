#include "clib/forkexec.h"
#include "clib/liblog.h"
#include "clib/libuser.h"
#include "clib/product_log.h"
#include "clib/tarvik_ugid.h"
#include "tests/support/Sandbox.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

using namespace sandbox;

namespace {

TEST(Log, WritesBothStreamsUpToTheThreshold)
{
    EXPECT_EQ(in_child([] {
                  tarvik_log(3, "error %d", 1);
                  tarvik_log(6, "info");
                  tarvik_log(12, "silent");
                  tarvik_log_init("ConSole", 12, LOG_DAEMON, 0, "id");
                  tarvik_log(12, "heard %d %d %d", LogEnabled, LogLevel, LogFacility == LOG_DAEMON);
                  tarvik_log_init("file", 3, LOG_MAIL, 0, "id");
                  tarvik_log(3, "enabled %d", LogEnabled);
                  tarvik_log_init("console", 0, LOG_MAIL, 0, "id");
                  tarvik_log(1, "below");
              }),
              says_twice(0, "error 1\ninfo\nheard 1 12 1\nenabled 0\n"));
}

TEST(Log, GoesToTheSystemLogWithoutADestination)
{
    EXPECT_EQ(LogFacility, 16);
    EXPECT_EQ(in_child([] {
                  tarvik_log_init(nullptr, 7, LOG_USER, 0, "zendrel-test");
                  tarvik_log(7, "not on the console");
                  _exit(tarvik_log == syslog && tarvik_logv == vsyslog ? 0 : 1);
              }),
              says(0, ""));
}

TEST(Messlog, PrintsTheMessageAndTheSystemErrorOnBothStreams)
{
    struct Case {
        const char* why;
        int error;
        void (*call)();
        int status;
        std::string text;
    };
    const Case cases[] = {
        {"no error, newline added", 0, [] { messlog2(0, 0, "a %s", "b"); }, 0, "a b\n"},
        {"no second newline", 0, [] { messlog2(0, 0, "a\n"); }, 0, "a\n"},
        {"the message's newline and the suffix's both stay", 2,
         [] { messlog2(1, 1, "Unable to open dir %s: %s\n", "/d", "gone"); }, 1,
         "Unable to open dir /d: gone\n\nSystem error 2: No such file or directory\n"},
        {"4095 characters leave no room", 2, [] { messlog2(7, 0, "%04095d", 0); }, 7, std::string(4095, '0') + "\n"},
        {"room for most of the suffix is not enough", 2, [] { messlog2(0, 0, "%04060d", 0); }, 0,
         std::string(4060, '0') + "\n"},
        {"5000 characters are printed whole", 2, [] { messlog2(0, 0, "%05000d", 0); }, 0,
         std::string(5000, '0') + "\n"},
        {"the last component of the name comes first", 0,
         [] {
             PROGNAME = "/usr/bin/tool";
             ex_messlog("m", 0, 0);
             PROGNAME = "dir/";
             ex_messlog("n", 4, 0);
         },
         4, "tool: m\nn\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        static const Case* current;
        current = &c;
        EXPECT_EQ(in_child([] {
                      errno = current->error;
                      current->call();
                      if (errno != current->error)
                          _exit(99);
                  }),
                  says_twice(c.status, c.text));
    }
}

TEST(Accounts, AreFoundByNameAndNumber)
{
    EXPECT_EQ(tarvik_ugid("alice", 0), kAlice);
    EXPECT_EQ(tarvik_ugid("alice", 1), kClients);
    EXPECT_EQ(get_user_id("bob"), kBob);
    EXPECT_EQ(get_group_id("oxaserv"), kServices);
    EXPECT_EQ(get_group_id("28011"), kServices);
    EXPECT_EQ(get_group_id("0"), 0u);  // the root group exists: no message
    EXPECT_EQ(is_number(""), 1);
    EXPECT_EQ(get_group_id(""), 0u);
    EXPECT_EQ(is_number("12x"), 0);
    uid_t uid = 0;
    const char* home = nullptr;
    EXPECT_EQ(tarvik_getpw("carol", &uid, nullptr, &home), 0);
    EXPECT_EQ(uid, kCarol);
    EXPECT_STREQ(home, getenv("SANDBOX_DIR"));
}

TEST(Accounts, UnknownNamesAreReportedAndGiveZero)
{
    EXPECT_EQ(in_child([] {
                  errno = EINTR;  // an older error is not theirs
                  if (get_group_id("4242") != 0 || get_group_id("nosuch") != 0
                      || get_group_id("99999999999999999999") != 0 || get_user_id("nosuch") != 0
                      || tarvik_ugid("nosuch", 0) != 0)
                      _exit(1);
              }),
              says_twice(0,
                         "getgrgid(4242): Success\ngetgrnam(nosuch): Success\n"
                         "getgrgid(-1): Success\nUnable to find uid for user nosuch: Success\n"
                         "Unable to getpwnam for user nosuch\n"));
}

TEST(Identity, IsGivenUpForGood)
{
    EXPECT_EQ(in_child([] {
                  const gid_t roots[] = {0, kServices};
                  if (setgroups(2, roots) != 0 || p_setuid("bob") != 0)
                      _exit(1);
                  uid_t r, e, s;
                  gid_t rg, eg, sg;
                  gid_t groups[8] = {};
                  getresuid(&r, &e, &s);
                  getresgid(&rg, &eg, &sg);
                  const int count = getgroups(8, groups);
                  const bool ids =
                      r == kBob && e == kBob && s == kBob && rg == kClients && eg == kClients && sg == kClients;
                  const bool sets = count == 2 && groups[0] + groups[1] == kClients + kEditors;
                  const bool back = setuid(0) == 0 || seteuid(0) == 0 || setgid(0) == 0 || setgroups(0, nullptr) == 0
                      || chown("/etc", kBob, kClients) == 0;
                  char directory[4096];
                  const bool home = getcwd(directory, sizeof directory) == std::string(getenv("SANDBOX_DIR"));
                  _exit(ids && sets && !back && home ? 42 : 43);
              }),
              says(42, ""));
    EXPECT_EQ(in_child([] {
                  if (chdir("/usr") != 0)
                      _exit(1);
                  p_setuid_ex("root", 0, 1);
                  char directory[4096];
                  _exit(std::string(getcwd(directory, sizeof directory)) == "/usr" ? 42 : 43);
              }),
              says(42, ""));
}

TEST(Identity, FailuresEndTheProcess)
{
    EXPECT_EQ(in_child([] { p_setuid("nosuch"); }),
              says_twice(1, "Unable to getpwnam for user nosuch\nUser nosuch not found\n"));
    EXPECT_EQ(in_child([] { p_setuid("root"); }), says_twice(1, "Cannot run as forbidden uid: 0\n"));
    const std::string home = std::string(getenv("SANDBOX_DIR")) + "/missing";
    EXPECT_EQ(in_child([] { p_setuid("lost"); }),
              says_twice(1, "Cannot chdir to lost homedir " + home + "\nSystem error 2: No such file or directory\n"));
    EXPECT_EQ(in_child([] {
                  if (setuid(kAlice) != 0)
                      _exit(0);
                  p_setuid_ex("bob", 0, 0);
              }),
              says_twice(1,
                         "Unable to init new groups for user bob: Operation not permitted\n"
                         "System error 1: Operation not permitted\n"));
}

pid_t child_that(void (*body)())
{
    const pid_t child = fork();
    if (child == 0) {
        body();
        _exit(0);
    }
    return child;
}

TEST(Waiting, ReducesAStatusToAnExitCode)
{
    EXPECT_EQ(in_child([] {
                  int raw = 0;
                  if (fork_exec_waitpid(child_that([] { _exit(3); }), "three", &raw) != 3 || raw != 3 << 8)
                      _exit(1);
                  if (fork_exec_waitpid(-1, nullptr, nullptr) != -1)
                      _exit(2);
              }),
              says_twice(0, "fork before spawning '<unknown>' failed\n"));

    static pid_t child;
    child = child_that([] { raise(SIGKILL); });
    const std::string killed = std::to_string(child);
    EXPECT_EQ(fork_exec_waitpid(child, nullptr, nullptr), -1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(fork_exec_waitpid(child, "again", nullptr), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "waitpid(" + killed + ") for 'again' process failed: No child processes (10)\n");

    child = child_that([] {
        raise(SIGSTOP);
        raise(SIGTERM);
    });
    const std::string id = std::to_string(child);
    testing::internal::CaptureStdout();
    EXPECT_EQ(fork_exec_waitpid(child, "job", nullptr), -1);  // reported, left stopped
    kill(child, SIGCONT);
    EXPECT_EQ(fork_exec_waitpid(child, "job", nullptr), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "waitpid(" + id + ")=" + id + ": process 'job' stopped by signal 19\n" + "waitpid(" + id + ")=" + id
                  + ": process 'job' killed by signal 15\n");
}

TEST(Spawning, GivesTheChildItsStreamsAndNothingElse)
{
    EXPECT_EQ(in_child([] {
                  const rlimit many = {1'000'000, 1'000'000};  // closing one by one would take long
                  setrlimit(RLIMIT_NOFILE, &many);
                  dup2(1, 77);
                  const char* const list[] = {"sh", "-c", "ls /proc/$$/fd; readlink /proc/$$/fd/0", nullptr};
                  const pid_t pid = fork_execv_pipes(-1, dup(1), dup(2), "/bin/sh", const_cast<char* const*>(list));
                  const int code = fork_exec_waitpid(pid, "sh", nullptr);
                  const pid_t bad = fork_execv_pipes(-1, dup(1), dup(2), "/no/such", const_cast<char* const*>(list));
                  _exit(code == 0 ? fork_exec_waitpid(bad, "bad", nullptr) : 1);
              }),
              (Result {255, "0\n1\n2\n/dev/null\n",
                       "fork_execv: execv(\"/no/such\") failed: No such file or directory\n", 0}));
}

}  // namespace
