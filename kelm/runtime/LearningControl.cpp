#include "kelm/runtime/LearningControl.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/core/Prefetch.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr BlobTag format_tag("KELMLRN1");

/// How many synapses ahead the fading prefetches their memory.
constexpr std::size_t prefetch_distance = 16;

void requireGroup(std::uint32_t group) {
    if (group >= LearningControl::group_limit) {
        throw InvalidLearningControl(InvalidLearningControl::group);
    }
}

/// Tests the low end first and the high end second: the high end wins if the bounds cross. NaN
/// passes.
double clampTo(double value, double low, double high) {
    const double raised = value < low ? low : value;
    return raised > high ? high : raised;
}

/// A sampled journal keeps the first of each so many entries; 0 and 1 both mean every entry. A
/// restored rate may be any number. If its inverse fits no 64-bit integer, only the first entry is
/// kept.
std::uint64_t strideOf(double rate) {
    if (!(std::fabs(rate) > 0x1p-63)) return std::uint64_t{1} << 63;
    return static_cast<std::uint64_t>(std::llround(1.0 / rate));
}

bool readAnyFlag(BlobReader& in, bool& value) {
    std::uint8_t byte = 0;
    if (!in.readU8(byte)) return false;
    value = byte != 0;
    return true;
}

bool readSettings(BlobReader& in, LearningControl::State& state) {
    bool fast_enabled = false;
    BlobView gap;
    std::uint8_t mode = 0;
    if (!readAnyFlag(in, fast_enabled) || !in.readView(sizeof(state.fast.gap), gap) ||
        !in.readI64(state.fast.tau) || !in.readF64(state.fast.consolidation_rate) ||
        !readAnyFlag(in, state.restrict_groups) || !readAnyFlag(in, state.reserved_flag) ||
        !in.readSequence(state.allowed_groups) || !in.readU8(mode) ||
        !in.readF64(state.journal_rate) || !in.readF64(state.weight_cap) ||
        !readAnyFlag(in, state.learning_enabled)) {
        return false;
    }
    for (bool& frozen : state.frozen) {
        if (!readAnyFlag(in, frozen)) return false;
    }
    if (!in.readU64(state.journal_counter)) return false;
    state.fast.enabled = fast_enabled ? 1 : 0;
    state.journal_mode = static_cast<JournalMode>(mode);  // an unknown mode keeps every entry
    state.journal_stride = strideOf(state.journal_rate);
    state.allowed_sorted = state.allowed_groups;
    std::sort(state.allowed_sorted.begin(), state.allowed_sorted.end());
    return true;
}

/// Whether all numbers that learning computes with are finite, and no edge is pending twice, nor
/// becomes so.
bool isRegular(const LearningControl::State& state) {
    const auto isFinite = [](const SynapseLearningState& synapse) {
        return std::isfinite(synapse.slow) && std::isfinite(synapse.fast);
    };
    std::vector<bool> seen(state.synapses.size());
    for (const EdgeId edge : state.pending_edges) {
        if (seen[edge] || state.synapses[edge].pending == 0) return false;
        seen[edge] = true;
    }
    return std::isfinite(state.weight_cap) && std::ranges::all_of(state.synapses, isFinite);
}

}  // namespace

LearningControl::LearningControl(std::uint64_t neuron_count, std::uint64_t synapse_count) {
    state_.group_of.resize(neuron_count);
    state_.synapses.resize(synapse_count);
}

bool LearningControl::neuronAdmitted(NodeId neuron) const {
    const std::uint32_t group = groupOf(neuron);
    if (!groupAllows(group)) return false;
    if (!state_.restrict_groups) return true;
    return std::binary_search(state_.allowed_sorted.begin(), state_.allowed_sorted.end(), group);
}

void LearningControl::setGroup(NodeId neuron, std::uint32_t group) {
    if (neuron >= state_.group_of.size()) {
        throw InvalidLearningControl(InvalidLearningControl::group_neuron);
    }
    requireGroup(group);
    state_.group_of[neuron] = group;
}

