#pragma once

// Kernels of shard queues, private to the unit LookaheadCuda. A shard queue holds the arrivals for
// one contiguous range of target neurons. Arrival number i belongs to source event i / fanout, and
// to synapse i % fanout of that event's neuron. One thread serves one arrival.

#include <cstdint>

#include "kelm/cuda/DeviceLayer.h"
#include "kelm/cuda/DeviceRecords.h"
#include "kelm/cuda/ShardLayout.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm {

namespace {

/// Where arrival number `sequence` comes from. Source event e belongs to neuron e % node_count.
struct ShardRoute {
    std::uint64_t source;
    std::uint64_t edge;  ///< place in the fan-out table
};

KELM_HD inline ShardRoute shardRoute(std::uint64_t sequence, std::uint64_t node_count,
                                     std::uint64_t fanout) {
    const std::uint64_t source = (sequence / fanout) % node_count;
    return {source, source * fanout + sequence % fanout};
}

KELM_HD inline Kernel::WindowEvent windowEventOf(const ShardArrival& arrival) {
    Kernel::WindowEvent event;
    event.time = arrival.time;
    event.value = arrival.value;
    return event;
}

/// The network and its layout in shards.
struct ShardNetwork {
    std::uint64_t node_count;
    std::uint64_t fanout;
    std::uint32_t shard_count;
    const std::uint64_t* csr_targets;
    const double* csr_values;
};

/// Counts arrival `i` for its shard, and as local (element 0 of `local_cross`) if source and target
/// have the same shard, else as crossing (element 1).
KELM_DEVICE inline void countArrival(std::uint64_t i, const ShardNetwork& network,
                                     std::uint64_t* counts, std::uint64_t* local_cross) {
    const ShardRoute route = shardRoute(i, network.node_count, network.fanout);
    const std::uint32_t target_shard =
        Kernel::shardOf(network.node_count, network.shard_count, network.csr_targets[route.edge]);
    const std::uint32_t source_shard =
        Kernel::shardOf(network.node_count, network.shard_count, route.source);
    Device::fetchAdd(&counts[target_shard], 1);
    Device::fetchAdd(&local_cross[source_shard == target_shard ? 0 : 1], 1);
}

KELM_KERNEL countShardFanout(ShardNetwork network, std::uint64_t arrival_count,
                             std::uint64_t* counts, std::uint64_t* local_cross) {
    const std::uint64_t i = Device::threadIndex();
    if (i < arrival_count) countArrival(i, network, counts, local_cross);
}

/// Writes arrival `i` into its shard's segment of the queue. The order within a segment depends on
/// scheduling, so the queue must be sorted before anything reads it.
KELM_DEVICE inline void emitArrival(std::uint64_t i, const ShardNetwork& network,
                                    ModelTime arrival_time, const std::uint64_t* offsets,
                                    std::uint64_t* cursors, ShardArrival* queue) {
    const ShardRoute route = shardRoute(i, network.node_count, network.fanout);
    ShardArrival arrival;
    arrival.sequence = i;
    arrival.source = route.source;
    arrival.target = network.csr_targets[route.edge];
    arrival.edge = route.edge;
    arrival.time = arrival_time;
    arrival.value = network.csr_values[route.edge];
    const std::uint32_t shard =
        Kernel::shardOf(network.node_count, network.shard_count, arrival.target);
    queue[offsets[shard] + Device::fetchAdd(&cursors[shard], 1)] = arrival;
}

KELM_KERNEL emitShardFanout(ShardNetwork network, std::uint64_t arrival_count,
                            ModelTime arrival_time, const std::uint64_t* offsets,
                            std::uint64_t* cursors, ShardArrival* queue) {
    const std::uint64_t i = Device::threadIndex();
    if (i < arrival_count) emitArrival(i, network, arrival_time, offsets, cursors, queue);
}

/// Turns a queue or a bucket into window events, at the same indices.
KELM_KERNEL convertShardEvents(const ShardArrival* arrivals, std::uint64_t count,
                               Kernel::WindowEvent* events) {
    const std::uint64_t i = Device::threadIndex();
    if (i < count) events[i] = windowEventOf(arrivals[i]);
}

/// A sorted queue of `count` arrivals, its window events, and the neurons that it reaches.
struct ShardTargets {
    const ShardArrival* queue;
    const Kernel::WindowEvent* events;
    std::uint64_t count;
    Kernel::State* states;
    std::uint64_t* random;  ///< raw stream states
    Kernel::WindowResult* results;
    std::uint64_t* processed_targets;  ///< number of neurons served
    ModelTime window_end;              ///< ns
    ModelTime horizon;                 ///< ns
};

/// One window of the target of arrival `i`, if `i` is the first arrival of that target.
KELM_DEVICE inline void processTarget(std::uint64_t i, const ShardTargets& targets,
                                      const Kernel::NeuronModel& model) {
    const ShardArrival* const queue = targets.queue;
    const std::uint64_t target = queue[i].target;
    if (i != 0 && queue[i - 1].target == target) return;
    std::uint64_t end = i + 1;
    while (end < targets.count && queue[end].target == target) ++end;
    const Kernel::WindowResult result =
        Kernel::processWindow(targets.states[target], targets.random[target], model,
                              targets.events + i, static_cast<std::uint32_t>(end - i),
                              targets.window_end, targets.horizon, PhaseDrive(), no_time, 0.0);
    targets.states[target] = result.state;
    targets.random[target] = result.rng;
    targets.results[target] = result;
    Device::fetchAdd(targets.processed_targets, 1);
}

KELM_KERNEL processShardTargets(ShardTargets targets, Kernel::Neuron neuron, Kernel::Firing firing,
                                Kernel::NeuronTerms terms) {
    const std::uint64_t i = Device::threadIndex();
    if (i < targets.count) {
        processTarget(i, targets, Kernel::NeuronModel(neuron, firing, terms));
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
