#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/ModelTime.h"
#include "kelm/engine/SpikeRecord.h"
#include "kelm/network/Synapse.h"
#include "kelm/network/SynapseGraph.h"
#include "kelm/runtime/InstantPhases.h"
#include "kelm/runtime/PlasticityConfig.h"
#include "kelm/runtime/WeightChange.h"
#include "kelm/runtime/WorkParts.h"

namespace Lumenar::Core::Kelm {

/// Turns spikes into proposals of weight changes, by spike-timing rules over one set of decaying
/// traces per neuron. It reads the network and never writes a weight.
///
/// Pair rule: a spike of the target potentiates by the source's trace, a spike of the source
/// depresses by the target's. Source: Song, Miller and Abbott, Nature Neuroscience 3 (2000), in
/// the trace form of Morrison, Diesmann and Gerstner, Biological Cybernetics 98 (2008).
/// Coincidence rule: a spike of source or target adds the product of both coincidence traces.
///
/// A trace decays only when its neuron or a partner fires, then over the whole interval since its
/// last update. After a throw out of takeChanges the engine may only be restored or destroyed. The
/// bank is borrowed. One thread at a time.
///
/// Several threads share the spikes of a window by ranges of neurons. Each thread goes through all
/// spikes in order, advances the traces of its range, and makes the proposals of the synapses whose
/// other end lies there. A proposal also reads two values of the neuron that fires. Its last spike
/// follows from the spikes alone. Its coincidence trace is multiplied in after all spikes.
class PlasticityEngine {
public:
    /// A factor of a proposal that depends on its context (a third factor of the rule).
    using ChangeHook = std::function<double(const WeightChangeContext&)>;

    /// `excitatory`, `inhibitory`: the rules of the two classes of synapses.
    /// Throws InvalidPlasticity for a time constant below 1 ns, for an epsilon that is negative or
    /// not finite, then per rule for an amplitude that is not finite or negative, in this order.
    PlasticityEngine(std::uint64_t neuron_count, const TraceConfig& trace,
                     const PlasticityRule& excitatory, const PlasticityRule& inhibitory);

    /// Sets the bank that gives proposals their phases; null for phases of 0.
    void setBank(const OscillatorBank* bank) { bank_ = bank; }

    /// Sets a hook whose result multiplies each change; an empty one for none. takeChanges calls it
    /// once for each proposal of a rule, also if the traces are 0. It must not call back into this
    /// object.
    void setChangeHook(ChangeHook hook) { change_hook_ = std::move(hook); }

    /// Notes a spike at `time` ns for the next takeChanges. Spikes may come in any order.
    /// Throws std::out_of_range for a neuron outside the network.
    void recordSpike(NodeId neuron, ModelTime time) {
        if (neuron >= state_.traces.size()) failSpikeNeuron();
        state_.pending_spikes.push_back({time, neuron});
    }

    /// Processes the noted spikes, by time, then neuron, and returns their proposals, sorted by
    /// edge, then time, then side, then order of generation. Proposals of exactly 0 are left out.
    /// Throws InvalidPlasticity for a spike before the last update of one of its traces;
    /// SynapseRoutingViolation for a spike of a neuron outside `graph`; std::out_of_range for a
    /// partner that has no trace; and what the hook throws.
    std::vector<WeightChange> takeChanges(SynapseGraph& graph);
    /// The same into `changes`, whose storage it reuses. `parts`: divides the work, unless there is
    /// a change hook or the call may fail.
    void takeChanges(SynapseGraph& graph, std::vector<WeightChange>& changes,
                     const WorkParts& parts = {});

    /// Shape (neurons).
    std::span<const SpikeTrace> traces() const { return state_.traces; }

    /// Format "KELMPLS1": tag, trace count (8), traces (40 each), count of noted spikes (8), spikes
    /// (16 each), count of proposals not taken (8), proposals (120 each). Configuration is not in
    /// it.
    Blob snapshot() const;

