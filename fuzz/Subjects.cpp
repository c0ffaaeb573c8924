#include "fuzz/Subjects.h"

#include <utility>

#include "compare/BlobLayout.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "tests/support/Draws.h"

namespace Lumenar::Core::Kelm::Fuzzing {

namespace {

/// As many as an engine's own calendar has, so that the two read each other's snapshots.
constexpr std::uint64_t ring_buckets = 4096;

CpuWindowBackend backend;

/// A nested blob of a checkpoint, without its length.
Blob nested(const Compare::BlobLayout& layout, const char* field, std::uint64_t length) {
    const BlobView bytes = BlobView(layout.bytes()).subspan(layout.begin(field) + 8, length);
    return {bytes.begin(), bytes.end()};
}

void addSnapshots(KelmRuntime& runtime, std::vector<Seed>& seeds) {
    const Compare::BlobLayout layout(runtime.checkpoint());
    seeds.push_back({"Checkpoint", layout.bytes()});
    for (const auto& [reader, field] :
         {std::pair("WindowEngine", "engine"), std::pair("RandomContext", "random"),
          std::pair("SynapseGraph", "graph"), std::pair("BucketEventStore", "store"),
          std::pair("PlasticityEngine", "plasticity"), std::pair("LearningControl", "learning"),
          std::pair("OscillatorBank", "oscillators")}) {
        seeds.push_back({reader, nested(layout, field, layout.number(field))});
    }
}

/// Snapshots of one store, between which events are posted and windows taken.
void addShortRings(std::vector<Seed>& seeds) {
    Testing::Draws draws(1);
    BucketEventStore store = makeStore(true);
    const ModelTime width = model().network.d_min;
    std::vector<Event> events;
    ModelTime start = 0;
    ModelTime end = 0;
    for (int i = 0; i < 6; ++i) {
        seeds.push_back({"BucketEventStore", store.snapshot()});
        for (int posts = 0; posts < 4; ++posts) {
            Event event;
            event.kind = draws.oneOf({EventKind::delivery, EventKind::candidate, EventKind::input});
            event.time = end + draws.timeBelow(30) * width + draws.timeBelow(3);
            event.source = event.target = draws.below(model().network.node_count);
            event.value = draws.between(-1.0, 1.0);
            store.post(event);
        }
        if (i % 2 != 0) (void)store.take(last_model_time, events, start, end);
    }
}

}  // namespace

const Testing::ComposedModel& model() {
    static const Testing::ComposedModel small = Testing::generateComposedModel(3498, {4, 14, 4});
    return small;
}

SynapseGraph makeGraph() { return model().network.graph(); }

WindowEngine makeEngine(bool over_store) {
    return Testing::makeEngine(
        model().network,
        over_store ? std::make_unique<BucketEventStore>(makeStore(false)) : nullptr);
}

OscillatorBank makeOscillators() {
    OscillatorBank bank(model().phase.oscillators);
    bank.configureCoupling(model().phase.couplings, model().phase.coupling_period);
    bank.setMemberships(model().memberships);
    return bank;
}

PlasticityEngine makePlasticity() {
    const PlasticityConfig& config = model().plasticity;
    return PlasticityEngine(model().network.node_count, config.trace, config.excitatory,
                            config.inhibitory);
}

LearningControl makeLearning() {
    return LearningControl(model().network.node_count, model().network.synapses.size());
}

std::unique_ptr<KelmRuntime> makeRuntime() { return model().build(backend, true); }

BucketEventStore makeStore(bool short_ring) {
    return BucketEventStore(model().network.d_min, short_ring ? short_ring_buckets : ring_buckets);
}

std::vector<Seed> realSnapshots() {
    std::vector<Seed> seeds;
    const auto runtime = makeRuntime();
    std::vector<std::string> outcomes;
    addSnapshots(*runtime, seeds);
    for (std::size_t i = 0; i < model().steps.size(); ++i) {
        if (!model().perform(i, i + 1, *runtime, outcomes)) break;
        if (model().steps[i].until) addSnapshots(*runtime, seeds);
    }
    (void)runtime->takeSpikes();
    addSnapshots(*runtime, seeds);
    addShortRings(seeds);
    return seeds;
}

}  // namespace Lumenar::Core::Kelm::Fuzzing
