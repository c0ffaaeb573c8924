#include "kelm/runtime/KelmRuntime.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/events/BucketEventStore.h"
#include "tests/engine/ScriptedBackend.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/SameBits.h"
#include "tests/support/SameImages.h"

// Composed runs with known values and random ones, run in several ways, show that the parts act
// together. These tests cover what those runs cannot show.

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr ModelTime d_min = 1'000'000;

/// The arguments of makeKelmRuntime: three neurons in a ring, each with about ten spikes in twenty
/// windows of 1 ms. The backend passes every item to `show` before it computes it.
class KelmRuntimeTest : public testing::Test {
protected:
    KelmRuntime make() const {
        std::vector<Synapse> ring;
        for (NodeId n = 0; n < 3; ++n) ring.push_back({n, (n + 1) % 3, 0.5F, d_min});
        return makeKelmRuntime(SynapseGraph(3, d_min, ring), {}, firing, seed, horizon, backend,
                               nullptr, plasticity, phase, recorder, channels, prediction);
    }

    /// Binds neuron 0 once and neuron 2 twice to an oscillator with four cycles per window. One
    /// error channel reaches neuron 1, two reach neuron 2.
    void modulate() {
        phase = PhaseConfig{{{5, 4000.0, 0.5, 0.75}},
                            {{{5, 0, 0.5, 0.0}}, {}, {{5, 1, 0.25, 0.1}, {5, 0, 0.125, 0.2}}},
                            {},
                            0};
        prediction =
            PredictionConfig{{{"a", {1, 2}, 1.0, -0.5, 1.5}, {"b", {2}, 1.0, 0.25, 1.0}}, {}};
    }

    static std::vector<float> weightsOf(const KelmRuntime& runtime) {
        std::vector<float> weights;
        for (EdgeId id = 0; id < 3; ++id) weights.push_back(runtime.graph().edge(id).weight);
        return weights;
    }

    std::function<void(const WindowWork& item, ModelTime window_end)> show;
    ScriptedBackend shown{
        [this](const WindowWork& item, const Kernel::WindowEvent* events, ModelTime window_end) {
            if (show) show(item, window_end);
            return Kernel::processWindow(item, events - item.first_event, window_end, horizon);
        }};
    IWindowBackend* backend = &shown;
    Kernel::Firing firing{1000.0, 1.0, 0.0, 0.1};
    std::uint64_t seed = 3;
    ModelTime horizon = 20 * d_min;
    const PlasticityConfig learning{
        {}, {PlasticityRuleKind::pair, 0.05, 0.03, 0.0, 1.0}, {}, {}, true};
    PlasticityConfig plasticity;
    std::optional<PhaseConfig> phase;
    std::optional<RecorderConfig> recorder;
    std::vector<InputChannelSpec> channels;
    std::optional<PredictionConfig> prediction;
};

// Starts with every fault and mends one after the other. The text shows which check is next.
TEST_F(KelmRuntimeTest, ChecksItsArgumentsInOneOrder) {
    backend = nullptr;  // the first run refuses it
    horizon = 0;
    plasticity.enabled = true;
    plasticity.trace.tau_pre = 0;
    recorder = RecorderConfig{true, false, -1, {}};
    channels = {{"in", 0, {0}}, {"", 0, {3}}};
    prediction = PredictionConfig{{{"", {3}}}, {{}, {}}};
    phase = PhaseConfig{{{5, 4000.0}, {5, 1.0}}, {{{9, 0, nan, 0.0}}, {}}, {{5, 6, 1.0}}, 0};
    const auto making = [&] { make(); };
    using Argument = std::invalid_argument;
    using Phase = InvalidPhaseModulation;
    expectThrows<WindowEngineError>(making, "the window engine needs a positive horizon");
    horizon = 100'000'002;
    expectThrows<InvalidPlasticity>(making, "plasticity trace windows must be positive");
    plasticity.trace.tau_pre = 1;
    expectThrows<InvalidRecorder>(making, "recorder sample interval must not be negative");
    recorder->sample_interval = 1;
    expectThrows<InvalidRecorder>(making, "recorder sample interval is too short for the horizon");
    horizon = 20 * d_min;
    recorder->sample_interval = d_min;
    // The range check comes before the bank's checks of the same channel.
    expectThrows<InvalidModality>(making, "runtime input channel target is outside the graph");
    channels[1].targets = {2};
    expectThrows<InvalidModality>(making, "an input channel must be named");
    channels[1].name = "other";
    expectThrows<InvalidPrediction>(making,
                                    "runtime prediction channel and predictor counts differ");
    prediction->predictors.resize(1);
    expectThrows<InvalidPrediction>(making, "runtime prediction target is outside the graph");
    prediction->channels[0].targets = {1};
    expectThrows<InvalidPrediction>(making, "error channel needs a name");
    prediction->channels[0].name = "error";
    expectThrows<Phase>(making, "runtime phase bindings do not match the neuron count");
    phase->bindings.resize(3);
    expectThrows<InvalidOscillator>(making, "duplicate KELM oscillator id");
    phase->oscillators[1].id = 6;
    expectThrows<InvalidOscillator>(making, "oscillator coupling period must be positive");
    phase->coupling_period = 1;
    expectThrows<InvalidOscillator>(making, "unknown KELM oscillator id");
    phase->bindings[0][0].oscillator = 6;
    expectThrows<Phase>(making, "phase modulation must be finite");
    phase->bindings[0][0].strength = 0.0;
    KelmRuntime runtime = make();
    expectThrows<Argument>([&] { runtime.run(d_min); }, "a runtime needs a backend");
    expectThrows<Argument>([&] { runtime.run(); }, "a runtime needs a backend");
    EXPECT_EQ(runtime.position(), 0);
}

