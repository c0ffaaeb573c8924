// Vectors of doubles, and the portable mathematics over them. A source file for one instruction set
// defines KELM_LANE_COUNT before it includes this file, and is compiled for that set.
//
// Each lane performs the operations of Kernel::kernelExp, kernelLog and drawUniform in their order
// and so computes their bits. A branch becomes a selection: both sides are computed, and a lane
// drops one. Everything has internal linkage, because the linker could keep the copy that was
// compiled for the wrong processor. For the same reason only constants and plain records of other
// headers may be used.

#pragma once

#if KELM_LANE_COUNT > 2
#include <immintrin.h>
#endif

#include <cstdint>

#include "kelm/core/PortableMath.h"
#include "kelm/core/SplitMix64.h"

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
#elif KELM_LANE_COUNT == 4
    return _mm256_movemask_pd(reinterpret_cast<__m256d>(mask)) != 0;
#else
    return (mask[0] | mask[1]) != 0;
#endif
}

constexpr double infinity = __builtin_inf();

/// The part of Kernel::kernelExp behind its reduction: of r = hi - lo. With lo = 0 it is the whole
/// exponential of 0, and of r if the magnitude of r is from 2^-28 to 0.3465: k is then 0 in expOf.
KELM_LANE_INLINE Doubles expOfReduced(Doubles r, Doubles hi, Doubles lo) {
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
    return 1.0 - ((lo - q / (2.0 - c)) - hi);
}

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

    Doubles y = expOfReduced(r, hi, lo);

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

/// splitmixOutput.
KELM_LANE_INLINE Words splitmixOf(Words z) {
    z = (z ^ (z >> 30)) * std::uint64_t{0xbf58476d1ce4e5b9};
    z = (z ^ (z >> 27)) * std::uint64_t{0x94d049bb133111eb};
    return z ^ (z >> 31);
}

/// Kernel::drawUniform after the step of the state.
KELM_LANE_INLINE Doubles uniformOf(Words state) {
    const Words z = splitmixOf(state) >> 11;
    // 21 and 32 bits, each as the low bits of a larger power of two. Differences and sum are exact.
    const Doubles high = fromBits((z >> 32) | std::uint64_t{0x4530000000000000}) - 0x1p84;
    const Doubles low =
        fromBits((z & std::uint64_t{0xffffffff}) | std::uint64_t{0x4330000000000000}) - 0x1p52;
    return (high + low) * 0x1p-53;
}

/// 1 - uniformOf(state), less 2^-32 at most. Never more than that difference.
KELM_LANE_INLINE Doubles distanceFromOne(Words state) {
    const Doubles upper = fromBits((splitmixOf(state) >> 32) | std::uint64_t{0x4330000000000000});
    return ((0x1p52 + 0x1p32 - 1.0) - upper) * 0x1p-32;
}

}  // namespace

}  // namespace Lumenar::Core::Kelm::Lanes
