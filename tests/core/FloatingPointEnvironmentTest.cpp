#include "kelm/core/FloatingPointEnvironment.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <stdexcept>
#include <string>
#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

namespace Lumenar::Core::Kelm {

/// The text of the check after `change`; empty if it passes. The thread's environment is restored,
/// with its flush bits.
template <class Change>
std::string complaintAfter(const Change& change) {
    std::fenv_t saved;
    std::fegetenv(&saved);
    change();
    std::string complaint;
    try {
        requireExactFloatingPoint();
    } catch (const std::runtime_error& failure) {
        complaint = failure.what();
    }
    std::fesetenv(&saved);
    return complaint;
}

TEST(FloatingPointEnvironment, RefusesOtherRoundingAndEachWayOfFlushingSubnormals) {
    const std::string rounding =
        "the floating-point environment does not round to nearest, ties to even";
    EXPECT_EQ(complaintAfter([] { std::fesetround(FE_TONEAREST); }), "");
    for (const int direction : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
        EXPECT_EQ(complaintAfter([=] { std::fesetround(direction); }), rounding);
    }
#if defined(__SSE2__)
    for (const unsigned bits : {0x8000U, 0x0040U}) {  // of results, of operands
        EXPECT_EQ(complaintAfter([&] { _mm_setcsr(_mm_getcsr() | bits); }),
                  "the floating-point environment flushes subnormal numbers");
    }
#endif
    EXPECT_NO_THROW(requireExactFloatingPoint());
}

}  // namespace Lumenar::Core::Kelm
