#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "kelm/core/LargePages.h"
#include "kelm/core/ModelTime.h"
#include "kelm/network/Synapse.h"

namespace Lumenar::Core::Kelm {

/// The data of the whole network that the share of a rank holds beside its own synapses.
struct GraphShare {
    NodeId begin = 0;  ///< the first neuron of the range
    NodeId end = 0;    ///< behind the last one
    /// By EdgeId: the synapse's EdgeId in the network.
    LargeArray<EdgeId> network_edges;
    /// By EdgeId: the place of its delivery among all deliveries of a spike of its source.
    std::vector<std::uint32_t> places;
    /// By neuron of the range: how many deliveries its spike has on all ranks.
    std::vector<std::uint32_t> fan_out;
    /// By neuron of the range: the shortest delay of these deliveries in ns, 0 for none.
    std::vector<ModelTime> shortest_delay;
    std::uint64_t routed_count = 0;           ///< of the network
    std::uint64_t edge_count = 0;             ///< of the network
    std::optional<ModelTime> smallest_delay;  ///< of all routed synapses of the network
    ModelTime longest_delay = 0;              ///< of all synapses of the network
    bool counted = false;                     ///< whether the columns agree with the switches
};

}  // namespace Lumenar::Core::Kelm
