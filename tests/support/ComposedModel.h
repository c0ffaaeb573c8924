#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/GeneratedModel.h"

namespace Lumenar::Core::Kelm::Testing {

/// What a composed model may be like.
struct ComposedTraits {
    std::uint64_t max_neurons = 16;
    std::int64_t max_windows = 40;
    std::uint64_t max_stops = 8;  ///< moments at which the caller acts, beside the start
    bool counts_spikes = false;   ///< samples count spikes; no checkpoint then holds all there is
    bool extreme = false;         ///< as in ModelTraits; a bound may break then
    bool far = false;             ///< as in ModelTraits; without rhythms, which leave no window out
};

/// The parts of a composed runtime.
enum ComposedPart : unsigned {
    learning_part = 1,  ///< plasticity and learning control
    phase_part = 2,
    recorder_part = 4,
    channel_part = 8,
    prediction_part = 16,
    all_parts = 31,
};

/// A random runtime with every part on at once, and what its caller does with it: a function of its
/// network's seed and traits alone.
///
/// The network is a GeneratedModel whose neurons are alike. Several oscillators pull on each other
/// and on most neurons; excitatory and inhibitory synapses learn by different rules, through
/// groups, a gate, fast weights and homeostasis; several input and error channels; a recorder with
/// samples of every kind but spike counts, whose waiting spikes no checkpoint holds.
///
/// The caller's part is a list of steps. A step runs the runtime up to a moment, or acts on it:
/// settings, injections, reports, perturbations and interventions, some of which are refused. A
/// step depends on the runtime alone, so the steps can be shared out among runtimes that hand a
/// checkpoint on.
struct ComposedModel {
    struct Step {
        std::optional<ModelTime> until;                ///< ns, in a step that runs
        std::function<std::string(KelmRuntime&)> act;  ///< empty in a step that runs
        const char* what = "run";
        unsigned parts = 0;  ///< it acts on; without one of them it is left out
    };

    GeneratedModel network;
    unsigned parts = all_parts;  ///< that it is built with
    PlasticityConfig plasticity;
    PhaseConfig phase;
    RecorderConfig recorder;
    std::vector<InputChannelSpec> channels;
    PredictionConfig prediction;
    std::vector<std::vector<std::uint32_t>> memberships;
    ModelTime gate_period = 0;  ///< ns
    bool has_third_factor = false;
    std::vector<Step> steps;

    /// A runtime for the model at time 0, labelled "composed" and with its seed as configuration
    /// id; with what no checkpoint carries: memberships, the gate
    /// and, in some models, a third factor of learning. Without `recorded` nobody looks on, which
    /// is to change nothing else. `store`: null for the engine's own.
    std::unique_ptr<KelmRuntime> build(IWindowBackend& backend, bool recorded = true,
                                       std::unique_ptr<IEventStore> store = nullptr) const;

    /// Performs the steps from `first` to `end`, exclusive, and appends what each came to: ids of
    /// events, or the text of what was thrown. False where a run threw, which is the end: such a
    /// runtime may only be destroyed.
    bool perform(std::size_t first, std::size_t end, KelmRuntime& runtime,
                 std::vector<std::string>& outcomes) const;
};

ComposedModel generateComposedModel(std::uint64_t seed, const ComposedTraits& traits = {});

}  // namespace Lumenar::Core::Kelm::Testing
