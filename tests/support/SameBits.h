#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <sstream>

namespace Lumenar::Core::Kelm::Testing {

/// Equality of bits: 0.0 and -0.0 differ, and a NaN equals itself.
inline ::testing::AssertionResult sameBits(double actual, double expected) {
    const auto actual_bits = std::bit_cast<std::uint64_t>(actual);
    const auto expected_bits = std::bit_cast<std::uint64_t>(expected);
    if (actual_bits == expected_bits) return ::testing::AssertionSuccess();
    std::ostringstream text;  // an AssertionResult does not keep manipulators
    text << std::hexfloat << actual << " (0x" << std::hex << actual_bits << ") instead of "
         << expected << " (0x" << expected_bits << ")";
    return ::testing::AssertionFailure() << text.str();
}

}  // namespace Lumenar::Core::Kelm::Testing
