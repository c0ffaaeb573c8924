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

[[noreturn]] void refuse(const char* text, const std::string& field, std::string value,
                         const char* bound) {
    throw withDetail(InvalidPlasticity(text),
                     {.field = field, .value = std::move(value), .bound = bound});
}

void requireTraces(const TraceConfig& trace) {
    const std::pair<const char*, ModelTime> windows[] = {
        {"tau_pre", trace.tau_pre},
        {"tau_post", trace.tau_post},
        {"tau_coincidence", trace.tau_coincidence}};
    for (const auto& [field, tau] : windows) {
        if (tau >= 1) continue;
        refuse(InvalidPlasticity::windows, field, decimal(tau) + " ns", "at least 1 ns");
    }
    if (!std::isfinite(trace.epsilon) || trace.epsilon < 0.0) {
        refuse(InvalidPlasticity::epsilon, "epsilon", decimal(trace.epsilon),
               "finite and at least 0");
    }
}

/// `of`: the name of the rule.
void requireAmplitudes(const PlasticityRule& rule, const std::string& of) {
    const std::pair<const char*, double> amplitudes[] = {{"a_potentiation", rule.a_potentiation},
                                                         {"a_depression", rule.a_depression},
                                                         {"a_coincidence", rule.a_coincidence},
                                                         {"scale", rule.scale}};
    for (const auto& [field, amplitude] : amplitudes) {
        if (std::isfinite(amplitude)) continue;
        refuse(InvalidPlasticity::amplitudes_not_finite, of + field, decimal(amplitude), "finite");
    }
    for (const auto& [field, amplitude] : amplitudes) {
        if (!(amplitude < 0.0)) continue;
        refuse(InvalidPlasticity::amplitudes_negative, of + field, decimal(amplitude),
               "at least 0");
    }
}

/// The decay of several traces over one interval. Traces of equal time constants share one
/// exponential, the costly operation of a decay.
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
    ModelTime tau_ = 0;  ///< time constant of factor_; 0 for none yet
    double factor_ = 1.0;
};

}  // namespace

PlasticityEngine::PlasticityEngine(std::uint64_t neuron_count, const TraceConfig& trace,
                                   const PlasticityRule& excitatory,
                                   const PlasticityRule& inhibitory)
    : trace_config_(trace), excitatory_(excitatory), inhibitory_(inhibitory) {
    state_.traces.resize(neuron_count);
    requireTraces(trace);
    requireAmplitudes(excitatory, "excitatory.");
    requireAmplitudes(inhibitory, "inhibitory.");
}

void PlasticityEngine::failSpikeNeuron() {
    throw std::out_of_range("plasticity spike neuron is out of range");
}

void PlasticityEngine::advance(SpikeTrace& trace, ModelTime time) const {
    if (time < trace.updated) throw InvalidPlasticity(InvalidPlasticity::into_the_past);
    // Both times are rounded before the subtraction, as in every decay.
    const double interval = static_cast<double>(time) - static_cast<double>(trace.updated);
    trace.updated = time;
    if (interval == 0.0) return;
    TraceDecay decay(interval, trace_config_.epsilon);
    trace.pre = decay(trace.pre, trace_config_.tau_pre);
    trace.post = decay(trace.post, trace_config_.tau_post);
    trace.coincidence = decay(trace.coincidence, trace_config_.tau_coincidence);
}

void PlasticityEngine::processSpike(const SpikeRecord& spike, SynapseGraph& graph) {
    const auto [time, neuron] = spike;
    SpikeTrace& own = state_.traces[neuron];
    advance(own, time);
    // Before the loops: a spike counts in its own products.
    if (excitatory_.kind == PlasticityRuleKind::coincidence ||
        inhibitory_.kind == PlasticityRuleKind::coincidence) {
        own.coincidence += 1.0;
    }
    if (bank_ != nullptr) phases_.moveTo(*bank_, time);
    processSynapses<PlasticitySide::source>(spike, graph.outgoing(neuron), graph);
    processSynapses<PlasticitySide::target>(spike, graph.incoming(neuron), graph);
    // After the loops: a spike does not pair with itself across a synapse onto its own neuron.
    own.pre += 1.0;
    own.post += 1.0;
    own.last_spike = time;
}

/// Proposes changes for the synapses whose source or target, by `side`, has fired.
template <PlasticitySide side>
void PlasticityEngine::processSynapses(const SpikeRecord& spike, std::span<const EdgeId> edges,
                                       const SynapseGraph& graph) {
    const SpikeTrace& own = state_.traces[spike.neuron];
    for (std::size_t i = 0; i < edges.size(); ++i) {
        if (i % SynapseGraph::prefetch_block == 0) prefetchPartners<side>(edges.subspan(i), graph);
        const Synapse synapse = graph.edge(edges[i]);
        if (!synapse.enabled) continue;
        const NodeId partner = side == PlasticitySide::source ? synapse.target : synapse.source;
        if (partner >= state_.traces.size()) failSpikeNeuron();
        SpikeTrace& other = state_.traces[partner];
        advance(other, spike.time);
        const bool product = ruleOf(synapse).kind == PlasticityRuleKind::coincidence;
        const double trace = side == PlasticitySide::source ? other.post : other.pre;
        const double factor = product ? own.coincidence * other.coincidence : trace;
        propose(edges[i], synapse, spike.time, side, factor);
    }
}

