// The kernel's formulas over vectors of doubles. A source file for one instruction set defines
// KELM_LANE_COUNT and KELM_LANE_KERNELS (the table's name), includes this file once and is compiled
// for that set. See LaneMath.h for what such a text may use.
//
// Each lane performs the operations of Kernel::advanceTraces and nextCandidate in their order.

#include <cstdint>

#include "kelm/kernel/InputRunText.h"
#include "kelm/kernel/LaneMath.h"
#include "kelm/lanes/LaneKernels.h"

namespace Lumenar::Core::Kelm::Lanes {

namespace {

/// Kernel::decayTrace.
KELM_LANE_INLINE Doubles decayed(Doubles value, Doubles interval, double tau, double epsilon) {
    const Doubles after = expOf(-interval / tau) * value;
    const Doubles clipped = select(epsilon > magnitude(after), Doubles{}, after);
    return select((value == 0.0) | (interval == 0.0), value, clipped);
}

struct TraceLanes {
    Doubles membrane;
    Doubles adaptation;
};

/// Kernel::tracesAfter. Neurons without an adaptation trace save the second exponential.
KELM_LANE_INLINE TraceLanes tracesAfter(TraceLanes traces, Doubles interval, bool adapted,
                                        const LaneConstants& constants) {
    return {constants.non_leaky ? traces.membrane
                                : decayed(traces.membrane, interval, constants.tau_membrane,
                                          constants.trace_epsilon),
            adapted ? decayed(traces.adaptation, interval, constants.tau_adaptation,
                              constants.trace_epsilon)
                    : traces.adaptation};
}

/// Kernel::netDriveAt.
KELM_LANE_INLINE Doubles netDriveAfter(TraceLanes traces, Doubles interval, bool adapted,
                                       const LaneConstants& constants) {
    const TraceLanes later = tracesAfter(traces, interval, adapted, constants);
    return 0.0 + (later.membrane - later.adaptation * constants.adaptation_weight);
}

/// Kernel::largerDrive.
KELM_LANE_INLINE Doubles larger(Doubles a, Doubles b) { return select(a > b, a, b); }

/// Kernel::netDriveBound. `last`, `start`: ns, rounded.
KELM_LANE_INLINE Doubles netDriveBound(TraceLanes state, Doubles last, Doubles start, bool adapted,
                                       const LaneConstants& constants) {
    const Doubles to = all(constants.horizon_rounded);
    const Doubles interval = start - last;
    const Mask moved = interval != 0.0;
    TraceLanes traces = state;
    if (any(moved)) traces = tracesAfter(state, interval, adapted, constants);
    const Doubles weighted = traces.adaptation * constants.adaptation_weight;
    Doubles bound = (traces.membrane - weighted) + 0.0;
    bound = larger(bound, netDriveAfter(state, to - last, adapted, constants));

    const double k1 = constants.membrane_decay;
    const double k2 = constants.adaptation_decay;
    if (constants.non_leaky || !adapted || k1 == k2) return bound;
    const Doubles ratio = (traces.membrane * k1) / (weighted * k2);
    Mask inside = (traces.membrane != 0.0) & (weighted != 0.0) & (ratio > 0.0);
    const Mask minimum = (ratio >= 1.0 + 0x1p-6) &
                         (traces.adaptation >= constants.minimum_adaptation) & ~moved &
                         (start < 0x1p51);
    inside = inside & ~minimum;
    // The logarithm has the sign of ratio - 1; the shift must be positive.
    inside = inside & (k1 > k2 ? Mask(ratio > 1.0) : Mask(ratio < 1.0));
    if (!any(inside)) return bound;

    const Doubles shift = logOf(ratio) / (k1 - k2);
    const Doubles extremum = start + shift;
    inside = inside & (shift > 0.0) & (shift < infinity) & (extremum > start) & (extremum < to);
    if (!any(inside)) return bound;
    // Truncation: to the nearest integer, less 1 if that is larger. From 2^52 on all are integers.
    const Doubles nearest = (extremum + 0x1p52) - 0x1p52;
    const Doubles truncated = select(nearest > extremum, nearest - 1.0, nearest);
    const Doubles before = select(extremum < 0x1p52, truncated, extremum);
    Doubles sampled = larger(bound, netDriveAfter(state, before - last, adapted, constants));
    const Doubles after =
        larger(sampled, netDriveAfter(state, (before + 1.0) - last, adapted, constants));
    sampled = select(before < to, after, sampled);
    return select(inside, sampled, bound);
}

void advance(LaneBlock& block, int count, const LaneConstants& constants) {
    for (int i = 0; i < count; i += lane_count) {
        TraceLanes traces = {load<Doubles>(block.membrane + i),
                             load<Doubles>(block.adaptation + i)};
        const Doubles time = load<Doubles>(block.time + i);
        const Doubles interval = time - load<Doubles>(block.last_update + i);
        const Mask is_input = load<Mask>(block.is_input + i);
        // Steps behind runs of inputs are at their times already.
        if (!any((interval != 0.0) | is_input)) continue;
        traces = tracesAfter(traces, interval, any(traces.adaptation != 0.0), constants);
        const Doubles value = load<Doubles>(block.value + i);
        const Doubles driven =
            ((traces.membrane * constants.input_coupling) * value + value) + traces.membrane;
        store(block.membrane + i, select(is_input, driven, traces.membrane));
        store(block.adaptation + i, traces.adaptation);
        store(block.last_update + i, time);
    }
}

// In several loops: the processor then works on several vectors at a time, because the next vector
// is near in the stream of instructions.
void redraw(LaneBlock& block, int count, const LaneConstants& constants) {
    for (int i = 0; i < count; i += lane_count) {
        const TraceLanes state = {load<Doubles>(block.membrane + i),
                                  load<Doubles>(block.adaptation + i)};
        Integers start = load<Integers>(block.step_time + i);
        Doubles start_rounded = load<Doubles>(block.time + i);
        if (constants.hard_refractory) {
            const Integers until = load<Integers>(block.refractory_until + i);
            const Mask refractory = until > start;
            start = select(refractory, until, start);
            start_rounded = select(refractory, load<Doubles>(block.refractory + i), start_rounded);
        }
        store(block.start + i, start);
        const Doubles drive = netDriveBound(state, load<Doubles>(block.last_update + i),
                                            start_rounded, any(state.adaptation != 0.0), constants);
        // The zero is the bound of the absent external drive. It turns -0.0 into 0.0.
        const Doubles x = ((constants.margin + drive) + 0.0) - constants.threshold;
        const Doubles exponent = x * constants.gain;
        store(block.bound + i, select(exponent < constants.cap, exponent, all(constants.cap)));
    }
    for (int i = 0; i < count; i += lane_count) {
        const Doubles bound = expOf(load<Doubles>(block.bound + i)) * constants.rate;
        const Mask none = (load<Integers>(block.start + i) >= constants.horizon) | (bound == 0.0);
        const Words rng = load<Words>(block.rng + i);
        const Words next = rng + splitmix_increment;
        store(block.bound + i, select(none, Doubles{}, bound));
        store(block.rng + i,
              select(none, reinterpret_cast<Integers>(rng), reinterpret_cast<Integers>(next)));
        Doubles u = uniformOf(next);
        u = select(u == 0.0, all(two_m1022), u);
        store(block.wait + i, u);
    }
    for (int i = 0; i < count; i += lane_count) {
        store(block.wait + i,
              -logOf(load<Doubles>(block.wait + i)) / load<Doubles>(block.bound + i) * 1e9);
    }
}

void exponentials(const double* arguments, double* values, std::int64_t count) {
    for (std::int64_t i = 0; i < count; i += lane_count) {
        store(values + i, expOf(load<Doubles>(arguments + i)));
    }
}

void logarithms(const double* arguments, double* values, std::int64_t count) {
    for (std::int64_t i = 0; i < count; i += lane_count) {
        store(values + i, logOf(load<Doubles>(arguments + i)));
    }
}

}  // namespace

extern const LaneKernels KELM_LANE_KERNELS;
const LaneKernels KELM_LANE_KERNELS = {KELM_LANE_SET, lane_count, advance,  redraw,
                                       exponentials,  logarithms, runInputs};

}  // namespace Lumenar::Core::Kelm::Lanes
