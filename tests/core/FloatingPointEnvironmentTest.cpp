#include "kelm/core/FloatingPointEnvironment.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <stdexcept>
#include <string>
#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

namespace Lumenar::Core {

/// Puts the thread's floating-point environment back, flush bits included.
class RestoredEnvironment {
public:
    RestoredEnvironment() { std::fegetenv(&saved_); }
    ~RestoredEnvironment() { std::fesetenv(&saved_); }
    RestoredEnvironment(const RestoredEnvironment&) = delete;
    RestoredEnvironment& operator=(const RestoredEnvironment&) = delete;

private:
    std::fenv_t saved_;
};

/// What the check says once `change` has been made; empty where it passes.
template <class Change>
std::string complaintAfter(const Change& change) {
    const RestoredEnvironment restored;
    change();
    try {
        requireExactFloatingPoint();
    } catch (const std::runtime_error& failure) {
        return failure.what();
    }
    return {};
}

TEST(FloatingPointEnvironment, RefusesEveryRoundingButNearestEven) {
    const std::string complaint =
        "the floating-point environment does not round to nearest, ties to even";
    EXPECT_EQ(complaintAfter([] { std::fesetround(FE_TONEAREST); }), "");
    EXPECT_EQ(complaintAfter([] { std::fesetround(FE_UPWARD); }), complaint);
    EXPECT_EQ(complaintAfter([] { std::fesetround(FE_DOWNWARD); }), complaint);
    EXPECT_EQ(complaintAfter([] { std::fesetround(FE_TOWARDZERO); }), complaint);
    EXPECT_NO_THROW(requireExactFloatingPoint()) << "the thread rounds as before";
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
    EXPECT_NO_THROW(requireExactFloatingPoint()) << "the thread keeps subnormals as before";
}
#endif

}  // namespace Lumenar::Core
