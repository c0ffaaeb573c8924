#pragma once

#include <cstddef>
#include <span>

#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm {

namespace Lanes {
struct LaneKernels;
}

/// The kernel over several neurons at once, one in each lane of the processor's vectors, on the
/// calling thread. Each lane carries out the operations of the kernel in their order, so results
/// are those of the CPU backend to the bit.
///
/// Items with phase terms, with other parameters than the call's, or with values that no model
/// should hold take the ordinary walk, and so does everything on a processor without the vectors.
/// It holds no state between calls, so one object may serve any number of engines, one after the
/// other. Floating-point exceptions must be masked, as they are when a program starts: a lane also
/// computes what it drops.
class LaneCpuBackend final : public IWindowBackend {
public:
    /// Takes the widest vectors that this build and this processor have.
    LaneCpuBackend();
    /// Takes the vectors of one instruction set. `kernels` must be available on this processor and
    /// outlive the backend.
    explicit LaneCpuBackend(const Lanes::LaneKernels& kernels) : kernels_(&kernels) {}

    const char* name() override { return "cpu-lanes"; }
    /// The instruction set in use; "none" where every item takes the ordinary walk.
    const char* instructionSet() const;
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override;
    bool tryResidentRun(WindowEngine&) override { return false; }
    std::size_t partItems() const override { return part_items; }

private:
    /// Enough for the vectors to be full most of the time, and little enough for the second cache.
    static constexpr std::size_t part_items = 256;

    const Lanes::LaneKernels* kernels_;  ///< null where there are none
};

}  // namespace Lumenar::Core::Kelm
