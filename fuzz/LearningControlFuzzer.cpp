#include <limits>

#include "compare/Grammar.h"
#include "fuzz/Fuzzing.h"
#include "fuzz/Mutation.h"
#include "fuzz/Subjects.h"

using namespace Lumenar::Core::Kelm;
using namespace Lumenar::Core::Kelm::Fuzzing;

namespace {

/// Two proposed changes for every synapse.
std::vector<WeightChange> proposals(const SynapseGraph& graph, ModelTime time) {
    std::vector<WeightChange> changes;
    for (EdgeId id = 0; id < 2 * graph.edgeCount(); ++id) {
        WeightChange change;
        change.edge = id / 2;
        change.time = time;
        change.delta = id % 3 == 0 ? -0.125 : 0.25;
        changes.push_back(change);
    }
    return changes;
}

/// A learning control with the graph whose weights it changes.
struct Learner {
    LearningControl control = makeLearning();
    SynapseGraph graph = makeGraph();
    LearningStatistics last;

    Blob snapshot() const {
        Blob blob = control.snapshot();
        const Blob weights = graph.snapshot();
        blob.insert(blob.end(), weights.begin(), weights.end());
        return blob;
    }
    void learn(ModelTime time) {
        last = control.applyChanges(graph, proposals(graph, time), time + model().network.d_min);
    }
};

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned int seed) {
    return mutateBy(Compare::learning_grammar, data, size, max_size, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Learner learner;
    Learner twin;
    static const Blob past = longestPast(makeLearning(), "LearningControl");
    if (!acceptedByTwins(learner.control, twin.control, past, {data, size})) return 0;
    LearningControl& control = learner.control;
    for (NodeId n = 0; n < learner.graph.nodeCount(); ++n) {
        require(!control.neuronAdmitted(n) || control.groupAllows(control.groupOf(n)),
                "an admitted neuron is in a group that may learn");
    }
    for (const EdgeId edge : control.pendingEdges()) {
        require(edge < control.synapseStates().size(), "pending synapses lie in the network");
    }
    const std::size_t noted = control.journal().size();
    for (Learner* one : {&learner, &twin}) {
        one->control.setModulator([](ModelTime window_end) { return window_end % 2 == 0; });
    }
    const ModelTime d_min = model().network.d_min;
    for (const ModelTime time : {ModelTime{0}, 2 * d_min, 40 * d_min + 1}) {
        if (!sameFor(learner, twin, [&](Learner& l) { l.learn(time); })) return 0;
        require(learner.last == twin.last, "twins count the same");
    }
    require(control.journal().size() >= noted, "a journal only grows");
    // New settings replace restored ones.
    sameFor(learner, twin, [&](Learner& l) {
        l.control.setModulator({});
        l.control.setLearningEnabled(true);
        l.control.allowAllGroups();
        for (std::uint32_t index = 0; index < 3; ++index) l.control.setFrozen(index, false);
        l.control.setGroup(0, 3);
        l.control.setGroupEnabled(3, false);
        l.control.setJournal(JournalMode::sampled, 0.25);
        l.control.setWeightCap(2.0);
        l.control.setFastWeights(true, d_min, 0.5);
        l.learn(50 * d_min);
    });
    requireRestorable(control, makeLearning());
    return 0;
}
