#pragma once

// Kernels of a whole run on the device, private to the unit LookaheadCuda. One thread a neuron.
//
// A bucket holds the arrivals of one window in segments by target: those for neuron t lie from
// target_offsets[t] on, target_counts[t] of them, in the order of ShardArrivalLess.
//
// Bytes moved per window, for n neurons of fan-out f, A arrivals and U neurons with something to
// do: every neuron costs 8 bytes of pending time, 8 of its segment's length where there are
// arrivals, 40 of its emitted arrivals (written, multiplied, read twice) and 24 of its received
// ones (cleared, read), and 32 of the two scans. A neuron with something to do moves its state,
// generator and candidate, 130 bytes, and its result (152) where it fired. An arrival is written
// once (48), moved within its segment if need be, converted (72) and read (24), and costs two
// atomic additions and 16 bytes of the fan-out table.

#include <cstdint>

#include "kelm/cuda/DeviceLayer.h"
#include "kelm/cuda/DeviceRecords.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm {

namespace {

/// The part of a window's word that counts spikes. The rest counts due candidates in windows
/// without arrivals, so that one transfer tells whether anything happened. Both are far below 2^32.
inline constexpr std::uint64_t window_spike_mask = 0xffffffff;

/// What a neuron holds between windows: parallel arrays, shape (neurons) each.
struct ResidentNeurons {
    Kernel::State* states;
    std::uint64_t* random;     ///< raw generator states
    ModelTime* pending_times;  ///< ns, or no_time
    double* pending_rates;     ///< spikes/s
};

/// What the neurons of a run count together; sums of integers, whatever the order of threads.
struct ResidentCounters {
    std::uint64_t* total_spikes;
    std::uint64_t* window_spikes;  ///< see window_spike_mask
    std::uint64_t* metrics;        ///< updates, candidates, accepted, due candidates
    std::uint32_t* fire_overflow;  ///< not 0: the fire log was too small
    std::uint32_t* model_fault;    ///< not 0: a result carried a flag, and nothing is to be used
};

/// Zero state and first candidate of each neuron: the draw with which every run begins.
KELM_KERNEL initializeResidentNeurons(std::uint64_t node_count, ResidentNeurons neurons,
                                      Kernel::Neuron neuron, Kernel::Firing firing,
                                      Kernel::NeuronTerms terms, ModelTime horizon) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= node_count) return;
    const Kernel::NeuronModel model(neuron, firing, terms);
    const Kernel::State zero;
    std::uint64_t rng = neurons.random[i];
    const Kernel::Candidate first = Kernel::nextCandidate(zero, model, 0, horizon, 0.0, rng);
    neurons.states[i] = zero;
    neurons.random[i] = rng;
    neurons.pending_times[i] = first.found ? first.time : no_time;
    neurons.pending_rates[i] = first.bound;
}

/// Logs a neuron's spikes of a window, or says that they did not fit.
KELM_DEVICE inline void logResidentSpikes(std::uint64_t neuron, const Kernel::WindowResult& result,
                                          const ResidentCounters& counters, DeviceFire* fire_log,
                                          std::uint64_t fire_capacity) {
    const auto count = static_cast<std::uint64_t>(result.spike_count);
    const std::uint64_t first = Device::fetchAdd(counters.total_spikes, count);
    Device::fetchAdd(counters.window_spikes, count);
    if (first + count > fire_capacity) {
        Device::setFlag(counters.fire_overflow);
        return;
    }
    for (std::uint64_t s = 0; s < count; ++s) {
        fire_log[first + s] = {result.spike_times[s], neuron};
    }
}

