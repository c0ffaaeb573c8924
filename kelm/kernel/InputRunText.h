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

/// The inputs of a block. Entry i + 1 of the times belongs to input i, entry 0 to the state. There
/// is room for a whole vector behind the last entry that is used.
struct RunBlock {
    double time[run_block + 2 + lane_count];   ///< ns
    double value[run_block + 1 + lane_count];  ///< as in Kernel::WindowEvent
    double membrane_factor[run_block + lane_count];
    double adaptation_factor[run_block + lane_count];
    double clip[run_block + lane_count];        ///< a decayed trace of smaller magnitude is 0
    double membrane[run_block + lane_count];    ///< after the input
    double adaptation[run_block + lane_count];  ///< after the input
};

/// Reads the inputs before `end` ns, `count` and a block at most, and returns how many of them have
/// another input behind them in the block.
KELM_LANE_INLINE int readInputs(RunBlock& block, const Kernel::WindowEvent* events,
                                std::uint32_t count, ModelTime end) {
    const int most = count > run_block ? run_block + 1 : static_cast<int>(count);
    int inputs = 0;
    while (inputs < most && !events[inputs].wake_only && events[inputs].time < end) {
        block.time[inputs + 1] = static_cast<double>(events[inputs].time);
        block.value[inputs] = events[inputs].value;
        ++inputs;
    }
    for (int i = inputs; i < inputs + lane_count; ++i) {
        block.time[i + 1] = block.time[inputs];
        block.value[i] = 0.0;
    }
    return inputs - 1;
}

/// The factors by which the traces decay from one time to the next.
KELM_LANE_INLINE void computeFactors(RunBlock& block, int inputs, const Kernel::Neuron& neuron) {
    const double tau_membrane = static_cast<double>(neuron.tau_membrane);
    const double tau_adaptation = static_cast<double>(neuron.tau_adaptation);
    for (int i = 0; i < inputs; i += lane_count) {
        const Doubles interval = load<Doubles>(block.time + i + 1) - load<Doubles>(block.time + i);
        const Doubles x = -interval / tau_membrane;
        const Doubles y = -interval / tau_adaptation;
        constexpr double small = 0.3465;
        if (__builtin_expect(any((magnitude(x) > small) | (magnitude(y) > small)), 0)) {
            store(block.membrane_factor + i, expOf(x));
            store(block.adaptation_factor + i, expOf(y));
        } else {
            store(block.membrane_factor + i, expOfSmall(x));
            store(block.adaptation_factor + i, expOfSmall(y));
        }
        // Without an interval the factor is 1 and nothing is clipped.
        store(block.clip + i, select(interval == 0.0, all(-1.0), all(neuron.trace_epsilon)));
    }
}

/// Kernel::decayTrace.
KELM_LANE_INLINE double decayedBy(double factor, double value, double clip) {
    double decayed = factor * value;
    // A branch, because the next input waits for this value.
    if (__builtin_expect(clip > __builtin_fabs(decayed), 0) && value != 0) decayed = 0.0;
    return decayed;
}

/// The traces after each input. `coupled`: false if the coupling is 0. The product is then a zero
/// or a NaN. A NaN membrane ends the run, and the sign of a zero is the same again after the next
/// input that is taken by itself.
template <bool coupled>
KELM_LANE_INLINE void computeTraces(RunBlock& block, int inputs, const Kernel::State& state,
                                    double coupling) {
    double membrane = state.membrane;
    double adaptation = state.adaptation;
    for (int i = 0; i < inputs; ++i) {
        membrane = decayedBy(block.membrane_factor[i], membrane, block.clip[i]);
        adaptation = decayedBy(block.adaptation_factor[i], adaptation, block.clip[i]);
        const double value = block.value[i];
        const double input = coupled ? (membrane * coupling) * value + value : value;
        membrane = input + membrane;
        block.membrane[i] = membrane;
        block.adaptation[i] = adaptation;
    }
    for (int i = inputs; i < inputs + lane_count - 1; ++i) {
        block.membrane[i] = 0.0;
        block.adaptation[i] = 0.0;
    }
}

