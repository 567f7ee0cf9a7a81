// Starts /bin/true 1,000 times each through the process library, posix_spawn and system, taking
// turns, with little and with much memory touched. Prints a line "spawn TOOL MEMORY 1000
// MICROSECONDS" for each round, separated by tabs, for report.pl.
#include "sys/TExec.h"

#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <vector>

using namespace tarvik::sys;

namespace {

constexpr int kStarts = 1000;
constexpr int kRounds = 7;
constexpr std::size_t kMebibyte = 1024 * 1024;

void require(bool succeeded, const char* what)
{
    if (!succeeded) {
        std::cerr << "spawn: " << what << " failed\n";
        std::exit(1);
    }
}

void start_by_library()
{
    require(TExec({"/bin/true"}).execute().exit_code == 0, "execute");
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
} kTools[] = {{"TExec", start_by_library},
              {"posix_spawn", start_by_posix_spawn},
              {"system", start_by_system}};

long microseconds_of(void (*start)())
{
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kStarts; ++i)
        start();
    const auto took = std::chrono::steady_clock::now() - begin;
    return static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(took).count());
}

void measure(const char* memory, std::size_t touched)
{
    const std::vector<char> block(touched, 1);
    for (int round = 0; round < kRounds; ++round) {
        for (const auto& tool : kTools)
            std::cout << "spawn\t" << tool.name << '\t' << memory << '\t' << kStarts << '\t'
                      << microseconds_of(tool.start) << '\n';
    }
}

}  // namespace

int main()
{
    measure("10 MiB", 10 * kMebibyte);
    measure("2 GiB", 2048 * kMebibyte);
}