/// One window of each neuron, and its number of spikes. A neuron with neither an arrival nor a due
/// candidate is left alone, as a run that goes event by event leaves it.
KELM_KERNEL processResidentWindow(std::uint64_t node_count, const Kernel::WindowEvent* events,
                                  std::uint64_t arrival_count, const std::uint64_t* target_offsets,
                                  const std::uint64_t* target_counts, ResidentNeurons neurons,
                                  Kernel::WindowResult* results, std::uint64_t* spike_counts,
                                  ResidentCounters counters, DeviceFire* fire_log,
                                  std::uint64_t fire_capacity, ModelTime window_end,
                                  ModelTime horizon, Kernel::Neuron neuron, Kernel::Firing firing,
                                  Kernel::NeuronTerms terms) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= node_count) return;
    const Kernel::NeuronModel model(neuron, firing, terms);
    const std::uint64_t events_here = arrival_count == 0 ? 0 : target_counts[i];
    const ModelTime pending = neurons.pending_times[i];
    const bool due = pending >= 0 && pending < window_end;
    if (events_here == 0 && !due) {
        spike_counts[i] = 0;
        return;
    }
    if (due) {
        Device::fetchAdd(&counters.metrics[3], 1);
        if (arrival_count == 0) Device::fetchAdd(counters.window_spikes, window_spike_mask + 1);
    }
    const std::uint64_t first = events_here == 0 ? 0 : target_offsets[i];
    const Kernel::WindowResult result =
        Kernel::processWindow(neurons.states[i], neurons.random[i], model, events + first,
                              static_cast<std::uint32_t>(events_here), window_end, horizon,
                              PhaseDrive(), pending, neurons.pending_rates[i]);
    neurons.states[i] = result.state;
    neurons.random[i] = result.rng;
    neurons.pending_times[i] = result.next_candidate;
    neurons.pending_rates[i] = result.next_bound;
    // Nobody looks at the result of a neuron that did not fire.
    if (result.spike_count != 0) results[i] = result;
    spike_counts[i] = static_cast<std::uint64_t>(result.spike_count);
    if (result.bound_violation || result.spike_overflow) Device::setFlag(counters.model_fault);
    if (result.updates != 0) Device::fetchAdd(&counters.metrics[0], result.updates);
    if (result.candidates != 0) Device::fetchAdd(&counters.metrics[1], result.candidates);
    if (result.accepted != 0) Device::fetchAdd(&counters.metrics[2], result.accepted);
    if (result.spike_count != 0) {
        logResidentSpikes(i, result, counters, fire_log, fire_capacity);
    }
}

/// Turns the number of spikes of each source into the number of arrivals that it emits.
KELM_KERNEL countResidentFanout(std::uint64_t node_count, std::uint64_t fanout,
                                std::uint64_t* counts) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= node_count) return;
    counts[i] *= fanout;
}

/// The arrivals that each target receives in the next window, on counts that start at 0.
KELM_KERNEL countResidentTargets(std::uint64_t node_count, std::uint64_t fanout,
                                 const std::uint64_t* csr_targets,
                                 const std::uint64_t* fanout_counts, std::uint64_t* target_counts) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= node_count || fanout_counts[i] == 0) return;
    const std::uint64_t spikes = fanout_counts[i] / fanout;
    for (std::uint64_t k = 0; k < fanout; ++k) {
        Device::fetchAdd(&target_counts[csr_targets[i * fanout + k]], spikes);
    }
}

/// Writes the next bucket. `sequence_base` plus a source's place in the scan of the fan-out, spike
/// by spike and within it edge by edge, is the order in which a serial commit would post them.
KELM_KERNEL emitResidentFanout(std::uint64_t node_count, std::uint64_t fanout,
                               const std::uint64_t* csr_targets, const double* csr_values,
                               const Kernel::WindowResult* results,
                               const std::uint64_t* fanout_counts,
                               const std::uint64_t* fanout_offsets,
                               const std::uint64_t* target_offsets, std::uint64_t* target_cursors,
                               std::uint64_t sequence_base, ModelTime delay, ShardArrival* bucket) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= node_count || fanout_counts[i] == 0) return;
    const std::int32_t spikes = results[i].spike_count;
    std::uint64_t sequence = sequence_base + fanout_offsets[i];
    for (std::int32_t s = 0; s < spikes; ++s) {
        for (std::uint64_t k = 0; k < fanout; ++k) {
            ShardArrival arrival;
            arrival.sequence = sequence++;
            arrival.source = i;
            arrival.edge = i * fanout + k;
            arrival.target = csr_targets[arrival.edge];
            arrival.time = results[i].spike_times[s] + delay;
            arrival.value = csr_values[arrival.edge];
            bucket[target_offsets[arrival.target] +
                   Device::fetchAdd(&target_cursors[arrival.target], 1)] = arrival;
        }
    }
}

/// Puts each target's segment in canonical order, by insertion: segments are short, and each is
/// one thread's alone.
KELM_KERNEL sortResidentTargetSegments(std::uint64_t node_count,
                                       const std::uint64_t* target_offsets,
                                       const std::uint64_t* target_counts, ShardArrival* bucket) {
    const std::uint64_t i = Device::threadIndex();
    if (i >= node_count) return;
    const std::uint64_t count = target_counts[i];
    if (count < 2) return;
    ShardArrival* segment = bucket + target_offsets[i];
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

}  // namespace

}  // namespace Lumenar::Core::Kelm
