#include "kelm/threads/SharedWindow.h"

#include <algorithm>

namespace Lumenar::Core::Kelm {

namespace {

/// Pieces of a range within the limits of pieceSize. Several, because items differ in cost and
/// workers come late.
constexpr std::size_t pieces_per_range = 4;

/// The piece size that the backend prefers fills its vectors; half of it still hides the cost of
/// taking a piece. No larger, because at the end of a window the threads wait for the last piece.
std::size_t pieceSize(const IWindowBackend& pieces, std::size_t range_items) {
    const std::size_t most = pieces.partItems();
    return std::clamp(range_items / pieces_per_range, most / 2, most);
}

}  // namespace

SharedWindow::SharedWindow(const Task& task, IWindowBackend& pieces, std::size_t threads)
    : task_(task),
      pieces_(pieces),
      range_count_(std::min({threads, task.work.size(), max_ranges})),
      piece_(pieceSize(pieces, task.work.size() / range_count_)) {
    const std::size_t size = task.work.size() / range_count_;
    const std::size_t longer = task.work.size() % range_count_;
    std::size_t first = 0;
    for (std::size_t i = 0; i < range_count_; ++i) {
        ranges_[i].next.store(first, std::memory_order_relaxed);
        first += size + (i < longer ? 1 : 0);
        ranges_[i].end = first;
    }
    // The thread pool orders these writes too. With this store the order does not depend on it.
    returned_.store(0, std::memory_order_release);
}

void SharedWindow::drain(std::size_t own) {
    (void)returned_.load(std::memory_order_acquire);
    for (std::size_t i = 0; i < range_count_; ++i) drainRange(ranges_[(own + i) % range_count_]);
    returned_.fetch_add(1, std::memory_order_release);
}

void SharedWindow::finish() const { (void)returned_.load(std::memory_order_acquire); }

void SharedWindow::drainRange(Range& range) {
    // A read before the write, so that late threads do not take the cache line away.
    while (range.next.load(std::memory_order_relaxed) < range.end) {
        const std::size_t first = range.next.fetch_add(piece_, std::memory_order_relaxed);
        if (first >= range.end) return;
        const std::size_t size = std::min(piece_, range.end - first);
        pieces_.processWindow(task_.work.subspan(first, size), task_.events, task_.window_end,
                              task_.horizon, task_.neuron, task_.firing,
                              task_.results.subspan(first, size));
    }
}

}  // namespace Lumenar::Core::Kelm