/// Kernel::hazardEstimate. `known`: the lanes in which the estimate is valid.
KELM_LANE_INLINE Doubles hazardEstimate(Doubles membrane, Doubles adaptation,
                                        const Kernel::NeuronModel& model, double drive_bound,
                                        Mask& known) {
    const Doubles weighted = adaptation * model.firing.adaptation_weight;
    const Doubles spread = magnitude(membrane) + magnitude(weighted);
    known = spread + __builtin_fabs(drive_bound) < model.reach;
    const Doubles positive = select(membrane > 0.0, membrane, Doubles{});
    const Doubles inhibition =
        model.adaptation_outlasts_membrane ? weighted : select(weighted < 0.0, weighted, Doubles{});
    const Doubles difference = positive - inhibition;
    const Doubles drive =
        select(difference > 0.0, difference, Doubles{}) + (spread * 0x1p-46 + model.slack);
    const Doubles exponent =
        (((model.margin + drive) + drive_bound) - model.firing.threshold) * model.firing.gain;
    const Doubles p = select(exponent < model.cap, exponent, all(model.cap)) * inv_ln2;
    return fromBits(bitsOf(p + fixed_point) << 32) * model.rate;
}

/// The number of inputs before the first one whose draw may give a candidate before the next input.
KELM_LANE_INLINE int countPassed(const RunBlock& block, int inputs,
                                 const Kernel::NeuronModel& model, double drive_bound,
                                 std::uint64_t rng) {
    Words states = Words{} + rng;
    for (int i = 0; i < lane_count; ++i) {
        states[i] += static_cast<std::uint64_t>(i + 1) * splitmix_increment;
    }
    for (int i = 0; i < inputs; i += lane_count) {
        const Doubles u = uniformOf(states);
        const Doubles room =
            (load<Doubles>(block.time + i + 2) - load<Doubles>(block.time + i + 1)) + 1.0;
        Mask known;
        const Doubles estimate =
            hazardEstimate(load<Doubles>(block.membrane + i), load<Doubles>(block.adaptation + i),
                           model, drive_bound, known);
        const Mask passed = known & ((1.0 - u) * 1e9 > estimate * room);
        if (any(~passed)) {
            int lane = 0;
            while (lane < lane_count && passed[lane] != 0) ++lane;
            if (i + lane < inputs) return i + lane;
        }
        states += static_cast<std::uint64_t>(lane_count) * splitmix_increment;
    }
    return inputs;
}

/// See Kernel::runInputs.
std::uint32_t runInputs(Kernel::State& state, std::uint64_t& rng, const Kernel::NeuronModel& model,
                        const Kernel::WindowEvent* events, std::uint32_t count, ModelTime end,
                        double drive_bound) {
    const Kernel::Neuron& neuron = model.neuron;
    if (neuron.non_leaky || !(model.reach > 0) || end > greatest_run_end) return 0;
    if (state.last_update < 0 || events[0].time < state.last_update) return 0;
    // A draw starts at the end of the refractory time if that is later than the input. Its
    // candidate is then later still.
    if (neuron.hard_refractory && state.refractory_until >= end) return 0;

    RunBlock block;
    std::uint32_t done = 0;
    while (true) {
        block.time[0] = static_cast<double>(state.last_update);
        const int inputs = readInputs(block, events + done, count - done, end);
        if (inputs <= 0) return done;
        computeFactors(block, inputs, neuron);
        if (neuron.input_coupling == 0) {
            computeTraces<false>(block, inputs, state, 0.0);
        } else {
            computeTraces<true>(block, inputs, state, neuron.input_coupling);
        }
        const int passed = countPassed(block, inputs, model, drive_bound, rng);
        if (passed > 0) {
            state.membrane = block.membrane[passed - 1];
            state.adaptation = block.adaptation[passed - 1];
            state.last_update = events[done + static_cast<std::uint32_t>(passed) - 1].time;
            rng += static_cast<std::uint64_t>(passed) * splitmix_increment;
            done += static_cast<std::uint32_t>(passed);
        }
        if (passed < run_block) return done;
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm::Lanes