// A window spans four cycles, so each binding adds its whole amplitude to the bound. The margin is
// that of gain 1.
TEST_F(KelmRuntimeTest, DrivesItsNeuronsByPhasesAndErrorsTimesTheirGains) {
    modulate();
    for (const auto& [phase_gain, error] :
         {std::pair(1.0, 1.0), std::pair(0.5, 0.25), {0.0, 0.5}}) {
        SCOPED_TRACE("gains " + std::to_string(phase_gain) + ", " + std::to_string(error));
        KelmRuntime runtime = make();
        InterventionState& state = runtime.interventions();
        for (std::size_t i = 0; i < InterventionState::mechanism_count; ++i) {
            state.setGain(i, 0.0);
            state.setOff(i, true);  // the mechanisms of a drive ignore their switches
        }
        state.setGain(InterventionState::oscillators, phase_gain);
        state.setGain(InterventionState::prediction, error);
        runtime.prediction()->observeValue(0, 1.0, 0.25, 0);
        runtime.prediction()->observeValue(1, 0.0, 9.0, 0);
        PhaseDrive drives[3];
        show = [&](const WindowWork& item, ModelTime) { drives[item.neuron] = item.drive; };
        runtime.perturb({0, 0, PerturbationKind::activation, 0.0, {0, 1, 2}});
        runtime.run(d_min);

        const double omega = (4000.0 * 6.283185307179586) / 1e9;
        const double weights[] = {0.375, 0.0, 0.28125};
        const double errors[] = {0.0, 0.75 * -0.5, 0.75 * -0.5 + -1.0 * 0.25};
        const double error_bounds[] = {0.0, 0.75, 0.75 + 0.25};
        PhaseDrive expected[3];
        for (NodeId n = 0; n < 3; ++n) {
            expected[n].base = errors[n] * error;
            expected[n].bound =
                ((weights[n] + 1.0) * 1e-10 + weights[n] * phase_gain) + error_bounds[n] * error;
        }
        if (phase_gain != 0.0) {
            expected[0].terms[expected[0].term_count++] = {0.375 * phase_gain, 0.5, omega};
            expected[2].terms[expected[2].term_count++] = {-0.1875 * phase_gain, 0.5 + 0.1, omega};
            expected[2].terms[expected[2].term_count++] = {0.09375 * phase_gain, 0.5 + 0.2, omega};
        }
        EXPECT_TRUE(sameImages<PhaseDrive>(drives, expected));
        EXPECT_EQ(shown.offers, 0);
    }
}

