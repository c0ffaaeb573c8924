#include "gate/GateRun.h"

#include <cstring>
#include <utility>

#include "gate/ModelCatalogue.h"
#include "kelm/runtime/KelmRuntime.h"

namespace Lumenar::Core::Kelm {

GateRun collectRun(KelmRuntime& runtime) {
    GateRun run;
    const auto log = runtime.spikeLog();
    run.log.assign(log.begin(), log.end());
    const auto states = runtime.neuronStates();
    run.states.assign(states.begin(), states.end());
    run.hash = runtime.logHash();
    run.profile = runtime.profile();
    run.committed_windows = runtime.commitCount();
    return run;
}

GateRun runModel(std::uint64_t index, std::uint64_t seed, IWindowBackend& backend) {
    GateModel model = buildModel(index);
    KelmRuntime runtime = makeKelmRuntime(std::move(model.graph), model.neuron, model.firing, seed,
                                          model.horizon, &backend);
    runtime.run();
    return collectRun(runtime);
}

bool equalLogs(const GateRun& a, const GateRun& b) { return a.log == b.log; }

bool equalBits(const Kernel::State& a, const Kernel::State& b) {
    return std::memcmp(&a, &b, sizeof(Kernel::State)) == 0;
}

}  // namespace Lumenar::Core::Kelm
