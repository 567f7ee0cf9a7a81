#pragma once

#include <atomic>
#include <cstddef>
#include <functional>

namespace tarvik {

/// Numbered pieces of work, for threads to take one after the other.
class Pieces {
public:
    explicit Pieces(std::size_t count) : count_(count) { }

    /// @param piece  receives the number of one that nobody else gets. @return false: none is left.
    bool take(std::size_t& piece) noexcept
    {
        piece = next_.fetch_add(1, std::memory_order_relaxed);
        return piece < count_;
    }

private:
    const std::size_t count_;
    std::atomic<std::size_t> next_ {0};
};

/// What threads do most of the time: wait for storage, or compute.
enum class Work { Waits, Computes };

/**
 * @param amount        how much there is to do.
 * @param worthAThread  how much of it takes longer than starting a thread does.
 * @return how many threads to do it in, as the processors left to this process and the amount
 *         suggest; 1 when it is not worth a second one.
 */
std::size_t worker_count(std::size_t amount, std::size_t worthAThread, Work work);

/**
 * Calls `work` in several threads, of which the caller's is one, and waits for all; in fewer where
 * the system refuses them. A process that has started threads must neither fork nor change its
 * identity any more.
 * @param work  must not throw.
 */
void side_by_side(std::size_t count, const std::function<void()>& work);

}  // namespace tarvik
