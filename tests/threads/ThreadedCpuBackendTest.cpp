// The threaded backend against the reference: whatever the number of threads, and however many of
// a window's items each of them gets, the results are the same to the bit. Whole runs are the
// soak's.

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
    // More workers than processors, so that a machine with few of them mixes their work as well.
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

/// Kernels of which each thread's first call in a turn fails.
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

// Outside of tests only a lack of memory makes oneTBB fail, and pieces do not. Here each thread's
// first piece does and is lost; with it the thread is, and nobody comes after it.
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

/// The calling thread rounds upward and flushes subnormals where it can, for a while.
class StrangeEnvironment {
public:
    StrangeEnvironment() {
        std::fegetenv(&saved_);
        std::fesetround(FE_UPWARD);
#if defined(__SSE2__)
        _mm_setcsr(_mm_getcsr() | 0x8040);
#endif
    }
    ~StrangeEnvironment() { std::fesetenv(&saved_); }
    StrangeEnvironment(const StrangeEnvironment&) = delete;
    StrangeEnvironment& operator=(const StrangeEnvironment&) = delete;

private:
    std::fenv_t saved_;
};

// A worker that was born in a strange environment, or left in one by other work, must not compute
// a window in it.
TEST_F(ThreadedCpuBackendTest, ComputesInTheFloatingPointEnvironmentOfTheCall) {
    DrawnCall call = drawCall(1, 3000, false);
    for (WindowWork& item : call.work) {
        item.parameters.trace_epsilon = 0.0;
        item.state.adaptation *= 1e-308;
    }
    const auto computeStrangely = [&](IWindowBackend& backend) {
        const StrangeEnvironment strange;
        return compute(backend, call);
    };
    const auto bornStrangely = [] {
        const StrangeEnvironment strange;
        return ThreadedCpuBackend(8, 0);
    };
    const Results exact = compute(cpu_, call);
    const Results strange = computeStrangely(cpu_);
    ASSERT_FALSE(sameImages<Kernel::WindowResult>(strange, exact));
    for (int turn = 0; turn < 20; ++turn) {
        ThreadedCpuBackend plain(8, 0);
        ThreadedCpuBackend stranger = bornStrangely();
        for (ThreadedCpuBackend* backend : {&plain, &stranger}) {
            SCOPED_TRACE("turn " + std::to_string(turn));
            ASSERT_TRUE(sameImages<Kernel::WindowResult>(compute(*backend, call), exact));
            ASSERT_TRUE(sameImages<Kernel::WindowResult>(computeStrangely(*backend), strange));
        }
    }
}

TEST_F(ThreadedCpuBackendTest, TakesWhatThereMayBeForNoneOrMoreAndRefusesTooMany) {
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
