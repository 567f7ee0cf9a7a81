// Starts /bin/true 1,000 times each through the process library, posix_spawn and system, taking
// turns, with little and with much memory touched. Prints a line "spawn TOOL MEBIBYTES start
// MICROSECONDS" for each round, separated by tabs, for report.pl.
#include "sys/exec_strategy.h"

#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <vector>

using namespace tarvik::sys;

namespace {

constexpr int kRounds = 5;
constexpr std::size_t kMebibyte = 1024 * 1024;

void require(bool succeeded, const char* what)
{
    if (!succeeded) {
        std::cerr << "spawn: " << what << " failed\n";
        std::exit(1);
    }
}

void start(TExec exec)
{
    require(exec.execute().exit_code == 0, "execute");
}

void start_by_library()
{
    start(TExec({"/bin/true"}));
}

void start_redirected()
{
    start(TExec({"/bin/true"}) > "/dev/null");
}

void start_by_posix_spawn()
{
    char program[] = "/bin/true";
    char* const words[] = {program, nullptr};
    pid_t child = 0;
    int status = 0;
    require(posix_spawn(&child, program, nullptr, nullptr, words, environ) == 0, "posix_spawn");
    require(waitpid(child, &status, 0) == child && status == 0, "waitpid");
}

void start_by_system()
{
    require(std::system("/bin/true") == 0, "system");
}

constexpr struct {
    const char* name;
    void (*start)();
    int times;
} kTools[] = {{"TExec", start_by_library, 1000},
              {"posix_spawn", start_by_posix_spawn, 1000},
              {"system", start_by_system, 1000},
              {"TExec, redirected", start_redirected, 100}};  // these take long

long microseconds_each(void (*start_one)(), int times)
{
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < times; ++i)
        start_one();
    const auto each = (std::chrono::steady_clock::now() - begin) / times;
    return static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(each).count());
}

void measure(std::size_t mebibytes)
{
    const std::vector<char> touched(mebibytes * kMebibyte, 1);
    for (int round = 0; round < kRounds; ++round) {
        for (const auto& tool : kTools)
            std::cout << "spawn\t" << tool.name << '\t' << mebibytes << "\tstart\t"
                      << microseconds_each(tool.start, tool.times) << std::endl;
    }
}

}  // namespace

int main()
{
    measure(10);
    measure(2048);
}
