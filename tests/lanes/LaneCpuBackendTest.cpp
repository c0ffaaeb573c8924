// The lane backend against the kernel, on every vector width that this processor has: work items of
// every temper, and whole runs.

#include "kelm/lanes/LaneCpuBackend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <span>
#include <string>
#include <vector>

#include "gate/BenchmarkWorkload.h"
#include "gate/GateRun.h"
#include "gate/ModelCatalogue.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/lanes/LaneKernels.h"
#include "tests/support/Draws.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/RunImage.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

/// One call's worth of work.
struct Call {
    Kernel::Neuron neuron;
    Kernel::Firing firing;
    ModelTime window = 0;  ///< ns; its length
    ModelTime window_end = 0;
    ModelTime horizon = 0;
    std::vector<WindowWork> work;
    std::vector<Kernel::WindowEvent> events;
};

ModelTime timeBefore(Draws& draws, ModelTime end) {
    return draws.timeBelow(static_cast<std::uint64_t>(end));
}

/// A value that no model should hold.
double strangeValue(Draws& draws) {
    const double values[] = {nan, -nan, infinity, -infinity, -1.0, 1e308, -1e308, 5e-324, -0.0};
    return values[draws.below(std::size(values))];
}

/// Parameters around the defaults, or of any kind that the formulas tell apart. `strange`: some
/// hold what no model should.
void drawParameters(Draws& draws, bool strange, Call& call) {
    Kernel::Neuron& neuron = call.neuron;
    Kernel::Firing& firing = call.firing;
    if (!draws.oneIn(3)) {
        neuron.tau_membrane = 1 + draws.timeBelow(std::uint64_t{1} << (1 + draws.below(34)));
        neuron.tau_adaptation =
            1 + static_cast<ModelTime>(static_cast<double>(neuron.tau_membrane) *
                                       draws.between(0.0, draws.oneIn(2) ? 1.3 : 1100.0));
    }
    if (draws.oneIn(8)) neuron.tau_adaptation = neuron.tau_membrane;
    neuron.refractory_period = draws.timeBelow(4'000'000);
    neuron.adaptation_increment = draws.between(-0.2, 1.0);
    if (draws.oneIn(3)) neuron.input_coupling = draws.between(-0.5, 0.5);
    if (draws.oneIn(3)) neuron.reset_value = draws.between(-0.5, 0.5);
    if (draws.oneIn(3)) neuron.trace_epsilon = draws.oneIn(2) ? 0.0 : 1e-3;
    neuron.hard_refractory = !draws.oneIn(4);
    neuron.non_leaky = draws.oneIn(8);
    firing.base_rate = draws.between(0.0, 400.0);
    firing.gain = draws.between(0.2, 4.0);
    firing.threshold = draws.between(-0.5, 0.5);
    if (draws.oneIn(2)) firing.adaptation_weight = draws.between(-0.3, 2.0);
    if (draws.oneIn(8)) firing.max_rate = draws.between(1.0, 400.0);
    if (draws.oneIn(16)) firing.base_rate = 0.0;
    if (!strange) return;
    double* const values[] = {&neuron.adaptation_increment,
                              &neuron.input_coupling,
                              &neuron.reset_value,
                              &neuron.trace_epsilon,
                              &firing.base_rate,
                              &firing.gain,
                              &firing.threshold,
                              &firing.adaptation_weight,
                              &firing.rate_scale,
                              &firing.max_rate};
    if (draws.oneIn(4)) {
        firing.base_rate *= 1e7;
        firing.max_rate = 1e12;
        neuron.hard_refractory = false;
    }
    if (draws.oneIn(4)) neuron.tau_membrane = -draws.timeBelow(3);
    if (draws.oneIn(4)) neuron.refractory_period = -draws.timeBelow(1'000'000);
    *values[draws.below(std::size(values))] = strangeValue(draws);
}

double drawTrace(Draws& draws) {
    if (draws.oneIn(4)) return 0.0;
    const double size = draws.oneIn(6) ? 1e-16 : draws.oneIn(4) ? 1e-7 : 1.0;
    return draws.between(draws.oneIn(3) ? -1.0 : 0.0, 1.0) * size;
}

