#pragma once

#include <bit>
#include <cstdint>

#include "kelm/core/HostDevice.h"

// The exponential, logarithm and sine of the neuron kernel. They use only additions,
// multiplications, divisions, comparisons and bit operations, which IEEE 754 defines to the last
// bit, so a CPU and a device compute the same bits. The order of operations is part of the result:
// nothing here may be reassociated, contracted or shared.
//
// Polynomials: fdlibm (Sun Microsystems, 1993), e_exp.c, e_log.c, k_sin.c and k_cos.c. The control
// flow around them is this system's own.

namespace Lumenar::Core::Kelm::Kernel {

KELM_HD constexpr std::uint64_t bitsOf(double value) { return std::bit_cast<std::uint64_t>(value); }
KELM_HD constexpr double fromBits(std::uint64_t bits) { return std::bit_cast<double>(bits); }

KELM_HD constexpr double infinity() { return fromBits(0x7ff0000000000000); }
KELM_HD constexpr double quietNan() { return fromBits(0x7ff8000000000000); }
KELM_HD constexpr bool isNan(double value) { return value != value; }
/// True for NaN and for the two infinities.
KELM_HD constexpr bool isNotFinite(double value) {
    return (bitsOf(value) & 0x7ff0000000000000) == 0x7ff0000000000000;
}
/// Clears the sign bit, also that of a NaN.
KELM_HD constexpr double magnitude(double value) {
    return fromBits(bitsOf(value) & 0x7fffffffffffffff);
}

namespace PortableMathConstants {

inline constexpr double exp_overflow = 709.782712893384;
inline constexpr double exp_underflow = -745.1332191019411;
inline constexpr double ln2_hi = 0.6931471803691238;
inline constexpr double ln2_lo = 1.9082149292705877e-10;
inline constexpr double inv_ln2 = 1.4426950408889634;
inline constexpr double e1 = 0.16666666666666602;
inline constexpr double e2 = 0.0027777777777015593;
inline constexpr double e3 = 6.613756321437934e-05;
inline constexpr double e4 = 1.6533902205465252e-06;
inline constexpr double e5 = 4.1381367970572385e-08;
inline constexpr double two_1023 = 8.98846567431158e+307;
inline constexpr double two_m1022 = 2.2250738585072014e-308;
inline constexpr double two_54 = 18014398509481984.0;
inline constexpr double l1 = 0.6666666666666735;
inline constexpr double l2 = 0.3999999999940942;
inline constexpr double l3 = 0.2857142874366239;
inline constexpr double l4 = 0.22222198432149784;
inline constexpr double l5 = 0.1818357216161805;
inline constexpr double l6 = 0.15313837699209373;
inline constexpr double l7 = 0.14798198605116586;
inline constexpr double third = 0.3333333333333333;
inline constexpr double pi_4 = 0.7853981633974483;
inline constexpr double pi_2 = 1.5707963267948966;
inline constexpr double pi = 3.141592653589793;
inline constexpr double two_pi = 6.283185307179586;
inline constexpr double s1 = 0.16666666666666632;
inline constexpr double s2 = 0.00833333333332249;
inline constexpr double s3 = 0.0001984126982985795;
inline constexpr double s4 = 2.7557313707070068e-06;
inline constexpr double s5 = 2.5050760253406863e-08;
inline constexpr double s6 = 1.58969099521155e-10;
inline constexpr double c1 = 0.0416666666666666;
inline constexpr double c2 = 0.001388888888887411;
inline constexpr double c3 = 2.480158728947673e-05;
inline constexpr double c4 = 2.7557314351390663e-07;
inline constexpr double c5 = 2.087572321298175e-09;
inline constexpr double c6 = 1.1359647557788195e-11;
/// Added to a logarithm of base 2, gives the exponent and 20 bits of the mantissa in the lowest
/// bits.
inline constexpr double fixed_point = 0x1p32 + 1023.0 + 0x1p-20;

// The decimals are the shortest ones. A compiler that converts one wrongly must fail here.
static_assert(bitsOf(exp_overflow) == 0x40862e42fefa39ef);
static_assert(bitsOf(exp_underflow) == 0xc0874910d52d3051);
static_assert(bitsOf(ln2_hi) == 0x3fe62e42fee00000 && bitsOf(ln2_lo) == 0x3dea39ef35793c76);
static_assert(bitsOf(inv_ln2) == 0x3ff71547652b82fe);
static_assert(bitsOf(e1) == 0x3fc555555555553e && bitsOf(e2) == 0x3f66c16c16bebd93);
static_assert(bitsOf(e3) == 0x3f11566aaf25de2c && bitsOf(e4) == 0x3ebbbd41c5d26bf1);
static_assert(bitsOf(e5) == 0x3e66376972bea4d0);
static_assert(bitsOf(two_1023) == 0x7fe0000000000000);
static_assert(bitsOf(two_m1022) == 0x0010000000000000);
static_assert(bitsOf(two_54) == 0x4350000000000000);
static_assert(bitsOf(l1) == 0x3fe5555555555593 && bitsOf(l2) == 0x3fd999999997fa04);
static_assert(bitsOf(l3) == 0x3fd2492494229359 && bitsOf(l4) == 0x3fcc71c51d8e78af);
static_assert(bitsOf(l5) == 0x3fc7466496cb03de && bitsOf(l6) == 0x3fc39a09d078c69f);
static_assert(bitsOf(l7) == 0x3fc2f112df3e5244 && bitsOf(third) == 0x3fd5555555555555);
static_assert(bitsOf(pi_4) == 0x3fe921fb54442d18 && bitsOf(pi_2) == 0x3ff921fb54442d18);
static_assert(bitsOf(pi) == 0x400921fb54442d18 && bitsOf(two_pi) == 0x401921fb54442d18);
static_assert(bitsOf(s1) == 0x3fc5555555555549 && bitsOf(s2) == 0x3f8111111110f8a6);
static_assert(bitsOf(s3) == 0x3f2a01a019c161d5 && bitsOf(s4) == 0x3ec71de357b1fe7d);
static_assert(bitsOf(s5) == 0x3e5ae5e68a2b9ceb && bitsOf(s6) == 0x3de5d93a5acfd57c);
static_assert(bitsOf(c1) == 0x3fa555555555554c && bitsOf(c2) == 0x3f56c16c16c15177);
static_assert(bitsOf(c3) == 0x3efa01a019cb1590 && bitsOf(c4) == 0x3e927e4f809c52ad);
static_assert(bitsOf(c5) == 0x3e21ee9ebdb4b1c4 && bitsOf(c6) == 0x3da8fae9be8838d4);

}  // namespace PortableMathConstants

/// 2 to the k, for the k of a normal double.
KELM_HD constexpr double powerOfTwo(std::int32_t k) {
    return fromBits(static_cast<std::uint64_t>(k + 1023) << 52);
}

/// An upper bound of 2 to the p, for |p| below 1000, at most 7 % above it; 0 for an infinity or a
/// NaN. Not a step of the model: it only tells which steps have no effect.
///
/// Between two powers of two, 2^p lies below its chord, and the chord is what a double whose
/// exponent and mantissa fields together hold p as a fixed-point number is. The sum rounds that
/// number to 20 fractional bits, so 2^-20 is added before. The result is thus above 2^p by more
/// than one part in 2^22, which leaves room for the rounding errors of a few operations.
KELM_HD constexpr double powerOfTwoBound(double p) {
    return fromBits(bitsOf(p + PortableMathConstants::fixed_point) << 32);
}

/// The k with x = k * ln2 + r and |r| at most about ln2 / 2, for a finite x. `a`: the bits of |x|.
/// Selections instead of branches, because no processor can predict the arguments.
KELM_HD inline std::int32_t exponentOf(double x, std::uint64_t a) {
    using namespace PortableMathConstants;
    constexpr std::uint64_t half = bitsOf(0.5);
    const double rounding = fromBits(half | (bitsOf(x) & 0x8000000000000000));
    const auto nearest = static_cast<std::int32_t>(x * inv_ln2 + rounding);
    const std::int32_t unit = x > 0 ? 1 : -1;
    const std::int32_t k = a < 0x3ff0a2b200000000 ? unit : nearest;
    return a > 0x3fd62e4200000000 ? k : 0;
}

/// e to the x, divided by 2 to the k, for k = exponentOf(x).
///
/// k = 0 is no separate case: the terms with k are then exact zeros, q / (2 - c) is minus
/// q / (c - 2), and neither is 0 for |x| of at least 2^-28.
KELM_HD inline double expOfRemainder(double x, std::int32_t k) {
    using namespace PortableMathConstants;
    const double t = static_cast<double>(k);
    const double hi = x - t * ln2_hi;
    const double lo = t * ln2_lo;
    const double r = hi - lo;
    const double z = r * r;
    double p = z * e5;
    p = p - e4;
    p = p * z;
    p = p + e3;
    p = p * z;
    p = p - e2;
    p = p * z;
    p = p + e1;
    p = p * z;
    const double c = r - p;
    const double q = c * r;
    return 1.0 - ((lo - q / (2.0 - c)) - hi);
}

/// kernelExp of very small and very large numbers, infinities and NaN.
KELM_HD inline double expOfExtreme(double x, std::uint64_t a) {
    using namespace PortableMathConstants;
    if (isNan(x)) return x;
    if (x > exp_overflow) return infinity();
    if (x < exp_underflow) return 0.0;
    if (a < 0x3e30000000000000) return x + 1.0;
    std::int32_t k = exponentOf(x, a);
    double y = expOfRemainder(x, k);
    // Results near the ends of the range are scaled in steps, each by a normal double.
    if (k > 1023) {
        y = y * two_1023;
        k = k - 1023;
        if (k > 1023) {
            k = k - 1023;
            y = y * two_1023;
            if (k > 1023) k = 1023;
        }
    } else if (k < -1022) {
        y = y * two_m1022;
        k = k + 1022;
        if (k < -1022) {
            k = k + 1022;
            y = y * two_m1022;
            if (k < -1022) k = -1022;
        }
    }
    return y * powerOfTwo(k);
}

/// e to the x, within one unit in the last place. Infinity above 709.78, +0.0 below -745.13, and a
/// NaN unchanged.
KELM_HD inline double kernelExp(double x) {
    // One test for 2^-28 <= |x| < 708, where the result needs no scaling in steps.
    constexpr std::uint64_t least = 0x3e30000000000000;
    constexpr std::uint64_t end = bitsOf(708.0);
    const std::uint64_t a = bitsOf(x) & 0x7fffffffffffffff;
    if (a - least >= end - least) return expOfExtreme(x, a);
    const std::int32_t k = exponentOf(x, a);
    return expOfRemainder(x, k) * powerOfTwo(k);
}

/// kernelLog of 2^e times the positive normal number with these bits.
///
/// After the series near 1, k = 0 is no separate case: the terms with k are then exact zeros, and
/// 0 - (a - f) has the bits of f - a.
KELM_HD inline double logOfNormal(std::uint64_t bits, std::int32_t e) {
    using namespace PortableMathConstants;
    // x = w * 2^k with w between about sqrt(1/2) and sqrt(2).
    const auto h = static_cast<std::uint32_t>(bits >> 32);
    const std::uint32_t m = h & 0xfffff;
    const std::uint32_t i = (m + 0x95f64) & 0x100000;
    const std::int32_t k =
        static_cast<std::int32_t>(h >> 20) - 1023 + static_cast<std::int32_t>(i >> 20) + e;
    const double w =
        fromBits((static_cast<std::uint64_t>(m | (i ^ 0x3ff00000)) << 32) | (bits & 0xffffffff));
    const double f = w - 1.0;
    const double d = static_cast<double>(k);

    if (((m + 2) & 0xfffff) < 3) {
        // w is within 2^-20 of 1, where two terms of the series are enough.
        if (f == 0) {
            if (k == 0) return 0.0;
            return d * ln2_lo + d * ln2_hi;
        }
        const double remainder = (0.5 - f * third) * (f * f);
        if (k == 0) return f - remainder;
        return d * ln2_hi - ((remainder - d * ln2_lo) - f);
    }

    const double g = (f * 0.5) * f;
    const double s = f / (f + 2.0);
    const double z = s * s;
    const double v = z * z;
    const double t2 = (((v * l7 + l5) * v + l3) * v + l1) * z;
    const double t1 = ((v * l6 + l4) * v + l2) * v;
    const double remainder = ((t2 + t1) + g) * s;
    return d * ln2_hi - ((g - (d * ln2_lo + remainder)) - f);
}

/// Natural logarithm. Negative infinity for a zero of either sign, the quiet NaN for a negative
/// number, infinity and NaN unchanged. Subnormal arguments are exact.
KELM_HD inline double kernelLog(double x) {
    constexpr std::uint64_t least_normal = 0x0010000000000000;
    const std::uint64_t bits = bitsOf(x);
    if (bits - least_normal < bitsOf(infinity()) - least_normal) return logOfNormal(bits, 0);
    if (isNan(x)) return x;
    if (x == 0.0) return -infinity();
    if (bits >> 63) return quietNan();
    if (x == infinity()) return x;
    return logOfNormal(bitsOf(x * PortableMathConstants::two_54), -54);
}

/// Sine of x radians. The reduction is one subtraction in double precision, so the error grows
/// with |x|; it is part of the function. The quiet NaN for an infinity and for an argument whose
/// count of periods does not fit 64 bits. A NaN is returned unchanged.
KELM_HD inline double kernelSin(double x) {
    using namespace PortableMathConstants;
    if (isNan(x)) return x;
    const double periods = x / two_pi + (x >= 0 ? 0.5 : -0.5);
    // Outside these limits the conversion differs between processors.
    if (!(periods < 9223372036854775808.0 && periods > -9223372036854775808.0)) return quietNan();
    const auto n = static_cast<std::int64_t>(periods);
    double r = x - static_cast<double>(n) * two_pi;
    if (r > pi_2) {
        r = pi - r;
    } else if (r < -pi_2) {
        r = -pi - r;
    }
    const double a = magnitude(r);
    if (a > pi_4) {
        const double y = pi_2 - a;
        const double z = y * y;
        double p = c5 - z * c6;
        p = p * z - c4;
        p = p * z + c3;
        p = p * z - c2;
        p = p * z + c1;
        const double c = 1.0 - (z * 0.5 - (p * z) * z);
        return r < 0 ? -c : c;
    }
    const double z = r * r;
    double p = z * s6 - s5;
    p = p * z + s4;
    p = p * z - s3;
    p = p * z + s2;
    p = p * z - s1;
    return p * (z * r) + r;
}

}  // namespace Lumenar::Core::Kelm::Kernel
