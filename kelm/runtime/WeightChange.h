#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kelm/core/Gap.h"
#include "kelm/core/ModelTime.h"
#include "kelm/runtime/PlasticityConfig.h"

// The records of plasticity: traces of neurons and proposals for synapses.

namespace Lumenar::Core::Kelm {

/// A neuron's decaying memory of its spikes. Goes into blobs byte for byte.
struct SpikeTrace {
    double pre = 0.0;          ///< read where this neuron is the source and the target fired
    double post = 0.0;         ///< read where this neuron is the target and the source fired
    double coincidence = 0.0;  ///< read by the coincidence rule
    ModelTime updated = 0;     ///< ns; the time up to which the traces are decayed
    ModelTime last_spike = 0;  ///< ns; of the last processed spike, 0 before the first
};
static_assert(std::is_trivially_copyable_v<SpikeTrace> && std::is_standard_layout_v<SpikeTrace>);
static_assert(sizeof(SpikeTrace) == 40);
static_assert(offsetof(SpikeTrace, post) == 8);
static_assert(offsetof(SpikeTrace, coincidence) == 16);
static_assert(offsetof(SpikeTrace, updated) == 24);
static_assert(offsetof(SpikeTrace, last_spike) == 32);

/// Which neuron of the synapse fired.
enum class PlasticitySide : std::uint8_t { source = 0, target = 1 };

/// The context of a proposal. Goes into blobs byte for byte.
struct WeightChangeContext {
    EdgeId edge = 0;
    NodeId pre_neuron = 0;          ///< the synapse's source
    NodeId post_neuron = 0;         ///< the synapse's target
    ModelTime time = 0;             ///< ns, of the spike
    ModelTime pre_last_spike = 0;   ///< ns, of the source before this spike
    ModelTime post_last_spike = 0;  ///< ns, of the target before this spike
    double weight = 0.0;            ///< magnitude before the change
    double factor = 0.0;            ///< from the traces, by the rule
    double pre_phase = 0.0;   ///< radians; first oscillator reported for the source, 0 if none
    double post_phase = 0.0;  ///< radians; first oscillator reported for the target, 0 if none
    std::uint8_t synapse_kind = 0;  ///< 0 excitatory, 1 inhibitory
    PlasticityRuleKind rule_kind = PlasticityRuleKind::none;
    PlasticitySide side = PlasticitySide::source;
    Gap<5> gap = {};  ///< always zero: equal contexts have equal bytes
};
static_assert(std::is_trivially_copyable_v<WeightChangeContext> &&
              std::is_standard_layout_v<WeightChangeContext>);
static_assert(sizeof(WeightChangeContext) == 88);
static_assert(offsetof(WeightChangeContext, pre_neuron) == 8);
static_assert(offsetof(WeightChangeContext, post_neuron) == 16);
static_assert(offsetof(WeightChangeContext, time) == 24);
static_assert(offsetof(WeightChangeContext, pre_last_spike) == 32);
static_assert(offsetof(WeightChangeContext, post_last_spike) == 40);
static_assert(offsetof(WeightChangeContext, weight) == 48);
static_assert(offsetof(WeightChangeContext, factor) == 56);
static_assert(offsetof(WeightChangeContext, pre_phase) == 64);
static_assert(offsetof(WeightChangeContext, post_phase) == 72);
static_assert(offsetof(WeightChangeContext, synapse_kind) == 80);
static_assert(offsetof(WeightChangeContext, rule_kind) == 81);
static_assert(offsetof(WeightChangeContext, side) == 82);
static_assert(offsetof(WeightChangeContext, gap) == 83);

/// A proposal to change a synapse's weight. Goes into blobs byte for byte.
struct WeightChange {
    EdgeId edge = 0;
    ModelTime time = 0;  ///< ns, of the spike
    PlasticitySide side = PlasticitySide::source;
    Gap<7> gap = {};     ///< always zero: equal proposals have equal bytes
    double delta = 0.0;  ///< to be added to the weight
    WeightChangeContext context;
};
static_assert(std::is_trivially_copyable_v<WeightChange> &&
              std::is_standard_layout_v<WeightChange>);
static_assert(sizeof(WeightChange) == 120);
static_assert(offsetof(WeightChange, time) == 8);
static_assert(offsetof(WeightChange, side) == 16);
static_assert(offsetof(WeightChange, gap) == 17);
static_assert(offsetof(WeightChange, delta) == 24);
static_assert(offsetof(WeightChange, context) == 32);

}  // namespace Lumenar::Core::Kelm
