#pragma once

// Kernels of a whole run on the device, private to the unit LookaheadCuda. One thread serves one
// neuron.
//
// A bucket holds the arrivals of one window in segments by target: those for neuron t begin at
// target_offsets[t], there are target_counts[t] of them, and they are in ShardArrivalLess order.
//
// processResidentWindow takes the active neurons from a list. In the network of the reports one
// neuron of fourteen is active in a window. If thread i served neuron i, nine warps of ten would
// walk, with two or three busy lanes each. With the list, one warp of fourteen walks, with all
// lanes busy, and the others end at once. Three kernels that run anyway make the list for the next
// window, each for the neurons that it finds active, so the list costs no launch and no wait.
//
// Bytes moved per window. Every neuron costs 8 of pending time, 40 of the arrivals that it emits
// and 40 of those that it receives; without a spike 8, 16 and 8. An active neuron moves its place
// in the list (16), its state, generator and candidate (128), and its result (152) if it fires. An
// arrival is written once (48), moved within its segment if need be, converted (72) and read (24);
// it costs two atomic additions and 16 bytes of the fan-out table.

#include <cstdint>

#include "kelm/cuda/DeviceBlock.h"
#include "kelm/cuda/DeviceLayer.h"
#include "kelm/cuda/DeviceRecords.h"
#include "kelm/cuda/ResidentArena.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm {

namespace {

KELM_DEVICE inline bool isDue(ModelTime pending, ModelTime window_end) {
    return pending >= 0 && pending < window_end;
}

KELM_DEVICE inline void addActive(std::uint64_t i, const ActiveNeurons& active) {
    active.neurons[Device::fetchAdd(active.count, 1)] = i;
}

/// Zero state and first candidate of neuron `i`: the draw with which every run begins.
KELM_DEVICE inline void initializeNeuron(std::uint64_t i, const ResidentNeurons& neurons,
                                         const Kernel::NeuronModel& model, ModelTime horizon) {
    const Kernel::State zero;
    std::uint64_t rng = neurons.random[i];
    const Kernel::Candidate first = Kernel::nextCandidate(zero, model, 0, horizon, 0.0, rng);
    neurons.states[i] = zero;
    neurons.random[i] = rng;
    neurons.pending_times[i] = first.found ? first.time : no_time;
    neurons.pending_rates[i] = first.bound;
    neurons.fanout_counts[i] = 0;
    neurons.target_counts[i] = 0;
}

/// `active`: gets the neurons of the first window, which ends at `window_end` ns.
KELM_KERNEL initializeResidentNeurons(ResidentNeurons neurons, Kernel::Neuron neuron,
                                      Kernel::Firing firing, Kernel::NeuronTerms terms,
                                      ModelTime horizon, ActiveNeurons active,
                                      ModelTime window_end) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= neurons.node_count) return;
    initializeNeuron(i, neurons, Kernel::NeuronModel(neuron, firing, terms), horizon);
    if (isDue(neurons.pending_times[i], window_end)) addActive(i, active);
}

/// Logs the spikes of neuron `i` in a window, or sets the overflow flag if they do not fit.
KELM_DEVICE inline void logSpikes(std::uint64_t i, const Kernel::WindowResult& result,
                                  const ResidentCounters& counters) {
    const auto count = static_cast<std::uint64_t>(result.spike_count);
    const std::uint64_t first = Device::fetchAdd(counters.total_spikes, count);
    Device::fetchAdd(counters.window_spikes, count);
    if (first + count > counters.fire_capacity) {
        Device::setFlag(&counters.flags->fire_overflow);
        return;
    }
    for (std::uint64_t s = 0; s < count; ++s) {
        counters.fire_log[first + s] = {result.spike_times[s], i};
    }
}

