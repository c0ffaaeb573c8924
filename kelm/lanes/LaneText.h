// The kernel's formulas over vectors of doubles. A source file for one instruction set defines
// KELM_LANE_COUNT and KELM_LANE_KERNELS (the table's name), includes this file once and is compiled
// for that set.
//
// Each lane performs the operations of Kernel::kernelExp, kernelLog, advanceTraces and
// nextCandidate in their order and so computes their bits. A branch becomes a selection: both sides
// are computed, and a lane drops one. Everything has internal linkage (see LaneKernels.h), and only
// constants of the kernel's headers are used.

#include <immintrin.h>

#include <cstdint>

#include "kelm/core/PortableMath.h"
#include "kelm/core/SplitMix64.h"
#include "kelm/lanes/LaneKernels.h"

#define KELM_LANE_INLINE [[gnu::always_inline]] inline

namespace Lumenar::Core::Kelm::Lanes {

namespace {

using namespace Kernel::PortableMathConstants;

constexpr int lane_count = KELM_LANE_COUNT;
typedef double Doubles __attribute__((vector_size(lane_count * 8)));
typedef std::int64_t Integers __attribute__((vector_size(lane_count * 8)));
typedef std::uint64_t Words __attribute__((vector_size(lane_count * 8)));
typedef std::int32_t Counts __attribute__((vector_size(lane_count * 4)));
/// A lane has all bits set if a comparison holds, else none.
using Mask = Integers;

template <class Vector, class Element>
KELM_LANE_INLINE Vector load(const Element* from) {
    Vector value;
    __builtin_memcpy(&value, from, sizeof value);
    return value;
}
template <class Vector, class Element>
KELM_LANE_INLINE void store(Element* to, Vector value) {
    __builtin_memcpy(to, &value, sizeof value);
}
KELM_LANE_INLINE Words bitsOf(Doubles x) { return reinterpret_cast<Words>(x); }
KELM_LANE_INLINE Doubles fromBits(Words bits) { return reinterpret_cast<Doubles>(bits); }
KELM_LANE_INLINE Doubles magnitude(Doubles x) {
    return fromBits(bitsOf(x) & std::uint64_t{0x7fffffffffffffff});
}
/// The same value in every lane. Not for -0.0, which the sum with zero turns into 0.0.
KELM_LANE_INLINE Doubles all(double x) { return Doubles{} + x; }
KELM_LANE_INLINE Doubles select(Mask mask, Doubles a, Doubles b) { return mask ? a : b; }
KELM_LANE_INLINE Integers select(Mask mask, Integers a, Integers b) { return mask ? a : b; }

KELM_LANE_INLINE bool any(Mask mask) {
#if KELM_LANE_COUNT == 8
    return _mm512_movepi64_mask(reinterpret_cast<__m512i>(mask)) != 0;
#else
    return _mm256_movemask_pd(reinterpret_cast<__m256d>(mask)) != 0;
#endif
}

constexpr double infinity = __builtin_inf();

/// Kernel::kernelExp.
///
/// Its three reductions are one here. With k = 0 the general one gives hi = x and lo = 0, and the
/// general formula then rounds as the shorter one does, whose quotient and difference only have the
/// other sign. Arguments outside the range are limited to values that the general scaling turns
/// into infinity and 0.
KELM_LANE_INLINE Doubles expOf(Doubles argument) {
    const Mask is_nan = argument != argument;
    Doubles x = select(is_nan, Doubles{}, argument);
    x = select(x > 710.0, all(710.0), x);
    x = select(x < -746.0, all(-746.0), x);

    const Words sign = bitsOf(x) & std::uint64_t{0x8000000000000000};
    const Doubles size = magnitude(x);
    const Doubles half = fromBits(sign | std::uint64_t{0x3fe0000000000000});
    const Doubles one = fromBits(sign | std::uint64_t{0x3ff0000000000000});
    // The conversion truncates. Magnitudes have the order of their bit patterns.
    Doubles k =
        __builtin_convertvector(__builtin_convertvector(x * inv_ln2 + half, Counts), Doubles);
    constexpr double one_below = __builtin_bit_cast(double, std::uint64_t{0x3ff0a2b200000000});
    constexpr double zero_up_to = __builtin_bit_cast(double, std::uint64_t{0x3fd62e4200000000});
    k = select(size < one_below, one, k);
    k = select(size > zero_up_to, k, Doubles{});
    const Doubles hi = x - k * ln2_hi;
    const Doubles lo = k * ln2_lo;
    const Doubles r = hi - lo;

    const Doubles z = r * r;
    Doubles p = z * e5;
    p = p - e4;
    p = p * z;
    p = p + e3;
    p = p * z;
    p = p - e2;
    p = p * z;
    p = p + e1;
    p = p * z;
    const Doubles c = r - p;
    const Doubles q = c * r;
    Doubles y = 1.0 - ((lo - q / (2.0 - c)) - hi);

    const Mask above = k > 1023.0;
    const Mask below = k < -1022.0;
    if (__builtin_expect(any(above | below), 0)) {
        y = y * select(above, all(two_1023), select(below, all(two_m1022), all(1.0)));
        k = k - select(above, all(1023.0), select(below, all(-1022.0), Doubles{}));
    }
    // The sum's lowest bits are k + 1023 as an integer: the exponent field of 2 to the k.
    y = y * fromBits(bitsOf(k + (0x1.8p52 + 1023.0)) << 52);
    y = select(size < 0x1p-28, x + 1.0, y);
    return select(is_nan, argument, y);
}

/// Kernel::kernelLog. With k = 0 its longer formulas round as the shorter ones do, for the same
/// reason as in expOf.
KELM_LANE_INLINE Doubles logOf(Doubles x) {
    const Mask subnormal = x < 0x1p-1022;
    const Words bits = bitsOf(select(subnormal, x * two_54, x));
    const Words h = bits >> 32;
    const Words m = h & std::uint64_t{0xfffff};
    const Words i = (m + std::uint64_t{0x95f64}) & std::uint64_t{0x100000};
    const Doubles w = fromBits(((m | (i ^ std::uint64_t{0x3ff00000})) << 32) |
                               (bits & std::uint64_t{0xffffffff}));
    const Doubles f = w - 1.0;
    // k + 1023 in the lowest bits of 2^52 is the double of that integer above 2^52.
    const Words k = (h >> 20) + (i >> 20);
    Doubles d = fromBits(k | std::uint64_t{0x4330000000000000}) - (0x1p52 + 1023.0);
    d = select(subnormal, d - 54.0, d);
    const Doubles d_lo = d * ln2_lo;

    const Doubles near_remainder = (0.5 - f * third) * (f * f);
    const Doubles g = (f * 0.5) * f;
    const Doubles s = f / (f + 2.0);
    const Doubles z = s * s;
    const Doubles v = z * z;
    const Doubles t2 = (((v * l7 + l5) * v + l3) * v + l1) * z;
    const Doubles t1 = ((v * l6 + l4) * v + l2) * v;
    const Doubles remainder = ((t2 + t1) + g) * s;
    const Mask near_one = ((m + std::uint64_t{2}) & std::uint64_t{0xfffff}) < std::uint64_t{3};
    const Doubles inner = select(near_one, near_remainder - d_lo, g - (d_lo + remainder));
    Doubles y = d * ln2_hi - (inner - f);

    const Mask ordinary = (x > 0.0) & (x < infinity);
    if (__builtin_expect(any(~ordinary), 0)) {
        const Mask negative = x < 0.0;
        y = select(x == 0.0, all(-infinity), y);
        y = select(negative, fromBits(Words{} + std::uint64_t{0x7ff8000000000000}), y);
        y = select((x == infinity) | (x != x), x, y);
    }
    return y;
}

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
///
/// If both terms are positive (which follows from a positive weight, adaptation and ratio) and the
/// membrane decays faster, the interior extremum is a minimum, and a sample there cannot exceed the
/// drive at the start. This is true for the rounded values too under the conditions of
/// minimumAdaptation (LaneCpuBackend.cpp) and for x := ratio - 1 of at least 1/64. Let W be the
/// weighted adaptation, S the sum of both terms at the start, k1 and k2 the rates. Up to half the
/// way to the minimum the slope is at least W * k2 * exp(-k2 * t) * (sqrt(ratio) - 1). So the drive
/// falls by more than 0.09 * min(1, k2 / (k1 - k2)) * x^2 * W for x up to 1, and in proportion to S
/// for larger x: with k2 at least k1 / 1024 by more than 7e-9 * S. The errors are smaller: the
/// rounding of the samples below 1e-14 * S, their distance from the minimum of up to 1.5 ns below
/// 1e-10 * S, and the clipping of the adaptation below its weight times trace_epsilon.
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
    const Mask minimum =
        (ratio >= 1.0 + 0x1p-6) & (traces.adaptation >= constants.minimum_adaptation) & ~moved;
    inside = inside & ~minimum;
    // The logarithm has the sign of ratio - 1; the shift must be positive.
    inside = inside & (k1 > k2 ? Mask(ratio > 1.0) : Mask(ratio < 1.0));
    if (!any(inside)) return bound;

