#include "kelm/engine/CpuWindowBackend.h"

#include <cstring>

namespace Lumenar::Core::Kelm {

namespace {

/// The terms of the parameters met last: neurons are mostly alike.
struct RecentTerms {
    bool known = false;
    Kernel::Neuron neuron;
    Kernel::Firing firing;
    Kernel::ModelTerms terms;

    const Kernel::ModelTerms& of(const WindowWork& item) {
        // By their bytes: equal numbers can be other bits, and a NaN equals nothing.
        if (!known || std::memcmp(&item.parameters, &neuron, sizeof(Kernel::Neuron)) != 0 ||
            std::memcmp(&item.firing, &firing, sizeof(Kernel::Firing)) != 0) {
            neuron = item.parameters;
            firing = item.firing;
            terms = Kernel::modelTerms(neuron, firing);
            known = true;
        }
        return terms;
    }
};

}  // namespace

void processItems(std::span<const WindowWork> work, std::span<const Kernel::WindowEvent> events,
                  ModelTime window_end, ModelTime horizon,
                  std::span<Kernel::WindowResult> results) {
    RecentTerms terms;
    for (std::size_t i = 0; i < work.size(); ++i) {
        results[i] =
            Kernel::processWindow(work[i], terms.of(work[i]), events.data(), window_end, horizon);
    }
}

void CpuWindowBackend::processWindow(const std::span<const WindowWork>& work,
                                     const std::span<const Kernel::WindowEvent>& events,
                                     ModelTime window_end, ModelTime horizon, const Kernel::Neuron&,
                                     const Kernel::Firing&,
                                     const std::span<Kernel::WindowResult>& results) {
    processItems(work, events, window_end, horizon, results);
}

bool CpuWindowBackend::tryResidentRun(WindowEngine&) { return false; }

}  // namespace Lumenar::Core::Kelm
