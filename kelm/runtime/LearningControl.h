#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/ModelTime.h"
#include "kelm/network/SynapseGraph.h"
#include "kelm/runtime/LearningRecords.h"
#include "kelm/runtime/WeightChange.h"
#include "kelm/runtime/WorkParts.h"

namespace Lumenar::Core::Kelm {

/// Applies proposals of weight changes. It is the one place where learning writes a weight.
///
/// It decides which proposals take effect (freezes, groups, gate, in this order). It keeps the
/// weight of each learning synapse as a lasting part plus a fading part, bounds their sum by a cap,
/// writes it to the graph in single precision and notes each step in a journal. The state of a
/// synapse starts with the first proposal that takes effect; until then only the graph holds its
/// weight. Once per window fading parts fade, and a share of them may become lasting. Source of the
/// two parts: Hinton and Plaut, "Using fast weights to deblur old memories", CogSci (1987).
///
/// A new object lets every proposal through, has a cap of 1 and notes every change. The journal
/// only grows: a long run samples it or switches it off. Settings may change between runs. A
/// snapshot holds all of them but the modulator. After a throw out of applyChanges the object may
/// only be restored or destroyed. Views are valid until the next operation that is not const. One
/// thread at a time.
class LearningControl {
public:
    /// Whether the gate is open for the window that ends at the given time in ns.
    using Modulator = std::function<bool(ModelTime window_end)>;

    /// Operations take only group ids below this.
    static constexpr std::uint32_t group_limit = 1'048'576;

    LearningControl(std::uint64_t neuron_count, std::uint64_t synapse_count);

    /// Applies a window's proposals in the given order, then fades fading parts up to `window_end`
    /// ns. Calls the gate once, before the first proposal. Skips a proposal for a synapse that is
    /// not routed, without counting it.
    ///
    /// Throws InvalidLearningControl for a gate that changes at a time before its last change, and
    /// for a target that has no group; SynapseRoutingViolation for a synapse that the graph or this
    /// object lacks; InvalidSynapse for a weight that the graph refuses, such as one from a
    /// proposal of NaN; and what the modulator throws.
    ///
    /// `parts`: divides the proposals and the fading parts, unless the call may fail or the
    /// proposals do not ascend by edge.
    LearningStatistics applyChanges(SynapseGraph& graph, std::span<const WeightChange> changes,
                                    ModelTime window_end, const WorkParts& parts = {});

    /// Throws InvalidLearningControl for a neuron outside the network.
    std::uint32_t groupOf(NodeId neuron) const {
        if (neuron >= state_.group_of.size()) {
            throw InvalidLearningControl(InvalidLearningControl::group_query);
        }
        return state_.group_of[neuron];
    }
    /// Whether a group may learn, apart from a restriction to some groups. A group that was never
    /// switched may learn.
    bool groupAllows(std::uint32_t group) const {
        return state_.learning_enabled &&
               (group >= state_.group_enabled.size() || state_.group_enabled[group] != 0);
    }
    /// Whether the synapses that enter a neuron may learn. Throws as groupOf does.
    bool neuronAdmitted(NodeId neuron) const;

    /// Puts a neuron into a group; every neuron starts in group 0.
    /// Throws InvalidLearningControl for a neuron outside the network, then for a group id that is
    /// not below group_limit.
    void setGroup(NodeId neuron, std::uint32_t group);
    /// Switches the learning of a group. Throws InvalidLearningControl for a group id as above.
    void setGroupEnabled(std::uint32_t group, bool enabled);
    /// Restricts learning to some of the enabled groups.
    /// Throws InvalidLearningControl for a group id as above; the old restriction then stays.
    void allowOnlyGroups(std::vector<std::uint32_t> groups);
    /// Lifts the restriction.
    void allowAllGroups();
    /// The master switch of all groups.
    void setLearningEnabled(bool enabled) { state_.learning_enabled = enabled; }

    /// Freeze 0 stops proposals, freeze 1 stops proposals and fading, freeze 2 has no effect here.
    /// Throws InvalidLearningControl for another index.
    void setFrozen(std::uint32_t index, bool frozen);

    /// Sets a gate that decides, window by window, whether proposals take effect; an empty one for
    /// none. applyChanges calls it first. It must not call back into this object. A result that
    /// differs from the last one is added to modulatorHistory().
    void setModulator(Modulator modulator) { modulator_ = std::move(modulator); }

    /// Sets whether learning changes the fading part instead of the lasting one. `tau`: ns.
    /// Switching off keeps the fading parts, and the weights hold them.
    /// Throws InvalidLearningControl for a tau below 1, then for a rate outside [0, 1].
    void setFastWeights(bool enabled, ModelTime tau, double consolidation_rate);

    /// `rate`: share of the entries that mode `sampled` keeps: the first of each 1 / rate entries,
    /// rounded. Throws InvalidLearningControl for an unknown mode, then for a rate outside (0, 1].
    void setJournal(JournalMode mode, double rate = 1.0);

