#pragma once

#include <cstddef>
#include <span>

#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm {

namespace Lanes {
struct LaneKernels;
}

/// Computes several neurons at once on the calling thread, one in each lane of the processor's
/// vectors. Each lane performs the operations of the kernel in their order, so results have the
/// bits of the CPU backend.
///
/// The vectors compute neighbours with the same parameters together. The scalar walk computes items
/// with phase terms, with parameters that few neighbours share, or with values that no sound model
/// has, and all items on a processor without these vectors. The backend
/// holds no state between calls, so it may serve any number of engines, one after the other.
/// Floating-point exceptions must be masked, as they are when a program starts, because a lane also
/// computes values that are then dropped.
class LaneCpuBackend final : public IWindowBackend {
public:
    /// Uses the widest vectors that this build and this processor have.
    LaneCpuBackend();
    /// Uses the vectors of one instruction set. `kernels` must be available on this processor and
    /// outlive the backend.
    explicit LaneCpuBackend(const Lanes::LaneKernels& kernels) : kernels_(&kernels) {}

    const char* name() override { return "cpu-lanes"; }
    /// The instruction set in use; "none" if all items take the scalar walk.
    const char* instructionSet() const;
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override;
    bool tryResidentRun(WindowEngine&) override { return false; }
    std::size_t partItems() const override { return part_items; }

private:
    /// Enough to keep the vectors full most of the time, and few enough for the second cache.
    static constexpr std::size_t part_items = 256;

    const Lanes::LaneKernels* kernels_;  ///< null if there are none
};

}  // namespace Lumenar::Core::Kelm
