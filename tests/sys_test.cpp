#include "common/ExSystemError.h"
#include "common/misc.h"
#include "sys/TExecsList.h"
#include "sys/cpp_syscall.h"
#include "tests/support/Sandbox.h"

#include <boost/filesystem.hpp>

#include <sys/resource.h>

#include <cstring>
#include <functional>
#include <iostream>

using namespace sandbox;
using namespace tarvik;
using namespace tarvik::sys;

namespace {

const TEArgs kEarly = el;                  // before the library's own files have theirs
const std::string kLarge(3'000'000, 'x');  // more than pipes hold

TExec sh(const std::string& script) { return TExec({"sh", "-c", script}); }

TEArgs letters(std::size_t count)
{
    TEArgs args;
    while (args.size() < count)
        args.push_back({"a"});
    return args;
}

template <class Body>
std::string error_of(Body body)
try {
    body();
    return "";
} catch (const std::exception& e) {
    return e.what();
}

template <std::size_t... Number>
TEArgs listed(std::index_sequence<Number...>)
{
    return {(static_cast<void>(Number), "a")...};
}

/// The error's text, or the output.
std::string captured(const TExecsList& list)
{
    std::string text = "untouched";
    const std::string error = error_of([&] { text <<= list; });
    return error.empty() ? text : error;
}

auto open_descriptors() { return std::distance(boost::filesystem::directory_iterator("/proc/self/fd"), {}); }

TEST(TEArgs, HoldsAHundredStringsAndSaysWhyNotMore)
{
    TEArgs args = letters(90), full = args;
    full.push_back(letters(10));
    EXPECT_EQ(full.size(), 100U);
    EXPECT_EQ(error_of([&] { args.push_back(letters(11)); }),
              "The number of arguments has exceeded the defined limits"
              " (arguments number = 90, add. arguments number = 11, max = 100)");
    EXPECT_EQ(error_of([&] { static_cast<void>(args[90]); }), "Wrong index (index = 90)");
    EXPECT_EQ(error_of([&] { static_cast<void>(args[3'000'000'000]); }), "Wrong index (index = 3000000000)");
    EXPECT_EQ(error_of([] { TExec(el).execute(); }), "Bad execute arguments");
    EXPECT_EQ(listed(std::make_index_sequence<100>()).size(), 100U);
    EXPECT_THROW(listed(std::make_index_sequence<101>()), TEArgs::TOverflow);
    EXPECT_THROW(static_cast<void>(args[91]), TEArgs::TOutOfRange);
}

TEST(TEArgs, CopiesStayAsTheyWere)
{
    TEArgs args {"a", "b"};
    const TEArgs copy = args;
    args.push_back({"c"});
    EXPECT_EQ(copy.size(), 2U);
    args.push_back(args);
    args.push_back(args);
    EXPECT_EQ(args.size(), 12U);
    EXPECT_EQ(args[0] + args[1] + args[2] + args[3] + args[11], "abcac");
    EXPECT_EQ(kEarly.size(), 0U);
}

static_assert(!std::is_invocable_v<std::bit_and<>, TExec, int>, "exec & 2 is no redirection");

TEST(TExec, ReturnsTheChildAndItsExitCode)
{
    TExec exits = sh("exit 3") * fork_mode | wait_mode | path_mode;
    EXPECT_EQ(exits.execute().exit_code, 3);
    EXPECT_EQ(sh("kill -KILL $$").execute().exit_code, -1);
    const TSLProcess unwaited = (exits & ~wait_mode).execute();
    EXPECT_EQ(unwaited.exit_code, 0);
    EXPECT_EQ(WEXITSTATUS(wait_process(unwaited.pid)), 3);
    EXPECT_EQ(wait_process(unwaited.pid), 0);  // no such child any more
    const pid_t stopped = (sh("kill -STOP $$") & ~wait_mode).execute().pid;
    EXPECT_TRUE(WIFSTOPPED(wait_process(stopped)));
    EXPECT_EQ(kill(stopped, SIGKILL), 0);
    EXPECT_TRUE(WIFSIGNALED(wait_process(stopped)));
    EXPECT_EQ(in_child([] {  // which has something to flush; "true" is not searched for
                  std::cout << "once " << (TExec({"true"}) * exit_without_program() & ~path_mode).execute().exit_code;
                  std::cout << error_of([] { _exit((sh("") ^ path_mode).execute().exit_code); });  // told by the child
              }),
              prints("once 127No such file or directory"));
    TExec missing = (sh("exit 9") ^ path_mode ^ fork_mode) * exit_without_program();
    EXPECT_THROW(missing.execute(), TSysCallErr);  // if it were found, the test would end with 9
    const pid_t invalid = std::numeric_limits<pid_t>::min();
    EXPECT_EQ(error_of([&] { wait_process(invalid); }), "waitpid() failed: No such process");
}

/// Tells of each hook: the caller's on standard output, the child's on standard error.
struct Telling : TExec::TPrepare {
    std::string name;
    bool is_error;
    Telling(std::string hookName, bool isError) : name(std::move(hookName)), is_error(isError) { }
    static void tell(const std::string& text)
    {
        static const pid_t caller = getpid();
        (getpid() == caller ? std::cout : std::cerr) << text << ' ' << std::flush;
        errno = 0;  // not the error to be thrown
    }
    bool ask(const std::string& text) const { return tell(text), is_error; }
    void bef_fork(TExec&) override { tell("bef_fork" + name); }
    bool fork_failed(TExec&) override { return ask("fork_failed" + name); }
    void aft_fork4p(TExec&) override { tell("aft_fork4p" + name); }
    void aft_fork4d(TExec&) override { tell("aft_fork4d" + name); }
    void bef_exec(TExec&) override { tell("bef_exec" + name); }
    bool exec_failed(TExec&) override { return ask("exec_failed" + name); }
};

/// Takes itself away, which is for the next run.
struct Leaving : TExec::TPrepare {
    void bef_fork(TExec& exec) override { exec = exec * Handle<TPrepare>(); }
    void aft_fork4d(TExec&) override { _exit(7); }
};

struct Refusing : TExec::TPrepare {
    void bef_fork(TExec&) override { throw TError("refused"); }
};

[[noreturn]] void run_told(TExec exec, bool may_fork, bool second_is_error)
{
    const rlimit none = {};
    if (!may_fork && (setrlimit(RLIMIT_NPROC, &none) != 0 || setuid(kAlice) != 0))
        _exit(99);
    Telling::tell("run");
    exec += make_prepare<Telling>("1", !second_is_error);
    exec += make_prepare<Telling>("2", second_is_error);
    try {
        const TSLProcess process = exec.execute();
        Telling::tell(process.pid < 0 ? "not started" : "exit " + xtos(unsigned(process.exit_code)));
    } catch (const TSysCallErr& e) {
        Telling::tell(std::strerror(e.errorNumber()));
    }
    _exit(9);
}

TEST(TPrepare, HooksRunInOrderInTheirProcessAndTheLastDecides)
{
    const std::string bef_fork = "run bef_fork1 bef_fork2 ", parent = bef_fork + "aft_fork4p1 aft_fork4p2 ";
    const std::string no_fork = bef_fork + "fork_failed1 fork_failed2 ", exec = "bef_exec1 bef_exec2 ";
    const std::string child = "aft_fork4d1 aft_fork4d2 " + exec, no_exec = "exec_failed1 exec_failed2 ";
    const TExec missing = sh("") ^ path_mode;
    const std::tuple<const char*, TExec, bool, bool, std::string, std::string> cases[] = {
        {"a normal run", sh("exit 5"), true, true, parent + "exit 5 ", child},
        {"exec fails", missing, true, true, parent + "exit 9 ", child + no_exec + "No such file or directory "},
        {"exec fails, no error", missing, true, false, parent + "exit 9 ", child + no_exec + "not started "},
        {"fork fails", sh(""), false, true, no_fork + "Resource temporarily unavailable ", ""},
        {"fork fails, no error", sh(""), false, false, no_fork + "not started ", ""},
        {"no fork", sh("echo replaced; exit 9") ^ fork_mode, true, true, "run " + exec + "replaced\n", ""},
        {"no fork, no error", missing ^ fork_mode, true, false, "run " + exec + no_exec + "not started ", ""},
    };
    for (const auto& [why, program, may_fork, second_is_error, out, err] : cases) {
        const auto body = [&program = program, may_fork = may_fork, second = second_is_error] {
            run_told(program, may_fork, second);
        };
        EXPECT_EQ(in_child(body), (Result {9, out, err, 0})) << why;
    }
#ifndef ZENDREL_SANITIZED  // the leak check, too, has to start something
    EXPECT_EQ(in_child([] {
                  const rlimit none = {};
                  if (setrlimit(RLIMIT_NPROC, &none) == 0 && setuid(kAlice) == 0)
                      std::cout << error_of([] { sh("").execute(); });
                  std::vector<pid_t> unwaited;
                  TExecsList((sh("") * make_prepare<Telling>("", false)) & ~wait_mode).execute(unwaited);
                  std::cout << unwaited.size();
              }),
              prints("Resource temporarily unavailablebef_fork fork_failed 0"));
#endif
    TExec emptied = std::get<TExec>(cases[2]) * Handle<TExec::TPrepare>();
    emptied += emptied.prepare();
    EXPECT_TRUE(emptied.prepare()->exec_failed(emptied));
    TExec left = sh("exit 3") * make_prepare<Leaving>();
    EXPECT_EQ(left.execute().exit_code, 7);
    EXPECT_EQ(left.execute().exit_code, 3);
}

TEST(Redirections, ArrangeDescriptorsInWrittenOrder)
{
    const Site site;
    const std::string in = site.path("in"), out = site.path("out");
    std::ofstream(in) << "input";
    const TExec cat({"cat"}), both = sh("echo out; echo err >&2"), writer = sh("echo x 2>/dev/null || echo failed >&3");
    const std::tuple<const char*, TExec, std::string> cases[] = {
        {"a new file", (cat < in) > out, "input"},
        {"truncated", sh("echo") > out, "\n"},
        {"appended, and text in", (cat << "text") >> out, "\ntext"},
        {"both streams", (both > out) & TRedirect(2, 1), "out\nerr\n"},
        {"the stream as it was before", (both & TRedirect(2, 1) & TRedirectToFile(1, out)) << "", "out\n"},
        {"other numbers", sh("echo >&7; echo >&8") & TRedirectToFile(7, out) & TRedirect(8, 7), "\n\n"},
        {"another number, appended", sh("echo >&9") & TRedirectToFile(9, out, true), "\n\n\n"},
        {"onto itself", (sh("echo") > out) & TRedirect(1, 1), "\n"},
        {"no file to read: closed", (sh("cat 2>/dev/null || echo failed") < "/no") > out, "failed\n"},
        {"no source: closed", writer & TRedirectToFile(3, out) & TRedirect(1, 99), "failed\n"},
        {"no file to write: closed", (writer & TRedirectToFile(3, out)) > "/no/x", "failed\n"},
    };
    umask(0);
    for (auto [why, exec, written] : cases) {
        EXPECT_EQ(exec.execute().exit_code, 0) << why;
        EXPECT_EQ(read(out), written) << why;
    }
    umask(022);
    EXPECT_EQ(mode_of(out), 0664U);
}

TEST(TExecsList, RunsInOrderAndAttachesToTheLast)
{
    const Site site;
    const std::string in = site.path("in"), out = site.path("out");
    std::ofstream(in) << "in";
    const TExec cat = TExec({"cat"}) >> out, one = sh("printf 1") >> out, two = sh("printf 2; exit 4") >> out;
    EXPECT_EQ((((one, two), (two, one)), two).execute().exit_code, 4);
    EXPECT_EQ((two, TExecsList()).execute().exit_code, 4);
    EXPECT_EQ((TExecsList() | two).execute().exit_code, 4);
    EXPECT_EQ((TExecsList() << "nobody").execute().pid, 0);
    EXPECT_EQ(read(out), "1221222");

    const TExec first = (sh("tr a-z A-Z; printf /") >> out) < "/dev/null";
    ((first, cat) < in).execute();
    ((first, cat) << "text").execute();
    (((first, sh("printf out; printf err >&2")) >> out) & TRedirect(2, 1)).execute();
    ((first, sh("printf err >&2")) & TRedirectToFile(2, out, true)).execute();
    EXPECT_EQ(read(out), "1221222/in/text/outerr/err");
    ((one, sh("printf last")) > out).execute();
    EXPECT_EQ(read(out), "last");
}

TEST(TExecsList, NamesWhatNobodyHasWaitedFor)
{
    std::vector<pid_t> unwaited;
    const TExec one = sh("exit 1"), two = sh("exit 2"), stops = sh("printf $$; exec >&-; kill -STOP $$");
    EXPECT_EQ(((one, two) | (two | (one, two))).execute(unwaited).exit_code, 2);
    EXPECT_EQ(error_of([&] { (two | (one * make_prepare<Refusing>())).execute(unwaited); }), "refused");
    std::string output, statuses;
    int status = 0;
    execGetOutput(output, status, (one, one), unwaited);
    execGetOutput(output, status, stops, unwaited);
    kill(std::stoi(output), SIGKILL);
    for (const pid_t pid : unwaited)
        statuses += xtos(unsigned(wait_process(pid))) + " ";
    EXPECT_EQ(statuses, "256 512 512 256 9 ");
}

TEST(Pipelines, CarryMoreThanAPipeHoldsAndLeaveNothingOpen)
{
    const auto before = open_descriptors();
    const std::string open_in_child = run({"ls", "/proc/self/fd"}).out;
    const TExec cat({"cat"}), large = cat << kLarge, count({"wc", "-c"}), open({"ls", "/proc/self/fd"});
    EXPECT_EQ(captured(large), kLarge);
    EXPECT_EQ(captured(large | (cat | count)), xtos(kLarge.size()) + "\n");
    EXPECT_EQ(captured((large | cat) | count), xtos(kLarge.size()) + "\n");
    TExecsList kept = large | (cat | sh("head -c 1 >/dev/null; exit 6"));
    EXPECT_EQ(kept.execute().exit_code, 6);
    EXPECT_EQ(open_descriptors(), before);
    for (const TExecsList& list : {TExecsList(open << ""), open | (cat | cat), (cat << "") | (open | cat),
                                   (cat << "") | (cat | open), ((cat << "") | open) << ""})
        EXPECT_EQ(captured(list), open_in_child);
    EXPECT_EQ(in_child([] { (sh("") | (TExec({"ls", "/proc/self/fd"}) ^ fork_mode)).execute(); }).out, open_in_child);
    const TExec busy = cat & TRedirect(3, 2) & TRedirect(4, 2) & TRedirect(5, 2) & TRedirect(6, 2);
    EXPECT_EQ(captured((busy << "x") | (busy | busy)), "x");
    const TExec refusing = cat * make_prepare<Refusing>();
    for (TExecsList refused : {large | refusing, large | (cat | refusing)}) {
        EXPECT_EQ(error_of([&] { refused.execute(); }), "refused");
        EXPECT_EQ(open_descriptors(), before);
    }
    // Whoever feeds a program holds nothing of its own.
    EXPECT_EQ(captured(sh("head -c 1 >/dev/null; read feeder rest </proc/$$/task/$$/children; ls /proc/$feeder/fd")
                       << kLarge),
              "0\n1\n");
    while (wait(nullptr) > 0) { }  // the writers above lost their reader, so they end
    EXPECT_EQ(open_descriptors(), before);
}

TEST(Pipelines, WorkWithoutStandardStreamsAndTheDescriptorsFromTen)
{
    EXPECT_EQ(in_child([] {
                  const TExec cat({"cat"}), from_file = cat < "/proc/sys/kernel/ostype";
                  closefrom(3);
                  for (const int number : {-1, STDIN_FILENO, STDOUT_FILENO}) {
                      close(number);
                      for (const rlim_t limit : {7, 1024}) {  // the standard streams and two pipes; enough
                          const rlimit limits = {limit, 1024};
                          setrlimit(RLIMIT_NOFILE, &limits);
                          std::cerr << captured(from_file | cat) << captured((cat << "text") | (cat | cat)) << ' ';
                      }
                  }
              }),
              says(0, "Linux\ntext Linux\ntext Linux\ntext Linux\ntext Linux\ntext Linux\ntext "));
}

TEST(CapturedOutput, JudgesTheLastProgram)
{
    EXPECT_EQ(captured(sh("")), "");
    EXPECT_EQ(captured((sh("exit 9"), sh("printf abc"))), "abc");
    EXPECT_EQ(captured(sh("printf abc; exit 3")), "child failed (exit code=3): abc");
    EXPECT_EQ(captured(sh("printf abc; kill -KILL $$")), "child failed (status=9): abc");
    EXPECT_EQ(captured(TExecsList()), "untouched");
    const std::string stopped = captured(sh("printf $$; exec >&-; kill -STOP $$"));
    const std::string text = "child failed (status=" + xtos(W_STOPCODE(SIGSTOP)) + "): ";
    EXPECT_EQ(stopped.substr(0, text.size()), text);
    EXPECT_EQ(kill(std::stoi(stopped.substr(text.size())), SIGKILL), 0);
}

TEST(Signals, InterruptNothing)
{
    const Site site;
    static const std::string seen = site.path("seen");
    struct sigaction action = {}, old = {};
    action.sa_handler = [](int) { close(creat(seen.c_str(), 0600)); };  // and no restart by the system
    sigaction(SIGUSR1, &action, &old);
    // Not before the caller sleeps in the call, and nothing else ends that.
    TExec signals = sh("until_caller() { while kill -0 $PPID && ! \"$@\"; do :; done; } 2>/dev/null; rm -f " + seen
                       + "; until_caller grep -q State:.S /proc/$PPID/status; kill -USR1 $PPID; until_caller test -e "
                       + seen + "; printf end");
    EXPECT_EQ(captured(signals), "end");
    signals += make_prepare<TToFile>("/dev/null");
    EXPECT_EQ(signals.execute().exit_code, 0);
    EXPECT_EQ(wait_process((signals & ~wait_mode).execute().pid), 0);
    sigaction(SIGUSR1, &old, nullptr);
}

}  // namespace