/// Adds a neuron's window to the counters of the run, and sets the fault flag if it ended in a
/// fault.
KELM_DEVICE inline void addToMetrics(const Kernel::WindowResult& result,
                                     const ResidentCounters& counters) {
    ResidentMetrics& metrics = *counters.metrics;
    if (result.updates != 0) Device::fetchAdd(&metrics.updates, result.updates);
    if (result.candidates != 0) Device::fetchAdd(&metrics.candidates, result.candidates);
    if (result.accepted != 0) Device::fetchAdd(&metrics.accepted, result.accepted);
    if (result.bound_violation || result.spike_overflow) {
        Device::setFlag(&counters.flags->model_fault);
    }
}

/// A window of the active neurons.
struct ResidentWindow {
    const Kernel::WindowEvent* events;  ///< the current bucket
    ActiveNeurons active;
    std::uint64_t* next_active_count;  ///< set to 0
    ModelTime end;                     ///< ns
    ModelTime horizon;                 ///< ns
};

/// One window of neuron `i`, which has an arrival or a due candidate. Until countResidentFanout,
/// fanout_counts holds the number of spikes.
KELM_DEVICE inline void processNeuron(std::uint64_t i, const ResidentNeurons& neurons,
                                      const ResidentCounters& counters,
                                      const ResidentWindow& window,
                                      const Kernel::NeuronModel& model) {
    const std::uint64_t event_count = neurons.target_counts[i];
    const ModelTime pending = neurons.pending_times[i];
    if (isDue(pending, window.end)) Device::fetchAdd(&counters.metrics->due_candidates, 1);
    // Before the first arrivals, target_offsets is not written.
    const std::uint64_t first = event_count == 0 ? 0 : neurons.target_offsets[i];
    const Kernel::WindowResult result =
        Kernel::processWindow(neurons.states[i], neurons.random[i], model, window.events + first,
                              static_cast<std::uint32_t>(event_count), window.end, window.horizon,
                              PhaseDrive(), pending, neurons.pending_rates[i]);
    neurons.states[i] = result.state;
    neurons.random[i] = result.rng;
    neurons.pending_times[i] = result.next_candidate;
    neurons.pending_rates[i] = result.next_bound;
    addToMetrics(result, counters);
    if (result.spike_count == 0) return;
    neurons.fanout_counts[i] = static_cast<std::uint64_t>(result.spike_count);
    neurons.results[i] = result;
    // Not `result`: for a second reader nvcc keeps the record on the stack twice, in every walk.
    logSpikes(i, neurons.results[i], counters);
}

/// The place in the list of active neurons that a thread of processResidentWindow serves. Every
/// block gets one warp of places before any block gets a second one, so that a short list keeps all
/// multiprocessors busy.
KELM_HD inline std::uint64_t placeInList(std::uint64_t thread, std::uint64_t node_count) {
    constexpr std::uint64_t warp = 32;
    static_assert(block_size % warp == 0);
    const std::uint64_t blocks = Device::blocksFor(node_count, block_size);
    const std::uint64_t block = thread / block_size;
    const std::uint64_t in_block = thread % block_size;
    return (in_block / warp * blocks + block) * warp + in_block % warp;
}

/// One window of the active neurons. All other neurons stay as they are, like those that the
/// ordinary loop does not visit.
KELM_KERNEL processResidentWindow(ResidentNeurons neurons, ResidentCounters counters,
                                  ResidentWindow window, Kernel::Neuron neuron,
                                  Kernel::Firing firing, Kernel::NeuronTerms terms) {
    const std::uint64_t place = placeInList(Device::threadIndex(), neurons.node_count);
    if (place == 0) *window.next_active_count = 0;
    if (place >= *window.active.count) return;
    if (place == 0) Device::fetchAdd(counters.window_spikes, busy_window);
    processNeuron(window.active.neurons[place], neurons, counters, window,
                  Kernel::NeuronModel(neuron, firing, terms));
}

/// Turns the number of spikes of each source into the number of arrivals that it emits. `active`:
/// gets the neurons with a due candidate in the next window, which ends at `next_end` ns.
KELM_KERNEL countResidentFanout(ResidentNeurons neurons, ActiveNeurons active, ModelTime next_end) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= neurons.node_count) return;
    if (neurons.fanout_counts[i] != 0) neurons.fanout_counts[i] *= neurons.fanout;
    if (isDue(neurons.pending_times[i], next_end)) addActive(i, active);
}

