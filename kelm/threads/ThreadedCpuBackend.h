#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm {

class LaneCpuBackend;

/// The reference backend on several threads: a window's items are cut into pieces, and each piece
/// goes through CpuWindowBackend, or LaneCpuBackend, on whichever thread is free. Every result is
/// computed by the same code from its item alone, so the schedule decides nothing but the time.
///
/// The threads are the calling one and workers of oneTBB, which the whole program shares and which
/// sleep between windows. They are a permission, not a promise: a window waits for no worker that
/// is busy elsewhere or still waking, and there are no more of them than processors, or than the
/// program has set by tbb::global_control when the backend is made. Workers compute in the
/// floating-point environment that the calling thread has at the call, rounding and flush bits,
/// whatever their own is.
///
/// One backend may serve any number of engines, one after the other or from several threads at
/// once, which then share its threads. It must not be destroyed during a call.
class ThreadedCpuBackend final : public IWindowBackend {
public:
    /// Items below which a window is not worth waking a worker. On two threads a window takes half
    /// its time and some 18 us more, since the worker sleeps and must be woken: 256 items break
    /// even, and 512 take four fifths (measured in bench/README.md). Less than that would not be
    /// worth a second processor.
    static constexpr std::size_t default_threshold = 512;
    static constexpr std::uint64_t max_threads = 1024;

    /// `threads`: the most threads that compute one window, the calling one included; 0 for as
    /// many as there may be, and 1 for the calling thread alone. `threshold`: windows of fewer
    /// items stay on the calling thread and cost what their one piece costs; 0 and 1 share out
    /// every window that can be. Throws InvalidThreadCount for more than max_threads.
    explicit ThreadedCpuBackend(std::uint64_t threads = 0,
                                std::size_t threshold = default_threshold);
    /// The same with pieces in the vectors of `pieces`, which is copied.
    explicit ThreadedCpuBackend(const LaneCpuBackend& pieces, std::uint64_t threads = 0,
                                std::size_t threshold = default_threshold);
    ~ThreadedCpuBackend() override;
    ThreadedCpuBackend(const ThreadedCpuBackend&) = delete;
    ThreadedCpuBackend& operator=(const ThreadedCpuBackend&) = delete;

    const char* name() override { return "cpu-threads"; }
    /// Never throws: where there is no memory for its few tasks, the calling thread goes on alone.
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override;
    bool tryResidentRun(WindowEngine&) override { return false; }
    /// With one thread what suits a piece, else 512 items a thread: the waking of the workers is
    /// lost in them, and two threads' items are still in the second cache when they are committed.
    std::size_t partItems() const override;

    /// What was asked for, or as many as there may be where that is less or was 0.
    std::size_t threads() const { return threads_; }

private:
    struct Arena;

    ThreadedCpuBackend(std::unique_ptr<IWindowBackend>&& pieces, std::uint64_t threads,
                       std::size_t threshold);

    /// Serves several threads at once, and never throws.
    std::unique_ptr<IWindowBackend> pieces_;
    bool ordinary_;  ///< pieces_ is a CpuWindowBackend
    std::size_t threads_;
    std::size_t threshold_;
    std::unique_ptr<Arena> arena_;  ///< null for one thread
};

}  // namespace Lumenar::Core::Kelm