void LearningControl::setGroupEnabled(std::uint32_t group, bool enabled) {
    requireGroup(group);
    if (group >= state_.group_enabled.size()) {
        if (enabled) return;
        state_.group_enabled.resize(group + std::size_t{1}, 1);
    }
    state_.group_enabled[group] = enabled ? 1 : 0;
}

void LearningControl::allowOnlyGroups(std::vector<std::uint32_t> groups) {
    for (const std::uint32_t group : groups) requireGroup(group);
    std::vector<std::uint32_t> sorted = groups;
    std::sort(sorted.begin(), sorted.end());
    state_.allowed_groups = std::move(groups);
    state_.allowed_sorted = std::move(sorted);
    state_.restrict_groups = true;
}

void LearningControl::allowAllGroups() {
    state_.allowed_groups.clear();
    state_.allowed_sorted.clear();
    state_.restrict_groups = false;
}

void LearningControl::setFrozen(std::uint32_t index, bool frozen) {
    if (index >= state_.frozen.size()) throw InvalidLearningControl(InvalidLearningControl::freeze);
    state_.frozen[index] = frozen;
}

void LearningControl::setFastWeights(bool enabled, ModelTime tau, double consolidation_rate) {
    if (tau < 1) throw InvalidLearningControl(InvalidLearningControl::fast_tau);
    if (!(consolidation_rate >= 0.0 && consolidation_rate <= 1.0)) {
        throw InvalidLearningControl(InvalidLearningControl::consolidation_rate);
    }
    state_.fast.enabled = enabled ? 1 : 0;
    state_.fast.tau = tau;
    state_.fast.consolidation_rate = consolidation_rate;
}

void LearningControl::setJournal(JournalMode mode, double rate) {
    if (mode > JournalMode::sampled) {
        throw InvalidLearningControl(InvalidLearningControl::journal_mode);
    }
    if (!(rate > 0.0 && rate <= 1.0)) {
        throw InvalidLearningControl(InvalidLearningControl::journal_rate);
    }
    state_.journal_mode = mode;
    state_.journal_rate = rate;
    state_.journal_stride = strideOf(rate);
}

void LearningControl::setWeightCap(double cap) {
    if (!std::isfinite(cap) || cap < 0.0) {
        throw InvalidLearningControl(InvalidLearningControl::weight_cap);
    }
    state_.weight_cap = cap;
}

LearningStatistics LearningControl::applyChanges(SynapseGraph& graph,
                                                 std::span<const WeightChange> changes,
                                                 ModelTime window_end, const WorkParts& parts) {
    const bool gate_open = isGateOpen(window_end);
    const bool stopped = state_.frozen[0] || state_.frozen[1];
    const bool writes = gate_open && !stopped;
    LearningStatistics statistics;
    std::size_t count = writes ? changeParts(graph, changes, parts) : 1;
    setParts(count, graph);
    parts.runRanges(count, changes.size(), [&](std::size_t part, std::size_t i, std::size_t end) {
        // The proposals of an edge stay together.
        const auto startsEdge = [&](std::size_t place) {
            return place == 0 || place == changes.size() ||
                   changes[place].edge != changes[place - 1].edge;
        };
        while (count > 1 && !startsEdge(i)) ++i;
        while (count > 1 && !startsEdge(end)) ++end;
        LearningStatistics& own = parts_[part].statistics;
        for (; i < end; ++i) {
            const WeightChange& change = changes[i];
            if (!graph.isRouted(change.edge)) continue;
            if (stopped) {
                ++own.frozen_out;
            } else if (!neuronAdmitted(graph.target(change.edge))) {
                ++own.blocked_by_group;
            } else if (!gate_open) {
                ++own.gated;
            } else {
                learn(part, graph, change);
                ++own.applied;
            }
        }
    });
    joinParts(count, statistics);
    if (state_.fast.enabled == 0 || state_.frozen[1]) return statistics;

    const std::span<const EdgeId> pending = state_.pending_edges;
    count = cannotFail(graph) ? parts.countFor(pending.size()) : 1;
    setParts(count, graph);
    parts.runRanges(count, pending.size(),
                    [&](std::size_t part, std::size_t first, std::size_t end) {
                        fade(part, graph, pending.subspan(first, end - first), window_end);
                    });
    joinParts(count, statistics);
    return statistics;
}

