// Times, delays, periods and horizons up to the ends of their range: what lies beyond the range is
// reported or never comes, and no sum on the way there is undefined, which a build under
// UndefinedBehaviorSanitizer sees to.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "compare/RunImage.h"
#include "kelm/core/Failures.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/LookaheadCudaTesting.h"
#include "kelm/cuda/ResidentRecurrence.h"
#include "kelm/cuda/ShardQueue.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/lanes/LaneCpuBackend.h"
#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/Draws.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/GeneratedModel.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Compare;
using namespace Testing;

// What a time would be if its range had no ends.
__extension__ using Wide = __int128;

constexpr const char* overflow = "KELM model time overflow";
constexpr const char* processed =
    "KELM event inserted into an already processed window; d_min does not bound this edge";

constexpr ModelTime last = last_model_time;
constexpr ModelTime first = first_model_time;
/// From small to the end of the range.
constexpr ModelTime durations[] = {1,          2,        3,        1'000'000, 1L << 31,
                                   1L << 53,   1L << 61, 1L << 62, last / 2,  last / 2 + 1,
                                   last - 100, last - 1, last};
constexpr ModelTime moments[] = {first,    first + 1, -1,       0,        1,        999'999,
                                 1L << 40, 1L << 62,  last / 2, last - 2, last - 1, last};

/// Rates that give a handful of spikes up to `horizon`, however far it is.
double fewSpikes(ModelTime horizon) { return 2e9 * 5.0 / static_cast<double>(horizon); }

class TimeRange : public EmulatedDeviceTest {
protected:
    static Kernel::Firing rate(double base_rate) {
        Kernel::Firing firing;
        firing.base_rate = base_rate;
        return firing;
    }

    CpuWindowBackend cpu_;
};

TEST_F(TimeRange, HandsOutEachWindowThatEndsInItAndReportsTheOneThatDoesNot) {
    for (const ModelTime d_min : durations) {
        for (const ModelTime time : moments) {
            for (const ModelTime until : moments) {
                SCOPED_TRACE(testing::Message()
                             << d_min << " ns, event at " << time << ", run until " << until);
                WindowEngine engine(SynapseGraph(1, d_min, {}), Kernel::Neuron(), rate(0.0), 1,
                                    last);
                Event input;
                input.time = time;
                input.kind = EventKind::input;
                input.value = 1.0;
                if (time < 0) {
                    expectThrows<LookaheadViolation>([&] { engine.post(input); }, processed);
                    continue;
                }
                engine.post(input);
                const Wide start = Wide{time} / d_min * d_min;
                const bool due = start < until;
                const bool ends = start + d_min <= last;
                EXPECT_EQ(failureOf(engine, cpu_, until), due && !ends ? overflow : "");
                EXPECT_EQ(engine.profile().deliveries, due && ends ? 1U : 0U);
                EXPECT_EQ(engine.states()[0].last_update, due && ends ? time : 0);
            }
        }
    }
}

TEST_F(TimeRange, DeliversWithinItAndReportsADeliveryBeyondIt) {
    for (const ModelTime d_min : {ModelTime{1'000'000}, ModelTime{1} << 40}) {
        const auto build = [&](ModelTime delay, ModelTime refractory_period) {
            Synapse synapse;
            synapse.delay = delay;
            Kernel::Neuron neuron;
            neuron.refractory_period = refractory_period;
            return std::make_unique<WindowEngine>(SynapseGraph(1, d_min, {synapse}), neuron,
                                                  rate(fewSpikes(2 * d_min)), 7, 2 * d_min);
        };
        const auto alone = build(last / 2, last);
        alone->run(cpu_);
        ASSERT_EQ(alone->spikeLog().size(), 1U) << "a refractory time without end";
        const ModelTime spike = alone->spikeLog()[0].time;
        EXPECT_EQ(alone->states()[0].refractory_until, last);
        for (const ModelTime delay : {last - spike - 1, last - spike, last - spike + 1, last}) {
            const bool fits = Wide{spike} + delay <= last;
            const auto engine = build(delay, last);
            EXPECT_EQ(failureOf(*engine, cpu_, 2 * d_min), fits ? "" : overflow) << delay;
        }
        // One that ends before all time does not bind a neuron either.
        const auto tireless = build(last / 2, first);
        tireless->run(cpu_, 1);
        ASSERT_FALSE(tireless->spikeLog().empty());
        EXPECT_EQ(tireless->states()[0].refractory_until, first + tireless->spikeLog().back().time);
    }
}