    /// What a snapshot holds.
    struct State {
        std::vector<SpikeTrace> traces;  ///< shape (neurons)
        std::vector<SpikeRecord> pending_spikes;
        std::vector<WeightChange> pending_changes;
    };
    /// Reads a snapshot for adopt. No value for a blob that is cut short, forged, of another format
    /// or neuron count, or that names a neuron outside the network.
    std::optional<State> read(BlobView blob) const;
    /// `state` must come from read() of this engine.
    void adopt(State&& state) noexcept;
    /// Reads and adopts. False, with the engine unchanged, for a blob that read() refuses.
    [[nodiscard]] bool restore(BlobView blob);

private:
    /// The sort key of a proposal, cheaper to move than the proposal's 120 bytes.
    struct ChangeKey {
        EdgeId edge;
        std::uint64_t index;  ///< in the proposals of its part, which is the order of generation
    };
    /// A proposal of the coincidence rule whose firing neuron belongs to another part. Its factor
    /// is the coincidence trace of the other neuron only.
    struct HalfProduct {
        std::uint64_t change;  ///< index in the proposals of its part
        std::uint64_t spike;   ///< index in pending_spikes
    };
    /// The neurons whose traces one thread advances, and what it makes.
    struct alignas(64) Part {
        bool holds(NodeId neuron) const { return neuron - begin < size; }

        NodeId begin = 0;
        std::uint64_t size = 0;
        bool is_only = true;
        std::vector<WeightChange> changes;  ///< of the only part: in pending_changes instead
        std::vector<HalfProduct> half_products;
        std::vector<ChangeKey> keys;
        std::vector<EdgeId> edges;  ///< scratch of edgesOf
        /// Of the share of the edges that the thread merges: by part, the first key and the end.
        std::vector<std::size_t> next;
        std::vector<std::size_t> last;
        InstantPhases phases;  ///< at the time of the spike in work
    };
    /// The neuron that fires, as its proposals see it.
    struct Firing {
        const SpikeRecord& spike;
        std::uint64_t index;    ///< in pending_spikes
        ModelTime last_spike;   ///< ns, before this one
        const SpikeTrace* own;  ///< null in a part that does not hold the neuron
    };

    [[noreturn]] static void failSpikeNeuron();
    const PlasticityRule& ruleOf(bool inhibitory) const {
        return inhibitory ? inhibitory_ : excitatory_;
    }
    bool usesProducts() const {
        return excitatory_.kind == PlasticityRuleKind::coincidence ||
               inhibitory_.kind == PlasticityRuleKind::coincidence;
    }
    std::vector<WeightChange>& changesOf(std::size_t part) {
        return parts_[part].is_only ? state_.pending_changes : parts_[part].changes;
    }
    double deltaOf(const PlasticityRule& rule, PlasticitySide side, double factor) const;
    std::size_t partCount(const SynapseGraph& graph, const WorkParts& parts) const;
    void setParts(std::size_t count);
    void noteLastSpikes();
    void advance(SpikeTrace& trace, ModelTime time) const;
    void processSpike(std::size_t part, std::uint64_t index, SynapseGraph& graph);
    template <PlasticitySide side>
    void processSynapses(std::size_t part, const Firing& firing, std::span<const EdgeId> edges,
                         const SynapseGraph& graph);
    template <PlasticitySide side>
    std::span<const EdgeId> edgesOf(Part& part, std::span<const EdgeId> edges,
                                    const SynapseGraph& graph);
    template <PlasticitySide side>
    void prefetchPartners(std::span<const EdgeId> edges, const SynapseGraph& graph) const;
    template <PlasticitySide side>
    void propose(std::size_t part, const Firing& firing, EdgeId edge, const Synapse& synapse,
                 const SpikeTrace& other);
    double phaseOf(Part& part, NodeId neuron) {
        return bank_ == nullptr ? 0.0 : part.phases.firstPhase(neuron);
    }
    void completeProducts(std::size_t part);
    void sortKeys(std::size_t part);
    void moveSorted(std::vector<WeightChange>& changes, std::size_t count, const WorkParts& parts);
    void mergeShare(std::size_t share, std::size_t count, std::vector<WeightChange>& changes);
    std::size_t firstKeysOf(std::size_t share, std::size_t count,
                            std::vector<std::size_t>& first) const;

    TraceConfig trace_config_;
    PlasticityRule excitatory_;
    PlasticityRule inhibitory_;
    State state_;
    ModelTime latest_update_ = 0;  ///< ns; no trace was updated later
    ChangeHook change_hook_;
    const OscillatorBank* bank_ = nullptr;
    // Scratch of takeChanges.
    std::vector<Part> parts_{1};
    std::vector<ModelTime> last_spikes_;     ///< by pending spike; only of several parts
    std::vector<double> spike_coincidence_;  ///< by pending spike; only of several parts
};

}  // namespace Lumenar::Core::Kelm
