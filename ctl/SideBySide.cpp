#include "ctl/SideBySide.h"

#include <algorithm>
#include <exception>

namespace tarvik::ctl {

namespace {

constexpr std::size_t kPiecesWorthAThread = 64;
constexpr std::size_t kRun = 64;

}  // namespace

bool Pieces::take(std::size_t& begin, std::size_t& end)
{
    std::size_t run = 0;
    static_cast<void>(pieces_.take(run));
    begin = run * kRun;
    end = std::min(begin + kRun, count_);
    if (std::this_thread::get_id() == shower_)
        progress_.show(end);
    return begin < count_;
}

void side_by_side(const char* what, std::size_t count, const std::function<void(Pieces&)>& work)
{
    Pieces pieces(what, count);
    tarvik::side_by_side(worker_count(count, kPiecesWorthAThread, Work::Computes),
                         [&] { work(pieces); });
}

void do_both(const std::array<std::function<void()>, 2>& tasks, std::size_t count)
{
    tarvik::Pieces pieces(tasks.size());
    std::array<std::exception_ptr, 2> failures;
    const std::size_t workers = worker_count(count, kPiecesWorthAThread, Work::Computes);
    tarvik::side_by_side(std::min(tasks.size(), workers), [&] {
        for (std::size_t task = 0; pieces.take(task);) {
            try {
                tasks[task]();
            } catch (...) {
                failures[task] = std::current_exception();
            }
        }
    });
    for (const std::exception_ptr& failure : failures) {
        if (failure)
            std::rethrow_exception(failure);
    }
}

}  // namespace tarvik::ctl
