#include "kelm/runtime/LearningControl.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/core/Prefetch.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr BlobTag format_tag("KELMLRN1");

/// How many synapses ahead the fading asks for their memory.
constexpr std::size_t prefetch_distance = 16;

void requireGroup(std::uint32_t group) {
    if (group >= LearningControl::group_limit) {
        throw InvalidLearningControl(InvalidLearningControl::group);
    }
}

/// Low end first and high end second, so that the high end wins if the two cross. A NaN passes.
double clampTo(double value, double low, double high) {
    const double raised = value < low ? low : value;
    return raised > high ? high : raised;
}

/// One of how many entries a sampled journal keeps; 0 and 1 both mean every entry. A restored rate
/// may be anything: where its inverse is no 64-bit integer, only the very first entry is kept.
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

}  // namespace

LearningControl::LearningControl(std::uint64_t neuron_count, std::uint64_t synapse_count)
    : group_of_(neuron_count), synapses_(synapse_count) {}

bool LearningControl::neuronAdmitted(NodeId neuron) const {
    const std::uint32_t group = groupOf(neuron);
    if (!groupAllows(group)) return false;
    if (!restrict_groups_) return true;
    return std::binary_search(allowed_sorted_.begin(), allowed_sorted_.end(), group);
}

void LearningControl::setGroup(NodeId neuron, std::uint32_t group) {
    if (neuron >= group_of_.size()) {
        throw InvalidLearningControl(InvalidLearningControl::group_neuron);
    }
    requireGroup(group);
    group_of_[neuron] = group;
}

void LearningControl::setGroupEnabled(std::uint32_t group, bool enabled) {
    requireGroup(group);
    if (group >= group_enabled_.size()) {
        if (enabled) return;
        group_enabled_.resize(group + std::size_t{1}, 1);
    }
    group_enabled_[group] = enabled ? 1 : 0;
}

void LearningControl::allowOnlyGroups(std::vector<std::uint32_t> groups) {
    for (const std::uint32_t group : groups) requireGroup(group);
    std::vector<std::uint32_t> sorted = groups;
    std::sort(sorted.begin(), sorted.end());
    allowed_groups_ = std::move(groups);
    allowed_sorted_ = std::move(sorted);
    restrict_groups_ = true;
}

void LearningControl::allowAllGroups() {
    allowed_groups_.clear();
    allowed_sorted_.clear();
    restrict_groups_ = false;
}

void LearningControl::setFrozen(std::uint32_t index, bool frozen) {
    if (index >= frozen_.size()) throw InvalidLearningControl(InvalidLearningControl::freeze);
    frozen_[index] = frozen;
}

void LearningControl::setFastWeights(bool enabled, ModelTime tau, double consolidation_rate) {
    if (tau < 1) throw InvalidLearningControl(InvalidLearningControl::fast_tau);
    if (!(consolidation_rate >= 0.0 && consolidation_rate <= 1.0)) {
        throw InvalidLearningControl(InvalidLearningControl::consolidation_rate);
    }
    fast_.enabled = enabled ? 1 : 0;
    fast_.tau = tau;
    fast_.consolidation_rate = consolidation_rate;
}

void LearningControl::setJournal(JournalMode mode, double rate) {
    if (mode > JournalMode::sampled) {
        throw InvalidLearningControl(InvalidLearningControl::journal_mode);
    }
    if (!(rate > 0.0 && rate <= 1.0)) {
        throw InvalidLearningControl(InvalidLearningControl::journal_rate);
    }
    journal_mode_ = mode;
    journal_rate_ = rate;
    journal_stride_ = strideOf(rate);
}

void LearningControl::setWeightCap(double cap) {
    if (!std::isfinite(cap) || cap < 0.0) {
        throw InvalidLearningControl(InvalidLearningControl::weight_cap);
    }
    weight_cap_ = cap;
}

LearningStatistics LearningControl::applyChanges(SynapseGraph& graph,
                                                 std::span<const WeightChange> changes,
                                                 ModelTime window_end) {
    // A restored graph may have come to another synapse count than this object's.
    if (graph.nodeCount() != group_of_.size() || graph.edgeCount() != synapses_.size()) {
        throw InvalidLearningControl(InvalidLearningControl::size);
    }
    LearningStatistics statistics;
    const bool gate_open = askGate(window_end);
    const bool stopped = frozen_[0] || frozen_[1];
    for (const WeightChange& change : changes) {
        if (!graph.isRouted(change.edge)) continue;
        if (stopped) {
            ++statistics.frozen_out;
        } else if (!neuronAdmitted(graph.target(change.edge))) {
            ++statistics.blocked_by_group;
        } else if (!gate_open) {
            ++statistics.gated;
        } else {
            learn(graph, change);
            ++statistics.applied;
        }
    }
    if (fast_.enabled != 0 && !frozen_[1]) fade(graph, window_end, statistics);
    return statistics;
}

