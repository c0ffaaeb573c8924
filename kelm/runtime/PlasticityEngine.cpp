#include "kelm/runtime/PlasticityEngine.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <stdexcept>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/core/Prefetch.h"
#include "kelm/core/ShardRanges.h"

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

/// The end of a synapse that has not fired.
template <PlasticitySide side>
NodeId partnerOf(EdgeId id, const SynapseGraph& graph) {
    return side == PlasticitySide::source ? graph.target(id) : graph.source(id);
}

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

void PlasticityEngine::processSpike(std::size_t p, std::uint64_t index, SynapseGraph& graph) {
    const SpikeRecord& spike = state_.pending_spikes[index];
    Part& part = parts_[p];
    SpikeTrace* own = nullptr;
    if (part.holds(spike.neuron)) {
        own = &state_.traces[spike.neuron];
        advance(*own, spike.time);
        // Before the loops: a spike counts in its own products.
        if (usesProducts()) own->coincidence += 1.0;
        if (!spike_coincidence_.empty()) spike_coincidence_[index] = own->coincidence;
    }
    const Firing firing{spike, index, own != nullptr ? own->last_spike : last_spikes_[index], own};
    if (bank_ != nullptr) part.phases.moveTo(*bank_, spike.time);
    processSynapses<PlasticitySide::source>(p, firing, graph.outgoing(spike.neuron), graph);
    processSynapses<PlasticitySide::target>(p, firing, graph.incoming(spike.neuron), graph);
    if (own == nullptr) return;
    // After the loops: a spike does not pair with itself across a synapse onto its own neuron.
    own->pre += 1.0;
    own->post += 1.0;
    own->last_spike = spike.time;
}

/// Proposes changes for the synapses whose source or target, by `side`, has fired, and whose other
/// end belongs to the part.
template <PlasticitySide side>
void PlasticityEngine::processSynapses(std::size_t p, const Firing& firing,
                                       std::span<const EdgeId> edges, const SynapseGraph& graph) {
    if (!parts_[p].is_only) edges = edgesOf<side>(parts_[p], edges, graph);
    for (std::size_t i = 0; i < edges.size(); ++i) {
        if (i % SynapseGraph::prefetch_block == 0) prefetchPartners<side>(edges.subspan(i), graph);
        const Synapse synapse = graph.edge(edges[i]);
        if (!synapse.enabled) continue;
        const NodeId partner = side == PlasticitySide::source ? synapse.target : synapse.source;
        if (partner >= state_.traces.size()) failSpikeNeuron();
        SpikeTrace& other = state_.traces[partner];
        advance(other, firing.spike.time);
        propose<side>(p, firing, edges[i], synapse, other);
    }
}

/// The edges whose other end belongs to the part. Valid until the next call for the part.
template <PlasticitySide side>
std::span<const EdgeId> PlasticityEngine::edgesOf(Part& part, std::span<const EdgeId> edges,
                                                  const SynapseGraph& graph) {
    if (side == PlasticitySide::target && graph.isSortedBySource()) {
        const auto firstFrom = [&](NodeId node) {
            return std::partition_point(edges.begin(), edges.end(),
                                        [&](EdgeId id) { return graph.source(id) < node; });
        };
        return {firstFrom(part.begin), firstFrom(part.begin + part.size)};
    }
    if (part.edges.size() < edges.size()) part.edges.resize(2 * edges.size());
    // Without a branch: where the ends are scattered, it would often be mispredicted.
    std::size_t count = 0;
    for (const EdgeId id : edges) {
        part.edges[count] = id;
        count += part.holds(partnerOf<side>(id, graph)) ? 1 : 0;
    }
    return std::span(part.edges).first(count);
}

/// Hints the traces of the other ends of the next block of synapses. They lie anywhere in memory,
/// so this makes one wait out of many.
template <PlasticitySide side>
void PlasticityEngine::prefetchPartners(std::span<const EdgeId> edges,
                                        const SynapseGraph& graph) const {
    for (const EdgeId id : edges.first(std::min(SynapseGraph::prefetch_block, edges.size()))) {
        const NodeId partner = partnerOf<side>(id, graph);
        if (side == PlasticitySide::target) graph.prefetchEdge(id);
        if (partner < state_.traces.size()) prefetchLine(&state_.traces[partner]);
    }
}

