#include <algorithm>

#include "compare/Grammar.h"
#include "fuzz/Fuzzing.h"
#include "fuzz/Mutation.h"
#include "fuzz/Subjects.h"
#include "kelm/core/Digest.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/EmulatedDevice.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/lanes/LaneCpuBackend.h"

using namespace Lumenar::Core::Kelm;
using namespace Lumenar::Core::Kelm::Fuzzing;

namespace {

struct Observer final : IWindowObserver {
    void observe(const Event& event, std::span<const Kernel::State> states,
                 SynapseGraph& graph) override {
        observe(event, states, {}, graph);
    }
    void observe(const Event&, std::span<const Kernel::State> states,
                 std::span<const ModelTime> candidate_times, SynapseGraph&) override {
        require(states.size() == candidate_times.size(), "an observer sees every neuron");
    }
};

/// The emulated device, with one worker: a second one would take most of a launch's time.
CudaWindowBackend& device() {
    Device::Emulation::setWorkers(1);
    static CudaWindowBackend backend;
    return backend;
}

void readAll(WindowEngine& engine) {
    const auto log = engine.spikeLog();
    require(std::is_sorted(log.begin(), log.end(), SpikeRecordLess()), "a log is in order");
    (void)engine.logHash();
    for (NodeId n = 0; n < engine.states().size(); ++n) (void)engine.spontaneousState(n);
    require(!engine.isPristine(), "an engine that was restored is not as it was built");
    SynapseGraph& graph = engine.graph();
    for (NodeId n = 0; n < graph.nodeCount(); ++n) {
        require(graph.outgoing(n).size() + graph.incoming(n).size() <= 2 * graph.routedCount(),
                "lists hold routed synapses only");
    }
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned int seed) {
    return mutateBy(Compare::engine_grammar, data, size, max_size, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (runsOutOfIds({data, size})) return 0;
    WindowEngine engine = makeEngine();
    // The twin keeps its events in a store, where the engine keeps them in its own calendar.
    WindowEngine twin = makeEngine(true);
    Observer observer;
    engine.setHooks(nullptr, nullptr, &observer);
    twin.setHooks(nullptr, nullptr, &observer);
    static const Blob past = longestPast(makeEngine(), "WindowEngine");
    if (!acceptedByTwins(engine, twin, past, {data, size})) return 0;
    const std::uint64_t choice = digest({data, size});
    // Not for every input: reading creates missing streams.
    for (WindowEngine* one : {&engine, &twin}) {
        if (choice / 2 % 2 == 0) readAll(*one);
    }

    // The twin runs on another backend, because every backend must give the same bits. The input
    // alone decides which, so that a fault can be repeated.
    CpuWindowBackend cpu;
    LaneCpuBackend lanes;
    IWindowBackend* other = &lanes;
    if (choice % 2 == 0) other = &device();
    const ModelTime horizon = engine.horizon();
    // Nothing fires past the horizon, so there are few windows up to the last model time.
    for (const ModelTime until : {horizon / 2, horizon, last_model_time}) {
        const auto run = [&](WindowEngine& e) { e.run(&e == &twin ? *other : cpu, until); };
        if (!sameFor(engine, twin, run)) return 0;
    }
    readAll(engine);
    requireRestorable(engine, makeEngine());
    return 0;
}
