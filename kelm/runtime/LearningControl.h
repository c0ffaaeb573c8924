#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <span>
#include <utility>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/ModelTime.h"
#include "kelm/network/SynapseGraph.h"
#include "kelm/runtime/LearningRecords.h"
#include "kelm/runtime/WeightChange.h"

namespace Lumenar::Core::Kelm {

/// Stands between proposals of weight changes and the weights: the one place that writes a weight
/// through learning.
///
/// It decides which proposals take effect (freezes, groups, gate, in this order), keeps the weight
/// of each learning synapse as a lasting part plus a fading part, holds their sum inside a cap,
/// writes it to the graph in single precision and notes what it did in a journal. A synapse's
/// state starts with the first proposal that takes effect; until then the graph's weight stands
/// alone. Fading parts fade, and may become lasting, once per window. Source of the two parts:
/// Hinton and Plaut, "Using fast weights to deblur old memories", CogSci (1987).
///
/// A new object lets every proposal through, has a cap of 1 and journals every change. The journal
/// only grows: a long run samples it or switches it off. Settings may be changed between runs and
/// are part of a snapshot, but for the modulator. After a throw out of applyChanges the object may
/// only be restored or destroyed. Views are valid until the next operation that is not constant.
/// One thread at a time.
class LearningControl {
public:
    /// The gate's answer for the window that ends at the given time in ns.
    using Modulator = std::function<bool(ModelTime window_end)>;

    /// Group ids that an operation sets lie below this.
    static constexpr std::uint32_t group_limit = 1'048'576;

    LearningControl(std::uint64_t neuron_count, std::uint64_t synapse_count);

    /// Puts a window's proposals in force, in the given order, and then lets fading parts fade up
    /// to `window_end` ns. The gate is asked once, before the first proposal. A proposal for a
    /// synapse that is not routed is passed over and counted nowhere.
    ///
    /// Throws InvalidLearningControl for a graph of another neuron or synapse count, and for a gate
    /// that changes its answer at a time before the last change; SynapseRoutingViolation for a
    /// proposal outside the graph; InvalidSynapse for a weight that the graph refuses, such as one
    /// that a proposal of NaN makes; and what the modulator throws.
    LearningStatistics applyChanges(SynapseGraph& graph, std::span<const WeightChange> changes,
                                    ModelTime window_end);

    /// Throws InvalidLearningControl for a neuron outside the network.
    std::uint32_t groupOf(NodeId neuron) const {
        if (neuron >= group_of_.size()) {
            throw InvalidLearningControl(InvalidLearningControl::group_query);
        }
        return group_of_[neuron];
    }
    /// Whether a group may learn, apart from a restriction to some groups. One that was never
    /// switched may.
    bool groupAllows(std::uint32_t group) const {
        return learning_enabled_ && (group >= group_enabled_.size() || group_enabled_[group] != 0);
    }
    /// Whether the synapses that enter a neuron may learn. Throws as groupOf does.
    bool neuronAdmitted(NodeId neuron) const;

    /// Puts a neuron into a group; every neuron starts in group 0.
    /// Throws InvalidLearningControl for a neuron outside the network, then for a group id that is
    /// not below group_limit.
    void setGroup(NodeId neuron, std::uint32_t group);
    /// Lets a group learn, or not. Throws InvalidLearningControl for a group id as above.
    void setGroupEnabled(std::uint32_t group, bool enabled);
    /// Restricts learning to some groups, of those that are enabled.
    /// Throws InvalidLearningControl for a group id as above; the old restriction then stays.
    void allowOnlyGroups(std::vector<std::uint32_t> groups);
    /// Lifts the restriction.
    void allowAllGroups();
    /// The master switch of all groups.
    void setLearningEnabled(bool enabled) { learning_enabled_ = enabled; }

    /// Freeze 0 stops proposals, freeze 1 stops proposals and the fading, freeze 2 stops nothing
    /// here. Throws InvalidLearningControl for another index.
    void setFrozen(std::uint32_t index, bool frozen);

    /// Sets a gate that decides, window by window, whether proposals take effect; an empty one for
    /// none. It is asked at the start of applyChanges and must not call back into this object. An
    /// answer that differs from the one before goes into modulatorHistory().
    void setModulator(Modulator modulator) { modulator_ = std::move(modulator); }