WindowWork drawItem(Draws& draws, bool strange, Call& call) {
    const ModelTime window = call.window;
    const ModelTime begin = call.window_end - window;
    WindowWork item;
    item.parameters = call.neuron;
    item.firing = call.firing;
    item.state.membrane = drawTrace(draws);
    item.state.adaptation = drawTrace(draws);
    item.state.last_update = draws.oneIn(4) ? begin : timeBefore(draws, begin + 2);
    item.state.refractory_until =
        draws.oneIn(2) ? 0 : item.state.last_update + draws.timeBelow(3'000'000);
    item.state.hazard_bound = draws.between(0.0, 100.0);
    item.rng = draws.next();
    item.pending_time = draws.oneIn(2)   ? no_time
                        : draws.oneIn(2) ? begin + timeBefore(draws, window)
                                         : call.window_end + timeBefore(draws, window);
    // Often below the hazard that the candidate will have: a violation.
    item.pending_bound = draws.oneIn(40) ? 0.0 : draws.between(0.0, 2000.0);
    if (draws.oneIn(40)) item.pending_bound = -1.0;
    item.first_event = static_cast<std::uint32_t>(call.events.size());
    item.event_count = static_cast<std::uint32_t>(draws.below(draws.oneIn(4) ? 12 : 3));
    std::vector<ModelTime> times(item.event_count);
    for (ModelTime& time : times) time = begin + timeBefore(draws, window + window / 16);
    std::sort(times.begin(), times.end());
    // Some redraw from where both slopes of the drive are even, or a little to either side: there
    // the samples at the extremum differ from the ends in the last places alone.
    const bool even = item.event_count > 0 && draws.oneIn(2);
    if (even) {
        const double lead =
            std::pow(10.0, -(draws.oneIn(2) ? draws.between(6.0, 9.0) : draws.between(-1.0, 15.0)));
        item.state.membrane = item.state.adaptation * call.firing.adaptation_weight *
                              static_cast<double>(call.neuron.tau_membrane) /
                              static_cast<double>(call.neuron.tau_adaptation) *
                              (draws.oneIn(4) ? 1.0 - lead : 1.0 + lead);
        // With the end as near as the extremum, all samples lie that close together.
        if (draws.oneIn(2) && call.horizon <= call.window_end) {
            item.event_count = 1;
            times = {call.horizon - 1 - draws.timeBelow(64)};
        }
        item.state.last_update = times.front();
    }
    for (const ModelTime time : times) {
        const double value = even ? 0.0 : draws.between(-0.3, 1.0);
        call.events.push_back({time, value, draws.oneIn(6), {}});
    }
    if (draws.oneIn(12)) {
        item.drive.term_count = static_cast<std::int32_t>(draws.below(4));
        item.drive.base = draws.between(-0.1, 0.1);
        item.drive.bound = 0.5;
        for (PhaseTerm& term : item.drive.terms) term = {0.1, draws.between(0.0, 6.0), 1e-6};
    }
    if (draws.oneIn(12)) item.firing.gain = draws.between(0.2, 4.0);
    if (strange && draws.oneIn(4)) {
        double* const values[] = {&item.state.membrane, &item.state.adaptation, &item.pending_bound,
                                  &item.drive.base, &item.drive.bound};
        *values[draws.below(std::size(values))] = strangeValue(draws);
        if (item.event_count > 0) call.events.back().value = strangeValue(draws);
    }
    return item;
}

