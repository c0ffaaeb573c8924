#include <algorithm>
#include <tuple>

#include "compare/Grammar.h"
#include "fuzz/Fuzzing.h"
#include "fuzz/Mutation.h"
#include "fuzz/Subjects.h"

using namespace Lumenar::Core::Kelm;
using namespace Lumenar::Core::Kelm::Fuzzing;

namespace {

bool inOrder(const WeightChange& a, const WeightChange& b) {
    return std::tie(a.edge, a.time, a.side) < std::tie(b.edge, b.time, b.side);
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned int seed) {
    return mutateBy(Compare::plasticity_grammar, data, size, max_size, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    PlasticityEngine engine = makePlasticity();
    PlasticityEngine twin = makePlasticity();
    static const Blob past = longestPast(makePlasticity(), "PlasticityEngine");
    if (!acceptedByTwins(engine, twin, past, {data, size})) return 0;
    SynapseGraph graph = makeGraph();
    const OscillatorBank bank = makeOscillators();
    const ModelTime d_min = model().network.d_min;
    for (const ModelTime time : {ModelTime{0}, 20 * d_min, last_model_time}) {
        std::vector<WeightChange> changes;
        const bool done = sameFor(engine, twin, [&](PlasticityEngine& e) {
            e.setBank(&bank);
            for (NodeId n = 0; n < graph.nodeCount(); ++n) e.recordSpike(n, time);
            e.takeChanges(graph, changes);
        });
        if (!done) return 0;
        require(std::is_sorted(changes.begin(), changes.end(), inOrder), "changes are in order");
        // Learning may refuse the changes, but only with an exception of the engine.
        LearningControl learning = makeLearning();
        (void)outcomeOf([&] { learning.applyChanges(graph, changes, time); });
    }
    require(std::ranges::all_of(engine.traces(),
                                [](const SpikeTrace& t) { return t.updated == last_model_time; }),
            "traces are up to date");
    requireRestorable(engine, makePlasticity());
    return 0;
}
