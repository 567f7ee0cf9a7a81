#include "ctl/SideBySide.h"

#include <sched.h>

#include <algorithm>
#include <system_error>
#include <thread>
#include <vector>

namespace tarvik::ctl {

namespace {

constexpr std::size_t kMostThreads = 8;
constexpr std::size_t kPiecesWorthAThread = 64;
constexpr std::size_t kRun = 64;

std::size_t processors()
{
    cpu_set_t set;
    if (::sched_getaffinity(0, sizeof set, &set) != 0)
        return 1;
    return static_cast<std::size_t>(CPU_COUNT(&set));
}

/// Threads that are joined at the end, however it comes.
class Threads {
public:
    template <class Work>
    void start(std::size_t count, const Work& work)
    {
        try {
            while (threads_.size() < count)
                threads_.emplace_back(work);
        } catch (const std::system_error&) {
            return;  // those that run, and the caller, do it alone
        }
    }
    Threads() = default;
    Threads(const Threads&) = delete;
    Threads& operator=(const Threads&) = delete;
    ~Threads()
    {
        for (std::thread& thread : threads_)
            thread.join();
    }

private:
    std::vector<std::thread> threads_;
};

}  // namespace

bool Pieces::take(std::size_t& piece)
{
    piece = next_++;
    if (std::this_thread::get_id() == shower_)
        progress_.show(piece);
    return piece < count_;
}

bool Pieces::take(std::size_t& begin, std::size_t& end)
{
    begin = next_.fetch_add(kRun);
    end = std::min(begin + kRun, count_);
    if (std::this_thread::get_id() == shower_)
        progress_.show(end);
    return begin < count_;
}

void side_by_side(const char* what, std::size_t count, const std::function<void(Pieces&)>& work)
{
    const std::size_t most =
        std::min({processors(), kMostThreads, count / kPiecesWorthAThread + 1});
    Pieces pieces(what, count);
    Threads others;
    others.start(most - 1, [&] { work(pieces); });
    work(pieces);
}

}  // namespace tarvik::ctl