    /// Bounds the lasting part, the magnitude of the fading part and the weight, from a synapse's
    /// next change on. Throws InvalidLearningControl for a cap that is negative or not finite.
    void setWeightCap(double cap);

    std::span<const JournalEntry> journal() const { return state_.journal; }
    /// The results of the gate, each valid from its time until the next. The list only grows, by an
    /// entry for each result that differs from the last one.
    std::span<const ModulatorSample> modulatorHistory() const { return state_.modulator_history; }
    /// Synapses that ever had a fading part, in the order of their first change. The list only
    /// grows.
    std::span<const EdgeId> pendingEdges() const { return state_.pending_edges; }
    /// Shape (synapses).
    std::span<const SynapseLearningState> synapseStates() const { return state_.synapses; }
    const FastWeightSettings& fastWeights() const { return state_.fast; }
    bool restrictsGroups() const { return state_.restrict_groups; }
    std::span<const std::uint32_t> allowedGroups() const { return state_.allowed_groups; }
    JournalMode journalMode() const { return state_.journal_mode; }
    double journalRate() const { return state_.journal_rate; }
    double weightCap() const { return state_.weight_cap; }
    bool isLearningEnabled() const { return state_.learning_enabled; }
    const std::array<bool, 3>& frozen() const { return state_.frozen; }

    /// Format "KELMLRN1": tag; sequences (count (8), items) of groups by neuron (4 each), synapse
    /// states (32 each), group switches (1 each), journal entries (96 each), gate samples (16
    /// each), pending edges (8 each); fast settings (24); restrict groups (1); a reserved flag (1);
    /// sequence of allowed groups (4 each); journal mode (1), journal rate (8), weight cap (8),
    /// learning enabled (1), freezes (3), journal counter (8).
    Blob snapshot() const;

    /// What a snapshot holds, and what follows from it.
    struct State {
        std::vector<std::uint32_t> group_of;         ///< shape (neurons)
        std::vector<SynapseLearningState> synapses;  ///< shape (synapses)
        std::vector<std::uint8_t> group_enabled{1};
        std::vector<JournalEntry> journal;
        std::vector<ModulatorSample> modulator_history;
        std::vector<EdgeId> pending_edges;
        FastWeightSettings fast;
        bool restrict_groups = false;
        bool reserved_flag = true;  ///< carried, not interpreted
        std::vector<std::uint32_t> allowed_groups;
        std::vector<std::uint32_t> allowed_sorted;  ///< allowed_groups for look-ups
        JournalMode journal_mode = JournalMode::every;
        double journal_rate = 1.0;
        std::uint64_t journal_stride = 1;  ///< of journal_rate
        double weight_cap = 1.0;
        bool learning_enabled = true;
        std::array<bool, 3> frozen{};
        std::uint64_t journal_counter = 0;  ///< entries seen while sampled
        bool is_regular = true;  ///< no value is NaN or infinite, and the pending edges differ
    };
    /// Reads a snapshot for adopt. No value for a blob that is cut short, forged, of another
    /// format, neuron count or synapse count, or that names a synapse outside the network. Accepts
    /// settings that an operation would refuse: a weight cap of NaN limits nothing.
    std::optional<State> read(BlobView blob) const;
    /// Replaces everything but the modulator. `state` must come from read() of this object.
    void adopt(State&& state) noexcept;
    /// Reads and adopts. False, with the object unchanged, for a blob that read() refuses.
    [[nodiscard]] bool restore(BlobView blob);

private:
    /// What one thread makes. An only part notes its entries and edges in the state.
    struct alignas(64) Part {
        LearningStatistics statistics;
        std::vector<JournalEntry> journal;  ///< all that the journal may keep
        std::vector<EdgeId> pending_edges;
        bool is_only = true;
        bool can_write = false;  ///< the graph's writer is prepared
    };

    bool isGateOpen(ModelTime window_end);
    bool cannotFail(const SynapseGraph& graph) const;
    std::size_t changeParts(const SynapseGraph& graph, std::span<const WeightChange> changes,
                            const WorkParts& parts) const;
    void setParts(std::size_t count, SynapseGraph& graph);
    void joinParts(std::size_t count, LearningStatistics& statistics);
    void learn(std::size_t part, SynapseGraph& graph, const WeightChange& change);
    void fade(std::size_t part, SynapseGraph& graph, std::span<const EdgeId> edges,
              ModelTime window_end);
    void commitWeight(std::size_t part, SynapseGraph& graph, EdgeId edge,
                      SynapseLearningState state, ModelTime time, const WeightChange* proposal,
                      JournalKind kind);
    bool keepsNextEntry();

    State state_;
    Modulator modulator_;
    std::vector<Part> parts_{1};  ///< scratch of applyChanges
};

}  // namespace Lumenar::Core::Kelm
