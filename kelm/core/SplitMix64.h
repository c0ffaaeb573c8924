#pragma once

#include <cstdint>

#include "kelm/core/HostDevice.h"

// SplitMix64, the generator of every random stream. Source: G. L. Steele, D. Lea, C. H. Flood,
// "Fast splittable pseudorandom number generators", OOPSLA 2014.

namespace Lumenar::Core::Kelm {

/// A stream's raw state moves by this odd constant at each step, modulo 2^64.
inline constexpr std::uint64_t splitmix_increment = 0x9e3779b97f4a7c15;

/// The inverse of the increment modulo 2^64. The difference of two raw states times this is the
/// number of steps between them.
inline constexpr std::uint64_t splitmix_increment_inverse = 0xf1de83e19937733d;
static_assert(splitmix_increment * splitmix_increment_inverse == 1);

/// The generator's output function: a bijection of 64-bit values.
KELM_HD constexpr std::uint64_t splitmixOutput(std::uint64_t z) {
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
}

}  // namespace Lumenar::Core::Kelm
