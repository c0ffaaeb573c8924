#include <algorithm>

#include "compare/Grammar.h"
#include "fuzz/Fuzzing.h"
#include "fuzz/Mutation.h"
#include "fuzz/Subjects.h"
#include "kelm/core/Digest.h"
#include "kelm/runtime/CheckpointSummary.h"

using namespace Lumenar::Core::Kelm;
using namespace Lumenar::Core::Kelm::Fuzzing;

namespace {

/// A runtime with the interface of the other fuzzers' objects.
struct Run {
    std::unique_ptr<KelmRuntime> runtime = makeRuntime();

    Blob snapshot() { return runtime->checkpoint(); }
    bool restore(BlobView bytes) { return runtime->restore(bytes); }
};

void readAll(KelmRuntime& runtime) {
    (void)runtime.logHash();
    const OscillatorBank& bank = *runtime.oscillators();
    const LearningControl& learning = *runtime.learningControl();
    const ModelTime end = model().network.horizon;
    for (NodeId n = 0; n < runtime.graph().nodeCount(); ++n) {
        (void)runtime.spontaneousState(n);
        require(bank.neuronPhases(n, end).size() <= bank.oscillators().size(),
                "phases have owners");
        require(!learning.neuronAdmitted(n) || learning.groupAllows(learning.groupOf(n)),
                "an admitted neuron is in a group that may learn");
    }
    (void)bank.allPhases(end);
    for (const EdgeId edge : learning.pendingEdges()) {
        require(edge < learning.synapseStates().size(), "pending synapses have a state");
    }
    const std::vector<CauseEntry> causes = runtime.recorder()->causes();
    require(std::ranges::is_sorted(causes, {}, &CauseEntry::event_id), "causes are in order");
    for (std::size_t i = 0; i < runtime.prediction()->channels().size(); ++i) {
        const auto latest = runtime.prediction()->latestObservation(i);
        require(!latest || latest->channel == i, "an observation is of its channel");
    }
}

/// Actions of a caller. The runtime may refuse each of them.
void useAll(KelmRuntime& runtime) {
    const ModelTime soon = model().network.horizon / 2;
    for (const InputChannelSpec& channel : model().channels) {
        (void)outcomeOf([&] { runtime.inject(channel.name, soon, 0.5); });
    }
    (void)outcomeOf([&] { runtime.perturb({7, soon + 1, PerturbationKind{}, 0.5, {0}}); });
    (void)outcomeOf([&] { runtime.prediction()->observeValue(0, 0.5, 0.25, soon); });
    (void)outcomeOf([&] { runtime.statesAt(runtime.position()); });
    (void)outcomeOf([&] { runtime.takeSpikes(); });
}

/// Examines any bytes. The parts of a checkpoint without a fault cover it.
CheckpointSummary requireSummary(BlobView bytes) {
    CheckpointSummary summary = examineCheckpoint(bytes);
    std::uint64_t end = 0;
    for (const CheckpointSummary::Part& part : summary.parts) {
        require(part.offset == end, "parts follow one another");
        end += part.bytes;
    }
    const bool whole = summary.fault == CheckpointSummary::Fault::none;
    require(whole ? end == bytes.size() : summary.fault_offset <= bytes.size(),
            "parts or a fault lead to the end");
    require(summary.faultText().empty() == whole, "a fault has a text");
    return summary;
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t max_size, unsigned int seed) {
    return mutateBy(Compare::checkpoint_grammar, data, size, max_size, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const BlobView bytes(data, size);
    const CheckpointSummary summary = requireSummary(bytes);
    if (runsOutOfIds(bytes)) return 0;
    Run run;
    static const Blob past = longestPast(Run(), "Checkpoint");
    require(run.restore(past), "a runtime reads a checkpoint of a run");
    const Blob before = run.snapshot();
    bool accepted = false;
    (void)outcomeOf([&] { accepted = run.restore(bytes); });
    require(!accepted || summary.fault == CheckpointSummary::Fault::none,
            "an accepted checkpoint has no fault");
    if (!accepted) {
        require(!checkpointRefusal(bytes, *run.runtime).empty(), "a refusal has a reason");
        require(run.snapshot() == before, "a refusal leaves a runtime as it was");
        return 0;
    }
    const Blob taken = run.snapshot();
    Run twin;
    require(twin.restore(taken), "a runtime reads its own checkpoint");
    require(twin.snapshot() == taken, "a checkpoint restores to itself");
    // Not for every input: reading creates missing streams.
    for (Run* const one : {&run, &twin}) {
        if (digest(bytes) % 2 == 0) readAll(*one->runtime);
    }

    const ModelTime horizon = model().network.horizon;
    for (const ModelTime until : {horizon / 2, horizon, horizon + 8 * model().network.d_min}) {
        if (!sameFor(run, twin, [&](Run& r) { r.runtime->run(until); })) return 0;
        if (!sameFor(run, twin, [](Run& r) { useAll(*r.runtime); })) return 0;
    }
    readAll(*run.runtime);
    requireRestorable(run, Run());
    return 0;
}
