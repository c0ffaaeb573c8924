// The lane backend against the kernel, on every vector width of this processor, with single
// windows. The soak tests whole runs.

#include "kelm/lanes/LaneCpuBackend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/lanes/LaneKernels.h"
#include "tests/support/BackendParity.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

/// The tests for one vector width. The parameter is its index in availableKernels().
class LaneCpuBackendTest : public testing::TestWithParam<std::size_t> {
protected:
    void compareCalls(std::uint64_t first_seed, std::uint64_t count, bool strange) {
        for (std::uint64_t seed = first_seed; seed < first_seed + count; ++seed) {
            const DrawnCall call = drawCall(seed, seed % 150, strange);
            const auto expected = compute(cpu_, call);
            ASSERT_TRUE(sameImages<Kernel::WindowResult>(compute(lanes_, call), expected))
                << "seed " << seed;
            for (const Kernel::WindowResult& result : expected) {
                violations_ += result.bound_violation;
                overflows_ += result.spike_overflow;
                spikes_ += result.accepted;
            }
        }
    }

    CpuWindowBackend cpu_;
    LaneCpuBackend lanes_{*Lanes::availableKernels()[GetParam()]};
    std::uint64_t violations_ = 0, overflows_ = 0, spikes_ = 0;
};
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(LaneCpuBackendTest);

TEST_P(LaneCpuBackendTest, ComputesTheBitsOfTheKernel) {
    compareCalls(1, 4000, false);
    EXPECT_GT(violations_, 1000);
    EXPECT_GT(spikes_, 1000);
}

TEST_P(LaneCpuBackendTest, ComputesTheBitsOfTheKernelForBadValues) {
    compareCalls(10'000, 2000, true);
    EXPECT_GT(overflows_, 10);
}

// A drive that falls at first and jumps at its minimum, because the adaptation is clipped there:
// the sample is above both ends. A minimum needs no sample only if the adaptation is far above the
// clipping.
TEST_P(LaneCpuBackendTest, SamplesADriveThatRisesWhereItsAdaptationIsClipped) {
    DrawnCall call;
    call.neuron.tau_adaptation = 2 * call.neuron.tau_membrane;
    call.neuron.trace_epsilon = 1e-3;
    call.firing.adaptation_weight = 10.0;
    call.window_end = 1'000'000;
    call.horizon = 400'000'000;
    call.events = {{500'000, 0.0, false, {}}};
    double highest_rise = 0.0;
    for (int i = 0; i < 40; ++i) {
        WindowWork& item = call.work.emplace_back();
        item.parameters = call.neuron;
        item.firing = call.firing;
        item.state.adaptation = 1e-3 * (1.0 + 1e-3 * i);
        item.state.membrane = 1.05 * 5.0 * item.state.adaptation;
        item.state.last_update = 500'000;
        item.rng = static_cast<std::uint64_t>(i);
        item.event_count = 1;
        item.pending_time = no_time;
        const double ends = std::max(item.state.membrane - 10.0 * item.state.adaptation, 0.0);
        // ln(1.05) times 20 ms after the input.
        const double minimum =
            Kernel::netDriveAt(item.state, item.parameters, item.firing, 1'475'803);
        highest_rise = std::max(highest_rise, minimum - ends);
    }
    EXPECT_GT(highest_rise, 1e-3);
    EXPECT_TRUE(sameImages<Kernel::WindowResult>(compute(lanes_, call), compute(cpu_, call)));
}

INSTANTIATE_TEST_SUITE_P(Vectors, LaneCpuBackendTest,
                         testing::Range(std::size_t{0}, Lanes::availableKernels().size()),
                         [](const auto& test) {
                             return std::string(Lanes::availableKernels()[test.param]->name);
                         });

/// Counts the steps that the vectors compute.
struct CountedKernels {
    static inline const Lanes::LaneKernels* inner = nullptr;
    static inline std::int64_t steps = 0;

    static void advance(Lanes::LaneBlock& block, int count, const Lanes::LaneConstants& constants) {
        steps += count;
        inner->advance(block, count, constants);
    }
};

TEST(LaneCpuBackend, GivesAlikeItemsToTheVectorsAndOthersToTheScalarWalk) {
    if (Lanes::availableKernels().empty()) GTEST_SKIP() << "no vectors for this processor";
    CountedKernels::inner = Lanes::availableKernels().back();
    Lanes::LaneKernels counted = *CountedKernels::inner;
    counted.advance = CountedKernels::advance;
    LaneCpuBackend backend(counted);
    EXPECT_STREQ(backend.name(), "cpu-lanes");
    EXPECT_STREQ(LaneCpuBackend().instructionSet(), counted.name) << "the widest vectors";
    EXPECT_STREQ(backend.instructionSet(), counted.name);
    const DrawnCall call = uniformCall(100);
    struct Case {
        const char* fact;
        void (*change)(DrawnCall& call);
        std::int64_t steps;
    };
    for (const Case& c :
         {Case{"uniform items", [](DrawnCall&) {}, 100},
          Case{"one of another gain",
               [](DrawnCall& changed) { changed.work[50].firing.gain = 3.0; }, 99},
          Case{"one with a phase term",
               [](DrawnCall& changed) { changed.work[7].drive.term_count = 1; }, 99},
          Case{"two populations",
               [](DrawnCall& changed) {
                   for (int i = 50; i < 100; ++i) changed.work[i].firing.gain = 3.0;
               },
               100},
          Case{"neighbours that differ",
               [](DrawnCall& changed) {
                   for (int i = 1; i < 100; i += 2) changed.work[i].firing.gain = 3.0;
               },
               0},
          Case{"an open horizon", [](DrawnCall& changed) { changed.horizon = ModelTime{1} << 60; },
               100}}) {
        SCOPED_TRACE(c.fact);
        DrawnCall changed = call;
        c.change(changed);
        CountedKernels::steps = 0;
        CpuWindowBackend cpu;
        EXPECT_TRUE(
            sameImages<Kernel::WindowResult>(compute(backend, changed), compute(cpu, changed)));
        EXPECT_EQ(CountedKernels::steps, c.steps);
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
