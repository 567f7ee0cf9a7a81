#include "clib/forkexec.h"
#include "clib/liblog.h"
#include "clib/libuser.h"
#include "clib/product_log.h"
#include "clib/tarvik_ugid.h"
#include "tests/support/Sandbox.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <regex>

using namespace sandbox;

namespace {

const std::string kHome = getenv("SANDBOX_DIR");
const std::string kNoFile = "System error 2: No such file or directory\n";

TEST(Messages, GoToBothStreamsWithTheSystemErrorOrUpToTheThreshold)
{
    const auto zeros = [](std::size_t count) { return std::string(count, '0') + "\n"; };
    EXPECT_EQ(in_child([] {
                  tarvik_log(6, "info %d", LogFacility == LOG_MAIL);
                  tarvik_log(7, "silent");
                  tarvik_log_init("ConSole", 12, LOG_DAEMON, 0, "id");
                  tarvik_log(12, "heard %d %d %d", LogEnabled, LogLevel, LogFacility == LOG_DAEMON);
                  tarvik_log_init(nullptr, 0, LOG_USER, 0, "id");
                  errno = 0;
                  messlog2(0, 0, "no second newline\n");
                  errno = ENOENT;
                  for (const int length : {4053, 4054, 4096})  // room for most of the error is not enough
                      messlog2(0, 0, "%0*d", length, 0);
                  PROGNAME = "/usr/bin/tool";
                  messlog2(0, 0, "path");
                  PROGNAME = "dir/";  // no name
                  messlog2(tarvik_log == syslog && tarvik_logv == vsyslog && LogEnabled == 0 ? 7 : 1, 0, "gone\n");
              }),
              says_twice(7,
                         "info 1\nheard 1 12 1\nno second newline\n" + zeros(4053) + kNoFile + zeros(4054) + zeros(4096)
                             + "tool: path\n" + kNoFile + "gone\n\n" + kNoFile));
    EXPECT_EQ(in_child([] {
                  tarvik_log_init("console", 1, LOG_USER, 0, "id");
                  tarvik_log(1, "alert");
              }),
              says_twice(0, "alert\n"));
    const Result logged = in_child([] {
        tarvik_log_init(nullptr, 1, LOG_USER, LOG_PERROR, "id");
        tarvik_log(LOG_INFO, "heard");
        exit(0);
    });
    EXPECT_TRUE(std::regex_match(logged.err, std::regex("id\\[\\d+\\]: heard\n"))) << logged;
}

TEST(Accounts, AreFoundByNameAndNumberElseReportedAndZero)
{
    EXPECT_EQ(tarvik_ugid("alice", 1), kClients);
    EXPECT_EQ(get_user_id("bob"), kBob);
    EXPECT_EQ(get_group_id("28011"), 28011u);
    EXPECT_EQ(in_child([] {
                  unsigned ids = tarvik_ugid("nosuch", 0);
                  for (const char* group : {"0", "4242", "4294967296", "12x"}) {
                      errno = EINTR;  // an older error is not theirs
                      ids |= get_group_id(group);
                  }
                  _exit((ids | get_user_id("nosuch")) == 0 ? 42 : 1);
              }),
              says_twice(42,
                         "Unable to getpwnam for user nosuch\ngetgrgid(4242): Success\ngetgrgid(-1): Success\n"
                         "getgrnam(12x): Success\nUnable to find uid for user nosuch: Success\n"));
}

TEST(Accounts, AreUnknownWithoutANameService)
{
    const Site site;
    site.shell("cp /etc/nsswitch.conf saved; sed 's/^group:.*/group: nosuch/' saved >/etc/nsswitch.conf");
    EXPECT_EQ(in_child([] {
                  errno = EINTR;
                  get_gid_by_name("x");
              }),
              says_twice(0, "getgrnam(x): Success\n"));
    site.shell("cat saved >/etc/nsswitch.conf");
}

TEST(Identity, IsGivenUpForGoodOrTheProcessEnds)
{
    EXPECT_EQ(in_child([] {
                  _exit(chdir("/usr") != 0 || p_setuid_ex("root", 0, 1) != 0 || system("pwd >&2") != 0
                        || p_setuid("bob") != 0
                        || system("exec >&2; grep -E '^([UG]id|Groups):' /proc/$PPID/status; pwd") != 0);
              }),
              says(0,
                   "/usr\nUid:\t28002\t28002\t28002\t28002\nGid:\t28010\t28010\t28010\t28010\nGroups:\t28010 28012 \n"
                       + kHome + "\n"));
    EXPECT_EQ(in_child([] { p_setuid("lost"); }),
              says_twice(1, "Cannot chdir to lost homedir " + kHome + "/missing\n" + kNoFile));
    const std::string denied = "Operation not permitted\n";
    EXPECT_EQ(in_child([] { p_setuid(p_setuid("alice") == 0 ? "bob" : ""); }),
              says_twice(1, "Unable to init new groups for user bob: " + denied + "System error 1: " + denied));
    // Calls that only pretend to work.
    const Site site;
    site.metadata("<mapping url='/' path='htdocs'/>");
    site.write("package/htdocs/f", "");
    for (const std::string call : {"setuid,?setuid32", "setgid,?setgid32"}) {
        Words words = {
            "env",          "ASAN_OPTIONS=detect_leaks=0", "strace", "-fqqo/dev/null", "-einject=" + call + ":retval=0",
            ZENDREL_PROGRAM};
        const Words extract = site.extract();
        words.insert(words.end(), extract.begin(), extract.end());
        EXPECT_EQ(run(words), says_twice(1, "Failed to setuid: 28001\n\nSystem error 1: " + denied));
    }
    Words words = site.extract();
    words.insert(words.begin(), {"setpriv", "--ruid=alice", "--bounding-set=-setuid", ZENDREL_PROGRAM});
    EXPECT_EQ(run(words), says_twice(1, "Failed to setuid: 28001\n\nSystem error 1: " + denied));  // the saved id stays
    EXPECT_TRUE(site.tree().empty());
}

TEST(Descriptors, AreMovedNotCopied)
{
    const int source = open("/dev/null", O_RDONLY);
    EXPECT_EQ(dup2_custom(source, 20), 0);
    EXPECT_EQ(fcntl(source, F_GETFD), -1);
    EXPECT_EQ(close(20), 0);
}

TEST(Processes, GetTheirStreamsAndNothingElseAndEndInAnExitCode)
{
    const auto spawn = [](const char* path, int error, const char* script) {
        const char* const list[] = {"sh", "-c", script, nullptr};
        return fork_execv_pipes(-1, dup(1), error, path, const_cast<char* const*>(list));
    };
    testing::internal::CaptureStdout();
    EXPECT_EQ(fork_exec_waitpid(-1, nullptr, nullptr), -1);
    EXPECT_EQ(fork_exec_waitpid(spawn("/no/such", dup(1), ""), "", nullptr), 255);
    EXPECT_EQ(fork_exec_waitpid(spawn("/bin/sh", -1, "cd /proc/$$/fd; ls; readlink 0 2; echo >&2 || exit 4; exit 3"),
                                "", nullptr),
              3);
    const pid_t job = spawn("/bin/sh", -1, "kill -STOP $$");
    for (const int signal : {SIGKILL, 0, 0}) {
        EXPECT_EQ(fork_exec_waitpid(job, "job", nullptr), -1);
        kill(job, signal);  // the first time it was reported and left stopped
    }
    const std::string id = std::to_string(job);
    const std::string process = "waitpid(" + id + ")=" + id + ": process 'job' ";
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "fork before spawning '<unknown>' failed\n"
              "fork_execv: execv(\"/no/such\") failed: No such file or directory\n0\n1\n2\n/dev/null\n/dev/null\n"
                  + process + "stopped by signal 19\n" + process + "killed by signal 9\nwaitpid(" + id
                  + ") for 'job' process failed: No child processes (10)\n");
}

}  // namespace
