#pragma once

#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm {

/// The reference backend: the kernel in a loop on the calling thread. It holds no state, so one
/// object may serve any number of engines, one after the other.
class CpuWindowBackend final : public IWindowBackend {
public:
    const char* name() override { return "cpu"; }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override;
    bool tryResidentRun(WindowEngine& engine) override;
    std::size_t partItems() const override { return part_items; }

private:
    /// Few enough to stay in the first cache, enough for a call to cost nothing. Between 4 and 128
    /// it makes no difference that could be measured.
    static constexpr std::size_t part_items = 32;
};

}  // namespace Lumenar::Core::Kelm
