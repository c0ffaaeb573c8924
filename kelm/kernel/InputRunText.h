// Several inputs of one neuron at a time, in vectors. See LaneMath.h for how this text is included.

#pragma once

#include <cstdint>

#include "kelm/kernel/LaneMath.h"
#include "kelm/kernel/WindowProcessing.h"

namespace Lumenar::Core::Kelm::Lanes {

namespace {

/// Inputs computed at a time.
constexpr int run_block = 32;
/// Times up to here are exact in doubles.
constexpr ModelTime greatest_run_end = ModelTime{1} << 53;

/// The inputs of a block. Entry i + 1 of a time or trace belongs to input i, entry 0 to the state.
/// There is room for a whole vector behind the last entry that is used.
struct RunBlock {
    double time[run_block + 2 + lane_count];   ///< ns
    double value[run_block + 1 + lane_count];  ///< as in Kernel::WindowEvent
    double membrane_factor[run_block + lane_count];
    double adaptation_factor[run_block + lane_count];
    double membrane[run_block + 1 + lane_count];    ///< after the input
    double adaptation[run_block + 1 + lane_count];  ///< after the input
};

/// Reads the inputs before `end` ns, a block and one more at most, and returns their number.
KELM_LANE_INLINE int readInputs(RunBlock& block, const Kernel::WindowEvent* events,
                                std::uint32_t count, ModelTime end) {
    const int most = count > run_block ? run_block + 1 : static_cast<int>(count);
    int inputs = 0;
    // Times ascend, so the last one of a group tells for all of them.
    constexpr int group = 4;
    while (inputs + group <= most && events[inputs + group - 1].time < end) {
        const Kernel::WindowEvent* first = events + inputs;
        if (first[0].wake_only | first[1].wake_only | first[2].wake_only | first[3].wake_only) {
            break;
        }
        for (int i = 0; i < group; ++i) {
            block.time[inputs + i + 1] = static_cast<double>(first[i].time);
            block.value[inputs + i] = first[i].value;
        }
        inputs += group;
    }
    while (inputs < most && !events[inputs].wake_only && events[inputs].time < end) {
        block.time[inputs + 1] = static_cast<double>(events[inputs].time);
        block.value[inputs] = events[inputs].value;
        ++inputs;
    }
    for (int i = inputs; i < inputs + lane_count; ++i) {
        block.time[i + 1] = block.time[inputs];
        block.value[i] = 1.0;
    }
    return inputs;
}

/// Computes the factors by which the traces decay from one time to the next.
KELM_LANE_INLINE void computeFactors(RunBlock& block, int inputs, const Kernel::Neuron& neuron) {
    const double tau_membrane = static_cast<double>(neuron.tau_membrane);
    const double tau_adaptation = static_cast<double>(neuron.tau_adaptation);
    const double shorter = tau_membrane < tau_adaptation ? tau_membrane : tau_adaptation;
    const double longer = tau_membrane < tau_adaptation ? tau_adaptation : tau_membrane;
    // Within these limits expOfReduced gives the exponential of both quotients.
    const double most = shorter * 0.3464;
    const double least = longer < 0x1p28 ? 0.0 : longer * 0x1.01p-28;
    for (int i = 0; i < inputs; i += lane_count) {
        const Doubles interval = load<Doubles>(block.time + i + 1) - load<Doubles>(block.time + i);
        const Doubles x = -interval / tau_membrane;
        const Doubles y = -interval / tau_adaptation;
        if (__builtin_expect(any((interval > most) | (interval < least)), 0)) {
            store(block.membrane_factor + i, expOf(x));
            store(block.adaptation_factor + i, expOf(y));
        } else {
            store(block.membrane_factor + i, expOfReduced(x, x, Doubles{}));
            store(block.adaptation_factor + i, expOfReduced(y, y, Doubles{}));
        }
    }
}

/// Computes the traces after each input. Clips none: findStop ends the run where that matters.
/// `coupled`: may be false if the coupling is 0 and no value is 0. The product with the coupling is
/// then a zero, which adds nothing to the value, or a NaN, where findStop ends the run as well.
template <bool coupled>
KELM_LANE_INLINE void computeTraces(RunBlock& block, int inputs, double coupling) {
    double membrane = block.membrane[0];
    double adaptation = block.adaptation[0];
    for (int i = 0; i < inputs; ++i) {
        membrane = block.membrane_factor[i] * membrane;
        adaptation = block.adaptation_factor[i] * adaptation;
        const double value = block.value[i];
        const double input = coupled ? (membrane * coupling) * value + value : value;
        membrane = input + membrane;
        block.membrane[i + 1] = membrane;
        block.adaptation[i + 1] = adaptation;
    }
    for (int i = inputs; i < inputs + lane_count - 1; ++i) {
        block.membrane[i + 1] = 0.0;
        block.adaptation[i + 1] = 0.0;
    }
}

/// Whether an input has the value 0.
KELM_LANE_INLINE bool hasZero(const RunBlock& block, int inputs) {
    Mask zeros = {};
    for (int i = 0; i < inputs; i += lane_count) zeros |= load<Doubles>(block.value + i) == 0.0;
    return any(zeros);
}

/// The lanes in which Kernel::decayTrace would clip the trace. Also some that it leaves because no
/// time has passed.
KELM_LANE_INLINE Mask clips(const double* factors, const double* traces, double epsilon) {
    const Doubles before = load<Doubles>(traces);
    const Doubles decayed = load<Doubles>(factors) * before;
    return (epsilon > magnitude(decayed)) & (before != 0.0);
}

/// A state's part of the estimate.
struct DriveLanes {
    Doubles
        difference;  ///< of the traces, at most the net drive of any later time; may be negative
    Doubles spread;  ///< sum of the traces' magnitudes
};

KELM_LANE_INLINE DriveLanes driveOf(const RunBlock& block, int i,
                                    const Kernel::NeuronModel& model) {
    const Doubles membrane = load<Doubles>(block.membrane + i + 1);
    const Doubles weighted =
        load<Doubles>(block.adaptation + i + 1) * model.firing.adaptation_weight;
    const Doubles positive = select(membrane > 0.0, membrane, Doubles{});
    const Doubles inhibition =
        model.adaptation_outlasts_membrane ? weighted : select(weighted < 0.0, weighted, Doubles{});
    return {positive - inhibition, magnitude(membrane) + magnitude(weighted)};
}

/// Kernel::hazardEstimate. `known`: the lanes in which the estimate is valid.
KELM_LANE_INLINE Doubles hazardEstimate(const DriveLanes& state, const Kernel::NeuronModel& model,
                                        double drive_bound, Mask& known) {
    known = state.spread + __builtin_fabs(drive_bound) < model.reach;
    const Doubles drive = select(state.difference > 0.0, state.difference, Doubles{}) +
                          (state.spread * 0x1p-46 + model.slack);
    const Doubles exponent =
        (((model.margin + drive) + drive_bound) - model.firing.threshold) * model.firing.gain;
    const Doubles p = select(exponent < model.cap, exponent, all(model.cap)) * inv_ln2;
    return fromBits(bitsOf(p + fixed_point) << 32) * model.rate;
}

/// The states of the generator behind the draws of the first inputs.
KELM_LANE_INLINE Words firstDraws(std::uint64_t rng) {
    Words states = Words{} + rng;
    for (int i = 0; i < lane_count; ++i) {
        states[i] += static_cast<std::uint64_t>(i + 1) * splitmix_increment;
    }
    return states;
}

/// The time in ns in which a candidate of an input's draw would come before the next input, plus 1.
/// `first_start`: no draw starts before it.
KELM_LANE_INLINE Doubles roomOf(const RunBlock& block, int i, double first_start) {
    const Doubles time = load<Doubles>(block.time + i + 1);
    const Doubles start = select(time > first_start, time, all(first_start));
    return (load<Doubles>(block.time + i + 2) - start) + 1.0;
}

/// Whether findStop would stop at the last input only. Says no where it cannot tell. One estimate
/// serves all inputs of a lane, with the largest difference of their traces and the sum of their
/// spreads: it is at least that of each input, because rounded sums and products are monotonic.
KELM_LANE_INLINE bool allPass(const RunBlock& block, int inputs, const Kernel::NeuronModel& model,
                              double drive_bound, double first_start, std::uint64_t rng) {
    const double epsilon = model.neuron.trace_epsilon;
    // No input changes the adaptation, so the last value is the smallest one.
    if (block.adaptation[0] != 0 && epsilon > __builtin_fabs(block.adaptation[inputs]))
        return false;
    DriveLanes most = {};
    Mask clipped = {};
    for (int i = 0; i < inputs; i += lane_count) {
        const DriveLanes state = driveOf(block, i, model);
        most.difference =
            select(state.difference > most.difference, state.difference, most.difference);
        most.spread = most.spread + state.spread;
        clipped |= clips(block.membrane_factor + i, block.membrane + i, epsilon);
    }
    Mask known;
    const Doubles estimate = hazardEstimate(most, model, drive_bound, known);
    if (any(clipped | ~known)) return false;
    Words states = firstDraws(rng);
    Mask passed = ~Mask{};
    for (int i = 0; i < inputs; i += lane_count) {
        passed &= distanceFromOne(states) * 1e9 > estimate * roomOf(block, i, first_start);
        states += static_cast<std::uint64_t>(lane_count) * splitmix_increment;
    }
    return !any(~passed);
}

/// The first input whose draw must be looked at: it may give a candidate before the next input, no
/// other input follows, the estimate is not valid, or the traces may not be those of the walk.
struct RunStop {
    int input;   ///< run_block if there is none in the block
    bool sound;  ///< its traces are known to be right
};

/// `inputs`: in the block; `followed`: how many have another input behind them. `rng`: before the
/// first draw.
KELM_LANE_INLINE RunStop findStop(const RunBlock& block, int inputs, int followed,
                                  const Kernel::NeuronModel& model, double drive_bound,
                                  double first_start, std::uint64_t rng) {
    const double epsilon = model.neuron.trace_epsilon;
    Words states = firstDraws(rng);
    for (int i = 0; i < inputs; i += lane_count) {
        Mask known;
        const Doubles estimate =
            hazardEstimate(driveOf(block, i, model), model, drive_bound, known);
        const Mask sound =
            known & ~(clips(block.membrane_factor + i, block.membrane + i, epsilon) |
                      clips(block.adaptation_factor + i, block.adaptation + i, epsilon));
        const Mask passed =
            sound & (distanceFromOne(states) * 1e9 > estimate * roomOf(block, i, first_start));
        if (any(~passed) || i + lane_count > followed) {
            int lane = 0;
            while (lane < lane_count && i + lane < followed && passed[lane] != 0) ++lane;
            if (lane < lane_count) return {i + lane, sound[lane] != 0};
        }
        states += static_cast<std::uint64_t>(lane_count) * splitmix_increment;
    }
    return {run_block, true};
}

/// See Kernel::runInputs.
std::uint32_t runInputs(Kernel::State& state, std::uint64_t& rng, const Kernel::NeuronModel& model,
                        const Kernel::WindowEvent* events, std::uint32_t count,
                        ModelTime window_end, ModelTime limit, double drive_bound) {
    const Kernel::Neuron& neuron = model.neuron;
    const ModelTime end = window_end < limit ? window_end : limit;
    if (neuron.non_leaky || !(model.reach > 0) || end > greatest_run_end) return 0;
    if (state.last_update < 0 || events[0].time < state.last_update || events[0].time >= end) {
        return 0;
    }
    const ModelTime first_start = Kernel::firstSpikeTime(state, neuron, 0);
    if (first_start >= limit) return 0;
    const auto start = static_cast<double>(first_start);

    RunBlock block;
    block.time[0] = static_cast<double>(state.last_update);
    block.membrane[0] = state.membrane;
    block.adaptation[0] = state.adaptation;
    std::uint32_t applied = 0;
    int last = 0;
    while (true) {
        const int read = readInputs(block, events + applied, count - applied, end);
        const int inputs = read < run_block ? read : run_block;
        computeFactors(block, inputs, neuron);
        if (neuron.input_coupling == 0 && !hasZero(block, inputs)) {
            computeTraces<false>(block, inputs, 0.0);
        } else {
            computeTraces<true>(block, inputs, neuron.input_coupling);
        }
        const std::uint64_t draws = rng + applied * splitmix_increment;
        RunStop stop = {read > run_block ? run_block : inputs - 1, true};
        if (!allPass(block, inputs, model, drive_bound, start, draws)) {
            stop = findStop(block, inputs, read - 1, model, drive_bound, start, draws);
        }
        last = stop.input < run_block && stop.sound ? stop.input + 1 : stop.input;
        applied += static_cast<std::uint32_t>(last);
        if (stop.input < run_block) break;
        block.time[0] = block.time[run_block];
        block.membrane[0] = block.membrane[run_block];
        block.adaptation[0] = block.adaptation[run_block];
    }
    if (applied == 0) return 0;
    state.membrane = block.membrane[last];
    state.adaptation = block.adaptation[last];
    state.last_update = events[applied - 1].time;
    rng += (applied - 1) * splitmix_increment;
    return applied;
}

}  // namespace

}  // namespace Lumenar::Core::Kelm::Lanes
