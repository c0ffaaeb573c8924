#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
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

/// Turns spikes into proposals of weight changes, by spike-timing rules over one decaying trace
/// set per neuron. It reads the network and never writes a weight.
///
/// Pair rule: a spike of the target potentiates by the source's trace, a spike of the source
/// depresses by the target's. Source: Song, Miller and Abbott, Nature Neuroscience 3 (2000), in
/// the trace form of Morrison, Diesmann and Gerstner, Biological Cybernetics 98 (2008).
/// Coincidence rule: a spike of either end adds the product of both ends' coincidence traces.
///
/// A trace is brought forward only when its neuron or a partner of it fires; in between it is
/// stale, which the decay makes up for. After a throw out of takeChanges the engine may only be
/// restored or destroyed. The bank is borrowed. One thread at a time.
class PlasticityEngine {
public:
    /// A factor of a proposal that depends on its circumstances (a third factor of the rule).
    using ChangeHook = std::function<double(const WeightChangeContext&)>;

    /// `excitatory`, `inhibitory`: the rules of the two classes of synapses.
    /// Throws InvalidPlasticity for a time constant below 1 ns, for an epsilon that is negative or
    /// not finite, then per rule for an amplitude that is not finite or negative, in this order.
    PlasticityEngine(std::uint64_t neuron_count, const TraceConfig& trace,
                     const PlasticityRule& excitatory, const PlasticityRule& inhibitory);

    /// Sets where proposals take their phases from; null for phases of 0.
    void setBank(const OscillatorBank* bank) { bank_ = bank; }

    /// Sets a hook that is asked once for each proposal of a rule, also one whose traces are 0,
    /// and whose answer multiplies the change; an empty one for none. It is called inside
    /// takeChanges and must not call back into this object.
    void setChangeHook(ChangeHook hook) { change_hook_ = std::move(hook); }

    /// Notes a spike at `time` ns for the next takeChanges. Spikes may come in any order.
    /// Throws std::out_of_range for a neuron outside the network.
    void recordSpike(NodeId neuron, ModelTime time) {
        if (neuron >= traces_.size()) failSpikeNeuron();
        pending_spikes_.push_back({time, neuron});
    }

    /// Takes the noted spikes, by time, then neuron, and replaces `changes` by what they propose,
    /// by edge, then time, then side, then order of generation. Proposals of exactly 0 are left
    /// out. The storage of `changes` is reused.
    /// Throws InvalidPlasticity for a graph of another neuron count, before anything is changed,
    /// and for a spike before a time to which one of its traces was brought; and what the hook
    /// throws.
    void takeChanges(SynapseGraph& graph, std::vector<WeightChange>& changes);

    /// Shape (neurons).
    std::span<const SpikeTrace> traces() const { return traces_; }

    /// Format "KELMPLS1": tag, trace count (8), traces (40 each), count of noted spikes (8), spikes
    /// (16 each), count of proposals not taken (8), proposals (120 each). Configuration is not in
    /// it.
    Blob snapshot() const;

    /// Replaces traces, noted spikes and proposals. False for a blob that is cut short, forged, of
    /// another format or neuron count, or that names a neuron outside the network; the engine is
    /// then as it was.
    [[nodiscard]] bool restore(BlobView blob);

    /// Exchanges what a snapshot holds with `other`, of the same neuron count.
    void swapState(PlasticityEngine& other) noexcept;

private:
    /// A proposal's place in the canonical order without its 120 bytes.
    struct ChangeKey {
        EdgeId edge;
        std::uint64_t index;  ///< in pending_changes_, and so in order of generation
    };

    [[noreturn]] static void failSpikeNeuron();
    const PlasticityRule& ruleOf(const Synapse& synapse) const {
        return synapse.inhibitory ? inhibitory_ : excitatory_;
    }
    void advance(SpikeTrace& trace, ModelTime time) const;
    using End = NodeId (SynapseGraph::*)(EdgeId) const;
    void prefetchPartners(const SynapseGraph& graph, std::span<const EdgeId> ids, std::size_t place,
                          End end) const;
    void processSpike(const SpikeRecord& spike, SynapseGraph& graph);
    void propose(EdgeId edge, const Synapse& synapse, ModelTime time, PlasticitySide side,
                 double factor, double spike_phase);
    double phaseOf(NodeId neuron) { return bank_ == nullptr ? 0.0 : phases_.firstPhase(neuron); }
    void handOut(std::vector<WeightChange>& changes);

    TraceConfig trace_config_;
    PlasticityRule excitatory_;
    PlasticityRule inhibitory_;
    std::vector<SpikeTrace> traces_;
    std::vector<SpikeRecord> pending_spikes_;
    std::vector<WeightChange> pending_changes_;
    std::vector<ChangeKey> keys_;  ///< scratch of handOut
    ChangeHook change_hook_;
    const OscillatorBank* bank_ = nullptr;
    InstantPhases phases_;  ///< at the time of the spike in work
};

}  // namespace Lumenar::Core::Kelm
