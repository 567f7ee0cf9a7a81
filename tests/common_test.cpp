#include "common/ExSystemError.h"
#include "common/TmpFile.h"
#include "common/Traceback.h"
#include "common/UtilityErrorStream.h"
#include "common/misc.h"
#include "tests/support/Sandbox.h"

#include <iostream>

using namespace sandbox;
using namespace tarvik;

namespace {

void raise_number() { throw 5; }

TEST(SystemError, HasATypeForWhoCatchesItAndATextForNobody)
{
    EXPECT_THROW(throwSystemError("", EPERM), ExSystemError<1>);
    EXPECT_THROW(throwSystemError("", EINTR), ExSystemError<4>);
    EXPECT_THROW(throwSystemError("", ECHILD), ExSystemError<10>);
    EXPECT_THROW(throwSystemError("", EAGAIN), ExSystemError<11>);
    oxa_set_terminate();
    EXPECT_EQ(in_child([]() noexcept { raise_number(); }), says(1, "Unexpected error\n"));
    EXPECT_EQ(in_child([] { std::terminate(); }), says(128 + SIGABRT, ""));
    const auto dies = [](const std::string& text) { return says(1, "Unexpected error: " + text + "\n"); };
    EXPECT_EQ(in_child([]() noexcept { throwSystemError("", ESRCH); }), dies("No such process"));
    EXPECT_EQ(in_child([]() noexcept { readFile("/no"); }), dies("/no: open failed: No such file or directory"));
    EXPECT_EQ(in_child([]() noexcept { readFile("/etc"); }), dies("/etc: read failed: Is a directory"));
    EXPECT_EQ(in_child([]() noexcept { TmpFile("/n/", true); }), dies("mkstemp() failed: : No such file or directory"));
    EXPECT_EQ(readFile("/proc/self/exe"), read("/proc/self/exe"));
}

struct Tracked : std::runtime_error, Traceback {
    explicit Tracked(std::size_t skip) : std::runtime_error("tracked"), Traceback(skip) { }
};

TEST(UtilityErrorStream, RepeatsOnStandardOutputWhatIsFlushedAndShowsTracebacks)
{
    const Result printed = in_child([] {
        uerr << "flushed " << std::flush << "late ";
        std::cout << "between ";
        const Tracked original(0), skipped(1000);
        uerr << Tracked(original) << Tracked(skipped);  // each frees its own symbols
        reportException<std::exception>(original);
    });
    const std::string trace = printed.err.substr(printed.err.rfind("Traceback:\n\t"));
    const auto text = trace + "Traceback addresses:\nFatal error: (anonymous namespace)::Tracked(tracked)\n" + trace;
    EXPECT_EQ(printed, (Result {0, "flushed between late " + text, "flushed late " + text, 0}));

    // Assigned, one that was shown has other frames.
    const auto shown = [](const Traceback& traceback) { return (std::ostringstream() << traceback).str(); };
    for (const Traceback& other : {Traceback(1000), Traceback(1)}) {
        Traceback traceback;
        EXPECT_NE(shown(traceback), shown(other));
        traceback = other;
        EXPECT_EQ(shown(traceback), shown(other));
    }
    EXPECT_EQ(shown(Traceback(1000)), "Traceback addresses:\n");
}

TEST(TmpFile, IsAFileOfItsOwnAndCleansUpWithoutThrowing)
{
    EXPECT_EQ(in_child([] {
                  const Site site;
                  TmpFile(site.docroot("kept"), false) << "text";
                  for (const std::string change : {"", "mv $f vhost/httpdocs/final", "rm $f\nmkdir $f"}) {
                      const TmpFile file(site.docroot("file"), true);
                      site.shell("f=" + file.name() + "; ls -l /proc/$$/fd 2>/dev/null | grep $f || :\n" + change);
                  }
                  site.shell("cd vhost/httpdocs\nmv kept* kept\nmv file* directory");
                  std::cout << site.listing();
              }),
              (Result {0, "\n- 600 root:root: final= kept=text\nd 755 root:root: directory\n",
                       "TmpFile autoclean failed: Is a directory\n", 0}));
}

TEST(WriteSignals, AreErrorsSoThatAFailedExtractionIsUndoneEvenIfNobodyListens)
{
    const Site site;
    site.pack({"a", "b/c/d"});
    site.put("b/", "", 0755, kBob, 28011);  // warned of after a is there, and then nothing can be made in it
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    const std::string exec = "exec \"$0\" \"$@\" 2>&" + std::to_string(ends[1]);
    const Words program = {"env", "--default-signal", "sh", "-c", exec, ZENDREL_PROGRAM};
    EXPECT_EQ(run(program + site.extract()), says(1, ""));
    EXPECT_TRUE(site.tree().empty());
    close(ends[1]);
}

}  // namespace
