#include "clib/forkexec.h"
#include "clib/liblog.h"
#include "clib/libuser.h"
#include "clib/product_log.h"
#include "clib/tarvik_ugid.h"
#include "tests/support/Sandbox.h"

#include <sys/resource.h>
#include <syslog.h>

#include <cerrno>

using namespace sandbox;

namespace {

const std::string kHome = getenv("SANDBOX_DIR");
const std::string kNoFile = "System error 2: No such file or directory\n";

TEST(Messages, GoToBothStreamsWithTheSystemErrorOrUpToTheThreshold)
{
    const auto zeros = [](std::size_t count) { return std::string(count, '0') + "\n"; };
    EXPECT_EQ(in_child([] {
                  tarvik_log(6, "info %d", LogEnabled == 1 && LogFacility == LOG_MAIL);
                  tarvik_log(7, "silent");
                  tarvik_log_init("ConSole2", 12, LOG_DAEMON, 0, "id");
                  tarvik_log(12, "heard %d %d %d", LogEnabled, LogLevel, LogFacility == LOG_DAEMON);
                  tarvik_log_init(nullptr, 1, LOG_USER, 0, "id");
                  tarvik_log_init("console", 1, LOG_USER, 0, "id");
                  tarvik_log(1, "alert %d %d", LogEnabled, tarvik_logv == _tarvik_utility_logv);
                  tarvik_log_init("other", 2, LOG_USER, 0, "id");
                  tarvik_log(2, "critical %d", LogEnabled);
                  tarvik_log_init("console", -1, LOG_USER, 0, "id");
                  tarvik_log(0, "emergency %d %d", LogEnabled, LogLevel);
                  tarvik_log_init(nullptr, 0, LOG_USER, 0, "id");
                  errno = 0;
                  messlog2(0, 0, "no second newline\n");
                  messlog2(0, 0, "%s", "");
                  errno = ENOENT;
                  for (const int length : {4053, 4054, 4096})  // room for most of the error is not enough
                      messlog2(0, 0, "%0*d", length, 0);
                  PROGNAME = "/usr/bin/tool";
                  messlog2(0, 0, "path");
                  PROGNAME = "dir/";  // no name
                  messlog2(tarvik_log == syslog && tarvik_logv == vsyslog && LogEnabled == 0 ? 7 : 1, 0, "gone\n");
              }),
              says_twice(7,
                         "info 1\nheard 1 12 1\nalert 1 1\ncritical 0\nemergency 0 0\nno second newline\n\n"
                             + zeros(4053) + kNoFile + zeros(4054) + zeros(4096) + "tool: path\n" + kNoFile + "gone\n\n"
                             + kNoFile));
    const Result logged = in_child([] {
        tarvik_log_init(nullptr, 1, LOG_USER, LOG_PERROR, "id");
        tarvik_log(LOG_INFO, "heard");
        exit(0);
    });
    EXPECT_EQ(logged.err.substr(0, 3) + logged.err.substr(logged.err.find(']')), "id[]: heard\n");
}

TEST(Accounts, AreFoundByNameAndNumberElseReportedAndZero)
{
    EXPECT_EQ(tarvik_ugid("alice", 1), kClients);
    EXPECT_EQ(get_user_id("bob"), kBob);
    errno = ERANGE;  // an older error is not theirs
    EXPECT_EQ(get_group_id("028011"), 28011u);
    EXPECT_EQ(is_number("") + is_number("0123456789"), 2);
    EXPECT_EQ(in_child([] {
                  unsigned ids = tarvik_ugid("nosuch", 0);
                  for (const char* group : {"0", "4242", "2147483647", "2147483648", "12x"})
                      ids |= get_group_id(group);
                  _exit((ids | get_user_id("nosuch")) == 0 ? 42 : 1);
              }),
              says_twice(42,
                         "Unable to getpwnam for user nosuch\ngetgrgid(4242): Success\n"
                         "getgrgid(2147483647): Success\ngetgrgid(-1): Success\n"
                         "getgrnam(12x): Success\nUnable to find uid for user nosuch: Success\n"));
}

TEST(Accounts, AreUnknownWithoutANameService)
{
    const Site site;
    site.shell("cp /etc/nsswitch.conf saved; sed -E 's/^(passwd|group):.*/\\1: nosuch/' saved >/etc/nsswitch.conf");
    EXPECT_EQ(in_child([] {
                  const auto user_id = [](const char* name) { return tarvik_ugid(name, 0); };
                  for (const auto lookup : {get_gid_by_name, get_group_id, get_user_id, +user_id}) {
                      errno = EINTR;
                      lookup("7");
                  }
              }),
              says_twice(0,
                         "getgrnam(7): Success\ngetgrgid(7): Success\nUnable to find uid for user 7: Success\n"
                         "Unable to getpwnam for user 7\n"));
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
    EXPECT_EQ(in_child([] { p_setuid_ex("lost", 2, 0); }),
              says_twice(1, "Cannot chdir to lost homedir " + kHome + "/missing\n" + kNoFile));
    EXPECT_EQ(in_child([] { p_setuid_ex("root", 0, 0); }), says_twice(1, "Cannot run as forbidden uid: 0\n"));
    EXPECT_EQ(in_child([] { p_setuid("nosuch"); }),
              says_twice(1, "Unable to getpwnam for user nosuch\nUser nosuch not found\n"));
    const std::string denied = "Operation not permitted\n";
    EXPECT_EQ(in_child([] { p_setuid(p_setuid("alice") == 0 ? "bob" : ""); }),
              says_twice(1, "Unable to init new groups for user bob: " + denied + "System error 1: " + denied));
    // Calls that fail or only pretend to work, and what the process started with.
    const Site site;
    site.pack({"f"});
    const Words keeps_saved_group = {"setpriv", "--rgid=28010", "--keep-groups", "--bounding-set=-setgid"};
    const std::tuple<std::string, std::string, Words> cases[] = {
        {"setgid: 28010", "setgid,?setgid32:error=EPERM", {}},
        {"setuid: 28001", "setuid,?setuid32:retval=0", {}},
        {"setuid: 28001", "setgid,?setgid32:retval=0", {}},
        {"setuid: 28001", "setgroups,?setgroups32:retval=0", keeps_saved_group},
        {"setuid: 28001", "capset:retval=0", {"setpriv", "--inh-caps=+chown"}},
        {"setuid: 28001", "capset:retval=0", {"setpriv", "--ruid=alice", "--bounding-set=-setuid"}},
    };
    for (const auto& [failed, call, started] : cases) {
        const Words tracer = {"strace", "-fqqo/dev/null", "-einject=" + call, ZENDREL_PROGRAM};
        EXPECT_EQ(run(Words {"env", "ASAN_OPTIONS=detect_leaks=0"} + started + tracer + site.extract()),
                  says_twice(1, "Failed to " + failed + "\n\nSystem error 1: " + denied))
            << call;
    }
    EXPECT_TRUE(site.tree().empty());
}

TEST(Descriptors, AreMovedNotCopied)
{
    const int source = open("/dev/null", O_RDONLY);
    EXPECT_EQ(dup2_custom(source, 20), 0);
    EXPECT_EQ(fcntl(source, F_GETFD), -1);
    EXPECT_EQ(close(20), 0);
    EXPECT_EQ(dup2_custom(source, 20), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(in_child([] {
                  close(0);
                  _exit(dup2_custom(-1, 0) == 0 ? fcntl(0, F_GETFL) & O_ACCMODE : 99);  // the number was free
              }),
              says(O_RDWR, ""));
    EXPECT_EQ(in_child([] {
                  const rlimit none_more = {3, 3};
                  char* const list[] = {nullptr};
                  setrlimit(RLIMIT_NOFILE, &none_more);
                  const int failed = dup2_streams(0, 1, -1) == -1 ? errno : 0;
                  _exit(failed + fork_exec_waitpid(fork_execv_pipes(0, 1, -1, "/bin/true", list), "", nullptr) - 255);
              }),
              says(EMFILE, "fork_execv: dup() failed: Too many open files\n"));
}

TEST(Processes, GetTheirStreamsAndNothingElseAndEndInAnExitCode)
{
    const auto spawn = [](const char* path, int error, const char* script) {
        const char* const list[] = {"sh", "-c", script, nullptr};
        return fork_execv_pipes(-1, dup(1), error, path, const_cast<char* const*>(list));
    };
    testing::internal::CaptureStdout();
    LogLevel = 3;
    EXPECT_EQ(fork_exec_waitpid(-1, nullptr, nullptr), -1);
    EXPECT_EQ(fork_exec_waitpid(spawn("/no/such", dup(1), ""), "", nullptr), 255);
    EXPECT_EQ(fork_exec_waitpid(spawn("/bin/sh", -1, "cd /proc/$$/fd; ls; readlink 0 2; echo >&2 || exit 4; exit 3"),
                                "", nullptr),
              3);
    const pid_t job = spawn("/bin/sh", -1, "kill -STOP $$; kill -STOP $$");
    int status = 0;
    // A stop is reported, and the process left so; only the last of these is an error.
    for (const auto& [level, signal] : {std::pair(4, SIGCONT), {3, SIGKILL}, {4, 0}, {3, 0}}) {
        LogLevel = level;
        EXPECT_EQ(fork_exec_waitpid(job, "job", &status), -1);
        kill(job, signal);
    }
    LogLevel = 6;
    EXPECT_EQ(status, SIGKILL);
    const std::string id = std::to_string(job);
    const std::string process = "waitpid(" + id + ")=" + id + ": process 'job' ";
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "fork before spawning '<unknown>' failed\n"
              "fork_execv: execv(\"/no/such\") failed: No such file or directory\n0\n1\n2\n/dev/null\n/dev/null\n"
                  + process + "stopped by signal 19\n" + process + "killed by signal 9\nwaitpid(" + id
                  + ") for 'job' process failed: No child processes (10)\n");
}

#ifndef ZENDREL_SANITIZED  // the leak check, too, has to start something
/// Whoever runs the command waits for its end, not for what was never started.
TEST(Processes, EndTheirCallerWhereThereCanBeNone)
{
    EXPECT_EQ(in_child([] {
                  const rlimit none = {};
                  char* const list[] = {nullptr};
                  if (setrlimit(RLIMIT_NPROC, &none) == 0 && setuid(kAlice) == 0)
                      fork_execv_pipes(0, 1, 2, "/bin/true", list);
              }),
              says_twice(1, "fork_execv_pipes: fork() failed\nSystem error 11: Resource temporarily unavailable\n"));
}
#endif

}  // namespace