/// Whether no proposal of a finite change for a synapse of the graph can fail, and no fading. One
/// thread does what may fail, so that an exception leaves the same on any number of threads.
bool LearningControl::cannotFail(const SynapseGraph& graph) const {
    const double rate = state_.fast.consolidation_rate;
    return state_.is_regular && std::isfinite(static_cast<float>(state_.weight_cap)) &&
           state_.weight_cap >= 0.0 && state_.fast.tau >= 0 && rate >= 0.0 && rate <= 1.0 &&
           graph.edgeCount() == state_.synapses.size() &&
           graph.nodeCount() == state_.group_of.size();
}

std::size_t LearningControl::changeParts(const SynapseGraph& graph,
                                         std::span<const WeightChange> changes,
                                         const WorkParts& parts) const {
    const std::size_t count = parts.countFor(changes.size());
    if (count == 1 || !cannotFail(graph)) return 1;
    std::atomic<bool> fits = changes.back().edge < graph.edgeCount();
    parts.runRanges(count, changes.size(), [&](std::size_t, std::size_t i, std::size_t end) {
        bool all_fit = true;
        for (; i < end; ++i) {
            all_fit = all_fit && std::isfinite(changes[i].delta) &&
                      (i == 0 || changes[i - 1].edge <= changes[i].edge);
        }
        if (!all_fit) fits.store(false, std::memory_order_relaxed);
    });
    return fits.load(std::memory_order_relaxed) ? count : 1;
}

/// A single part prepares its writer when it first writes, because it may write nothing.
void LearningControl::setParts(std::size_t count, SynapseGraph& graph) {
    if (parts_.size() < count) parts_.resize(count);
    for (std::size_t p = 0; p < count; ++p) {
        parts_[p].statistics = {};
        parts_[p].journal.clear();
        parts_[p].pending_edges.clear();
        parts_[p].is_only = count == 1;
        parts_[p].can_write = count > 1;
    }
    if (count > 1) graph.prepareWriters(count, true);
}

/// Adds what the parts have made to the state and to `statistics`, in their order.
void LearningControl::joinParts(std::size_t count, LearningStatistics& statistics) {
    for (std::size_t p = 0; p < count; ++p) {
        const Part& part = parts_[p];
        statistics += part.statistics;
        if (state_.journal_mode == JournalMode::sampled) {
            for (const JournalEntry& entry : part.journal) {
                if (keepsNextEntry()) state_.journal.push_back(entry);
            }
        } else {
            state_.journal.insert(state_.journal.end(), part.journal.begin(), part.journal.end());
        }
        state_.pending_edges.insert(state_.pending_edges.end(), part.pending_edges.begin(),
                                    part.pending_edges.end());
    }
}

bool LearningControl::isGateOpen(ModelTime window_end) {
    if (!modulator_) return true;
    const bool open = modulator_(window_end);
    if (state_.modulator_history.empty() || (state_.modulator_history.back().open != 0) != open) {
        if (!state_.modulator_history.empty() &&
            window_end < state_.modulator_history.back().time) {
            throw InvalidLearningControl(InvalidLearningControl::gate_order);
        }
        ModulatorSample sample;
        sample.time = window_end;
        sample.open = open ? 1 : 0;
        state_.modulator_history.push_back(sample);
    }
    return open;
}

