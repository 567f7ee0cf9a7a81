#include "common/ExSystemError.h"
#include "common/TmpFile.h"
#include "common/Traceback.h"
#include "common/UtilityErrorStream.h"
#include "common/misc.h"
#include "tests/support/Sandbox.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>

using namespace sandbox;
using namespace tarvik;

namespace {

template <int N>
std::string raised()
{
    try {
        throwSystemError("open", N);
    } catch (const ExSystemError<N>& e) {
        return e.what();
    } catch (const SystemError&) {
        return "plain";
    }
}

TEST(SystemError, HasATypeForTheNumbersThatCallersCatch)
{
    EXPECT_EQ(raised<1>(), "open: Operation not permitted");
    EXPECT_EQ(raised<2>(), "open: No such file or directory");
    EXPECT_EQ(raised<4>(), "open: Interrupted system call");
    EXPECT_EQ(raised<10>(), "open: No child processes");
    EXPECT_EQ(raised<11>(), "open: Resource temporarily unavailable");
    EXPECT_EQ(raised<3>(), "plain");
    EXPECT_STREQ(SystemError("open", 3).what(), "open: No such process");
    EXPECT_STREQ(SystemError("", 2).what(), "No such file or directory");
}

TEST(UtilityErrorStream, RepeatsOnStandardOutputWhatIsFlushed)
{
    EXPECT_EQ(in_child([] {
                  uerr << "seen" << std::endl;
                  uerr << "lost";
                  _exit(0);
              }),
              (Result {0, "seen\n", "seen\nlost", 0}));
    // Text without a final flush still reaches standard output at exit.
    EXPECT_EQ(in_child([] { uerr << "late"; }), says_twice(0, "late"));
}

struct Tracked : std::runtime_error, Traceback {
    explicit Tracked(std::size_t skip) : std::runtime_error("tracked"), Traceback(skip) { }
};

TEST(Traceback, FollowsTheMessageOfAnExceptionThatCarriesOne)
{
    const Result printed = in_child([] { reportException<std::exception>(Tracked(0)); });
    const std::string first = printed.err.substr(0, printed.err.find('\n') + 1);
    EXPECT_NE(first.find("Tracked(tracked)\n"), std::string::npos) << first;
    EXPECT_EQ(printed.err.find("Traceback:\n\t"), first.size());
    EXPECT_EQ(printed.out, printed.err);

    std::ostringstream none;
    none << Tracked(1000);
    EXPECT_EQ(none.str(), "Traceback addresses:\n");

    const Tracked original(0);
    const Tracked copy(original);  // each frees its own symbols
    std::ostringstream a;
    std::ostringstream b;
    a << original;
    b << copy;
    EXPECT_EQ(a.str(), b.str());
    const std::string lines = a.str();
    EXPECT_GE(std::count(lines.begin(), lines.end(), '\n'), 3);
    EXPECT_LE(std::count(lines.begin(), lines.end(), '\n'), 12);
}

template <class E, class Argument>
void raise_it(Argument argument)
{
    throw E(argument);
}

template <class E, class Argument>
void unstoppable(Argument argument) noexcept
{
    raise_it<E>(argument);
}

TEST(Terminate, PrintsTheActiveExceptionAndExits)
{
    EXPECT_EQ(in_child([] {
                  oxa_set_terminate();
                  unstoppable<std::runtime_error>("gone");
              }),
              says(1, "Unexpected error: gone\n"));
    EXPECT_EQ(in_child([] {
                  oxa_set_terminate();
                  unstoppable<int>(5);
              }),
              says(1, "Unexpected error\n"));
}

TEST(TmpFile, IsAStreamOntoAFileOfItsOwn)
{
    const Site site;
    std::string name;
    {
        TmpFile file(site.path("conf.new"), true);
        file << "text" << std::flush;
        name = file.name();
        EXPECT_EQ(name.substr(0, name.size() - 6), site.path("conf.new"));
        EXPECT_EQ(read(name), "text");
        EXPECT_EQ(mode_of(name), 0600u);
    }
    EXPECT_NE(access(name.c_str(), F_OK), 0);
    {
        const TmpFile kept(site.path("kept"), false);
        name = kept.name();
    }
    EXPECT_EQ(access(name.c_str(), F_OK), 0);
    EXPECT_THROW(TmpFile(site.path("no/such/dir"), true), ExSystemError<2>);
    try {
        const TmpFile file(site.path("no/such/dir"), true);
    } catch (const SystemError& e) {
        EXPECT_STREQ(e.what(), "mkstemp() failed: : No such file or directory");
    }
}

TEST(TmpFile, CleansUpWithoutThrowing)
{
    const Result result = in_child([] {
        const Site site;
        {
            const TmpFile moved(site.path("a"), true);
            rename(moved.name().c_str(), site.path("b").c_str());  // silent: it is in place
        }
        const TmpFile replaced(site.path("c"), true);
        unlink(replaced.name().c_str());
        mkdir(replaced.name().c_str(), 0755);
    });
    EXPECT_EQ(result, says(0, "TmpFile autoclean failed: Is a directory\n"));
}

TEST(ReadFile, GivesAllThatIsLeft)
{
    const Site site;
    const std::string large(200'000, '\0');
    site.write("empty", "");
    site.write("large", large + "end");
    EXPECT_EQ(readFile(site.path("empty")), "");
    EXPECT_EQ(readFile(site.path("large")), large + "end");
    std::istringstream in("first second");
    in.ignore(6);
    EXPECT_EQ(readFile(in), "second");
    EXPECT_EQ(readFile(in), "");
    try {
        readFile(site.path("none"));
        FAIL();
    } catch (const ExSystemError<2>& e) {
        EXPECT_EQ(e.what(), site.path("none") + ": open failed: No such file or directory");
    }
    EXPECT_THROW(readFile(site.path()), SystemError);  // a directory opens, but cannot be read
}

}  // namespace