bool LearningControl::askGate(ModelTime window_end) {
    if (!modulator_) return true;
    const bool open = modulator_(window_end);
    if (modulator_history_.empty() || (modulator_history_.back().open != 0) != open) {
        if (!modulator_history_.empty() && window_end < modulator_history_.back().time) {
            throw InvalidLearningControl(InvalidLearningControl::gate_order);
        }
        ModulatorSample sample;
        sample.time = window_end;
        sample.open = open ? 1 : 0;
        modulator_history_.push_back(sample);
    }
    return open;
}

void LearningControl::learn(SynapseGraph& graph, const WeightChange& change) {
    const EdgeId edge = change.edge;
    SynapseLearningState& state = synapses_[edge];
    const double weight = static_cast<double>(graph.edge(edge).weight);
    if (state.initialized == 0) {
        state.slow = weight;
        state.fast = 0.0;
        state.last_weight = weight;
        state.initialized = 1;
    }
    if (weight != state.last_weight) {
        // Somebody else, such as homeostasis, moved the weight: the lasting part takes it up.
        SynapseLearningState moved = state;
        moved.slow = weight - state.fast;
        commitWeight(graph, edge, moved, change.time, nullptr, JournalKind::external);
    }
    SynapseLearningState learned = state;
    double& part = fast_.enabled != 0 ? learned.fast : learned.slow;
    part = change.delta + part;
    commitWeight(graph, edge, learned, change.time, &change, JournalKind::update);
    if (fast_.enabled != 0 && state.pending == 0) {
        pending_edges_.push_back(edge);
        state.pending = 1;
    }
}

/// Each interval runs from a synapse's last change, which this pass itself moves to the window's
/// end: over any span of time a fading part fades exactly once, whichever windows the span crosses.
void LearningControl::fade(SynapseGraph& graph, ModelTime window_end,
                           LearningStatistics& statistics) {
    // Most synapses were last changed by the pass before, so neighbours share a factor.
    double factor_interval = 0.0;
    double factor = 1.0;
    for (std::size_t i = 0; i < pending_edges_.size(); ++i) {
        // In the order of first touch, which is none in memory.
        if (i + prefetch_distance < pending_edges_.size()) {
            const EdgeId later = pending_edges_[i + prefetch_distance];
            prefetchLine(&synapses_[later]);
            graph.prefetchEdge(later);
        }
        const EdgeId edge = pending_edges_[i];
        const SynapseLearningState& state = synapses_[edge];
        if (state.initialized == 0 || state.fast == 0.0 || !graph.isRouted(edge)) continue;
        const double interval =
            static_cast<double>(window_end) - static_cast<double>(graph.lastChange(edge));
        if (0.0 >= interval) continue;
        if (fast_.consolidation_rate > 0.0) {
            SynapseLearningState consolidated = state;
            const double share = state.fast * fast_.consolidation_rate;
            consolidated.fast = state.fast - share;
            consolidated.slow = share + state.slow;
            commitWeight(graph, edge, consolidated, window_end, nullptr,
                         JournalKind::consolidation);
            ++statistics.consolidated;
        }
        if (interval != factor_interval) {
            factor_interval = interval;
            // Only a restored time constant can be 0: the limit, without the division.
            factor = fast_.tau == 0 ? 0.0 : std::exp(-interval / static_cast<double>(fast_.tau));
        }
        SynapseLearningState faded = state;
        faded.fast = factor * state.fast;
        commitWeight(graph, edge, faded, window_end, nullptr, JournalKind::decay);
        ++statistics.decayed;
    }
}

/// Puts `state` in force for a synapse, within the cap, and journals the step from the state that
/// stood before. Nothing is changed if the graph refuses the weight.
void LearningControl::commitWeight(SynapseGraph& graph, EdgeId edge, SynapseLearningState state,
                                   ModelTime time, const WeightChange* proposal, JournalKind kind) {
    state.slow = clampTo(state.slow, 0.0, weight_cap_);
    state.fast = clampTo(state.fast, -weight_cap_, weight_cap_);
    const double total = state.fast + state.slow;
    const float weight = static_cast<float>(clampTo(total, 0.0, weight_cap_));
    graph.setWeight(edge, weight);
    graph.lastChange(edge) = time;
    state.last_weight = static_cast<double>(weight);
    const SynapseLearningState before = std::exchange(synapses_[edge], state);

    if (!keepsNextEntry()) return;
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
    journal_.push_back(entry);
}

