#include "kelm/core/FloatingPointEnvironment.h"

#include <limits>
#include <stdexcept>

namespace Lumenar::Core::Kelm {

namespace {

/// Rounding up, down or to zero changes one of these sums; a tie distinguishes nearest even from
/// nearest away. The operands are volatile, so the compiler cannot compute the sums.
bool roundsToNearestEven() {
    constexpr double half_ulp = std::numeric_limits<double>::epsilon() / 2;
    volatile double one = 1.0;
    volatile double tie = half_ulp;
    volatile double above_tie = half_ulp * 1.5;
    const double up = one + above_tie;
    const double even = one + tie;
    const double negative_even = -one - tie;
    const double up_to_even = up + tie;
    return up == 1.0 + 2 * half_ulp && even == 1.0 && negative_even == -1.0 &&
           up_to_even == 1.0 + 4 * half_ulp;
}

bool keepsSubnormals() {
    constexpr double smallest_normal = std::numeric_limits<double>::min();
    constexpr double smallest = std::numeric_limits<double>::denorm_min();
    volatile double normal = smallest_normal;
    volatile double subnormal = smallest;
    volatile double half = 0.5;
    volatile double two_52 = 4503599627370496.0;
    const double flushed_output = normal * half;
    const double flushed_input = subnormal * two_52;
    return flushed_output == smallest_normal / 2 && flushed_output != 0.0 &&
           flushed_input == smallest_normal;
}

}  // namespace

void requireExactFloatingPoint() {
    if (!roundsToNearestEven()) {
        throw std::runtime_error(
            "the floating-point environment does not round to nearest, ties to even");
    }
    if (!keepsSubnormals()) {
        throw std::runtime_error("the floating-point environment flushes subnormal numbers");
    }
}

}  // namespace Lumenar::Core::Kelm
