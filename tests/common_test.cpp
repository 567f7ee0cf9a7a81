#include "common/ExSystemError.h"
#include "common/TmpFile.h"
#include "common/Traceback.h"
#include "common/UtilityErrorStream.h"
#include "common/misc.h"
#include "tests/support/Sandbox.h"

#include <sys/stat.h>

#include <algorithm>
#include <iostream>

using namespace sandbox;
using namespace tarvik;

namespace {

TEST(SystemError, HasATypeForTheNumbersThatCallersCatch)
{
    EXPECT_THROW(throwSystemError("", EPERM), ExSystemError<1>);
    EXPECT_THROW(throwSystemError("", ENOENT), ExSystemError<2>);
    EXPECT_THROW(throwSystemError("", EINTR), ExSystemError<4>);
    EXPECT_THROW(throwSystemError("", ECHILD), ExSystemError<10>);
    EXPECT_THROW(throwSystemError("", EAGAIN), ExSystemError<11>);
}

void raise_number() { throw 5; }

TEST(Terminate, PrintsTheExceptionThatNobodyCaught)
{
    oxa_set_terminate();
    EXPECT_EQ(in_child([]() noexcept { raise_number(); }), says(1, "Unexpected error\n"));
    const auto dies_of = [](const std::string& text) { return says(1, "Unexpected error: " + text + "\n"); };
    EXPECT_EQ(in_child([]() noexcept { throwSystemError("", ESRCH); }), dies_of("No such process"));
    EXPECT_EQ(in_child([]() noexcept { readFile("/no"); }), dies_of("/no: open failed: No such file or directory"));
    EXPECT_EQ(in_child([]() noexcept { readFile("/etc"); }), dies_of("/etc: read failed: Is a directory"));
    EXPECT_EQ(in_child([]() noexcept { TmpFile("/no/x", true); }),
              dies_of("mkstemp() failed: : No such file or directory"));
    EXPECT_EQ(readFile("/proc/self/exe"), read("/proc/self/exe"));
}

TEST(UtilityErrorStream, RepeatsOnStandardOutputWhatIsFlushed)
{
    EXPECT_EQ(in_child([] {
                  uerr << "flushed " << std::flush << "late ";
                  std::cout << "between ";
              }),
              (Result {0, "flushed between late ", "flushed late ", 0}));
}

struct Tracked : std::runtime_error, Traceback {
    explicit Tracked(std::size_t skip) : std::runtime_error("tracked"), Traceback(skip) { }
};

TEST(Traceback, FollowsTheMessageOfAnExceptionThatCarriesOne)
{
    const Result printed = in_child([] {
        const Tracked original(0);
        uerr << original << Tracked(original) << Tracked(1000);  // each frees its own symbols
        reportException<std::exception>(original);
    });
    const std::string message = "Traceback addresses:\nFatal error: (anonymous namespace)::Tracked(tracked)\n";
    const std::string frames = printed.err.substr(printed.err.rfind("Traceback:\n\t"));
    EXPECT_EQ(printed, says_twice(0, frames + frames + message + frames));
    EXPECT_LE(std::count(frames.begin(), frames.end(), '\n'), 12);
}

TEST(TmpFile, IsAFileOfItsOwnAndCleansUpWithoutThrowing)
{
    EXPECT_EQ(in_child([] {
                  const Site site;
                  {
                      TmpFile(site.docroot("kept"), false) << "text";
                      const TmpFile removed(site.docroot("removed"), true);
                      const TmpFile moved(site.docroot("moved"), true);
                      rename(moved.name().c_str(), site.docroot("final").c_str());  // silent: it is in place
                      const TmpFile replaced(site.docroot("directory"), true);
                      remove(replaced.name().c_str());
                      mkdir(replaced.name().c_str(), 0755);
                  }
                  for (const auto& [name, line] : site.tree())
                      std::cout << name.substr(0, 4) << ' ' << line << '\n';
              }),
              (Result {0, "dire d 755 root:root\nfina - 600 root:root \nkept - 600 root:root text\n",
                       "TmpFile autoclean failed: Is a directory\n", 0}));
}

}  // namespace