Call drawCall(std::uint64_t seed, bool strange) {
    Draws draws(seed);
    Call call;
    drawParameters(draws, strange, call);
    // A rate without end brings a candidate every nanosecond.
    call.window = strange ? 1'000 : 1'000'000;
    call.window_end = 1'000'000 + draws.timeBelow(draws.oneIn(2) ? 1 : 1'000'000'000);
    call.horizon = call.window_end + draws.timeBelow(draws.oneIn(4) ? 1 : 400'000'000);
    if (draws.oneIn(8)) call.horizon = call.window_end - draws.timeBelow(1'000'000);
    // Where doubles no longer keep halves, and where they no longer keep integers.
    if (draws.oneIn(16)) call.horizon = (ModelTime{1} << (50 + draws.below(12))) + 1;
    const std::uint64_t items = draws.below(150);
    for (std::uint64_t i = 0; i < items; ++i) call.work.push_back(drawItem(draws, strange, call));
    return call;
}

std::vector<Kernel::WindowResult> compute(IWindowBackend& backend, const Call& call) {
    std::vector<Kernel::WindowResult> results(call.work.size());
    // Results that are not written, or only in part, shall show.
    const std::span<std::byte> bytes = std::as_writable_bytes(std::span(results));
    std::fill(bytes.begin(), bytes.end(), std::byte{0x5a});
    backend.processWindow(call.work, call.events, call.window_end, call.horizon, call.neuron,
                          call.firing, results);
    return results;
}

/// The tests for one width of vectors, by its place among those available.
class LaneCpuBackendTest : public testing::TestWithParam<std::size_t> {
protected:
    void compareCalls(std::uint64_t first_seed, std::uint64_t count, bool strange) {
        for (std::uint64_t seed = first_seed; seed < first_seed + count; ++seed) {
            const Call call = drawCall(seed, strange);
            const auto expected = compute(cpu_, call);
            ASSERT_TRUE(sameImages<Kernel::WindowResult>(compute(lanes_, call), expected))
                << "seed " << seed;
            for (const Kernel::WindowResult& result : expected) {
                violations_ += result.bound_violation ? 1 : 0;
                overflows_ += result.spike_overflow ? 1 : 0;
                spikes_ += result.accepted;
                updates_ += result.updates;
            }
        }
    }

    CpuWindowBackend cpu_;
    LaneCpuBackend lanes_{*Lanes::availableKernels()[GetParam()]};
    std::uint64_t violations_ = 0;
    std::uint64_t overflows_ = 0;
    std::uint64_t spikes_ = 0;
    std::uint64_t updates_ = 0;
};
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(LaneCpuBackendTest);

TEST_P(LaneCpuBackendTest, ComputesItemsOfEveryTemperToTheBit) {
    compareCalls(1, 4000, false);
    EXPECT_GT(violations_, 1000);
    EXPECT_GT(spikes_, 1000);
    EXPECT_GT(updates_, 200'000);
}

TEST_P(LaneCpuBackendTest, ComputesValuesThatNoModelShouldHoldToTheBit) {
    compareCalls(10'000, 2000, true);
    EXPECT_GT(overflows_, 10);
}

TEST_P(LaneCpuBackendTest, CarriesRunsAsTheReferenceDoes) {
    std::uint64_t windows = 0;
    std::uint64_t spikes = 0;
    for (std::uint64_t seed = 1; seed <= 150; ++seed) {
        SCOPED_TRACE("model seed " + std::to_string(seed));
        ModelTraits traits;
        traits.alike = seed % 3 != 0;
        if (seed % 10 == 0) traits.max_neurons = 200;
        const GeneratedModel model = generateModel(seed, traits);
        WindowEngine reference = makeEngine(model);
        WindowEngine engine = makeEngine(model);
        postInputs(model, reference);
        postInputs(model, engine);
        EXPECT_EQ(runSideBySide(reference, cpu_, engine, lanes_, model.d_min), "");
        windows += engine.profile().windows;
        spikes += engine.profile().accepted;
    }
    EXPECT_GT(windows, 3000);
    EXPECT_GT(spikes, 5000);
}

TEST_P(LaneCpuBackendTest, CarriesADenseNetworkAndTheCatalogueAsTheReferenceDoes) {
    for (std::uint64_t index = 0; index < Gate::catalogue_size; ++index) {
        SCOPED_TRACE("model " + std::to_string(index));
        for (std::uint64_t seed = 1; seed <= 5; ++seed) {
            const Gate::GateRun expected = Gate::runModel(index, seed, cpu_);
            const Gate::GateRun run = Gate::runModel(index, seed, lanes_);
            EXPECT_TRUE(Gate::equalLogs(run, expected));
            EXPECT_TRUE(sameImages<Kernel::State>(run.states, expected.states));
            EXPECT_EQ(run.profile, expected.profile);
        }
    }
    const auto dense = [] {
        Gate::BenchmarkWorkload load =
            Gate::buildBenchmarkWorkload({2000, 1'000'000, 20'000'000, 50.0});
        return WindowEngine(
            SynapseGraph(load.neuron_count, load.min_delay, std::move(load.synapses)), load.neuron,
            load.firing, Gate::benchmark_seed, load.horizon);
    };
    WindowEngine reference = dense();
    WindowEngine engine = dense();
    EXPECT_EQ(runSideBySide(reference, cpu_, engine, lanes_, 1'000'000), "");
    EXPECT_GT(engine.profile().accepted, 1000);
}

INSTANTIATE_TEST_SUITE_P(Vectors, LaneCpuBackendTest,
                         testing::Range(std::size_t{0}, Lanes::availableKernels().size()),
                         [](const auto& test) {
                             return std::string(Lanes::availableKernels()[test.param]->name);
                         });

/// Counts what the vectors are given.
struct CountedKernels {
    static inline const Lanes::LaneKernels* inner = nullptr;
    static inline std::int64_t steps = 0;

    static void advance(Lanes::LaneBlock& block, int count, const Lanes::LaneConstants& constants) {
        steps += count;
        inner->advance(block, count, constants);
    }
};

TEST(LaneCpuBackend, GivesUniformItemsToTheVectorsAndOthersToTheOrdinaryWalk) {
    if (Lanes::availableKernels().empty()) GTEST_SKIP() << "no vectors for this processor";
    CountedKernels::inner = Lanes::availableKernels().back();
    Lanes::LaneKernels counted = *CountedKernels::inner;
    counted.advance = CountedKernels::advance;
    LaneCpuBackend backend(counted);
    Call call;
    call.window_end = 1'000'000;
    call.horizon = 10'000'000;
    call.events = {{500'000, 1.0, false, {}}};
    call.work.resize(100);
    for (WindowWork& item : call.work) {
        item.event_count = 1;
        item.pending_time = no_time;
    }
    struct Case {
        const char* fact;
        void (*change)(Call& call);
        std::int64_t steps;
    };
    for (const Case& c :
         {Case{"uniform items", [](Call&) {}, 100},
          Case{"one of another gain", [](Call& changed) { changed.work[7].firing.gain = 3.0; }, 99},
          Case{"one with a phase term", [](Call& changed) { changed.work[7].drive.term_count = 1; },
               99},
          Case{"others than the call's", [](Call& changed) { changed.neuron.reset_value = 1.0; },
               0},
          Case{"a horizon that doubles do not reach",
               [](Call& changed) { changed.horizon = ModelTime{1} << 60; }, 0}}) {
        SCOPED_TRACE(c.fact);
        Call changed = call;
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