void LearningControl::learn(std::size_t part, SynapseGraph& graph, const WeightChange& change) {
    const EdgeId edge = change.edge;
    // The graph may hold more synapses than this object was made for.
    if (edge >= state_.synapses.size()) {
        throw SynapseRoutingViolation(SynapseRoutingViolation::edge);
    }
    SynapseLearningState& state = state_.synapses[edge];
    const double weight = static_cast<double>(graph.weight(edge));
    if (state.initialized == 0) {
        state.slow = weight;
        state.fast = 0.0;
        state.last_weight = weight;
        state.initialized = 1;
    }
    if (weight != state.last_weight) {
        // Something else, such as homeostasis, changed the weight: the lasting part takes it up.
        SynapseLearningState moved = state;
        moved.slow = weight - state.fast;
        commitWeight(part, graph, edge, moved, change.time, nullptr, JournalKind::external);
    }
    SynapseLearningState learned = state;
    double& learning = state_.fast.enabled != 0 ? learned.fast : learned.slow;
    learning = change.delta + learning;
    commitWeight(part, graph, edge, learned, change.time, &change, JournalKind::update);
    if (state_.fast.enabled != 0 && state.pending == 0) {
        Part& own = parts_[part];
        (own.is_only ? state_.pending_edges : own.pending_edges).push_back(edge);
        state.pending = 1;
    }
}

/// Fades over the interval since a synapse's last change, and sets that change to the window's end.
/// So a fading part fades exactly once over any span of time, however windows divide the span.
void LearningControl::fade(std::size_t part, SynapseGraph& graph, std::span<const EdgeId> edges,
                           ModelTime window_end) {
    LearningStatistics& statistics = parts_[part].statistics;
    // The last pass was the last change of most synapses, so neighbours share a factor.
    double factor_interval = 0.0;
    double factor = 1.0;
    for (std::size_t i = 0; i < edges.size(); ++i) {
        // The list has the order of first change, so its synapses lie anywhere in memory.
        if (i + prefetch_distance < edges.size()) {
            const EdgeId later = edges[i + prefetch_distance];
            prefetchLine(&state_.synapses[later]);
            if (later < graph.edgeCount()) graph.prefetchEdge(later);
        }
        const EdgeId edge = edges[i];
        const SynapseLearningState& state = state_.synapses[edge];
        if (state.initialized == 0 || state.fast == 0.0 || !graph.isRouted(edge)) continue;
        const double interval =
            static_cast<double>(window_end) - static_cast<double>(graph.lastChange(edge));
        if (0.0 >= interval) continue;
        if (state_.fast.consolidation_rate > 0.0) {
            SynapseLearningState consolidated = state;
            const double share = state.fast * state_.fast.consolidation_rate;
            consolidated.fast = state.fast - share;
            consolidated.slow = share + state.slow;
            commitWeight(part, graph, edge, consolidated, window_end, nullptr,
                         JournalKind::consolidation);
            ++statistics.consolidated;
        }
        if (interval != factor_interval) {
            factor_interval = interval;
            // Only a restored time constant can be 0. The limit then, without the division.
            factor = state_.fast.tau == 0
                         ? 0.0
                         : std::exp(-interval / static_cast<double>(state_.fast.tau));
        }
        SynapseLearningState faded = state;
        faded.fast = factor * state.fast;
        commitWeight(part, graph, edge, faded, window_end, nullptr, JournalKind::decay);
        ++statistics.decayed;
    }
}

/// Bounds `state` by the cap, makes it the synapse's state, and notes the step in the journal.
/// Changes nothing if the graph refuses the weight.
void LearningControl::commitWeight(std::size_t part, SynapseGraph& graph, EdgeId edge,
                                   SynapseLearningState state, ModelTime time,
                                   const WeightChange* proposal, JournalKind kind) {
    state.slow = clampTo(state.slow, 0.0, state_.weight_cap);
    state.fast = clampTo(state.fast, -state_.weight_cap, state_.weight_cap);
    const double total = state.fast + state.slow;
    const float weight = static_cast<float>(clampTo(total, 0.0, state_.weight_cap));
    Part& own = parts_[part];
    if (!own.can_write) graph.prepareWriters(1, true);
    own.can_write = true;
    graph.setWeight(part, edge, weight);
    graph.lastChange(edge) = time;
    state.last_weight = static_cast<double>(weight);
    const SynapseLearningState before = std::exchange(state_.synapses[edge], state);

    if (own.is_only ? !keepsNextEntry() : state_.journal_mode == JournalMode::off) return;
    JournalEntry entry;
    entry.edge = edge;
    entry.time = time;
    entry.weight_before = before.last_weight;
    entry.weight_after = state.last_weight;
    entry.fast_before = before.fast;
    entry.fast_after = state.fast;
    entry.slow_before = before.slow;
    entry.slow_after = state.slow;
    if (proposal != nullptr) {
        entry.pre_last_spike = proposal->context.pre_last_spike;
        entry.post_last_spike = proposal->context.post_last_spike;
        entry.delta = proposal->delta;
        entry.rule_kind = proposal->context.rule_kind;
    }
    entry.kind = kind;
    (own.is_only ? state_.journal : own.journal).push_back(entry);
}

