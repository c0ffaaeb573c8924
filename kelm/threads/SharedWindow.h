#pragma once

#include <atomic>
#include <cstddef>
#include <span>

#include "kelm/core/ModelTime.h"
#include "kelm/engine/IWindowBackend.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm {

/// One window that several threads compute together, for the length of one call.
///
/// It is cut into ranges, which threads draw pieces from. Each thread has a range of its own and
/// walks it in order: pieces taken by turns from all over the window would break the streams that
/// a processor reads ahead. A thread that is done helps with the other ranges, so nobody waits for
/// one that came late or not at all.
///
/// drain() may run on any number of threads at once. What the maker of the object wrote before is
/// seen by each of them, and what they wrote by whoever calls finish() after they have returned.
class SharedWindow {
public:
    /// What IWindowBackend::processWindow was given. The arrays are borrowed.
    struct Task {
        std::span<const WindowWork> work;
        std::span<const Kernel::WindowEvent> events;
        ModelTime window_end;  ///< ns
        ModelTime horizon;     ///< ns
        const Kernel::Neuron& neuron;
        const Kernel::Firing& firing;
        std::span<Kernel::WindowResult> results;
    };

    /// For at most `threads` threads, and at least one item. `pieces` computes a piece, on several
    /// threads at once.
    SharedWindow(const Task& task, IWindowBackend& pieces, std::size_t threads);

    /// Computes what is left of the range of thread `own`, counted from 0, then of the others.
    void drain(std::size_t own);

    /// To be called once every drain() has returned.
    void finish() const;

private:
    /// It fills a cache line, so that threads meet in one only where they draw from one range.
    /// Results are not kept apart: neighbours share one line a piece, of about 150.
    struct alignas(64) Range {
        std::atomic<std::size_t> next = 0;
        std::size_t end = 0;
    };

    /// More threads than that share ranges.
    static constexpr std::size_t max_ranges = 64;

    void drainRange(Range& range);

    const Task task_;
    IWindowBackend& pieces_;
    const std::size_t range_count_;
    const std::size_t piece_;  ///< items
    Range ranges_[max_ranges];
    std::atomic<std::size_t> returned_ = 0;
};

}  // namespace Lumenar::Core::Kelm
