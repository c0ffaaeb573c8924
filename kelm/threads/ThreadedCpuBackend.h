#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "kelm/engine/IShardTeam.h"
#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm {

class LaneCpuBackend;

/// The reference backend on several threads. Its team advances an engine's shards side by side,
/// each through CpuWindowBackend or LaneCpuBackend. Items of a whole window are cut into pieces,
/// and each piece is computed on any free thread. Each result is computed by the same code from its
/// item alone, so the schedule affects only the time.
///
/// The threads are the calling one and workers of oneTBB, which the whole program shares and which
/// sleep between windows. A window does not wait for a worker that is busy elsewhere or still
/// waking. There are no more threads than processors, or than tbb::global_control allows when the
/// backend is made. Workers compute in the floating-point environment of the calling thread
/// (rounding and flush bits).
///
/// One backend may serve any number of engines, one after the other or from several threads at
/// once, which then share its threads. It must not be destroyed during a call.
class ThreadedCpuBackend final : public IWindowBackend {
public:
    /// Windows of fewer items stay on the calling thread. On two threads a window takes half its
    /// time plus about 18 us to wake the worker: 256 items break even, and 512 items take four
    /// fifths of the time (bench/README.md). A smaller gain is not worth a second processor.
    static constexpr std::size_t default_threshold = 512;
    static constexpr std::uint64_t max_threads = 1024;

    /// `threads`: the most threads that compute one window, including the calling one; 0 for as
    /// many as possible, 1 for the calling thread alone. `threshold`: windows of fewer items stay
    /// on the calling thread, at no extra cost; with 0 or 1 every window of at least two items is
    /// shared. Throws InvalidThreadCount for more than max_threads.
    explicit ThreadedCpuBackend(std::uint64_t threads = 0,
                                std::size_t threshold = default_threshold);
    /// The same with pieces through `pieces`, which is copied.
    explicit ThreadedCpuBackend(const LaneCpuBackend& pieces, std::uint64_t threads = 0,
                                std::size_t threshold = default_threshold);
    ~ThreadedCpuBackend() override;
    ThreadedCpuBackend(const ThreadedCpuBackend&) = delete;
    ThreadedCpuBackend& operator=(const ThreadedCpuBackend&) = delete;

    const char* name() override { return "cpu-threads"; }
    /// Never throws: without memory for its tasks, the calling thread computes the window alone.
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override;
    bool tryResidentRun(WindowEngine&) override { return false; }
    /// With one thread partItems() of the backend that computes the pieces. Otherwise 512 items a
    /// thread: enough to hide the wake-up of the workers, and few enough for the items of two
    /// threads to be in the second cache at their commit.
    std::size_t partItems() const override;
    /// An engine with enough neurons is divided into as many shards as there are threads. Null for
    /// one thread.
    IShardTeam* team() override { return team_.get(); }

    /// The number given at construction, or the greatest possible number if that is less or 0 was
    /// given.
    std::size_t threads() const { return threads_; }

private:
    struct Arena;
    class Team;

    ThreadedCpuBackend(std::unique_ptr<IWindowBackend>&& pieces, std::uint64_t threads,
                       std::size_t threshold);

    /// Called on several threads at once; never throws.
    std::unique_ptr<IWindowBackend> pieces_;
    bool scalar_;  ///< pieces_ is a CpuWindowBackend
    std::size_t threads_;
    std::size_t threshold_;
    std::unique_ptr<Arena> arena_;      ///< null for one thread
    std::unique_ptr<IShardTeam> team_;  ///< null for one thread
};

}  // namespace Lumenar::Core::Kelm
