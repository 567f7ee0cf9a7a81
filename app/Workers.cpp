#include "app/Workers.h"

#include <sched.h>

#include <algorithm>
#include <exception>
#include <thread>
#include <vector>

namespace tarvik {

namespace {

constexpr std::size_t kMostWorkers = 8;  // beyond that, they wait for each other

std::size_t processors()
{
    cpu_set_t set;
    if (::sched_getaffinity(0, sizeof set, &set) != 0)  // more of them than the set has room for
        return kMostWorkers;
    return static_cast<std::size_t>(CPU_COUNT(&set));
}

/// Threads that are joined at the end, however it comes.
class Threads {
public:
    explicit Threads(std::size_t most) { threads_.reserve(most); }
    Threads(const Threads&) = delete;
    Threads& operator=(const Threads&) = delete;
    ~Threads()
    {
        for (std::thread& thread : threads_)
            thread.join();
    }

    void start(const std::function<void()>& work) { threads_.emplace_back(std::cref(work)); }

private:
    std::vector<std::thread> threads_;
};

}  // namespace

std::size_t worker_count(std::size_t amount, std::size_t worthAThread, Work work)
{
    std::size_t most = std::min(kMostWorkers, processors() * (work == Work::Waits ? 2 : 1));
    std::size_t worth = amount / worthAThread;
#ifdef ZENDREL_WORKERS  // in builds for tests: so many, however little there is to do
    most = worth = ZENDREL_WORKERS;
#endif
    return std::max<std::size_t>(1, std::min(most, worth));
}

void side_by_side(std::size_t count, const std::function<void()>& work)
{
    Threads others(count);
    try {
        for (std::size_t started = 1; started < count; ++started)
            others.start(work);
    } catch (const std::exception&) {
        // No more processes or no more memory: those that run, and the caller, do it alone.
    }
    work();
}

}  // namespace tarvik
