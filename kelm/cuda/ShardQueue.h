#pragma once

#include <cstdint>

#include "kelm/core/ModelTime.h"
#include "kelm/kernel/NeuronModel.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

/// What a run of shard queues did.
struct ShardQueueReport {
    double seconds = 0.0;                 ///< s on the device, verification not counted
    std::uint64_t routed_events = 0;      ///< arrivals
    std::uint64_t local_events = 0;       ///< arrivals that stayed in their source's shard
    std::uint64_t cross_events = 0;       ///< the others
    std::uint64_t processed_targets = 0;  ///< neurons that had an arrival
    bool physics_identical = false;       ///< the device's results equal the CPU's
    std::uint32_t shards = 0;
};

/// Routes source events through the fan-out of a network into one queue per shard on the device,
/// sorts the queues, computes one window of every target, and then proves on the host that the
/// queues are in canonical order, that every arrival lies where the layout says, and that the
/// results equal the CPU's. A self-checking measurement: it touches no engine.
///
/// `fanout`: synapses of every neuron. `source_events`: event e comes from neuron e modulo the
/// neuron count. `window_end`, `horizon`: ns; all arrivals lie 1 ns before window_end. States start
/// at zero and streams at seed 1.
/// Throws WindowEngineError for dimensions that are 0 or more shards than neurons, for a size that
/// leaves 64 bits, for a neuron of another fan-out, for a failed device call, and for each verdict:
/// lost arrivals, a queue out of order, a result that differs, an arrival in the wrong place.
ShardQueueReport runShardQueue(SynapseGraph& graph, std::uint64_t fanout,
                               std::uint64_t source_events, std::uint32_t shard_count,
                               const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                               ModelTime window_end, ModelTime horizon);

}  // namespace Lumenar::Core::Kelm
