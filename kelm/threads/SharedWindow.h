#pragma once

#include <atomic>
#include <cstddef>
#include <span>

#include "kelm/core/ModelTime.h"
#include "kelm/engine/IWindowBackend.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm {

/// One window that several threads compute together. It exists for one call of a backend.
///
/// The window is divided into ranges, and threads take pieces of the ranges. Each thread has its
/// own range and takes its pieces in order, so that the processor can read ahead. A thread that has
/// finished its range continues with the others, so a late or missing thread delays no other.
///
/// drain() may run on any number of threads at once. Each of them sees the writes before the
/// constructor, and a thread that calls finish() after they have returned sees their writes.
class SharedWindow {
public:
    /// The arguments of IWindowBackend::processWindow. The arrays are borrowed.
    struct Task {
        std::span<const WindowWork> work;
        std::span<const Kernel::WindowEvent> events;
        ModelTime window_end;  ///< ns
        ModelTime horizon;     ///< ns
        const Kernel::Neuron& neuron;
        const Kernel::Firing& firing;
        std::span<Kernel::WindowResult> results;
    };

    /// For at most `threads` threads; the task must have an item. `pieces` computes the pieces, on
    /// several threads at once.
    SharedWindow(const Task& task, IWindowBackend& pieces, std::size_t threads);

    /// Computes the rest of range `own`, which counts from 0, then of the other ranges.
    void drain(std::size_t own);

    /// Call after every drain() has returned.
    void finish() const;

private:
    /// A cache line each, so that only threads in the same range share a line. Results are not
    /// aligned: two neighbouring pieces share one line of about 150.
    struct alignas(64) Range {
        std::atomic<std::size_t> next = 0;
        std::size_t end = 0;
    };

    /// With more threads than this, several threads share a range.
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