/// `other`: the trace of the end that has not fired.
template <PlasticitySide side>
void PlasticityEngine::propose(std::size_t p, const Firing& firing, EdgeId edge,
                               const Synapse& synapse, const SpikeTrace& other) {
    const PlasticityRule& rule = ruleOf(synapse.inhibitory);
    if (rule.kind == PlasticityRuleKind::none) return;
    double factor = side == PlasticitySide::source ? other.post : other.pre;
    bool is_half = false;
    if (rule.kind == PlasticityRuleKind::coincidence) {
        is_half = firing.own == nullptr;
        factor = is_half ? other.coincidence : firing.own->coincidence * other.coincidence;
    }
    double delta = is_half ? 0.0 : deltaOf(rule, side, factor);
    // A hook sees a proposal of 0 too: it may turn it into a NaN, which is kept.
    if (!is_half && delta == 0.0 && !change_hook_) return;

    Part& part = parts_[p];
    WeightChange change;
    change.edge = edge;
    change.time = firing.spike.time;
    change.side = side;
    WeightChangeContext& context = change.context;
    context.edge = edge;
    context.pre_neuron = synapse.source;
    context.post_neuron = synapse.target;
    context.time = firing.spike.time;
    context.pre_last_spike = side == PlasticitySide::source ? firing.last_spike : other.last_spike;
    context.post_last_spike = side == PlasticitySide::source ? other.last_spike : firing.last_spike;
    context.weight = static_cast<double>(synapse.weight);
    context.factor = factor;
    context.pre_phase = phaseOf(part, synapse.source);
    context.post_phase = phaseOf(part, synapse.target);
    context.synapse_kind = synapse.inhibitory ? 1 : 0;
    context.rule_kind = rule.kind;
    context.side = side;
    std::vector<WeightChange>& changes = changesOf(p);
    if (is_half) {
        part.half_products.push_back({changes.size(), firing.index});
    } else {
        if (change_hook_) delta = delta * change_hook_(context);
        if (delta == 0.0) return;
    }
    change.delta = delta;
    changes.push_back(change);
}

double PlasticityEngine::deltaOf(const PlasticityRule& rule, PlasticitySide side,
                                 double factor) const {
    double delta = 0.0;
    if (rule.kind == PlasticityRuleKind::pair) {
        delta =
            (side == PlasticitySide::target ? rule.a_potentiation : -rule.a_depression) * factor;
    } else if (rule.kind == PlasticityRuleKind::coincidence) {
        delta = factor * rule.a_coincidence;
    }
    return delta * rule.scale;
}

std::vector<WeightChange> PlasticityEngine::takeChanges(SynapseGraph& graph) {
    std::vector<WeightChange> changes;
    takeChanges(graph, changes);
    return changes;
}

void PlasticityEngine::takeChanges(SynapseGraph& graph, std::vector<WeightChange>& changes,
                                   const WorkParts& parts) {
    const std::vector<SpikeRecord>& spikes = state_.pending_spikes;
    // Equal records cannot be told apart, so an unstable sort gives one order.
    std::sort(state_.pending_spikes.begin(), state_.pending_spikes.end(), SpikeRecordLess());
    const std::size_t count = partCount(graph, parts);
    setParts(count);
    if (count > 1) {
        graph.outgoing(spikes.front().neuron);  // builds the lists
        graph.incoming(spikes.front().neuron);
        noteLastSpikes();
        if (usesProducts()) spike_coincidence_.resize(spikes.size());
    }
    if (!spikes.empty()) latest_update_ = std::max(latest_update_, spikes.back().time);
    const bool has_halves = !spike_coincidence_.empty();
    parts.run(count, [&](std::size_t p) {
        for (std::uint64_t i = 0; i < spikes.size(); ++i) processSpike(p, i, graph);
        if (!has_halves) sortKeys(p);
    });
    if (has_halves) {
        parts.run(count, [&](std::size_t p) {
            completeProducts(p);
            sortKeys(p);
        });
    }
    state_.pending_spikes.clear();
    moveSorted(changes, count, parts);
}

/// One part where the call may fail, so that an exception leaves the same on any number of threads,
/// and with a hook, whose calls have an order.
std::size_t PlasticityEngine::partCount(const SynapseGraph& graph, const WorkParts& parts) const {
    const std::vector<SpikeRecord>& spikes = state_.pending_spikes;
    const std::size_t neurons = state_.traces.size();
    if (spikes.empty() || change_hook_ || !state_.pending_changes.empty() ||
        graph.nodeCount() != neurons || spikes.front().time < latest_update_) {
        return 1;
    }
    if (bank_ != nullptr &&
        !std::ranges::all_of(bank_->phaseOffsets(), [](double x) { return std::isfinite(x); })) {
        return 1;
    }
    const std::uint64_t synapses = spikes.size() * (1 + 2 * (graph.routedCount() / neurons));
    return std::min(parts.countFor(synapses), neurons);
}

void PlasticityEngine::setParts(std::size_t count) {
    if (parts_.size() < count) parts_.resize(count);
    const auto shards = static_cast<std::uint32_t>(count);
    for (std::uint32_t p = 0; p < shards; ++p) {
        Part& part = parts_[p];
        part.is_only = count == 1;
        part.begin = part.is_only ? 0 : Kernel::shardBegin(state_.traces.size(), shards, p);
        part.size = part.is_only ? ~std::uint64_t{0}
                                 : Kernel::shardEnd(state_.traces.size(), shards, p) - part.begin;
        part.changes.clear();
        part.half_products.clear();
        part.keys.clear();
    }
    last_spikes_.clear();
    spike_coincidence_.clear();
}

