#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <vector>

#include "kelm/engine/WindowEngine.h"
#include "kelm/network/SynapseGraph.h"

// Part of the unit LookaheadCuda: a network and its random streams as a device gets them.

namespace Lumenar::Core::Kelm {

namespace {

/// The outgoing synapses of a network as a table of fixed width: entry source * fanout + k is the
/// k-th synapse of a source, in EdgeId order.
struct FanoutTable {
    std::vector<std::uint64_t> targets;
    std::vector<double> values;  ///< signed weights, as the graph delivers them
};

/// Why a network has no fan-out table: a neuron with another fan-out, or a synapse that is refused.
enum class FanoutFault { none, fanout, edge };

/// Fills `table` up to the first neuron with another fan-out, or up to the first synapse that
/// `accepts` refuses.
template <class Accepts>
FanoutFault buildFanoutTable(SynapseGraph& graph, std::uint64_t fanout, FanoutTable& table,
                             Accepts accepts) {
    const std::span<const std::uint64_t> offsets = graph.outOffsets();
    const auto add = [&](const Synapse& synapse) {
        if (!accepts(synapse)) return false;
        table.targets.push_back(synapse.target);
        table.values.push_back(deliveredValue(synapse));
        return true;
    };
    for (NodeId node = 0; node < graph.nodeCount(); ++node) {
        if (offsets[node + 1] - offsets[node] != fanout) return FanoutFault::fanout;
        if (node == 0) {
            // The minimum keeps a wrong fan-out from reserving more than the network holds.
            const std::uint64_t entries = std::min(graph.nodeCount() * fanout, graph.edgeCount());
            table.targets.reserve(entries);
            table.values.reserve(entries);
        }
        if (!graph.visitOutgoing(node, add)) return FanoutFault::edge;
    }
    return FanoutFault::none;
}

/// Builds the table of a network that can run whole on the device: every synapse transmits and has
/// the delay `window` (ns).
FanoutFault buildResidentTable(SynapseGraph& graph, std::uint64_t fanout, ModelTime window,
                               FanoutTable& table) {
    return buildFanoutTable(graph, fanout, table, [&](const Synapse& synapse) {
        return synapse.enabled && graph.transmissionEnabled(synapse.inhibitory) &&
               synapse.delay == window;
    });
}

/// Whether no neuron has so many incoming synapses that a step waits long for the one thread that
/// sorts its arrivals.
///
/// In a window in which every neuron fires once, a neuron with d incoming synapses gets d arrivals,
/// and insertion moves d (d - 1) / 4 of them on average. The bound is one move for each synapse of
/// the network. A move waits for device memory, about 200 cycles or 0.1 us; the ordinary loop takes
/// 0.4 us for an arrival and has one for each synapse in such a window. So the sort takes at most a
/// quarter of the time of the ordinary loop, and where only a share p of all neurons fires, p times
/// that. It can take longer where the sources of one neuron fire together. For 32768 neurons with
/// 16 synapses the bound is d = 1448. If all their synapses had one target, a bucket could hold
/// 294912 of its arrivals, and the sort would make 2.2e10 moves, which take more than half an hour.
bool sortTimeIsBounded(const FanoutTable& table, std::uint64_t node_count) {
    std::vector<std::uint64_t> in_degrees(node_count);
    for (const NodeId target : table.targets) ++in_degrees[target];
    const auto most = static_cast<double>(*std::max_element(in_degrees.begin(), in_degrees.end()));
    return most * (most - 1.0) / 4.0 <= static_cast<double>(table.targets.size());
}

/// The raw states of the spontaneous streams at the start of a run, shape (neurons).
std::vector<std::uint64_t> initialRandomStates(std::uint64_t seed, std::uint64_t node_count) {
    std::vector<std::uint64_t> states(node_count);
    for (NodeId n = 0; n < node_count; ++n) states[n] = initialSpontaneousState(seed, n);
    return states;
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
