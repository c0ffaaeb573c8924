#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "kelm/engine/WindowEngine.h"
#include "kelm/network/SynapseGraph.h"

// Part of the unit LookaheadCuda: what a device needs to know of a network and its streams.

namespace Lumenar::Core::Kelm {

namespace {

/// The outgoing synapses of a network in a form of fixed width: entry source * fanout + k describes
/// the k-th of a source, in EdgeId order.
struct FanoutTable {
    std::vector<std::uint64_t> targets;
    std::vector<double> values;  ///< as the graph delivers them
};

/// What keeps a network from having a fan-out table.
enum class FanoutFault { none, fanout, edge };

/// Fills `table`, up to the first neuron of another fan-out or the first synapse that `accepts`
/// refuses.
template <class Accepts>
FanoutFault buildFanoutTable(SynapseGraph& graph, std::uint64_t fanout, FanoutTable& table,
                             Accepts accepts) {
    for (NodeId node = 0; node < graph.nodeCount(); ++node) {
        const std::span<const EdgeId> edges = graph.outgoing(node);
        if (edges.size() != fanout) return FanoutFault::fanout;
        if (node == 0) {
            // The network holds as many synapses, if the rest is as this one.
            const std::uint64_t entries = std::min(graph.nodeCount() * fanout, graph.edgeCount());
            table.targets.reserve(entries);
            table.values.reserve(entries);
        }
        for (const EdgeId id : edges) {
            const Synapse synapse = graph.edge(id);
            if (!accepts(synapse)) return FanoutFault::edge;
            table.targets.push_back(synapse.target);
            table.values.push_back(deliveredValue(synapse));
        }
    }
    return FanoutFault::none;
}

/// Builds the table of a network that runs whole on the device in windows of `window` ns.
FanoutFault buildResidentTable(SynapseGraph& graph, std::uint64_t fanout, ModelTime window,
                               FanoutTable& table) {
    return buildFanoutTable(graph, fanout, table, [&](const Synapse& synapse) {
        return synapse.enabled && graph.transmissionEnabled(synapse.inhibitory) &&
               synapse.delay == window;
    });
}

std::vector<std::uint64_t> initialRandomStates(std::uint64_t seed, std::uint64_t node_count) {
    std::vector<std::uint64_t> states(node_count);
    for (NodeId n = 0; n < node_count; ++n) states[n] = initialSpontaneousState(seed, n);
    return states;
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
