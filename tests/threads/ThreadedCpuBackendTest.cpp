// The threaded backend against the CPU backend: the bits of the results are the same for any number
// of threads and any share of the items. The soak tests whole runs.

#include "kelm/threads/ThreadedCpuBackend.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cfenv>
#include <cstring>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <tbb/global_control.h>
#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/lanes/LaneCpuBackend.h"
#include "kelm/lanes/LaneKernels.h"
#include "tests/support/BackendParity.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

using Results = std::vector<Kernel::WindowResult>;

struct Sharing {
    std::uint64_t threads;
    std::size_t threshold;
    bool lanes = false;
};

std::string labelOf(const Sharing& sharing) {
    return std::to_string(sharing.threads) + " threads from " + std::to_string(sharing.threshold) +
           " items on" + (sharing.lanes ? ", in lanes" : "");
}

ThreadedCpuBackend makeBackend(const Sharing& sharing) {
    return sharing.lanes ? ThreadedCpuBackend(LaneCpuBackend(), sharing.threads, sharing.threshold)
                         : ThreadedCpuBackend(sharing.threads, sharing.threshold);
}

constexpr Sharing sharings[] = {
    {1, 0},   {2, 0},       {3, 1},       {0, 1},       {2, ThreadedCpuBackend::default_threshold},
    {100, 0}, {1, 0, true}, {2, 0, true}, {8, 0, true},
};

class ThreadedCpuBackendTest : public testing::Test {
protected:
    CpuWindowBackend cpu_;

private:
    // More workers than processors, so that their work mixes on a small machine too.
    tbb::global_control workers_{tbb::global_control::max_allowed_parallelism, 100};
};

TEST_F(ThreadedCpuBackendTest, ComputesWindowsOfAnySizeWithTheirFaults) {
    std::size_t violations = 0, overflows = 0;
    for (const std::size_t size : {0U, 1U, 2U, 3U, 7U, 8U, 63U, 257U, 511U, 512U, 5000U}) {
        for (const bool strange : {false, true}) {
            const DrawnCall call = drawCall(size + 1, size, strange);
            const Results expected = compute(cpu_, call);
            for (const Kernel::WindowResult& result : expected) {
                violations += result.bound_violation;
                overflows += result.spike_overflow;
            }
            for (const Sharing& sharing : sharings) {
                ThreadedCpuBackend backend = makeBackend(sharing);
                EXPECT_TRUE(sameImages<Kernel::WindowResult>(compute(backend, call), expected))
                    << size << " items, " << labelOf(sharing);
            }
        }
    }
    EXPECT_GT(violations, 50);
    EXPECT_GT(overflows, 50);
}

TEST_F(ThreadedCpuBackendTest, ServesEnginesOfSeveralThreadsAtOnce) {
    for (const bool lanes : {false, true}) {
        ThreadedCpuBackend backend = makeBackend({2, 0, lanes});
        std::vector<std::thread> callers;
        for (const std::uint64_t items : {400U, 401U, 402U}) {
            callers.emplace_back([&, call = drawCall(items, items, false)] {
                const Results expected = compute(cpu_, call);
                for (int turn = 0; turn < 50; ++turn) {
                    EXPECT_TRUE(sameImages<Kernel::WindowResult>(compute(backend, call), expected))
                        << items;
                }
            });
        }
        for (std::thread& caller : callers) caller.join();
    }
}

/// Kernels whose first call on each thread in a turn throws.
struct FailingKernels {
    static inline const Lanes::LaneKernels* inner = nullptr;
    static inline int turn = 0;
    static inline std::atomic<int> calls = 0;

    static void advance(Lanes::LaneBlock& block, int count, const Lanes::LaneConstants& constants) {
        thread_local int failed_in = 0;
        ++calls;
        if (std::exchange(failed_in, turn) != turn) throw std::bad_alloc();
        inner->advance(block, count, constants);
    }
};

