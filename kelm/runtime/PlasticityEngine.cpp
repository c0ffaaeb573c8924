#include "kelm/runtime/PlasticityEngine.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/core/Prefetch.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr BlobTag format_tag("KELMPLS1");

/// As many as a processor fetches at once without losing some.
constexpr std::size_t prefetched_synapses = 16;

void requireTraces(const TraceConfig& trace) {
    if (trace.tau_pre < 1 || trace.tau_post < 1 || trace.tau_coincidence < 1) {
        throw InvalidPlasticity(InvalidPlasticity::windows);
    }
    if (!std::isfinite(trace.epsilon) || trace.epsilon < 0.0) {
        throw InvalidPlasticity(InvalidPlasticity::epsilon);
    }
}

void requireAmplitudes(const PlasticityRule& rule) {
    const double amplitudes[] = {rule.a_potentiation, rule.a_depression, rule.a_coincidence,
                                 rule.scale};
    for (const double amplitude : amplitudes) {
        if (!std::isfinite(amplitude)) {
            throw InvalidPlasticity(InvalidPlasticity::amplitudes_not_finite);
        }
    }
    for (const double amplitude : amplitudes) {
        if (amplitude < 0.0) throw InvalidPlasticity(InvalidPlasticity::amplitudes_negative);
    }
}

/// The decay of several traces over one interval. Traces with one time constant share the
/// exponential, the one costly operation of a decay.
class TraceDecay {
public:
    TraceDecay(double interval, double epsilon) : interval_(interval), epsilon_(epsilon) {}

    double operator()(double value, ModelTime tau) {
        if (value == 0.0) return value;
        if (tau != tau_) {
            factor_ = std::exp(-interval_ / static_cast<double>(tau));
            tau_ = tau;
        }
        const double decayed = factor_ * value;
        return epsilon_ > std::fabs(decayed) ? 0.0 : decayed;
    }

private:
    double interval_;
    double epsilon_;
    ModelTime tau_ = 0;  ///< of factor_; no time constant is 0
    double factor_ = 1.0;
};

}  // namespace

PlasticityEngine::PlasticityEngine(std::uint64_t neuron_count, const TraceConfig& trace,
                                   const PlasticityRule& excitatory,
                                   const PlasticityRule& inhibitory)
    : trace_config_(trace), excitatory_(excitatory), inhibitory_(inhibitory) {
    traces_.resize(neuron_count);
    requireTraces(trace);
    requireAmplitudes(excitatory);
    requireAmplitudes(inhibitory);
}

void PlasticityEngine::failSpikeNeuron() {
    throw std::out_of_range("plasticity spike neuron is out of range");
}

void PlasticityEngine::advance(SpikeTrace& trace, ModelTime time) const {
    if (time < trace.updated) throw InvalidPlasticity(InvalidPlasticity::into_the_past);
    // Both ends are rounded before the subtraction, as everywhere in a decay.
    const double interval = static_cast<double>(time) - static_cast<double>(trace.updated);
    trace.updated = time;
    if (interval == 0.0) return;
    TraceDecay decay(interval, trace_config_.epsilon);
    trace.pre = decay(trace.pre, trace_config_.tau_pre);
    trace.post = decay(trace.post, trace_config_.tau_post);
    trace.coincidence = decay(trace.coincidence, trace_config_.tau_coincidence);
}

/// At the head of each block of a neuron's synapses, asks for the traces at their other ends, which
/// lie anywhere: one wait for many of them, instead of one each.
void PlasticityEngine::prefetchPartners(const SynapseGraph& graph, std::span<const EdgeId> ids,
                                        std::size_t place, End end) const {
    if (place % prefetched_synapses != 0) return;
    for (const EdgeId id : ids.subspan(place, std::min(prefetched_synapses, ids.size() - place))) {
        prefetchLine(&traces_[(graph.*end)(id)]);
    }
}

void PlasticityEngine::processSpike(const SpikeRecord& spike, SynapseGraph& graph) {
    const auto [time, neuron] = spike;
    SpikeTrace& own = traces_[neuron];
    advance(own, time);
    // Before the loops: a spike counts in its own products.
    if (excitatory_.kind == PlasticityRuleKind::coincidence ||
        inhibitory_.kind == PlasticityRuleKind::coincidence) {
        own.coincidence += 1.0;
    }
    if (bank_ != nullptr) phases_.moveTo(*bank_, time);
    const double phase = phaseOf(neuron);
    const auto outgoing = graph.outgoing(neuron);
    for (std::size_t i = 0; i < outgoing.size(); ++i) {
        prefetchPartners(graph, outgoing, i, &SynapseGraph::target);
        const Synapse synapse = graph.edge(outgoing[i]);
        if (!synapse.enabled) continue;
        SpikeTrace& other = traces_[synapse.target];
        advance(other, time);
        const bool product = ruleOf(synapse).kind == PlasticityRuleKind::coincidence;
        const double factor = product ? own.coincidence * other.coincidence : other.post;
        propose(outgoing[i], synapse, time, PlasticitySide::source, factor, phase);
    }
    const auto incoming = graph.incoming(neuron);
    for (std::size_t i = 0; i < incoming.size(); ++i) {
        prefetchPartners(graph, incoming, i, &SynapseGraph::source);
        const Synapse synapse = graph.edge(incoming[i]);
        if (!synapse.enabled) continue;
        SpikeTrace& other = traces_[synapse.source];
        advance(other, time);
        const bool product = ruleOf(synapse).kind == PlasticityRuleKind::coincidence;
        const double factor = product ? own.coincidence * other.coincidence : other.pre;
        propose(incoming[i], synapse, time, PlasticitySide::target, factor, phase);
    }
    // Behind the loops: a spike does not pair with itself across a synapse onto its own neuron.
    own.pre += 1.0;
    own.post += 1.0;
    own.last_spike = time;
}