/// Hints the partners' traces of the next block of synapses. They lie anywhere in memory, so this
/// makes one wait out of many.
template <PlasticitySide side>
void PlasticityEngine::prefetchPartners(std::span<const EdgeId> edges,
                                        const SynapseGraph& graph) const {
    for (const EdgeId id : edges.first(std::min(SynapseGraph::prefetch_block, edges.size()))) {
        const NodeId partner = side == PlasticitySide::source ? graph.target(id) : graph.source(id);
        if (partner < state_.traces.size()) prefetchLine(&state_.traces[partner]);
    }
}

void PlasticityEngine::propose(EdgeId edge, const Synapse& synapse, ModelTime time,
                               PlasticitySide side, double factor) {
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
    // A hook sees a proposal of 0 too: it may turn it into a NaN, which is kept.
    if (delta == 0.0 && !change_hook_) return;

    WeightChange change;
    change.edge = edge;
    change.time = time;
    change.side = side;
    WeightChangeContext& context = change.context;
    context.edge = edge;
    context.pre_neuron = synapse.source;
    context.post_neuron = synapse.target;
    context.time = time;
    context.pre_last_spike = state_.traces[synapse.source].last_spike;
    context.post_last_spike = state_.traces[synapse.target].last_spike;
    context.weight = static_cast<double>(synapse.weight);
    context.factor = factor;
    context.pre_phase = phaseOf(synapse.source);
    context.post_phase = phaseOf(synapse.target);
    context.synapse_kind = synapse.inhibitory ? 1 : 0;
    context.rule_kind = rule.kind;
    context.side = side;
    if (change_hook_) delta = delta * change_hook_(context);
    if (delta == 0.0) return;
    change.delta = delta;
    state_.pending_changes.push_back(change);
}

std::vector<WeightChange> PlasticityEngine::takeChanges(SynapseGraph& graph) {
    std::vector<WeightChange> changes;
    takeChanges(graph, changes);
    return changes;
}

void PlasticityEngine::takeChanges(SynapseGraph& graph, std::vector<WeightChange>& changes) {
    // Equal records cannot be told apart, so an unstable sort gives one order.
    std::sort(state_.pending_spikes.begin(), state_.pending_spikes.end(), SpikeRecordLess());
    for (const SpikeRecord& spike : state_.pending_spikes) processSpike(spike, graph);
    state_.pending_spikes.clear();
    moveSorted(changes);
}

/// Moves the proposals to `changes` in their order. Sorts keys, which are smaller than proposals.
void PlasticityEngine::moveSorted(std::vector<WeightChange>& changes) {
    std::vector<WeightChange>& pending = state_.pending_changes;
    keys_.clear();
    for (std::uint64_t i = 0; i < pending.size(); ++i) keys_.push_back({pending[i].edge, i});
    std::sort(keys_.begin(), keys_.end(), [&pending](const ChangeKey& a, const ChangeKey& b) {
        if (a.edge != b.edge) return a.edge < b.edge;
        const WeightChange& first = pending[a.index];
        const WeightChange& second = pending[b.index];
        if (first.time != second.time) return first.time < second.time;
        if (first.side != second.side) return first.side < second.side;
        return a.index < b.index;
    });
    changes.clear();
    for (const ChangeKey& key : keys_) changes.push_back(pending[key.index]);
    pending.clear();
}

Blob PlasticityEngine::snapshot() const {
    Blob blob;
    blob.reserve(32 + state_.traces.size() * sizeof(SpikeTrace) +
                 state_.pending_spikes.size() * sizeof(SpikeRecord) +
                 state_.pending_changes.size() * sizeof(WeightChange));
    appendTag(blob, format_tag);
    appendSequence(blob, state_.traces);
    appendSequence(blob, state_.pending_spikes);
    appendSequence(blob, state_.pending_changes);
    return blob;
}

std::optional<PlasticityEngine::State> PlasticityEngine::read(BlobView blob) const {
    BlobReader in(blob);
    const std::uint64_t neuron_count = state_.traces.size();
    State state;
    if (!in.expectTag(format_tag) || !in.readSequence(state.traces) ||
        state.traces.size() != neuron_count || !in.readSequence(state.pending_spikes) ||
        !in.readSequence(state.pending_changes) || !in.atEnd()) {
        return std::nullopt;
    }
    for (const SpikeRecord& spike : state.pending_spikes) {
        if (spike.neuron >= neuron_count) return std::nullopt;
    }
    for (WeightChange& change : state.pending_changes) {
        const WeightChangeContext& context = change.context;
        if (context.pre_neuron >= neuron_count || context.post_neuron >= neuron_count) {
            return std::nullopt;
        }
        clearGap(change.gap);
        clearGap(change.context.gap);
    }
    return state;
}

void PlasticityEngine::adopt(State&& state) noexcept { state_ = std::move(state); }

bool PlasticityEngine::restore(BlobView blob) {
    std::optional<State> state = read(blob);
    if (!state) return false;
    adopt(std::move(*state));
    return true;
}

}  // namespace Lumenar::Core::Kelm
