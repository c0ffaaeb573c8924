#include "kelm/threads/ThreadedCpuBackend.h"

#include <algorithm>
#include <atomic>

#include <tbb/info.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"

namespace Lumenar::Core::Kelm {

namespace {

/// Items of one piece, at most: 64 of them take some 8 us, so that drawing a piece is lost in them,
/// and a thread that comes last to a window lets the others wait for no more than that.
constexpr std::size_t max_piece = 64;

/// Pieces of a range, at least: items differ in cost, and workers come late.
constexpr std::size_t min_pieces = 4;

/// Ranges that a window is cut into, at most; more threads than that share them.
constexpr std::size_t max_ranges = 64;

std::size_t threadCount(std::uint64_t threads) {
    if (threads > ThreadedCpuBackend::max_threads) {
        throw InvalidThreadCount(
            InvalidThreadCount::tooMany(threads, ThreadedCpuBackend::max_threads));
    }
    if (threads != 0) return static_cast<std::size_t>(threads);
    return static_cast<std::size_t>(std::max(tbb::info::default_concurrency(), 1));
}

/// A part of a window that threads draw pieces from. It fills a cache line, so that threads meet in
/// one only where they draw from the same range. Results are not kept apart: two threads share one
/// line a piece, of about 150.
struct alignas(64) Range {
    std::atomic<std::size_t> next = 0;
    std::size_t end = 0;
};

/// A window that threads compute together. Each has a range of its own, which it walks in order:
/// pieces taken by turns would break every stream that the processor reads ahead. One that is done
/// helps with the other ranges, so nobody waits for a thread that came late or not at all.
class SharedWindow {
public:
    SharedWindow(const std::span<const WindowWork>& work,
                 const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                 ModelTime horizon, const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                 const std::span<Kernel::WindowResult>& results, std::size_t threads)
        : work_(work),
          events_(events),
          window_end_(window_end),
          horizon_(horizon),
          neuron_(neuron),
          firing_(firing),
          results_(results),
          range_count_(std::min({threads, work.size(), max_ranges})),
          piece_(std::clamp<std::size_t>(work.size() / (range_count_ * min_pieces), 1, max_piece)) {
        const std::size_t size = work.size() / range_count_;
        const std::size_t longer = work.size() % range_count_;
        std::size_t first = 0;
        for (std::size_t i = 0; i < range_count_; ++i) {
            ranges_[i].next.store(first, std::memory_order_relaxed);
            first += size + (i < longer ? 1 : 0);
            ranges_[i].end = first;
        }
    }

    std::size_t rangeCount() const { return range_count_; }

    /// Computes what is left of the window, from range `own` on.
    void drain(std::size_t own) {
        for (std::size_t i = 0; i < range_count_; ++i) {
            drainRange(ranges_[(own + i) % range_count_]);
        }
    }

private:
    void drainRange(Range& range) {
        CpuWindowBackend reference;
        while (true) {
            // Asked before it is drawn from, so that late helpers only read.
            if (range.next.load(std::memory_order_relaxed) >= range.end) return;
            const std::size_t first = range.next.fetch_add(piece_, std::memory_order_relaxed);
            if (first >= range.end) return;
            const std::size_t size = std::min(piece_, range.end - first);
            reference.processWindow(work_.subspan(first, size), events_, window_end_, horizon_,
                                    neuron_, firing_, results_.subspan(first, size));
        }
    }

    const std::span<const WindowWork> work_;
    const std::span<const Kernel::WindowEvent> events_;
    const ModelTime window_end_;
    const ModelTime horizon_;
    const Kernel::Neuron& neuron_;
    const Kernel::Firing& firing_;
    const std::span<Kernel::WindowResult> results_;
    const std::size_t range_count_;
    const std::size_t piece_;
    Range ranges_[max_ranges];
};

}  // namespace

struct ThreadedCpuBackend::Arena {
    explicit Arena(std::size_t threads) : arena(static_cast<int>(threads)) { arena.initialize(); }

    tbb::task_arena arena;
};

ThreadedCpuBackend::ThreadedCpuBackend(std::uint64_t threads, std::size_t threshold)
    : threads_(threadCount(threads)),
      threshold_(threshold),
      arena_(threads_ > 1 ? std::make_unique<Arena>(threads_) : nullptr) {}

ThreadedCpuBackend::~ThreadedCpuBackend() = default;

void ThreadedCpuBackend::processWindow(const std::span<const WindowWork>& work,
                                       const std::span<const Kernel::WindowEvent>& events,
                                       ModelTime window_end, ModelTime horizon,
                                       const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                                       const std::span<Kernel::WindowResult>& results) {
    if (arena_ == nullptr || work.size() < threshold_ || work.size() < 2) {
        CpuWindowBackend().processWindow(work, events, window_end, horizon, neuron, firing,
                                         results);
        return;
    }
    SharedWindow window(work, events, window_end, horizon, neuron, firing, results, threads_);
    // Isolated: no cancelled task group around the call may cut the window short. The calling
    // thread's floating-point environment, which the engine has tested, goes along: workers would
    // otherwise compute in the one that the arena was made in.
    tbb::task_group_context context(tbb::task_group_context::isolated,
                                    tbb::task_group_context::fp_settings);
    arena_->arena.execute([&] {
        tbb::parallel_for(
            std::size_t{0}, window.rangeCount(), [&](std::size_t own) { window.drain(own); },
            tbb::simple_partitioner(), context);
    });
}

bool ThreadedCpuBackend::tryResidentRun(WindowEngine&) { return false; }

}  // namespace Lumenar::Core::Kelm