bool LearningControl::keepsNextEntry() {
    if (state_.journal_mode == JournalMode::off) return false;
    if (state_.journal_mode != JournalMode::sampled || state_.journal_stride <= 1) return true;
    return state_.journal_counter++ % state_.journal_stride == 0;
}

Blob LearningControl::snapshot() const {
    Blob blob;
    blob.reserve(127 + 4 * state_.group_of.size() +
                 sizeof(SynapseLearningState) * state_.synapses.size() +
                 state_.group_enabled.size() + sizeof(JournalEntry) * state_.journal.size() +
                 sizeof(ModulatorSample) * state_.modulator_history.size() +
                 8 * state_.pending_edges.size() + 4 * state_.allowed_groups.size());
    appendTag(blob, format_tag);
    appendSequence(blob, state_.group_of);
    appendSequence(blob, state_.synapses);
    appendSequence(blob, state_.group_enabled);
    appendSequence(blob, state_.journal);
    appendSequence(blob, state_.modulator_history);
    appendSequence(blob, state_.pending_edges);
    appendImage(blob, state_.fast);
    appendFlag(blob, state_.restrict_groups);
    appendFlag(blob, state_.reserved_flag);
    appendSequence(blob, state_.allowed_groups);
    appendU8(blob, static_cast<std::uint8_t>(state_.journal_mode));
    appendF64(blob, state_.journal_rate);
    appendF64(blob, state_.weight_cap);
    appendFlag(blob, state_.learning_enabled);
    for (const bool frozen : state_.frozen) appendFlag(blob, frozen);
    appendU64(blob, state_.journal_counter);
    return blob;
}

std::optional<LearningControl::State> LearningControl::read(BlobView blob) const {
    BlobReader in(blob);
    State state;
    if (!in.expectTag(format_tag) || !in.readSequence(state.group_of) ||
        state.group_of.size() != state_.group_of.size() || !in.readSequence(state.synapses) ||
        state.synapses.size() != state_.synapses.size() || !in.readSequence(state.group_enabled) ||
        !in.readSequence(state.journal) || !in.readSequence(state.modulator_history) ||
        !in.readSequence(state.pending_edges) || !readSettings(in, state) || !in.atEnd()) {
        return std::nullopt;
    }
    for (std::uint8_t& enabled : state.group_enabled) enabled = enabled != 0 ? 1 : 0;
    for (SynapseLearningState& synapse : state.synapses) clearGap(synapse.gap);
    for (ModulatorSample& sample : state.modulator_history) clearGap(sample.gap);
    for (JournalEntry& entry : state.journal) {
        if (entry.edge >= state.synapses.size()) return std::nullopt;
        clearGap(entry.gap);
    }
    for (const EdgeId edge : state.pending_edges) {
        if (edge >= state.synapses.size()) return std::nullopt;
    }
    state.is_regular = isRegular(state);
    return state;
}

void LearningControl::adopt(State&& state) noexcept { state_ = std::move(state); }

bool LearningControl::restore(BlobView blob) {
    std::optional<State> state = read(blob);
    if (!state) return false;
    adopt(std::move(*state));
    return true;
}

}  // namespace Lumenar::Core::Kelm
