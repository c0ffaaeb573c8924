// Steps without an effect: skipped draws, and runs of inputs. The results must be those of a kernel
// that takes every step.

#include "kelm/kernel/InputRun.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "kelm/engine/CpuWindowBackend.h"
#include "tests/support/BackendParity.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

/// Applies no inputs, and counts those whose draws the walk may skip.
struct PassCount {
    std::uint64_t& inputs;
    std::uint64_t& passed;

    std::uint32_t operator()(const Kernel::State& state, std::uint64_t rng,
                             const Kernel::NeuronModel& model, const Kernel::WindowEvent* events,
                             std::uint32_t count, ModelTime window_end, ModelTime limit,
                             double drive_bound) const {
        ++inputs;
        Kernel::State later = state;
        Kernel::advanceTraces(later, model.neuron, events[0].time);
        Kernel::applyInput(later, model.neuron, events[0].value);
        const bool followed = count > 1 && !events[1].wake_only && events[1].time < window_end;
        passed += followed &&
                  Kernel::skipCandidate(later, model, events[1].time, limit, drive_bound, rng);
        return 0;
    }
};

/// Kernel::runInputs, with a count of the inputs.
struct RunCount {
    std::uint64_t& applied;

    std::uint32_t operator()(Kernel::State& state, std::uint64_t& rng,
                             const Kernel::NeuronModel& model, const Kernel::WindowEvent* events,
                             std::uint32_t count, ModelTime window_end, ModelTime limit,
                             double drive_bound) const {
        const std::uint32_t run =
            Kernel::runInputs(state, rng, model, events, count, window_end, limit, drive_bound);
        applied += run;
        return run;
    }
};

template <class InputRuns>
std::vector<Kernel::WindowResult> walk(const DrawnCall& call, InputRuns runs) {
    std::vector<Kernel::WindowResult> results;
    for (const WindowWork& item : call.work) {
        results.push_back(
            Kernel::processWindow(item, Kernel::NeuronModel(item.parameters, item.firing),
                                  call.events.data(), call.window_end, call.horizon, runs));
    }
    return results;
}

/// Steps that the walks of all calls have skipped.
struct Skipped {
    std::uint64_t inputs = 0, passed = 0, applied = 0;
};

void expectPlainResults(const DrawnCall& call, Skipped& skipped) {
    const auto expected = withOneNan(computePlainly(call));
    const auto expectThem = [&](std::vector<Kernel::WindowResult> results) {
        ASSERT_TRUE(sameImages<Kernel::WindowResult>(withOneNan(std::move(results)), expected));
    };
    CpuWindowBackend cpu;
    expectThem(compute(cpu, call));
    expectThem(walk(call, PassCount{skipped.inputs, skipped.passed}));
    expectThem(walk(call, RunCount{skipped.applied}));
}

void compareCalls(std::uint64_t first_seed, std::uint64_t count, bool strange) {
    Skipped skipped;
    for (std::uint64_t seed = first_seed; seed < first_seed + count; ++seed) {
        SCOPED_TRACE(seed);
        expectPlainResults(drawCall(seed, 100, strange), skipped);
        if (testing::Test::HasFailure()) return;
    }
    EXPECT_GT(skipped.passed, skipped.inputs / 8);
    EXPECT_GT(skipped.applied, skipped.passed / 2);
}

TEST(InputRun, LeavesTheResultsOfAWalkThatDrawsEveryCandidate) { compareCalls(1, 3000, false); }

TEST(InputRun, LeavesThoseResultsForBadValues) { compareCalls(100'000, 1500, true); }

// Sums at the end of the range of doubles, zeros of both signs, and draws that are not made.
TEST(InputRun, LeavesThoseResultsAtTheLimitsOfTheEstimate) {
    struct Case {
        const char* fact;
        double membrane, gain, threshold, base_rate, max_rate, value;
        bool non_leaky;
        double passing = 0.0;  // taken off by the first input and put back by the second
        ModelTime refractory_until = 0;
    };
    constexpr double most = std::numeric_limits<double>::max();
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (const Case& c : {Case{"bound 0", -1.7e308, 1e-307, 4e307, 1.0, 1e6, 1.0, false},
                          Case{"estimate", most, 1e-307, 0.0, 1e5, infinity, 1.0, true},
                          Case{"gain", most, 5e-324, 0.0, 1e5, infinity, 1.0, true},
                          Case{"reach", most, 600.0 / most, 0.0, 1e5, infinity, 1.0, true},
                          Case{"sign", -0.0, 2.0, 0.0, 5.0, 1e6, -0.0, false},
                          Case{"no bound for a while", 0.0, 2.0, 0.0, 5.0, 1e6, 0.1, false, 2000.0},
                          Case{"no draw", 0.5, 2.0, 0.0, 5.0, 1e6, 0.1, false, 0.0, 1'000'000}}) {
        SCOPED_TRACE(c.fact);
        DrawnCall call;
        call.window_end = 1'000'000;
        call.horizon = 1'000'000;
        WindowWork& item = call.work.emplace_back();
        item.parameters.non_leaky = c.non_leaky;
        item.parameters.tau_membrane = 1'000'000'000;
        item.firing.base_rate = c.base_rate;
        item.firing.max_rate = c.max_rate;
        item.firing.gain = c.gain;
        item.firing.threshold = c.threshold;
        item.parameters.hard_refractory = true;
        item.state.membrane = c.membrane;
        item.state.refractory_until = c.refractory_until;
        item.rng = 7;
        item.pending_time = no_time;
        // Eight inputs fill vectors of every width.
        for (ModelTime time = 100'000; time < 900'000; time += 100'000) {
            call.events.push_back({time, c.value, false, {}});
        }
        call.events[0].value -= c.passing;
        call.events[1].value += c.passing;
        item.event_count = 8;
        Skipped skipped;
        expectPlainResults(call, skipped);
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
