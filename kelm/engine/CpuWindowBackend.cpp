#include "kelm/engine/CpuWindowBackend.h"

#include <cstring>

#include "kelm/kernel/InputRun.h"

namespace Lumenar::Core::Kelm {

bool haveEqualParameters(const WindowWork& a, const WindowWork& b) {
    return std::memcmp(&a.parameters, &b.parameters, sizeof(Kernel::Neuron)) == 0 &&
           std::memcmp(&a.firing, &b.firing, sizeof(Kernel::Firing)) == 0;
}

namespace {

struct InputRuns {
    std::uint32_t operator()(Kernel::State& state, std::uint64_t& rng,
                             const Kernel::NeuronModel& model, const Kernel::WindowEvent* events,
                             std::uint32_t count, ModelTime window_end, ModelTime limit,
                             double drive_bound) const {
        if (count < Kernel::min_run_inputs) return 0;
        return Kernel::runInputs(state, rng, model, events, count, window_end, limit, drive_bound);
    }
};

}  // namespace

void processItems(std::span<const WindowWork> work, std::span<const Kernel::WindowEvent> events,
                  ModelTime window_end, ModelTime horizon,
                  std::span<Kernel::WindowResult> results) {
    for (std::size_t i = 0; i < work.size();) {
        const Kernel::NeuronModel model(work[i].parameters, work[i].firing);
        do {
            results[i] = Kernel::processWindow(work[i], model, events.data(), window_end, horizon,
                                               InputRuns());
            ++i;
        } while (i < work.size() && haveEqualParameters(work[i], work[i - 1]));
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
