// Times, periods and horizons up to the limits of their range. A time past the range is reported or
// never occurs, and no sum overflows; a build under UndefinedBehaviorSanitizer checks this. The
// soak runs engines with all times near the limits.

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
#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/Draws.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/GeneratedModel.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Compare;
using namespace Testing;

// A time without limits.
__extension__ using Wide = __int128;

constexpr const char* overflow = "KELM model time overflow";
constexpr const char* processed =
    "KELM event inserted into an already processed window; d_min does not bound this edge";

constexpr ModelTime last = last_model_time;
constexpr ModelTime first = first_model_time;
/// A rate that gives a few spikes up to `horizon`.
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

TEST_F(TimeRange, RunsEachWindowThatEndsInsideItAndReportsOneThatDoesNot) {
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

TEST_F(TimeRange, LeavesNothingUndefinedInAnyPartOfARuntime) {
    std::uint64_t samples = 0;
    std::uint64_t steps = 0;
    for (std::uint64_t seed = 1; seed <= 300; ++seed) {
        SCOPED_TRACE(seed);
        Draws draws(seed);
        const auto duration = [&] { return durations[draws.below(std::size(durations))]; };
        const ModelTime horizon = draws.oneIn(2) ? last : 1 + duration() / 2;
        const ModelTime d_min = std::max(duration(), horizon >> 12);
        // At most as many steps as windows, because each step takes time.
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
        // A walk goes to the end of its window, even past the horizon.
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

TEST_F(TimeRange, LeavesNothingUndefinedInWholeRunsAndShardQueues) {
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
            // A whole run visits every window, so runs of very many windows are left out.
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