TEST_F(KelmRuntimeTest, ReadsPhasesAtTheWindowsStartAfterTheCoupling) {
    phase = PhaseConfig{{{5, 4000.0, 0.5, 0.75}, {6, 10.0, 2.0, 1.0}},
                        {{}, {{6, 0, 0.25, 0.5}}, {}},
                        {{5, 6, 300.0}, {6, 5, -200.0}},
                        1'500'000};
    KelmRuntime runtime = make();
    runtime.oscillators()->setCouplingEnabled(true);
    OscillatorBank twin = *std::as_const(runtime).oscillators();
    show = [&](const WindowWork& item, ModelTime window_end) {
        twin.advanceCoupling(window_end - d_min);
        if (item.neuron != 1) return;
        EXPECT_EQ(item.drive.origin, window_end - d_min);
        EXPECT_TRUE(sameBits(item.drive.terms[0].phase, twin.phaseOf(6, item.drive.origin) + 0.5));
    };
    runtime.run();
    EXPECT_GT(twin.couplingSteps(), 10);
}

// No delivery arrives within its own window, so an engine with windows of 1 ns makes the same run
// and can stop at any time.
TEST_F(KelmRuntimeTest, SamplesTheStateOfAnEngineThatStopsAtThatTime) {
    recorder = RecorderConfig();
    for (const int kind : {0, 2, 3, 4, 5, 6}) {
        recorder->sample_kinds.push_back(static_cast<SampleKind>(kind));
    }
    for (const ModelTime interval :
         {ModelTime{0}, 5 * d_min, ModelTime{70'001}, 20 * d_min - 1, 20 * d_min}) {
        SCOPED_TRACE("interval " + std::to_string(interval));
        recorder->sample_interval = interval;
        KelmRuntime runtime = make();
        runtime.run();
        WindowEngine engine(runtime.graph(), Kernel::Neuron(), firing, seed, horizon,
                            std::make_unique<BucketEventStore>(1, 4096));
        const auto samples = runtime.recorder()->samples();
        ASSERT_EQ(samples.size(), interval == 0 ? 0 : (horizon - 1) / interval);
        for (const RecordedSample& sample : samples) {
            EXPECT_EQ(sample.time, interval * (1 + (&sample - samples.data())));
            EXPECT_EQ(sample.active_synapses, 3);
            engine.run(shown, sample.time);
            for (NodeId n = 0; n < 3; ++n) {
                Kernel::State state = engine.states()[n];
                Kernel::advanceTraces(state, {}, sample.time);
                const ModelTime left = std::max(state.refractory_until - sample.time, ModelTime{0});
                const double expected[] = {state.membrane, state.adaptation,
                                           static_cast<double>(left),
                                           static_cast<double>(engine.candidates()[n].time)};
                const double found[] = {sample.membrane[n], sample.adaptation[n],
                                        sample.refractory_left[n], sample.next_candidate[n]};
                EXPECT_TRUE(sameImages<double>(found, expected));
            }
        }
    }
    firing.base_rate = 0.0;
    recorder->sample_interval = d_min;
    KelmRuntime silent = make();
    silent.run();
    EXPECT_EQ(silent.recorder()->samples()[0].spike_counts, std::vector<double>(3));
}

/// Stores the spikes of all calls.
class StoringListener : public ICommitListener {
public:
    void committed(ModelTime window_start, ModelTime window_end,
                   std::span<const SpikeRecord> spikes) override {
        EXPECT_EQ(window_end - window_start, d_min);
        ++windows;
        seen.insert(seen.end(), spikes.begin(), spikes.end());
        look();
    }

    std::uint64_t windows = 0;
    std::vector<SpikeRecord> seen;
    std::function<void()> look;
};

TEST_F(KelmRuntimeTest, CallsItsListenerAfterAllParts) {
    plasticity = learning;
    plasticity.homeostasis = {true, 0.25};
    modulate();
    recorder = RecorderConfig();
    KelmRuntime runtime = make();
    runtime.oscillators()->setMemberships({{5}, {}});
    double phases_at_proposals = 0.0;
    runtime.plasticity()->setChangeHook([&](const WeightChangeContext& context) {
        const auto firstPhase = [&](NodeId neuron) {
            const auto phases = runtime.oscillators()->neuronPhases(neuron, context.time);
            return phases.empty() ? 0.0 : phases[0].phase;
        };
        EXPECT_EQ(context.pre_phase, firstPhase(context.pre_neuron));
        EXPECT_EQ(context.post_phase, firstPhase(context.post_neuron));
        phases_at_proposals += context.pre_phase + context.post_phase;
        return 1.0;
    });
    StoringListener listener;
    listener.look = [&] {
        EXPECT_EQ(runtime.commitCount(), listener.windows - 1);
        ASSERT_EQ(runtime.phaseLog().size(), listener.seen.size());
        ASSERT_EQ(runtime.recorder()->spikes().size(), listener.seen.size());
        for (std::size_t i = 0; i < listener.seen.size(); ++i) {
            const auto& [time, neuron] = listener.seen[i];
            const PhaseLogEntry& entry = runtime.phaseLog()[i];
            const RecordedSpike& spike = runtime.recorder()->spikes()[i];
            EXPECT_GE(runtime.plasticity()->traces()[neuron].last_spike, time);
            EXPECT_EQ(std::tuple(entry.time, entry.neuron), std::tuple(time, neuron));
            EXPECT_EQ(std::tuple(spike.time, spike.neuron, spike.spike_kind),
                      std::tuple(time, neuron, 0U));
            const auto phases = runtime.oscillators()->neuronPhases(neuron, time);
            EXPECT_EQ(phases.size(), neuron == 0 ? 1 : 0);
            EXPECT_TRUE(sameImages<PhaseSample>(entry.phases, phases));
            EXPECT_TRUE(sameImages<PhaseSample>(spike.phases, phases));
        }
        // One synapse enters each neuron, so the cap bounds each weight, up to rounding.
        for (const float weight : weightsOf(runtime)) EXPECT_LE(weight, 0.25F * (1 + 1e-6F));
    };
    runtime.setCommitListener(&listener);
    runtime.run(10 * d_min);
    EXPECT_GT(listener.seen.size(), 10);
    EXPECT_GT(phases_at_proposals, 0.0);

    // An exception of the listener ends the run and changes nothing else.
    listener.look = [] { throw std::domain_error("enough"); };
    EXPECT_THROW(runtime.run(), std::domain_error);
    EXPECT_EQ(runtime.position(), 10 * d_min);
    EXPECT_EQ(runtime.commitCount(), listener.windows - 1);
    EXPECT_EQ(runtime.profile().windows, listener.windows);
}

TEST_F(KelmRuntimeTest, SkipsSpikesForGoodWhilePlasticityIsOff) {
    plasticity = learning;
    plasticity.homeostasis = {true, 0.25};
    KelmRuntime runtime = make();
    runtime.interventions().setOff(InterventionState::plasticity, true);
    runtime.run(10 * d_min);
    EXPECT_EQ(weightsOf(runtime), std::vector<float>(3, 0.5F));
    for (const SpikeTrace& trace : runtime.plasticity()->traces()) EXPECT_EQ(trace.updated, 0);
    runtime.interventions().setOff(InterventionState::plasticity, false);
    runtime.run();
    ASSERT_FALSE(runtime.learningControl()->journal().empty());
    EXPECT_GE(runtime.learningControl()->journal()[0].time, 10 * d_min);
}

TEST_F(KelmRuntimeTest, ScalesEveryWeightChangeByItsGain) {
    plasticity = learning;
    KelmRuntime turned = make();
    turned.interventions().setGain(InterventionState::plasticity, 0.5);
    turned.run();
    plasticity.excitatory.scale = 0.5;
    KelmRuntime scaled = make();
    scaled.run();
    EXPECT_NE(weightsOf(turned), std::vector<float>(3, 0.5F));
    EXPECT_EQ(weightsOf(turned), weightsOf(scaled));
}

TEST_F(KelmRuntimeTest, TracesAnInjectionBeforeTheChannelDecides) {
    InjectionTrace trace;
    KelmRuntime bare = make();
    bare.setInjectionTrace(&trace);
    expectThrows<InvalidModality>([&] { bare.inject("", -1, nan); },
                                  "the runtime has no input channels");
    EXPECT_TRUE(trace.records().empty());
    channels = {{"in", 0, {2, 0}}};
    KelmRuntime runtime = make();
    runtime.setInjectionTrace(&trace);
    EXPECT_EQ(runtime.inject("in", 5, 0.5).size(), 2);
    expectThrows<InvalidModality>([&] { runtime.inject("out", 6, 1.0); },
                                  "unknown input channel out");
    // An injection that the trace refuses does not reach the channel.
    expectThrows<std::invalid_argument>([&] { runtime.inject("in", 7, nan); },
                                        "invalid trace injection");
    ASSERT_EQ(trace.records().size(), 2);
    const InjectionRecord& second = trace.records()[1];
    EXPECT_TRUE(second.name == "out" && second.time == 6 && second.value == 1.0);
    EXPECT_EQ(runtime.inputChannels()->stats(0).injections, 1);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