/// Notes for each spike the last one of its neuron before it. The traces hold that of the first;
/// each spike is put there for the later ones, and taken out again.
void PlasticityEngine::noteLastSpikes() {
    for (const SpikeRecord& spike : state_.pending_spikes) {
        last_spikes_.push_back(std::exchange(state_.traces[spike.neuron].last_spike, spike.time));
    }
    for (std::size_t i = last_spikes_.size(); i-- != 0;) {
        state_.traces[state_.pending_spikes[i].neuron].last_spike = last_spikes_[i];
    }
}

void PlasticityEngine::completeProducts(std::size_t p) {
    for (const HalfProduct& half : parts_[p].half_products) {
        WeightChange& change = changesOf(p)[half.change];
        WeightChangeContext& context = change.context;
        context.factor = spike_coincidence_[half.spike] * context.factor;
        change.delta = deltaOf(ruleOf(context.synapse_kind != 0), change.side, context.factor);
    }
}

/// Sorts keys, which are smaller than proposals.
void PlasticityEngine::sortKeys(std::size_t p) {
    const std::vector<WeightChange>& changes = changesOf(p);
    Part& part = parts_[p];
    const bool has_zeros = !part.half_products.empty();
    for (std::uint64_t i = 0; i < changes.size(); ++i) {
        if (has_zeros && changes[i].delta == 0.0) continue;
        part.keys.push_back({changes[i].edge, i});
    }
    std::sort(part.keys.begin(), part.keys.end(), [&](const ChangeKey& a, const ChangeKey& b) {
        if (a.edge != b.edge) return a.edge < b.edge;
        const WeightChange& first = changes[a.index];
        const WeightChange& second = changes[b.index];
        if (first.time != second.time) return first.time < second.time;
        if (first.side != second.side) return first.side < second.side;
        return a.index < b.index;
    });
}

/// Moves the proposals to `changes` in their order. Each thread writes a share of the edges.
void PlasticityEngine::moveSorted(std::vector<WeightChange>& changes, std::size_t count,
                                  const WorkParts& parts) {
    changes.resize(firstKeysOf(count, count, parts_[0].last));
    parts.run(count, [&](std::size_t share) { mergeShare(share, count, changes); });
    for (std::size_t p = 0; p < count; ++p) changesOf(p).clear();
}

void PlasticityEngine::mergeShare(std::size_t share, std::size_t count,
                                  std::vector<WeightChange>& changes) {
    std::vector<std::size_t>& next = parts_[share].next;
    std::vector<std::size_t>& last = parts_[share].last;
    std::size_t place = firstKeysOf(share, count, next);
    const std::size_t end = firstKeysOf(share + 1, count, last);
    // Two parts have no proposals of the same edge and side.
    const auto isBefore = [&](std::size_t p, std::size_t q) {
        const ChangeKey& a = parts_[p].keys[next[p]];
        const ChangeKey& b = parts_[q].keys[next[q]];
        if (a.edge != b.edge) return a.edge < b.edge;
        const WeightChange& first = changesOf(p)[a.index];
        const WeightChange& second = changesOf(q)[b.index];
        return first.time != second.time ? first.time < second.time : first.side < second.side;
    };
    for (; place < end; ++place) {
        std::size_t least = 0;
        while (next[least] == last[least]) ++least;
        for (std::size_t p = least + 1; p < count; ++p) {
            if (next[p] != last[p] && isBefore(p, least)) least = p;
        }
        changes[place] = changesOf(least)[parts_[least].keys[next[least]++].index];
    }
}

/// Sets `first`, by part, to the first key of a share of the edges, and returns the sum. The shares
/// divide the longest list of keys evenly.
std::size_t PlasticityEngine::firstKeysOf(std::size_t share, std::size_t count,
                                          std::vector<std::size_t>& first) const {
    const auto countOf = [&](std::size_t p) { return parts_[p].keys.size(); };
    std::size_t longest = 0;
    for (std::size_t p = 1; p < count; ++p) {
        if (countOf(p) > countOf(longest)) longest = p;
    }
    first.clear();
    for (std::size_t p = 0; p < count; ++p) {
        const std::vector<ChangeKey>& keys = parts_[p].keys;
        auto found = share == 0 ? keys.begin() : keys.end();
        if (share != 0 && share != count && !keys.empty()) {
            const EdgeId edge = parts_[longest].keys[share * countOf(longest) / count].edge;
            found = std::ranges::lower_bound(keys, edge, {}, &ChangeKey::edge);
        }
        first.push_back(static_cast<std::size_t>(found - keys.begin()));
    }
    return std::accumulate(first.begin(), first.end(), std::size_t{0});
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

void PlasticityEngine::adopt(State&& state) noexcept {
    state_ = std::move(state);
    latest_update_ = 0;
    for (const SpikeTrace& trace : state_.traces) {
        latest_update_ = std::max(latest_update_, trace.updated);
    }
}

bool PlasticityEngine::restore(BlobView blob) {
    std::optional<State> state = read(blob);
    if (!state) return false;
    adopt(std::move(*state));
    return true;
}

}  // namespace Lumenar::Core::Kelm
