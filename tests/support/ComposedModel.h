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

/// Limits and options of a generated composed model.
struct ComposedTraits {
    std::uint64_t max_neurons = 16;
    std::int64_t max_windows = 40;
    std::uint64_t max_stops = 8;  ///< times at which the caller acts, besides the start
    bool counts_spikes = false;  ///< samples count spikes, which a checkpoint does not hold in full
    bool fans = false;           ///< as in ModelTraits
    bool extreme = false;        ///< as in ModelTraits; bound violations may occur
    bool far = false;  ///< as in ModelTraits; without oscillators, which need every window
};

/// The parts of a composed runtime.
enum ComposedPart : unsigned {
    learning_part = 1,  ///< plasticity and learning control
    phase_part = 2,
    recorder_part = 4,
    channel_part = 8,
    prediction_part = 16,
    one_process_part = 32,  ///< actions that a network on several ranks refuses
    all_parts = 63,
};

/// A random runtime with every part, and the actions of its caller. It is a function of its
/// network's seed and traits alone.
///
/// The network is a GeneratedModel with equal neurons. Several oscillators are coupled and bound to
/// most neurons. Excitatory and inhibitory synapses learn by different rules, with groups, a gate,
/// fast weights and homeostasis. There are several input and error channels. The recorder takes
/// samples of every kind; spike counts are optional, because no checkpoint holds the spikes that
/// wait for a sample.
///
/// The caller's actions are a list of steps. A step runs the runtime up to a time, or acts on it:
/// settings, injections, reports, perturbations and interventions, some of which are refused. A
/// step depends on the runtime alone. Several runtimes may therefore share the steps, each starting
/// from a checkpoint of the one before.
struct ComposedModel {
    struct Step {
        std::optional<ModelTime> until;                ///< ns, in a step that runs
        std::function<std::string(KelmRuntime&)> act;  ///< empty in a step that runs
        const char* what = "run";
        unsigned parts = 0;  ///< the parts it needs; without one of them it is skipped
    };

    GeneratedModel network;
    unsigned parts = all_parts;  ///< the parts of the runtime
    PlasticityConfig plasticity;
    PhaseConfig phase;
    RecorderConfig recorder;
    std::vector<InputChannelSpec> channels;
    PredictionConfig prediction;
    std::vector<std::vector<std::uint32_t>> memberships;
    ModelTime gate_period = 0;  ///< ns
    bool has_third_factor = false;
    std::vector<Step> steps;

    /// A runtime for the model at time 0, with the label "composed" and the seed as configuration
    /// id. It has what no checkpoint holds: memberships, the gate and, in some models, a third
    /// factor of learning. Without `recorded` it has no recorder, which must change nothing else.
    /// `store`: null for the engine's own.
    std::unique_ptr<KelmRuntime> build(IWindowBackend& backend, bool recorded = true,
                                       std::unique_ptr<IEventStore> store = nullptr) const;

    /// The same with the checks of makeRuntime, the fingerprint as configuration id and the
    /// engine's own store. `ranks`: of a network on several ranks, all of which call it.
    std::unique_ptr<KelmRuntime> make(std::unique_ptr<IWindowBackend> backend,
                                      IRankGroup* ranks = nullptr, bool recorded = true) const;

    /// Performs the steps from `first` to `end`, exclusive, and appends the outcome of each: ids of
    /// events, or the text of an exception. False if a run threw: the runtime can then only be
    /// destroyed.
    bool perform(std::size_t first, std::size_t end, KelmRuntime& runtime,
                 std::vector<std::string>& outcomes) const;

private:
    bool has(unsigned part) const { return (parts & part) != 0; }
    /// Sets what no checkpoint holds.
    void complete(KelmRuntime& runtime) const;
};

ComposedModel generateComposedModel(std::uint64_t seed, const ComposedTraits& traits = {});

}  // namespace Lumenar::Core::Kelm::Testing