    /// Whether learning goes to the fading part instead of the lasting one. `tau`: ns.
    /// Switching off leaves the fading parts as they stand, and in the weights.
    /// Throws InvalidLearningControl for a tau below 1, then for a rate outside [0, 1].
    void setFastWeights(bool enabled, ModelTime tau, double consolidation_rate);

    /// `rate`: share of the entries that mode `sampled` keeps, by whole numbers: one of each
    /// 1 / rate, rounded. Throws InvalidLearningControl for a mode without a name, then for a rate
    /// outside (0, 1].
    void setJournal(JournalMode mode, double rate = 1.0);

    /// Bounds the lasting part, the fading part's magnitude and the weight, from a synapse's next
    /// change on. Throws InvalidLearningControl for a cap that is negative or not finite.
    void setWeightCap(double cap);

    std::span<const JournalEntry> journal() const { return journal_; }
    /// The gate's answers, each from its time on until the next. The list only grows, by an entry
    /// for each answer that differs from the one before.
    std::span<const ModulatorSample> modulatorHistory() const { return modulator_history_; }
    /// Synapses that have had a fading part, in the order of first touch. The list only grows.
    std::span<const EdgeId> pendingEdges() const { return pending_edges_; }
    /// Shape (synapses).
    std::span<const SynapseLearningState> synapseStates() const { return synapses_; }
    const FastWeightSettings& fastWeights() const { return fast_; }
    bool restrictsGroups() const { return restrict_groups_; }
    std::span<const std::uint32_t> allowedGroups() const { return allowed_groups_; }
    JournalMode journalMode() const { return journal_mode_; }
    double journalRate() const { return journal_rate_; }
    double weightCap() const { return weight_cap_; }
    bool isLearningEnabled() const { return learning_enabled_; }
    const std::array<bool, 3>& frozen() const { return frozen_; }

    /// Format "KELMLRN1": tag; sequences (count (8), items) of groups by neuron (4 each), synapse
    /// states (32 each), group switches (1 each), journal entries (96 each), gate samples (16
    /// each), pending edges (8 each); fast settings (24); restrict groups (1); a reserved flag (1);
    /// sequence of allowed groups (4 each); journal mode (1), journal rate (8), weight cap (8),
    /// learning enabled (1), freezes (3), journal counter (8).
    Blob snapshot() const;

    /// Replaces everything but the modulator. False for a blob that is cut short, forged, of
    /// another format, neuron count or synapse count, or that names a synapse outside the network;
    /// the object is then as it was. Settings come in as they stand, also those that an operation
    /// would refuse: a bound that is not a number then bounds nothing.
    [[nodiscard]] bool restore(BlobView blob);

    /// Exchanges everything but the modulator with `other`.
    void swapState(LearningControl& other) noexcept;

private:
    bool askGate(ModelTime window_end);
    void learn(SynapseGraph& graph, const WeightChange& change);
    void fade(SynapseGraph& graph, ModelTime window_end, LearningStatistics& statistics);
    void commitWeight(SynapseGraph& graph, EdgeId edge, SynapseLearningState state, ModelTime time,
                      const WeightChange* proposal, JournalKind kind);
    bool keepsNextEntry();
    bool readFrom(BlobReader& in);
    bool readGroupSwitches(BlobReader& in);
    bool readSettings(BlobReader& in);

    std::vector<std::uint32_t> group_of_;
    std::vector<SynapseLearningState> synapses_;
    std::vector<std::uint8_t> group_enabled_{1};
    std::vector<JournalEntry> journal_;
    std::vector<ModulatorSample> modulator_history_;
    std::vector<EdgeId> pending_edges_;
    Modulator modulator_;
    FastWeightSettings fast_;
    bool restrict_groups_ = false;
    bool reserved_flag_ = true;  ///< carried, not interpreted
    std::vector<std::uint32_t> allowed_groups_;
    std::vector<std::uint32_t> allowed_sorted_;  ///< allowed_groups_ for look-ups
    JournalMode journal_mode_ = JournalMode::every;
    double journal_rate_ = 1.0;
    std::uint64_t journal_stride_ = 1;  ///< of journal_rate_
    double weight_cap_ = 1.0;
    bool learning_enabled_ = true;
    std::array<bool, 3> frozen_{};
    std::uint64_t journal_counter_ = 0;  ///< entries seen while sampled
};

}  // namespace Lumenar::Core::Kelm
