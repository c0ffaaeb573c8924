#include "gate/GateRun.h"

#include <utility>

#include "gate/ModelCatalogue.h"
#include "kelm/runtime/KelmRuntime.h"

namespace Lumenar::Core::Kelm::Gate {

GateRun runModel(std::uint64_t index, std::uint64_t seed, IWindowBackend& backend) {
    GateModel model = buildModel(index);
    KelmRuntime runtime = makeKelmRuntime(std::move(model.graph), model.neuron, model.firing, seed,
                                          model.horizon, &backend);
    runtime.run();

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

}  // namespace Lumenar::Core::Kelm::Gate