    const Doubles shift = logOf(ratio) / (k1 - k2);
    const Doubles extremum = start + shift;
    inside = inside & (shift > 0.0) & (shift < infinity) & (extremum > start) & (extremum < to);
    if (!any(inside)) return bound;
    // Truncation of a number between 0 and 2^51: to the nearest integer, less 1 if that is larger.
    const Doubles nearest = (extremum + 0x1p52) - 0x1p52;
    const Doubles before = select(nearest > extremum, nearest - 1.0, nearest);
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
        traces = tracesAfter(traces, interval, any(traces.adaptation != 0.0), constants);
        const Doubles value = load<Doubles>(block.value + i);
        const Doubles driven =
            ((traces.membrane * constants.input_coupling) * value + value) + traces.membrane;
        store(block.membrane + i, select(load<Mask>(block.is_input + i), driven, traces.membrane));
        store(block.adaptation + i, traces.adaptation);
        store(block.last_update + i, time);
    }
}

/// Kernel::drawUniform after the step of the state.
KELM_LANE_INLINE Doubles uniformOf(Words z) {
    z = (z ^ (z >> 30)) * std::uint64_t{0xbf58476d1ce4e5b9};
    z = (z ^ (z >> 27)) * std::uint64_t{0x94d049bb133111eb};
    z = (z ^ (z >> 31)) >> 11;
    // 21 and 32 bits, each as the low bits of a larger power of two. Differences and sum are exact.
    const Doubles high = fromBits((z >> 32) | std::uint64_t{0x4530000000000000}) - 0x1p84;
    const Doubles low =
        fromBits((z & std::uint64_t{0xffffffff}) | std::uint64_t{0x4330000000000000}) - 0x1p52;
    return (high + low) * 0x1p-53;
}

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
        const Doubles drive = netDriveBound(state, load<Doubles>(block.last_update + i),
                                            start_rounded, any(state.adaptation != 0.0), constants);
        // The zero is the bound of the absent external drive. It turns -0.0 into 0.0.
        const Doubles x = ((constants.margin + drive) + 0.0) - constants.threshold;
        const Doubles exponent = x * constants.gain;
        const Doubles bound =
            expOf(select(exponent < constants.cap, exponent, all(constants.cap))) * constants.rate;
        const Mask none = (start >= constants.horizon) | (bound == 0.0);

        const Words rng = load<Words>(block.rng + i);
        const Words next = rng + splitmix_increment;
        Doubles u = uniformOf(next);
        u = select(u == 0.0, all(two_m1022), u);
        store(block.start + i, start);
        store(block.bound + i, select(none, Doubles{}, bound));
        store(block.wait + i, -logOf(u) / bound * 1e9);
        store(block.rng + i,
              select(none, reinterpret_cast<Integers>(rng), reinterpret_cast<Integers>(next)));
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
const LaneKernels KELM_LANE_KERNELS = {KELM_LANE_SET, lane_count,   advance,
                                       redraw,        exponentials, logarithms};

}  // namespace Lumenar::Core::Kelm::Lanes