/// Adds the arrivals that neuron `i` emits to the counts of its targets.
KELM_DEVICE inline void countTargets(std::uint64_t i, const ResidentNeurons& neurons) {
    if (neurons.fanout_counts[i] == 0) return;
    const std::uint64_t spikes = neurons.fanout_counts[i] / neurons.fanout;
    for (std::uint64_t k = 0; k < neurons.fanout; ++k) {
        const std::uint64_t target = neurons.csr_targets[i * neurons.fanout + k];
        Device::fetchAdd(&neurons.target_counts[target], spikes);
    }
}

/// Counts the arrivals that each target receives in the next window. The counts start at 0.
KELM_KERNEL countResidentTargets(ResidentNeurons neurons) {
    const std::uint64_t i = Device::threadIndex();
    if (i < neurons.node_count) countTargets(i, neurons);
}

/// Writes the arrivals that neuron `i` emits to `bucket`, spike by spike and within a spike edge by
/// edge, and sets its fanout_counts to 0 for the next window. With the scan over the sources, their
/// sequences ascend in the order in which the ordinary loop posts them. Their order within a
/// segment depends on scheduling.
KELM_DEVICE inline void emitArrivals(std::uint64_t i, const ResidentNeurons& neurons,
                                     std::uint64_t sequence_base, ModelTime delay,
                                     ShardArrival* bucket) {
    if (neurons.fanout_counts[i] == 0) return;
    const Kernel::WindowResult& result = neurons.results[i];
    const std::int32_t spikes = result.spike_count;
    std::uint64_t sequence = sequence_base + neurons.fanout_offsets[i];
    for (std::int32_t s = 0; s < spikes; ++s) {
        for (std::uint64_t k = 0; k < neurons.fanout; ++k) {
            ShardArrival arrival;
            arrival.sequence = sequence++;
            arrival.source = i;
            arrival.edge = i * neurons.fanout + k;
            arrival.target = neurons.csr_targets[arrival.edge];
            arrival.time = result.spike_times[s] + delay;
            arrival.value = neurons.csr_values[arrival.edge];
            const std::uint64_t place =
                Device::fetchAdd(&neurons.target_cursors[arrival.target], 1);
            bucket[neurons.target_offsets[arrival.target] + place] = arrival;
        }
    }
    neurons.fanout_counts[i] = 0;
}

KELM_KERNEL emitResidentFanout(ResidentNeurons neurons, std::uint64_t sequence_base,
                               ModelTime delay, ShardArrival* bucket) {
    const std::uint64_t i = Device::threadIndex();
    if (i < neurons.node_count) emitArrivals(i, neurons, sequence_base, delay, bucket);
}

/// Sorts `count` arrivals by insertion. One thread sorts a whole segment; segments are short,
/// except in networks that sortTimeIsBounded refuses.
KELM_DEVICE inline void sortSegment(ShardArrival* segment, std::uint64_t count) {
    const ShardArrivalLess less;
    for (std::uint64_t next = 1; next < count; ++next) {
        const ShardArrival moved = segment[next];
        std::uint64_t place = next;
        for (; place > 0 && less(moved, segment[place - 1]); --place) {
            segment[place] = segment[place - 1];
        }
        segment[place] = moved;
    }
}

/// Puts each target's segment of `bucket` in canonical order. `active`: gets the targets without a
/// due candidate in the next window; it already holds those with one.
KELM_KERNEL sortResidentTargetSegments(ResidentNeurons neurons, ShardArrival* bucket,
                                       ActiveNeurons active, ModelTime next_end) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= neurons.node_count || neurons.target_counts[i] == 0) return;
    sortSegment(bucket + neurons.target_offsets[i], neurons.target_counts[i]);
    if (!isDue(neurons.pending_times[i], next_end)) addActive(i, active);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
