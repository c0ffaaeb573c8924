#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/events/BucketEventStore.h"
#include "kelm/network/SynapseGraph.h"
#include "kelm/runtime/KelmRuntime.h"
#include "kelm/runtime/LearningControl.h"
#include "kelm/runtime/OscillatorBank.h"
#include "kelm/runtime/PlasticityEngine.h"
#include "tests/support/ComposedModel.h"

namespace Lumenar::Core::Kelm::Fuzzing {

/// The model whose parts the fuzzers restore: a few neurons with every part on.
const Testing::ComposedModel& model();

// Fresh objects of the model.
SynapseGraph makeGraph();
/// `over_store`: whether it is given a store, in place of its own calendar.
WindowEngine makeEngine(bool over_store = false);
OscillatorBank makeOscillators();
PlasticityEngine makePlasticity();
LearningControl makeLearning();
std::unique_ptr<KelmRuntime> makeRuntime();

/// The model's store, or one whose ring is so short that most events lie beyond it.
BucketEventStore makeStore(bool short_ring);
inline constexpr std::uint64_t short_ring_buckets = 8;

struct Seed {
    std::string reader;
    Blob bytes;
};

/// Snapshots of the model's parts from several points of its run.
std::vector<Seed> realSnapshots();

/// The longest of these snapshots that `object` accepts.
template <class Object>
Blob longestPast(Object object, std::string_view reader) {
    Blob longest;
    for (const Seed& seed : realSnapshots()) {
        if (seed.reader != reader || seed.bytes.size() <= longest.size()) continue;
        if (object.restore(seed.bytes)) longest = seed.bytes;
    }
    return longest;
}

}  // namespace Lumenar::Core::Kelm::Fuzzing