void PlasticityEngine::propose(EdgeId edge, const Synapse& synapse, ModelTime time,
                               PlasticitySide side, double factor, double spike_phase) {
    const PlasticityRule& rule = ruleOf(synapse);
    if (rule.kind == PlasticityRuleKind::none) return;
    double delta = 0.0;
    if (rule.kind == PlasticityRuleKind::pair) {
        delta =
            (side == PlasticitySide::target ? rule.a_potentiation : -rule.a_depression) * factor;
    } else if (rule.kind == PlasticityRuleKind::coincidence) {
        delta = factor * rule.a_coincidence;
    }
    delta = delta * rule.scale;
    // Only a hook sees a proposal of nothing, and may make it a NaN, which goes on.
    if (delta == 0.0 && !change_hook_) return;

    const bool by_source = side == PlasticitySide::source;
    WeightChange change;
    change.edge = edge;
    change.time = time;
    change.side = side;
    WeightChangeContext& context = change.context;
    context.edge = edge;
    context.pre_neuron = synapse.source;
    context.post_neuron = synapse.target;
    context.time = time;
    context.pre_last_spike = traces_[synapse.source].last_spike;
    context.post_last_spike = traces_[synapse.target].last_spike;
    context.weight = static_cast<double>(synapse.weight);
    context.factor = factor;
    context.pre_phase = by_source ? spike_phase : phaseOf(synapse.source);
    context.post_phase = by_source ? phaseOf(synapse.target) : spike_phase;
    context.synapse_kind = synapse.inhibitory ? 1 : 0;
    context.rule_kind = rule.kind;
    context.side = side;
    if (change_hook_) delta = delta * change_hook_(context);
    if (delta == 0.0) return;
    change.delta = delta;
    pending_changes_.push_back(change);
}

void PlasticityEngine::takeChanges(SynapseGraph& graph, std::vector<WeightChange>& changes) {
    if (graph.nodeCount() != traces_.size()) {
        throw InvalidPlasticity(InvalidPlasticity::neuron_count);
    }
    // Two equal records are one and the same, so the order is total without being stable.
    std::sort(pending_spikes_.begin(), pending_spikes_.end(), SpikeRecordLess());
    for (const SpikeRecord& spike : pending_spikes_) processSpike(spike, graph);
    pending_spikes_.clear();
    handOut(changes);
}

/// Moves keys instead of proposals until their places are known.
void PlasticityEngine::handOut(std::vector<WeightChange>& changes) {
    keys_.clear();
    for (std::uint64_t i = 0; i < pending_changes_.size(); ++i) {
        keys_.push_back({pending_changes_[i].edge, i});
    }
    std::sort(keys_.begin(), keys_.end(), [this](const ChangeKey& a, const ChangeKey& b) {
        if (a.edge != b.edge) return a.edge < b.edge;
        const WeightChange& first = pending_changes_[a.index];
        const WeightChange& second = pending_changes_[b.index];
        if (first.time != second.time) return first.time < second.time;
        if (first.side != second.side) return first.side < second.side;
        return a.index < b.index;
    });
    changes.clear();
    for (const ChangeKey& key : keys_) changes.push_back(pending_changes_[key.index]);
    pending_changes_.clear();
}

Blob PlasticityEngine::snapshot() const {
    Blob blob;
    blob.reserve(32 + traces_.size() * sizeof(SpikeTrace) +
                 pending_spikes_.size() * sizeof(SpikeRecord) +
                 pending_changes_.size() * sizeof(WeightChange));
    appendTag(blob, format_tag);
    appendSequence(blob, traces_);
    appendSequence(blob, pending_spikes_);
    appendSequence(blob, pending_changes_);
    return blob;
}

bool PlasticityEngine::restore(BlobView blob) {
    BlobReader in(blob);
    std::vector<SpikeTrace> traces;
    std::vector<SpikeRecord> spikes;
    std::vector<WeightChange> changes;
    if (!in.expectTag(format_tag) || !in.readSequence(traces)) return false;
    const std::uint64_t neuron_count = traces_.size();
    if (traces.size() != neuron_count) return false;
    if (!in.readSequence(spikes) || !in.readSequence(changes) || !in.atEnd()) return false;
    for (const SpikeRecord& spike : spikes) {
        if (spike.neuron >= neuron_count) return false;
    }
    for (WeightChange& change : changes) {
        const WeightChangeContext& context = change.context;
        if (context.pre_neuron >= neuron_count || context.post_neuron >= neuron_count) return false;
        clearGap(change.gap);
        clearGap(change.context.gap);
    }
    traces_ = std::move(traces);
    pending_spikes_ = std::move(spikes);
    pending_changes_ = std::move(changes);
    return true;
}

void PlasticityEngine::swapState(PlasticityEngine& other) noexcept {
    traces_.swap(other.traces_);
    pending_spikes_.swap(other.pending_spikes_);
    pending_changes_.swap(other.pending_changes_);
}

}  // namespace Lumenar::Core::Kelm