TEST_F(TimeRange, AddsTheDelayOfAChannelWithinIt) {
    for (const ModelTime delay : {ModelTime{0}, ModelTime{1}, last / 2, last - 1, last}) {
        for (const ModelTime time : moments) {
            SCOPED_TRACE(testing::Message() << time << " + " << delay);
            KelmRuntime runtime =
                makeKelmRuntime(SynapseGraph(1, 10, {}), {}, rate(0.0), 1, last, &cpu_, nullptr, {},
                                std::nullopt, std::nullopt, {{"line", 0, {0}, delay, 1.0}});
            const auto inject = [&] { runtime.inject("line", time, 1.0); };
            const Wide arrival = Wide{time} + delay;
            if (arrival > last) {
                expectThrows<TimeOverflow>(inject, overflow);
            } else if (arrival < 0) {
                expectThrows<LookaheadViolation>(inject, processed);
            } else {
                inject();
                if (arrival / 10 * 10 + 10 <= last) {
                    runtime.run();
                    EXPECT_EQ(runtime.neuronStates()[0].last_update, arrival);
                }
            }
        }
    }
}

// Everything at its ends at once, on three backends: they come to the same, and to nothing but the
// failures that are told of.
TEST_F(TimeRange, HoldsNothingUndefinedForAnyBackend) {
    LaneCpuBackend lanes;
    CudaWindowBackend device;
    std::uint64_t spikes = 0;
    std::uint64_t overflows = 0;
    for (std::uint64_t seed = 1; seed <= 400; ++seed) {
        SCOPED_TRACE(seed);
        Draws draws(seed);
        const auto duration = [&] { return durations[draws.below(std::size(durations))]; };
        const auto moment = [&] { return moments[draws.below(std::size(moments))]; };
        GeneratedModel model;
        model.node_count = 3;
        model.d_min = draws.oneIn(3) ? 1'000'000 : duration();
        model.declares_d_min = true;
        model.horizon = duration();
        model.run_seed = seed;
        for (NodeId n = 0; n < 3; ++n) {
            model.synapses.push_back({.source = n,
                                      .target = (n + 1) % 3,
                                      .weight = 0.5F,
                                      .delay = std::max(model.d_min, duration())});
            Kernel::Neuron& neuron = model.neurons.emplace_back();
            neuron.tau_membrane = draws.oneIn(4) ? moment() : duration();
            neuron.tau_adaptation = duration();
            neuron.refractory_period = moment();
            neuron.hard_refractory = !draws.oneIn(3);
            neuron.non_leaky = draws.oneIn(4);
            model.firings.push_back(rate(fewSpikes(model.horizon)));
            model.firings.back().gain = 1.0;
            model.firings.back().max_rate = 4.0 * fewSpikes(model.horizon);
        }
        for (int i = 0; i < 4; ++i) {
            const ModelTime time = moment();
            if (time < 0) continue;
            model.inputs.push_back({.time = time, .kind = EventKind::input, .target = 1});
            model.inputs.back().value = 0.5;
        }
        const ModelTime until = draws.oneIn(2) ? model.horizon : moment();
        const ModelTime observed = moment();
        const auto run = [&](IWindowBackend& backend) {
            auto engine = std::unique_ptr<WindowEngine>(new WindowEngine(makeEngine(model)));
            postInputs(model, *engine);
            engine->declareObserverEvent({.time = observed});
            const std::string failure = failureOf(*engine, backend, until);
            return std::pair(std::move(engine), failure);
        };
        const auto [reference, failure] = run(cpu_);
        EXPECT_TRUE(failure.empty() || failure == overflow ||
                    failure.starts_with("more spikes in one window"))
            << failure;
        spikes += reference->profile().accepted;
        overflows += failure == overflow;
        for (IWindowBackend* backend :
             {static_cast<IWindowBackend*>(&lanes), static_cast<IWindowBackend*>(&device)}) {
            const auto [engine, outcome] = run(*backend);
            EXPECT_EQ(outcome, failure) << backend->name();
            EXPECT_EQ(firstDifference(imageOf(*engine), imageOf(*reference)), "");
        }
        if (!failure.empty()) continue;
        // It is stored and carried on.
        WindowEngine twin = makeEngine(model);
        ASSERT_TRUE(twin.restore(reference->snapshot()));
        EXPECT_EQ(failureOf(twin, cpu_, last), failureOf(*reference, cpu_, last));
        EXPECT_EQ(firstDifference(imageOf(twin), imageOf(*reference)), "");
    }
    EXPECT_GT(spikes, 400U);
    EXPECT_GT(overflows, 20U);
}

