#include "ctl/SideBySide.h"

#include <algorithm>

namespace tarvik::ctl {

namespace {

constexpr std::size_t kPiecesWorthAThread = 64;
constexpr std::size_t kRun = 64;

}  // namespace

bool Pieces::take(std::size_t& piece)
{
    const bool taken = pieces_.take(piece);
    if (std::this_thread::get_id() == shower_)
        progress_.show(piece);
    return taken;
}

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

}  // namespace tarvik::ctl
