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
    /// The same into `changes`, whose storage it reuses.
    void takeChanges(SynapseGraph& graph, std::vector<WeightChange>& changes);

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
        std::uint64_t index;  ///< in pending_changes, which is the order of generation
    };

    [[noreturn]] static void failSpikeNeuron();
    const PlasticityRule& ruleOf(const Synapse& synapse) const {
        return synapse.inhibitory ? inhibitory_ : excitatory_;
    }
    void advance(SpikeTrace& trace, ModelTime time) const;
    void processSpike(const SpikeRecord& spike, SynapseGraph& graph);
    template <PlasticitySide side>
    void processSynapses(const SpikeRecord& spike, std::span<const EdgeId> edges,
                         const SynapseGraph& graph);
    template <PlasticitySide side>
    void prefetchPartners(std::span<const EdgeId> edges, const SynapseGraph& graph) const;
    void propose(EdgeId edge, const Synapse& synapse, ModelTime time, PlasticitySide side,
                 double factor);
    double phaseOf(NodeId neuron) { return bank_ == nullptr ? 0.0 : phases_.firstPhase(neuron); }
    void moveSorted(std::vector<WeightChange>& changes);

    TraceConfig trace_config_;
    PlasticityRule excitatory_;
    PlasticityRule inhibitory_;
    State state_;
    std::vector<ChangeKey> keys_;  ///< scratch of moveSorted
    ChangeHook change_hook_;
    const OscillatorBank* bank_ = nullptr;
    InstantPhases phases_;  ///< at the time of the spike in work
};

}  // namespace Lumenar::Core::Kelm
