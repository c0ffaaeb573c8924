#pragma once

#include <cstdint>

#include "kelm/core/ModelTime.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

/// The result of a run of shard queues.
struct ShardQueueReport {
    double seconds = 0.0;                 ///< s on the device, without the verification
    std::uint64_t routed_events = 0;      ///< all arrivals
    std::uint64_t local_events = 0;       ///< arrivals within their source's shard
    std::uint64_t cross_events = 0;       ///< arrivals in another shard
    std::uint64_t processed_targets = 0;  ///< neurons with at least one arrival
    bool physics_identical = false;       ///< the device's results equal the CPU's
    std::uint32_t shards = 0;
};

/// A measurement of routing that checks itself. On the device it routes source events through the
/// fan-out of a network into one queue per shard, sorts the queues, and computes one window of
/// every target. On the host it then checks that the queues are in canonical order, that the
/// results equal the CPU's, and that every arrival is in the right shard. It uses no engine.
///
/// `fanout`: synapses of every neuron. `source_events`: event e comes from neuron e % neuron count.
/// `window_end`, `horizon`: ns; all arrivals lie 1 ns before window_end. States start at zero,
/// streams at seed 1.
///
/// Throws WindowEngineError for a dimension of 0, more shards than neurons, or more than 2^32 - 1
/// arrivals; for a neuron with another fan-out; for a failed device call; and when a check fails.
/// Throws the exception of the device's library for a failed sort.
ShardQueueReport runShardQueue(SynapseGraph& graph, std::uint64_t fanout,
                               std::uint64_t source_events, std::uint32_t shard_count,
                               const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                               ModelTime window_end, ModelTime horizon);

}  // namespace Lumenar::Core::Kelm
