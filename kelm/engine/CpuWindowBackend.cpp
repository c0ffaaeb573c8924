#include "kelm/engine/CpuWindowBackend.h"

namespace Lumenar::Core::Kelm {

void CpuWindowBackend::processWindow(const std::span<const WindowWork>& work,
                                     const std::span<const Kernel::WindowEvent>& events,
                                     ModelTime window_end, ModelTime horizon, const Kernel::Neuron&,
                                     const Kernel::Firing&,
                                     const std::span<Kernel::WindowResult>& results) {
    for (std::size_t i = 0; i < work.size(); ++i) {
        results[i] = Kernel::processWindow(work[i], events.data(), window_end, horizon);
    }
}

bool CpuWindowBackend::tryResidentRun(WindowEngine&) { return false; }

}  // namespace Lumenar::Core::Kelm