TEST_F(TimeRange, HoldsNothingUndefinedForAnyPartOfARuntime) {
    std::uint64_t samples = 0;
    std::uint64_t steps = 0;
    for (std::uint64_t seed = 1; seed <= 300; ++seed) {
        SCOPED_TRACE(seed);
        Draws draws(seed);
        const auto duration = [&] { return durations[draws.below(std::size(durations))]; };
        const ModelTime horizon = draws.oneIn(2) ? last : 1 + duration() / 2;
        const ModelTime d_min = std::max(duration(), horizon >> 12);
        // As few steps as windows: each of them costs.
        const auto period = [&] { return std::max(duration(), horizon >> 12); };
        std::vector<Synapse> synapses;
        for (NodeId n = 0; n < 3; ++n) {
            synapses.push_back({.source = n, .target = (n + 1) % 3, .weight = 0.5F});
            synapses.back().delay = std::max(d_min, duration());
        }
        PlasticityConfig plasticity;
        plasticity.enabled = true;
        plasticity.trace.tau_pre = plasticity.trace.tau_post = duration();
        plasticity.excitatory.kind = PlasticityRuleKind::pair;
        plasticity.homeostasis.enabled = true;
        PhaseConfig phase;
        phase.oscillators = {{1, 1e-12, 0.0, 1.0}, {2, 7.25, 0.5, 1.0}};
        phase.couplings = {{1, 2, 1e-9}};
        phase.coupling_period = period();
        phase.bindings.resize(3, {{1, 0, 0.1, 0.0}, {2, 1, 0.1, 0.0}});
        RecorderConfig recorder;
        recorder.sample_interval = std::max(period(), horizon / 50);
        recorder.sample_kinds = {SampleKind::membrane, SampleKind::refractory_left,
                                 SampleKind::next_candidate, SampleKind::oscillator_phases,
                                 SampleKind::spike_counts};
        // A window is walked to its end, also behind the horizon.
        Kernel::Firing firing = rate(fewSpikes(std::max(horizon, d_min)));
        firing.max_rate = 4.0 * firing.base_rate;
        const auto build = [&] {
            return std::unique_ptr<KelmRuntime>(new KelmRuntime(makeKelmRuntime(
                SynapseGraph(3, d_min, synapses), {}, firing, seed, horizon, &cpu_, nullptr,
                plasticity, phase, recorder, {{"line", 0, {0, 1}, 5, 1.0}})));
        };
        const auto runtime = build();
        runtime->oscillators()->setCouplingEnabled(true);
        runtime->oscillators()->setMemberships({{1}, {2}, {1, 2}});
        runtime->learningControl()->setFastWeights(true, duration(), 0.25);
        for (const ModelTime until : {horizon / 3, horizon}) {
            std::string failure;
            try {
                runtime->run(until);
            } catch (const std::exception& thrown) {
                failure = thrown.what();
            }
            EXPECT_TRUE(failure.empty() || failure == overflow ||
                        failure.starts_with("more spikes in one window"))
                << failure;
            if (!failure.empty()) break;
            ASSERT_TRUE(build()->restore(runtime->checkpoint()));
        }
        samples += runtime->recorder()->samples().size();
        steps += runtime->oscillators()->couplingSteps();
    }
    EXPECT_GT(samples, 1000U);
    EXPECT_GT(steps, 1000U);
}

TEST_F(TimeRange, HoldsNothingUndefinedForWholeRunsAndShardQueues) {
    CudaWindowBackend device;
    for (const ModelTime window : durations) {
        for (const ModelTime horizon : durations) {
            SCOPED_TRACE(testing::Message() << window << " ns of " << horizon);
            const auto shards = [&](ModelTime end, ModelTime run_end) {
                SynapseGraph graph = ringModel(4, 2, 10, 1).graph();
                EXPECT_TRUE(runShardQueue(graph, 2, 6, 2, {}, rate(1000.0), end, run_end)
                                .physics_identical);
            };
            shards(window, horizon);
            shards(-window, -horizon);
            shards(first, horizon);

            GeneratedModel model = ringModel(4, 2, window, 1);
            model.horizon = horizon;
            for (Kernel::Firing& firing : model.firings) firing = rate(fewSpikes(horizon));
            const bool in_range = Wide{horizon} + window <= last;
            // Windows without end are the ordinary loop's.
            if (horizon / window > 10'000) continue;
            SynapseGraph graph = model.graph();
            const auto recur = [&] {
                runResidentRecurrence(device, graph, 2, 2, {}, model.firings[0], window, horizon,
                                      3);
            };
            if (in_range) {
                recur();
            } else {
                expectThrows<WindowEngineError>(recur, "invalid resident recurrence dimensions");
            }
            WindowEngine offered = makeEngine(model);
            WindowEngine ordinary = makeEngine(model);
            const bool taken = tryResidentRunFrom(device, offered, 1);
            if (!taken) continue;
            EXPECT_TRUE(in_range && horizon % window == 0);
            EXPECT_EQ(failureOf(ordinary, cpu_, horizon), "");
            EXPECT_EQ(offered.logHash(), ordinary.logHash());
        }
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