bool LearningControl::keepsNextEntry() {
    if (journal_mode_ == JournalMode::off) return false;
    if (journal_mode_ != JournalMode::sampled || journal_stride_ <= 1) return true;
    return journal_counter_++ % journal_stride_ == 0;
}

Blob LearningControl::snapshot() const {
    Blob blob;
    blob.reserve(127 + 4 * group_of_.size() + sizeof(SynapseLearningState) * synapses_.size() +
                 group_enabled_.size() + sizeof(JournalEntry) * journal_.size() +
                 sizeof(ModulatorSample) * modulator_history_.size() + 8 * pending_edges_.size() +
                 4 * allowed_groups_.size());
    appendTag(blob, format_tag);
    appendSequence(blob, group_of_);
    appendSequence(blob, synapses_);
    appendSequence(blob, group_enabled_);
    appendSequence(blob, journal_);
    appendSequence(blob, modulator_history_);
    appendSequence(blob, pending_edges_);
    appendImage(blob, fast_);
    appendFlag(blob, restrict_groups_);
    appendFlag(blob, reserved_flag_);
    appendSequence(blob, allowed_groups_);
    appendU8(blob, static_cast<std::uint8_t>(journal_mode_));
    appendF64(blob, journal_rate_);
    appendF64(blob, weight_cap_);
    appendFlag(blob, learning_enabled_);
    for (const bool frozen : frozen_) appendFlag(blob, frozen);
    appendU64(blob, journal_counter_);
    return blob;
}

bool LearningControl::restore(BlobView blob) {
    BlobReader in(blob);
    LearningControl restored(0, 0);
    if (!restored.readFrom(in)) return false;
    if (restored.group_of_.size() != group_of_.size() ||
        restored.synapses_.size() != synapses_.size()) {
        return false;
    }
    swapState(restored);
    return true;
}

void LearningControl::swapState(LearningControl& other) noexcept {
    std::swap(*this, other);
    std::swap(modulator_, other.modulator_);
}

bool LearningControl::readFrom(BlobReader& in) {
    if (!in.expectTag(format_tag) || !in.readSequence(group_of_) || !in.readSequence(synapses_) ||
        !readGroupSwitches(in) || !in.readSequence(journal_) ||
        !in.readSequence(modulator_history_) || !in.readSequence(pending_edges_) ||
        !readSettings(in) || !in.atEnd()) {
        return false;
    }
    for (SynapseLearningState& state : synapses_) clearGap(state.gap);
    for (ModulatorSample& sample : modulator_history_) clearGap(sample.gap);
    for (JournalEntry& entry : journal_) {
        if (entry.edge >= synapses_.size()) return false;
        clearGap(entry.gap);
    }
    for (const EdgeId edge : pending_edges_) {
        if (edge >= synapses_.size()) return false;
    }
    return true;
}

bool LearningControl::readGroupSwitches(BlobReader& in) {
    if (!in.readSequence(group_enabled_)) return false;
    for (std::uint8_t& enabled : group_enabled_) enabled = enabled != 0 ? 1 : 0;
    return true;
}

bool LearningControl::readSettings(BlobReader& in) {
    bool fast_enabled = false;
    BlobView gap;
    std::uint8_t mode = 0;
    if (!readAnyFlag(in, fast_enabled) || !in.readView(sizeof(fast_.gap), gap) ||
        !in.readI64(fast_.tau) || !in.readF64(fast_.consolidation_rate) ||
        !readAnyFlag(in, restrict_groups_) || !readAnyFlag(in, reserved_flag_) ||
        !in.readSequence(allowed_groups_) || !in.readU8(mode) || !in.readF64(journal_rate_) ||
        !in.readF64(weight_cap_) || !readAnyFlag(in, learning_enabled_)) {
        return false;
    }
    for (bool& frozen : frozen_) {
        if (!readAnyFlag(in, frozen)) return false;
    }
    if (!in.readU64(journal_counter_)) return false;
    fast_.enabled = fast_enabled ? 1 : 0;
    journal_mode_ = static_cast<JournalMode>(mode);  // one without a name keeps every entry
    journal_stride_ = strideOf(journal_rate_);
    allowed_sorted_ = allowed_groups_;
    std::sort(allowed_sorted_.begin(), allowed_sorted_.end());
    return true;
}

}  // namespace Lumenar::Core::Kelm
