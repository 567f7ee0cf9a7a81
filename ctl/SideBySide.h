#pragma once

#include "app/Workers.h"
#include "ctl/Output.h"

#include <array>
#include <cstddef>
#include <functional>
#include <thread>

namespace tarvik::ctl {

/// Numbered pieces of work, for threads to take one after the other.
class Pieces {
public:
    Pieces(const char* what, std::size_t count)
        : progress_(what, count), count_(count), pieces_(count)
    {
    }

    /// Takes a run of them, so that threads are in different directories most of the time.
    /// @param begin  receives the number of the first one, which nobody else gets.
    /// @param end    receives the number behind the last. @return false: none is left.
    bool take(std::size_t& begin, std::size_t& end);

private:
    Progress progress_;
    const std::thread::id shower_ = std::this_thread::get_id();
    const std::size_t count_;
    tarvik::Pieces pieces_;
};

/**
 * Does what has to do with many files, in as many threads as there are processors for this process,
 * as `tarvik::side_by_side` does.
 * @param what  said of it while it takes long, as for a Progress.
 * @param work  called in each thread; takes pieces until none is left, and must not throw there.
 */
void side_by_side(const char* what, std::size_t count, const std::function<void(Pieces&)>& work);

/// Does both of two tasks that have to do with that many files, at once where it is worth a thread.
/// @throws what the first one throws, or the second one.
void do_both(const std::array<std::function<void()>, 2>& tasks, std::size_t count);

}  // namespace tarvik::ctl