// Outside of tests pieces do not throw, and oneTBB fails only for lack of memory. Here the first
// piece of each thread throws: the thread ends, and this piece is not computed.
TEST_F(ThreadedCpuBackendTest, ComputesItselfWhatFailedThreadsLeft) {
    if (Lanes::availableKernels().empty()) GTEST_SKIP() << "no vectors for this processor";
    FailingKernels::inner = Lanes::availableKernels().back();
    Lanes::LaneKernels failing = *FailingKernels::inner;
    failing.advance = FailingKernels::advance;
    constexpr std::uint64_t threads = 2;
    const LaneCpuBackend lanes(failing);
    ThreadedCpuBackend backend(lanes, threads, 0);
    const DrawnCall call = uniformCall(9000);
    ++FailingKernels::turn;
    const Results results = compute(backend, call);
    const Results expected = compute(cpu_, call);
    std::size_t lost = 0;
    for (std::size_t i = 0; i < results.size(); ++i) {
        lost += std::memcmp(&results[i], &expected[i], sizeof expected[i]) != 0;
    }
    EXPECT_GT(lost, 0);
    EXPECT_LE(lost, threads * lanes.partItems());
    EXPECT_GT(FailingKernels::calls, 10);
}

/// While it lives, the calling thread rounds upward and flushes subnormals if it can.
class OtherEnvironment {
public:
    OtherEnvironment() {
        std::fegetenv(&saved_);
        std::fesetround(FE_UPWARD);
#if defined(__SSE2__)
        _mm_setcsr(_mm_getcsr() | 0x8040);
#endif
    }
    ~OtherEnvironment() { std::fesetenv(&saved_); }
    OtherEnvironment(const OtherEnvironment&) = delete;
    OtherEnvironment& operator=(const OtherEnvironment&) = delete;

private:
    std::fenv_t saved_;
};

// A worker may have started in another environment, or other work may have left it in one. It must
// not compute a window in that.
TEST_F(ThreadedCpuBackendTest, ComputesInTheFloatingPointEnvironmentOfTheCall) {
    DrawnCall call = drawCall(1, 3000, false);
    for (WindowWork& item : call.work) {
        item.parameters.trace_epsilon = 0.0;
        item.state.adaptation *= 1e-308;
    }
    const auto computeInOther = [&](IWindowBackend& backend) {
        const OtherEnvironment other_environment;
        return compute(backend, call);
    };
    const auto madeInOther = [] {
        const OtherEnvironment other_environment;
        return ThreadedCpuBackend(8, 0);
    };
    const Results exact = compute(cpu_, call);
    const Results other = computeInOther(cpu_);
    ASSERT_FALSE(sameImages<Kernel::WindowResult>(other, exact));
    for (int turn = 0; turn < 20; ++turn) {
        ThreadedCpuBackend plain(8, 0);
        ThreadedCpuBackend made_in_other = madeInOther();
        for (ThreadedCpuBackend* backend : {&plain, &made_in_other}) {
            SCOPED_TRACE("turn " + std::to_string(turn));
            ASSERT_TRUE(sameImages<Kernel::WindowResult>(compute(*backend, call), exact));
            ASSERT_TRUE(sameImages<Kernel::WindowResult>(computeInOther(*backend), other));
        }
    }
}

TEST_F(ThreadedCpuBackendTest, LimitsItsThreadsToThoseAllowedAndRefusesTooMany) {
    EXPECT_STREQ(cpu_.name(), "cpu");
    EXPECT_STREQ(ThreadedCpuBackend(5).name(), "cpu-threads");
    EXPECT_EQ(ThreadedCpuBackend(5).threads(), 5);
    const tbb::global_control three(tbb::global_control::max_allowed_parallelism, 3);
    EXPECT_EQ(ThreadedCpuBackend().threads(), 3);
    EXPECT_EQ(ThreadedCpuBackend(2).threads(), 2);
    EXPECT_EQ(ThreadedCpuBackend(1024).threads(), 3);
    expectThrows<InvalidThreadCount>([] { ThreadedCpuBackend backend(1025); },
                                     "a backend takes at most 1024 threads, not 1025");
    expectThrows<InvalidThreadCount>(
        [] { ThreadedCpuBackend backend(LaneCpuBackend(), ~std::uint64_t{0}); },
        "a backend takes at most 1024 threads, not 18446744073709551615");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
