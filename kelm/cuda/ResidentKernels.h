#pragma once

// Kernels of a whole run on the device, private to the unit LookaheadCuda. One thread serves one
// neuron.
//
// A bucket holds the arrivals of one window in segments by target: those for neuron t begin at
// target_offsets[t], there are target_counts[t] of them, and they are in ShardArrivalLess order.
//
// Bytes moved per window. Every neuron costs 8 bytes of pending time, 8 of its segment's length if
// the bucket is not empty, 40 of the arrivals that it emits (written, multiplied, read twice), 24
// of the arrivals that it receives (cleared, read), and 32 of the two scans. A neuron with
// something to do moves its state, generator and candidate, 130 bytes, and its result, 152, if it
// fires. An arrival is written once (48), moved within its segment if need be, converted (72) and
// read (24); it costs two atomic additions and 16 bytes of the fan-out table.

#include <cstdint>

#include "kelm/cuda/DeviceLayer.h"
#include "kelm/cuda/DeviceRecords.h"
#include "kelm/cuda/ResidentArena.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm {

namespace {

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
}

KELM_KERNEL initializeResidentNeurons(ResidentNeurons neurons, Kernel::Neuron neuron,
                                      Kernel::Firing firing, Kernel::NeuronTerms terms,
                                      ModelTime horizon) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= neurons.node_count) return;
    initializeNeuron(i, neurons, Kernel::NeuronModel(neuron, firing, terms), horizon);
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

/// A window of all neurons.
struct ResidentWindow {
    const Kernel::WindowEvent* events;  ///< the current bucket
    std::uint64_t arrival_count;        ///< in the current bucket
    ModelTime end;                      ///< ns
    ModelTime horizon;                  ///< ns
};

/// One window of neuron `i`. It leaves a neuron without an arrival and without a due candidate as
/// it is, like the ordinary loop, which does not visit such a neuron. Until countResidentFanout,
/// fanout_counts holds the number of spikes.
KELM_DEVICE inline void processNeuron(std::uint64_t i, const ResidentNeurons& neurons,
                                      const ResidentCounters& counters,
                                      const ResidentWindow& window,
                                      const Kernel::NeuronModel& model) {
    // The target counts describe the current bucket only if it is not empty.
    const std::uint64_t event_count = window.arrival_count == 0 ? 0 : neurons.target_counts[i];
    const ModelTime pending = neurons.pending_times[i];
    const bool due = pending >= 0 && pending < window.end;
    if (event_count == 0 && !due) {
        neurons.fanout_counts[i] = 0;
        return;
    }
    if (due) Device::fetchAdd(&counters.metrics->due_candidates, 1);
    const std::uint64_t first = event_count == 0 ? 0 : neurons.target_offsets[i];
    const Kernel::WindowResult result =
        Kernel::processWindow(neurons.states[i], neurons.random[i], model, window.events + first,
                              static_cast<std::uint32_t>(event_count), window.end, window.horizon,
                              PhaseDrive(), pending, neurons.pending_rates[i]);
    neurons.states[i] = result.state;
    neurons.random[i] = result.rng;
    neurons.pending_times[i] = result.next_candidate;
    neurons.pending_rates[i] = result.next_bound;
    neurons.fanout_counts[i] = static_cast<std::uint64_t>(result.spike_count);
    addToMetrics(result, counters);
    if (result.spike_count == 0) return;
    neurons.results[i] = result;
    logSpikes(i, result, counters);
}

KELM_KERNEL processResidentWindow(ResidentNeurons neurons, ResidentCounters counters,
                                  ResidentWindow window, Kernel::Neuron neuron,
                                  Kernel::Firing firing, Kernel::NeuronTerms terms) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= neurons.node_count) return;
    processNeuron(i, neurons, counters, window, Kernel::NeuronModel(neuron, firing, terms));
}

/// Turns the number of spikes of each source into the number of arrivals that it emits.
KELM_KERNEL countResidentFanout(ResidentNeurons neurons) {
    const std::uint64_t i = Device::threadIndex();
    if (i < neurons.node_count) neurons.fanout_counts[i] *= neurons.fanout;
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
/// edge. With the scan over the sources, their sequences ascend in the order in which the ordinary
/// loop posts them. Their order within a segment depends on scheduling.
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

/// Puts each target's segment of `bucket` in canonical order.
KELM_KERNEL sortResidentTargetSegments(ResidentNeurons neurons, ShardArrival* bucket) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= neurons.node_count) return;
    sortSegment(bucket + neurons.target_offsets[i], neurons.target_counts[i]);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
