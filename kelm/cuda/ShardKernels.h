#pragma once

// Kernels of shard queues, private to the unit LookaheadCuda. A shard queue holds the arrivals
// bound for one contiguous range of neurons. Arrival number i belongs to source event i / fanout
// and to that source's edge slot i % fanout. One thread an arrival in all of them.

#include <cstdint>

#include "kelm/cuda/DeviceLayer.h"
#include "kelm/cuda/DeviceRecords.h"
#include "kelm/cuda/ShardLayout.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm {

namespace {

/// Where arrival number `sequence` comes from; events wrap around when they outnumber the neurons.
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

/// Counts the arrivals of each shard, and those that stay in their source's shard (element 0 of
/// `local_cross`) against those that cross (element 1).
KELM_KERNEL countShardFanout(std::uint64_t node_count, std::uint64_t fanout,
                             std::uint64_t source_events, std::uint32_t shard_count,
                             const std::uint64_t* csr_targets, std::uint64_t* counts,
                             std::uint64_t* local_cross) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= fanout * source_events) return;
    const ShardRoute route = shardRoute(i, node_count, fanout);
    const std::uint32_t target_shard =
        Kernel::shardOf(node_count, shard_count, csr_targets[route.edge]);
    const std::uint32_t source_shard = Kernel::shardOf(node_count, shard_count, route.source);
    Device::fetchAdd(&counts[target_shard], 1);
    Device::fetchAdd(&local_cross[source_shard == target_shard ? 0 : 1], 1);
}

/// Writes each arrival into its shard's segment, in an order that scheduling decides: the queue
/// must be sorted before anything reads it.
KELM_KERNEL emitShardFanout(std::uint64_t node_count, std::uint64_t fanout,
                            std::uint64_t source_events, std::uint32_t shard_count,
                            const std::uint64_t* csr_targets, const double* csr_values,
                            ModelTime arrival_time, const std::uint64_t* offsets,
                            std::uint64_t* cursors, ShardArrival* queue) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= fanout * source_events) return;
    const ShardRoute route = shardRoute(i, node_count, fanout);
    ShardArrival arrival;
    arrival.sequence = i;
    arrival.source = route.source;
    arrival.target = csr_targets[route.edge];
    arrival.edge = route.edge;
    arrival.time = arrival_time;
    arrival.value = csr_values[route.edge];
    const std::uint32_t shard = Kernel::shardOf(node_count, shard_count, arrival.target);
    queue[offsets[shard] + Device::fetchAdd(&cursors[shard], 1)] = arrival;
}

/// Turns a queue or a bucket into window events, at the same places.
KELM_KERNEL convertShardEvents(const ShardArrival* arrivals, std::uint64_t count,
                               Kernel::WindowEvent* events) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= count) return;
    events[i] = windowEventOf(arrivals[i]);
}

/// One window for each target: the thread of its first arrival in the sorted queue serves it.
KELM_KERNEL processShardTargets(const ShardArrival* queue, const Kernel::WindowEvent* events,
                                std::uint64_t count, Kernel::State* states, std::uint64_t* random,
                                Kernel::WindowResult* results, std::uint64_t* processed_targets,
                                ModelTime window_end, ModelTime horizon, Kernel::Neuron neuron,
                                Kernel::Firing firing, Kernel::NeuronTerms terms) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= count) return;
    const Kernel::NeuronModel model(neuron, firing, terms);
    const std::uint64_t target = queue[i].target;
    if (i != 0 && queue[i - 1].target == target) return;
    std::uint64_t end = i + 1;
    while (end < count && queue[end].target == target) ++end;
    const Kernel::WindowResult result = Kernel::processWindow(
        states[target], random[target], model, events + i, static_cast<std::uint32_t>(end - i),
        window_end, horizon, PhaseDrive(), no_time, 0.0);
    states[target] = result.state;
    random[target] = result.rng;
    results[target] = result;
    Device::fetchAdd(processed_targets, 1);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
