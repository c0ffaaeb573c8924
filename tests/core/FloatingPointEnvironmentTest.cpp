#include "kelm/core/FloatingPointEnvironment.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <stdexcept>
#include <string>
#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

namespace Lumenar::Core {

/// What the check says once `change` has been made; empty where it passes. The thread's
/// environment is put back, flush bits included.
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

TEST(FloatingPointEnvironment, RefusesEveryRoundingButNearestEven) {
    const std::string complaint =
        "the floating-point environment does not round to nearest, ties to even";
    EXPECT_EQ(complaintAfter([] { std::fesetround(FE_TONEAREST); }), "");
    EXPECT_EQ(complaintAfter([] { std::fesetround(FE_UPWARD); }), complaint);
    EXPECT_EQ(complaintAfter([] { std::fesetround(FE_DOWNWARD); }), complaint);
    EXPECT_EQ(complaintAfter([] { std::fesetround(FE_TOWARDZERO); }), complaint);
}

#if defined(__SSE2__)
TEST(FloatingPointEnvironment, RefusesEachWayOfFlushingSubnormals) {
    constexpr unsigned flush_results = 0x8000;
    constexpr unsigned flush_operands = 0x0040;
    const std::string complaint = "the floating-point environment flushes subnormal numbers";
    for (const unsigned bits : {flush_results, flush_operands, flush_results | flush_operands}) {
        EXPECT_EQ(complaintAfter([&] { _mm_setcsr(_mm_getcsr() | bits); }), complaint)
            << "MXCSR bits " << bits;
    }
    EXPECT_NO_THROW(requireExactFloatingPoint());
}
#endif

}  // namespace Lumenar::Core
