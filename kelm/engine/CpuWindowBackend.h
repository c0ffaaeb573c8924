#pragma once

#include "kelm/engine/IWindowBackend.h"

namespace Lumenar::Core::Kelm {

/// Whether two items have the same parameters, byte for byte: equal numbers can be other bits, and
/// a NaN equals nothing.
bool haveEqualParameters(const WindowWork& a, const WindowWork& b);

/// Walks work items one after the other on the calling thread: the reference computation, for
/// backends on a processor. Arguments as in IWindowBackend::processWindow.
void processItems(std::span<const WindowWork> work, std::span<const Kernel::WindowEvent> events,
                  ModelTime window_end, ModelTime horizon, std::span<Kernel::WindowResult> results);

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
    /// Few enough to stay in the first cache, enough to make the cost of a call negligible. No
    /// difference could be measured between 4 and 128.
    static constexpr std::size_t part_items = 32;
};

}  // namespace Lumenar::Core::Kelm
