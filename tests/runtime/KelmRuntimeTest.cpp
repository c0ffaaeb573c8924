#include "kelm/runtime/KelmRuntime.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "tests/support/BlobLayout.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/RunImage.h"
#include "tests/support/SameBits.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();
constexpr ModelTime d_min = 1'000'000;

/// What makeKelmRuntime takes, in its order: three neurons in a ring, each some ten spikes in
/// twenty windows of 1 ms.
struct Ingredients {
    SynapseGraph network = ring();
    Kernel::Neuron neuron;
    Kernel::Firing firing = hotFiring();
    std::uint64_t seed = 3;
    ModelTime horizon = 20 * d_min;
    IWindowBackend* backend = nullptr;
    PlasticityConfig plasticity;
    std::optional<PhaseConfig> phase;
    std::optional<RecorderConfig> recorder;
    std::vector<InputChannelSpec> channels;
    std::optional<PredictionConfig> prediction;

    static SynapseGraph ring() {
        std::vector<Synapse> synapses;
        for (NodeId n = 0; n < 3; ++n) {
            Synapse synapse;
            synapse.source = n;
            synapse.target = (n + 1) % 3;
            synapse.weight = 0.5F;
            synapse.delay = d_min;
            synapses.push_back(synapse);
        }
        return SynapseGraph(3, d_min, synapses);
    }
    static Kernel::Firing hotFiring() {
        Kernel::Firing firing;
        firing.base_rate = 1000.0;
        firing.gain = 1.0;
        firing.adaptation_weight = 0.1;
        return firing;
    }

    KelmRuntime make() const {
        return makeKelmRuntime(network, neuron, firing, seed, horizon, backend, nullptr, plasticity,
                               phase, recorder, channels, prediction);
    }
};

InputChannelSpec channelTo(std::vector<NodeId> targets, std::string name = "in") {
    InputChannelSpec spec;
    spec.name = std::move(name);
    spec.targets = std::move(targets);
    return spec;
}

PlasticityConfig pairPlasticity() {
    PlasticityConfig plasticity;
    plasticity.enabled = true;
    plasticity.excitatory.kind = PlasticityRuleKind::pair;
    plasticity.excitatory.a_potentiation = 0.05;
    plasticity.excitatory.a_depression = 0.03;
    return plasticity;
}

/// Binds neuron 0 to an oscillator that turns many times a window, neuron 1 to nothing, and
/// neuron 2 to it twice.
PhaseConfig fastPhase() {
    PhaseConfig phase;
    phase.oscillators = {{5, 4000.0, 0.5, 0.75}};
    phase.bindings = {{{5, 0, 0.5, 0.0}}, {}, {{5, 1, 0.25, 0.1}, {5, 0, 0.125, 0.2}}};
    return phase;
}

/// The CPU backend, which hands every item to a test first.
class ShowingBackend : public IWindowBackend {
public:
    const char* name() override { return "showing"; }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override {
        for (const WindowWork& item : work) {
            if (show) show(item, window_end);
        }
        cpu_.processWindow(work, events, window_end, horizon, neuron, firing, results);
    }
    bool tryResidentRun(WindowEngine&) override {
        ADD_FAILURE() << "a runtime's hooks rule a whole run out";
        return false;
    }

    std::function<void(const WindowWork& item, ModelTime window_end)> show;

private:
    CpuWindowBackend cpu_;
};

// Every fault at once, and then one healed after the other: the text tells which check comes next.
TEST(KelmRuntimeConstruction, ChecksItsArgumentsInOneOrder) {
    CpuWindowBackend cpu;
    Ingredients with;
    with.horizon = 0;
    with.plasticity.enabled = true;
    with.plasticity.trace.tau_pre = 0;
    with.recorder = RecorderConfig();
    with.recorder->sample_interval = -1;
    with.channels = {channelTo({0}), channelTo({3}, "")};
    with.prediction = PredictionConfig();
    with.prediction->channels = {ErrorChannel{"", {3}}};
    with.prediction->predictors.resize(2);
    with.phase = fastPhase();
    with.phase->bindings.resize(2);
    with.phase->oscillators.push_back({5, 1.0, 0.0, 1.0});
    with.phase->couplings = {{5, 6, 1.0}};
    with.phase->bindings[0].push_back({9, 0, nan, 0.0});

    const auto expectNext = [&]<class Error>(std::type_identity<Error>, const std::string& text) {
        expectThrows<Error>([&] { with.make(); }, text);
    };
    expectNext(std::type_identity<std::invalid_argument>(), "a runtime needs a backend");
    with.backend = &cpu;
    expectNext(std::type_identity<WindowEngineError>(),
               "the window engine needs a positive horizon");
    with.horizon = 20 * d_min;
    expectNext(std::type_identity<InvalidPlasticity>(),
               "plasticity trace windows must be positive");
    with.plasticity.trace.tau_pre = 1;
    expectNext(std::type_identity<std::invalid_argument>(),
               "recorder sample interval must not be negative");
    with.recorder->sample_interval = d_min;
    // The range comes before the bank's own checks of the same channel.
    expectNext(std::type_identity<InvalidModality>(),
               "runtime input channel target is outside the graph");
    with.channels[1].targets = {2};
    expectNext(std::type_identity<InvalidModality>(), "an input channel must be named");
    with.channels[1].name = "other";
    expectNext(std::type_identity<InvalidPrediction>(),
               "runtime prediction channel and predictor counts differ");
    with.prediction->predictors.resize(1);
    expectNext(std::type_identity<InvalidPrediction>(),
               "runtime prediction target is outside the graph");
    with.prediction->channels[0].targets = {1};
    expectNext(std::type_identity<InvalidPrediction>(), "error channel needs a name");
    with.prediction->channels[0].name = "error";
    expectNext(std::type_identity<InvalidPhaseModulation>(),
               "runtime phase bindings do not match the neuron count");
    with.phase->bindings.resize(3);
    expectNext(std::type_identity<InvalidOscillator>(), "duplicate KELM oscillator id");
    with.phase->oscillators[1].id = 6;
    expectNext(std::type_identity<InvalidOscillator>(),
               "oscillator coupling period must be positive");
    with.phase->coupling_period = 1;
    expectNext(std::type_identity<InvalidOscillator>(), "unknown KELM oscillator id");
    with.phase->bindings[0][1].oscillator = 6;
    expectNext(std::type_identity<InvalidPhaseModulation>(), "phase modulation must be finite");
    with.phase->bindings[0][1].strength = 0.0;
    EXPECT_NO_THROW(with.make());
}

TEST(KelmRuntimeConstruction, PutsEachPartInItsSlot) {
    CpuWindowBackend cpu;
    Ingredients with;
    with.backend = &cpu;
    KelmRuntime bare = with.make();
    EXPECT_EQ(bare.plasticity(), nullptr);
    EXPECT_EQ(bare.learningControl(), nullptr);
    EXPECT_EQ(bare.recorder(), nullptr);
    EXPECT_EQ(bare.inputChannels(), nullptr);
    EXPECT_EQ(bare.prediction(), nullptr);
    EXPECT_EQ(bare.oscillators(), nullptr);
    EXPECT_EQ(bare.label(), "unknown");
    EXPECT_EQ(bare.configId(), 0);

    with.plasticity = pairPlasticity();
    with.phase = fastPhase();
    with.recorder = RecorderConfig();
    with.channels = {channelTo({0, 1})};
    with.prediction = PredictionConfig();
    with.prediction->channels = {ErrorChannel{"without a readout", {1}}};
    KelmRuntime full = with.make();
    EXPECT_EQ(full.plasticity()->traces().size(), 3);
    EXPECT_EQ(full.learningControl()->synapseStates().size(), 3);
    EXPECT_EQ(full.inputChannels()->indexOf("in"), 0);
    EXPECT_EQ(full.prediction()->predictors().size(), 1);
    EXPECT_TRUE(full.prediction()->predictors()[0].sources.empty());
    EXPECT_EQ(full.oscillators()->oscillators().size(), 1);
    EXPECT_EQ(full.position(), 0);
    EXPECT_EQ(full.commitCount(), 0);

    with.prediction->predictors = {Predictor{PredictorKind::explicit_readout, {2}, {0.5}, 0.1}};
    EXPECT_EQ(with.make().prediction()->predictors()[0].sources, std::vector<NodeId>{2});
}

TEST(KelmRuntimeConstruction, DrawsFirstCandidatesUnderWhateverModulationMayCome) {
    ShowingBackend backend;
    Ingredients with;
    with.backend = &backend;
    with.phase = fastPhase();
    with.prediction = PredictionConfig();
    with.prediction->channels = {ErrorChannel{"a", {1, 2}, 1.0, -0.5, 1.5},
                                 ErrorChannel{"b", {2}, 1.0, 0.25, 1.0}};
    // The sum of |strength * amplitude| over the bindings, and of |strength| * clamp over the error
    // channels.
    const double bounds[] = {0.375, 0.75, 0.1875 + 0.09375 + 0.75 + 0.25};
    KelmRuntime runtime = with.make();
    bool seen[3] = {};
    backend.show = [&](const WindowWork& item, ModelTime) {
        if (std::exchange(seen[item.neuron], true)) return;
        std::uint64_t rng = initialSpontaneousState(with.seed, item.neuron);
        const auto draw = [&](double bound) {
            return Kernel::nextCandidate({}, with.neuron, with.firing, 0, with.horizon, bound, rng);
        };
        draw(0.0);
        const Kernel::Candidate first = draw(bounds[item.neuron]);
        EXPECT_EQ(item.pending_time, first.time);
        EXPECT_TRUE(sameBits(item.pending_bound, first.bound));
        EXPECT_EQ(item.rng, rng);
    };
    runtime.run();
    EXPECT_TRUE(seen[0] && seen[1] && seen[2]);
}

TEST(KelmRuntimeConstruction, DrawsFirstCandidatesOnceWhereNothingModulates) {
    CpuWindowBackend cpu;
    Ingredients with;
    with.backend = &cpu;
    with.plasticity = pairPlasticity();
    with.channels = {channelTo({0})};
    KelmRuntime runtime = with.make();
    std::uint64_t rng = initialSpontaneousState(with.seed, 0);
    Kernel::nextCandidate({}, with.neuron, with.firing, 0, with.horizon, 0.0, rng);
    EXPECT_EQ(runtime.spontaneousState(0), rng);
}

TEST(KelmRuntime, WithEverySlotEmptyIsItsEngine) {
    for (std::uint64_t seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE("model seed " + std::to_string(seed));
        const GeneratedModel model = generateModel(seed, {24, 60, true, false});
        CpuWindowBackend cpu;
        KelmRuntime runtime = makeKelmRuntime(model.graph(), model.neurons[0], model.firings[0],
                                              model.run_seed, model.horizon, &cpu);
        WindowEngine engine = makeEngine(model);
        try {
            engine.run(cpu);
        } catch (const WindowEngineError&) {
            EXPECT_THROW(runtime.run(), WindowEngineError);
            continue;
        }
        runtime.run();
        RunImage expected = imageOf(engine);
        expected.candidates.clear();
        EXPECT_EQ(firstDifference(imageOf(runtime), expected), "");
        EXPECT_EQ(runtime.logHash(), engine.logHash());
        EXPECT_EQ(runtime.commitCount(), engine.profile().windows);
        EXPECT_TRUE(runtime.phaseLog().empty());
    }
}

TEST(KelmRuntime, StandsWhereItsLastRunWasToEnd) {
    ShowingBackend backend;
    Ingredients with;
    with.backend = &backend;
    KelmRuntime runtime = with.make();
    runtime.run(7'300'000);
    EXPECT_EQ(runtime.position(), 7'300'000);
    runtime.run();
    EXPECT_EQ(runtime.position(), 20 * d_min);
    EXPECT_EQ(runtime.commitCount(), runtime.profile().windows);
    EXPECT_GT(runtime.profile().accepted, 15);
}

TEST(KelmRuntimeSamples, LieOnTheGridBelowTheHorizon) {
    struct Case {
        const char* fact;
        ModelTime interval;
        std::vector<ModelTime> times;
    };
    for (const Case& c : {
             Case{"no grid", 0, {}},
             Case{"a divisor: none at the horizon", 5 * d_min, {5 * d_min, 10 * d_min, 15 * d_min}},
             Case{"no divisor", 6'666'666, {6'666'666, 13'333'332, 19'999'998}},
             Case{"one before the horizon", 20 * d_min - 1, {20 * d_min - 1}},
             Case{"at the horizon", 20 * d_min, {}},
             Case{"far behind it", std::numeric_limits<ModelTime>::max(), {}},
         }) {
        SCOPED_TRACE(c.fact);
        CpuWindowBackend cpu;
        Ingredients with;
        with.backend = &cpu;
        with.recorder = RecorderConfig();
        with.recorder->sample_interval = c.interval;
        KelmRuntime runtime = with.make();
        runtime.run();
        const Blob bytes = runtime.checkpoint();
        const BlobView engine = BlobLayout::ofCheckpoint(bytes, false).nested(bytes, "engine");
        EXPECT_EQ(BlobLayout::ofEngine(engine).number(engine, "observations"), c.times.size());
        std::vector<ModelTime> times;
        for (const RecordedSample& sample : runtime.recorder()->samples()) {
            times.push_back(sample.time);
        }
        EXPECT_EQ(times, c.times);
        EXPECT_EQ(runtime.recorder()->spikes().size(), runtime.spikeLog().size());
    }
}

TEST(KelmRuntimeSamples, AreRefusedWhereTheyWouldFillTheMemory) {
    CpuWindowBackend cpu;
    Ingredients with;
    with.backend = &cpu;
    with.recorder = RecorderConfig();
    with.recorder->sample_interval = 1;
    for (const ModelTime horizon : {ModelTime{100'000'002}, last_model_time}) {
        with.horizon = horizon;
        expectThrows<std::invalid_argument>(
            [&] { with.make(); }, "recorder sample interval is too short for the horizon");
    }
}

/// Keeps what an engine shows at its observations.
class KeepingObserver : public IWindowObserver {
public:
    void observe(const Event&, std::span<const Kernel::State>, SynapseGraph&) override {}
    void observe(const Event& event, std::span<const Kernel::State> states,
                 std::span<const ModelTime> candidate_times, SynapseGraph&) override {
        times.push_back(event.time);
        shown.emplace_back(states.begin(), states.end());
        candidates.emplace_back(candidate_times.begin(), candidate_times.end());
    }

    std::vector<ModelTime> times;
    std::vector<std::vector<Kernel::State>> shown;
    std::vector<std::vector<ModelTime>> candidates;
};

TEST(KelmRuntimeSamples, HoldWhatTheEngineShowsAtTheirTimes) {
    CpuWindowBackend cpu;
    Ingredients with;
    with.backend = &cpu;
    with.recorder = RecorderConfig();
    with.recorder->sample_interval = 700'001;
    with.recorder->sample_kinds = {SampleKind::membrane,        SampleKind::adaptation,
                                   SampleKind::refractory_left, SampleKind::next_candidate,
                                   SampleKind::active_synapses, SampleKind::spike_counts};
    KelmRuntime runtime = with.make();
    runtime.run();

    KeepingObserver observer;
    WindowEngine engine(with.network, with.neuron, with.firing, with.seed, with.horizon);
    engine.setHooks(nullptr, nullptr, &observer);
    for (ModelTime time = 700'001; time < with.horizon; time += 700'001) {
        Event event;
        event.time = time;
        engine.declareObserverEvent(event);
    }
    engine.run(cpu);

    const auto samples = runtime.recorder()->samples();
    ASSERT_EQ(samples.size(), observer.times.size());
    std::vector<double> counted(3, 0.0);
    int refractory = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        SCOPED_TRACE("sample " + std::to_string(i));
        const RecordedSample& sample = samples[i];
        EXPECT_EQ(sample.time, observer.times[i]);
        EXPECT_EQ(sample.active_synapses, 3);
        for (NodeId n = 0; n < 3; ++n) {
            const Kernel::State& state = observer.shown[i][n];
            const ModelTime left = state.refractory_until - sample.time;
            EXPECT_TRUE(sameBits(sample.membrane[n], state.membrane));
            EXPECT_TRUE(sameBits(sample.adaptation[n], state.adaptation));
            EXPECT_EQ(sample.refractory_left[n], left > 0 ? static_cast<double>(left) : 0.0);
            EXPECT_EQ(sample.next_candidate[n], static_cast<double>(observer.candidates[i][n]));
            counted[n] += sample.spike_counts[n];
            EXPECT_EQ(counted[n], std::count_if(engine.spikeLog().begin(), engine.spikeLog().end(),
                                                [&](const SpikeRecord& spike) {
                                                    return spike.neuron == n &&
                                                           spike.time <= sample.time;
                                                }));
            refractory += left > 0;
        }
    }
    EXPECT_GT(refractory, 5);
}

/// Keeps what it is told.
class KeepingListener : public ICommitListener {
public:
    void committed(ModelTime window_start, ModelTime window_end,
                   std::span<const SpikeRecord> spikes) override {
        EXPECT_EQ(window_end - window_start, d_min);
        starts.push_back(window_start);
        for (const SpikeRecord& spike : spikes) {
            EXPECT_GE(spike.time, window_start);
            EXPECT_LT(spike.time, window_end);
            told.push_back(spike);
        }
        if (look) look();
    }

    std::vector<ModelTime> starts;
    std::vector<SpikeRecord> told;
    std::function<void()> look;
};

TEST(KelmRuntimeCommit, TellsItsListenerWhenEveryPartHasDoneItsWork) {
    CpuWindowBackend cpu;
    Ingredients with;
    with.backend = &cpu;
    with.plasticity = pairPlasticity();
    with.phase = fastPhase();
    with.recorder = RecorderConfig();
    KelmRuntime runtime = with.make();
    KeepingListener listener;
    listener.look = [&] {
        EXPECT_EQ(runtime.recorder()->spikes().size(), listener.told.size());
        EXPECT_EQ(runtime.phaseLog().size(), listener.told.size());
        EXPECT_EQ(runtime.commitCount(), listener.starts.size() - 1);
        for (const SpikeRecord& spike : listener.told) {
            EXPECT_GE(runtime.plasticity()->traces()[spike.neuron].last_spike, spike.time);
        }
    };
    runtime.setCommitListener(&listener);
    runtime.run(10 * d_min);
    EXPECT_EQ(listener.starts.size(), runtime.commitCount());
    EXPECT_TRUE(std::is_sorted(listener.starts.begin(), listener.starts.end()));
    std::sort(listener.told.begin(), listener.told.end(), SpikeRecordLess());
    EXPECT_TRUE(std::ranges::equal(listener.told, runtime.spikeLog()));
    EXPECT_GT(listener.told.size(), 10);

    runtime.setCommitListener(nullptr);
    const std::size_t told = listener.told.size();
    runtime.run();
    EXPECT_EQ(listener.told.size(), told);
}

TEST(KelmRuntimeCommit, LogsTheOscillatorsOfEachSpikesNeuron) {
    CpuWindowBackend cpu;
    Ingredients with;
    with.backend = &cpu;
    with.phase = fastPhase();
    with.recorder = RecorderConfig();
    KelmRuntime runtime = with.make();
    runtime.oscillators()->setMemberships({{5}, {}});
    KeepingListener listener;
    runtime.setCommitListener(&listener);
    runtime.run();
    ASSERT_EQ(runtime.phaseLog().size(), listener.told.size());
    ASSERT_GT(listener.told.size(), 10);
    for (std::size_t i = 0; i < listener.told.size(); ++i) {
        const PhaseLogEntry& entry = runtime.phaseLog()[i];
        const RecordedSpike& spike = runtime.recorder()->spikes()[i];
        EXPECT_EQ(entry.time, listener.told[i].time);
        EXPECT_EQ(entry.neuron, listener.told[i].neuron);
        EXPECT_EQ(spike.time, entry.time);
        EXPECT_EQ(spike.neuron, entry.neuron);
        EXPECT_EQ(spike.spike_kind, 0);
        EXPECT_FALSE(spike.cause.present);
        ASSERT_EQ(entry.phases.size(), entry.neuron == 0 ? 1 : 0);
        ASSERT_EQ(spike.phases.size(), entry.phases.size());
        if (entry.phases.empty()) continue;
        EXPECT_EQ(entry.phases[0].oscillator, 5);
        EXPECT_TRUE(sameBits(entry.phases[0].phase, runtime.oscillators()->phaseOf(5, entry.time)));
        EXPECT_TRUE(sameBits(spike.phases[0].phase, entry.phases[0].phase));
    }
}

TEST(KelmRuntimeHooks, ThatThrowEndTheRunAndNothingElse) {
    struct Fault {};
    CpuWindowBackend cpu;
    Ingredients with;
    with.backend = &cpu;
    with.plasticity = pairPlasticity();
    auto runtime = std::unique_ptr<KelmRuntime>(new KelmRuntime(with.make()));
    runtime->run(5 * d_min);
    const std::uint64_t commits = runtime->commitCount();
    KeepingListener listener;
    listener.look = [] { throw Fault(); };
    runtime->setCommitListener(&listener);
    EXPECT_THROW(runtime->run(), Fault);
    EXPECT_EQ(runtime->position(), 5 * d_min);
    EXPECT_EQ(runtime->commitCount(), commits);
    EXPECT_EQ(runtime->profile().windows, commits + 1);
    runtime.reset();

    // In prepare: more terms than a neuron can take, of which construction knows nothing.
    with.phase = fastPhase();
    with.phase->bindings[1].assign(9, {5, 0, 0.01, 0.0});
    expectThrows<InvalidPhaseModulation>([&] { with.make().run(); },
                                         "a neuron exceeds the kernel phase-binding capacity");
    with.phase->bindings[1][4].polarity = 2;
    EXPECT_NO_THROW(with.make().run());

    // In commit: a cap that construction does not look at.
    with.plasticity.homeostasis = {true, nan};
    expectThrows<InvalidPlasticity>([&] { with.make().run(); },
                                    "homeostasis cap must be finite and > 0");
}

class KelmRuntimeDrive : public testing::Test {
protected:
    /// The drives of a window that is known in full: of one item per neuron.
    std::vector<PhaseDrive> drivesOfFirstWindow(KelmRuntime& runtime) {
        std::vector<PhaseDrive> drives(3);
        backend.show = [&](const WindowWork& item, ModelTime window_end) {
            if (window_end == d_min) drives[item.neuron] = item.drive;
        };
        Perturbation perturbation;
        perturbation.targets = {0, 1, 2};
        runtime.perturb(perturbation);
        runtime.run(d_min);
        return drives;
    }

    static Ingredients with(IWindowBackend& backend) {
        Ingredients ingredients;
        ingredients.backend = &backend;
        ingredients.phase = fastPhase();
        ingredients.prediction = PredictionConfig();
        ingredients.prediction->channels = {ErrorChannel{"a", {1, 2}, 1.0, -0.5, 1.5},
                                            ErrorChannel{"b", {2}, 1.0, 0.25, 1.0}};
        return ingredients;
    }

    ShowingBackend backend;
};

// The oscillator turns four times a window, so each binding adds its whole amplitude to the bound.
TEST_F(KelmRuntimeDrive, AddsTermsErrorsAndBoundsInTheirOrder) {
    KelmRuntime runtime = with(backend).make();
    runtime.prediction()->observeValue(0, 1.0, 0.25, 0);
    runtime.prediction()->observeValue(1, 0.0, 9.0, 0);
    const std::vector<PhaseDrive> drives = drivesOfFirstWindow(runtime);
    EXPECT_EQ(drives[0].term_count, 1);
    EXPECT_TRUE(sameBits(drives[0].terms[0].amplitude, 0.375));
    EXPECT_TRUE(sameBits(drives[0].terms[0].phase, 0.5));
    EXPECT_TRUE(sameBits(drives[0].terms[0].omega, (4000.0 * 6.283185307179586) / 1e9));
    EXPECT_EQ(drives[0].base, 0.0);
    EXPECT_TRUE(sameBits(drives[0].bound, (0.375 + 1.0) * 1e-10 + 0.375));

    EXPECT_EQ(drives[1].term_count, 0);
    EXPECT_TRUE(sameBits(drives[1].base, 0.75 * -0.5));
    EXPECT_TRUE(sameBits(drives[1].bound, ((0.0 + 1.0) * 1e-10 + 0.0) + 0.75));

    EXPECT_EQ(drives[2].term_count, 2);
    EXPECT_TRUE(sameBits(drives[2].terms[0].amplitude, -0.1875));
    EXPECT_TRUE(sameBits(drives[2].terms[1].amplitude, 0.09375));
    EXPECT_TRUE(sameBits(drives[2].base, 0.75 * -0.5 + -1.0 * 0.25));
    EXPECT_TRUE(sameBits(drives[2].bound, ((0.28125 + 1.0) * 1e-10 + 0.28125) + (0.75 + 0.25)));
}

TEST_F(KelmRuntimeDrive, FollowsTheGainsOfItsMechanisms) {
    KelmRuntime runtime = with(backend).make();
    runtime.prediction()->observeValue(0, 1.0, 0.25, 0);
    runtime.interventions().setGain(InterventionState::oscillators, 0.5);
    runtime.interventions().setGain(InterventionState::prediction, 0.25);
    const std::vector<PhaseDrive> drives = drivesOfFirstWindow(runtime);
    EXPECT_TRUE(sameBits(drives[0].terms[0].amplitude, 0.1875));
    // The margin stays that of gain 1.
    EXPECT_TRUE(sameBits(drives[0].bound, (0.375 + 1.0) * 1e-10 + 0.1875));
    EXPECT_TRUE(sameBits(drives[1].base, (0.75 * -0.5) * 0.25));
    EXPECT_TRUE(sameBits(drives[1].bound, ((0.0 + 1.0) * 1e-10 + 0.0) + 0.75 * 0.25));
}

TEST_F(KelmRuntimeDrive, OfSilencedOscillatorsHasNoTerm) {
    KelmRuntime runtime = with(backend).make();
    runtime.interventions().setGain(InterventionState::oscillators, 0.0);
    // Switches of these two mechanisms have no effect, nor have the entries of the others.
    runtime.interventions().setOff(InterventionState::prediction, true);
    runtime.interventions().setOff(InterventionState::oscillators, true);
    for (const std::size_t other : {0U, 2U, 5U, 6U, 7U, 8U}) {
        runtime.interventions().setGain(other, 0.0);
        runtime.interventions().setOff(other, true);
    }
    runtime.prediction()->observeValue(0, 1.0, 0.25, 0);
    const std::vector<PhaseDrive> drives = drivesOfFirstWindow(runtime);
    EXPECT_EQ(drives[0].term_count, 0);
    EXPECT_TRUE(sameBits(drives[0].bound, (0.375 + 1.0) * 1e-10));
    EXPECT_TRUE(sameBits(drives[1].base, 0.75 * -0.5));
}

TEST_F(KelmRuntimeDrive, ReadsPhasesAtTheWindowsStartBehindTheCouplingUpToIt) {
    Ingredients ingredients = with(backend);
    ingredients.phase->oscillators.push_back({6, 10.0, 2.0, 1.0});
    ingredients.phase->couplings = {{5, 6, 300.0}, {6, 5, -200.0}};
    ingredients.phase->coupling_period = 1'500'000;
    ingredients.phase->bindings[1] = {{6, 0, 0.25, 0.5}};
    KelmRuntime runtime = ingredients.make();
    runtime.oscillators()->setCouplingEnabled(true);
    OscillatorBank twin(ingredients.phase->oscillators);
    twin.configureCoupling(ingredients.phase->couplings, 1'500'000);
    twin.setCouplingEnabled(true);
    int seen = 0;
    backend.show = [&](const WindowWork& item, ModelTime window_end) {
        const ModelTime start = window_end - d_min;
        twin.advanceCoupling(start);
        EXPECT_EQ(item.drive.origin, start);
        if (item.neuron != 1) return;
        EXPECT_TRUE(sameBits(item.drive.terms[0].phase, twin.phaseOf(6, start) + 0.5));
        ++seen;
    };
    runtime.run();
    EXPECT_GT(seen, 10);
    EXPECT_GT(runtime.oscillators()->couplingSteps(), 10);
    EXPECT_EQ(runtime.oscillators()->couplingSteps(), twin.couplingSteps());
}

TEST_F(KelmRuntimeDrive, WithoutRhythmAndErrorsIsLeftAtZero) {
    Ingredients ingredients = with(backend);
    ingredients.phase.reset();
    ingredients.prediction.reset();
    KelmRuntime runtime = ingredients.make();
    for (const PhaseDrive& drive : drivesOfFirstWindow(runtime)) {
        EXPECT_EQ(drive.term_count, 0);
        EXPECT_EQ(drive.base, 0.0);
        EXPECT_EQ(drive.bound, 0.0);
    }
}

class KelmRuntimeLearning : public testing::Test {
protected:
    KelmRuntimeLearning() {
        ingredients.backend = &cpu;
        ingredients.plasticity = pairPlasticity();
    }

    static std::vector<float> weightsOf(const KelmRuntime& runtime) {
        std::vector<float> weights;
        for (EdgeId id = 0; id < runtime.graph().edgeCount(); ++id) {
            weights.push_back(runtime.graph().edge(id).weight);
        }
        return weights;
    }

    CpuWindowBackend cpu;
    Ingredients ingredients;
};

TEST_F(KelmRuntimeLearning, IsSkippedWhileItIsSwitchedOffAndDoesNotCatchUp) {
    ingredients.plasticity.homeostasis = {true, 0.25};
    KelmRuntime runtime = ingredients.make();
    runtime.interventions().setOff(InterventionState::plasticity, true);
    runtime.run(10 * d_min);
    ASSERT_GT(runtime.profile().accepted, 10);
    EXPECT_EQ(weightsOf(runtime), std::vector<float>(3, 0.5F));
    EXPECT_TRUE(runtime.learningControl()->journal().empty());
    for (const SpikeTrace& trace : runtime.plasticity()->traces()) EXPECT_EQ(trace.updated, 0);

    runtime.interventions().setOff(InterventionState::plasticity, false);
    runtime.run();
    ASSERT_FALSE(runtime.learningControl()->journal().empty());
    for (const JournalEntry& entry : runtime.learningControl()->journal()) {
        EXPECT_GE(entry.time, 10 * d_min);
        EXPECT_TRUE(entry.pre_last_spike == 0 || entry.pre_last_spike >= 10 * d_min);
        EXPECT_TRUE(entry.post_last_spike == 0 || entry.post_last_spike >= 10 * d_min);
    }
}

TEST_F(KelmRuntimeLearning, ScalesEveryProposalByItsGain) {
    KelmRuntime halved = ingredients.make();
    halved.interventions().setGain(InterventionState::plasticity, 0.5);
    halved.run();
    ingredients.plasticity.excitatory.scale = 0.5;
    KelmRuntime scaled = ingredients.make();
    scaled.run();
    EXPECT_NE(weightsOf(halved), std::vector<float>(3, 0.5F));
    EXPECT_EQ(weightsOf(halved), weightsOf(scaled));
    EXPECT_EQ(halved.learningControl()->snapshot(), scaled.learningControl()->snapshot());
}

TEST_F(KelmRuntimeLearning, OfGainZeroJournalsUpdatesOfSizeZero) {
    KelmRuntime runtime = ingredients.make();
    runtime.interventions().setGain(InterventionState::plasticity, 0.0);
    runtime.run();
    ASSERT_GT(runtime.learningControl()->journal().size(), 10);
    for (const JournalEntry& entry : runtime.learningControl()->journal()) {
        EXPECT_EQ(entry.kind, JournalKind::update);
        EXPECT_EQ(entry.delta, 0.0);
        EXPECT_EQ(entry.weight_before, entry.weight_after);
    }
    EXPECT_EQ(weightsOf(runtime), std::vector<float>(3, 0.5F));
}

TEST_F(KelmRuntimeLearning, IsFollowedByHomeostasisInTheSameWindow) {
    ingredients.plasticity.homeostasis = {true, 0.25};
    KelmRuntime runtime = ingredients.make();
    KeepingListener listener;
    listener.look = [&] {
        // One synapse leads into each neuron, so the cap bounds each weight but for a rounding.
        for (const float weight : weightsOf(runtime)) EXPECT_LE(weight, 0.25F * (1 + 1e-6F));
    };
    runtime.setCommitListener(&listener);
    runtime.run();
    const auto journal = runtime.learningControl()->journal();
    EXPECT_TRUE(std::any_of(journal.begin(), journal.end(), [](const JournalEntry& entry) {
        return entry.kind == JournalKind::external;
    }));
}

class KelmRuntimeCaller : public testing::Test {
protected:
    KelmRuntimeCaller() {
        ingredients.backend = &cpu;
        ingredients.channels = {channelTo({2, 0})};
    }

    CpuWindowBackend cpu;
    Ingredients ingredients;
};

TEST_F(KelmRuntimeCaller, IsTracedBeforeTheChannelDecides) {
    KelmRuntime runtime = ingredients.make();
    InjectionTrace trace;
    runtime.setInjectionTrace(&trace);
    EXPECT_EQ(runtime.inject("in", 5, 0.5).size(), 2);
    expectThrows<InvalidModality>([&] { runtime.inject("in", 4, 0.25); },
                                  "input channel in moved back in time");
    expectThrows<InvalidModality>([&] { runtime.inject("out", 6, 1.0); },
                                  "unknown input channel out");
    ASSERT_EQ(trace.records().size(), 3);
    EXPECT_EQ(trace.records()[1].time, 4);
    EXPECT_EQ(trace.records()[1].value, 0.25);
    EXPECT_EQ(trace.records()[2].name, "out");

    // What the trace refuses never reaches the channel.
    expectThrows<std::invalid_argument>([&] { runtime.inject("in", 7, nan); },
                                        "invalid trace injection");
    EXPECT_EQ(trace.records().size(), 3);
    EXPECT_EQ(runtime.inputChannels()->stats(0).injections, 1);
    EXPECT_EQ(runtime.inputChannels()->stats(0).last_time, 5);
    runtime.setInjectionTrace(nullptr);
    expectThrows<InvalidModality>([&] { runtime.inject("in", 7, nan); },
                                  "an injected value must be finite");
}

TEST_F(KelmRuntimeCaller, CannotInjectWithoutChannels) {
    ingredients.channels.clear();
    KelmRuntime runtime = ingredients.make();
    InjectionTrace trace;
    runtime.setInjectionTrace(&trace);
    expectThrows<InvalidModality>([&] { runtime.inject("", -1, nan); },
                                  "the runtime has no input channels");
    EXPECT_TRUE(trace.records().empty());
}

TEST_F(KelmRuntimeCaller, GetsIdsInTheOrderOfTargetsAlsoBehindAHalfPostedPerturbation) {
    ingredients.firing.base_rate = 0.0;  // nothing but what is posted here
    KelmRuntime runtime = ingredients.make();
    const std::vector<std::uint64_t> first = runtime.inject("in", 0, 1.0);
    EXPECT_EQ(first[1], first[0] + 1);
    Perturbation perturbation;
    perturbation.targets = {1, 3, 0};
    expectThrows<InvalidIntervention>([&] { runtime.perturb(perturbation); },
                                      "perturbation target is outside the graph");
    perturbation.targets = {0, 0};
    const std::vector<std::uint64_t> last = runtime.perturb(perturbation);
    // Neuron 1 was hit before its neighbour was refused.
    EXPECT_EQ(last, (std::vector<std::uint64_t>{first[1] + 2, first[1] + 3}));
    runtime.run(1);
    EXPECT_EQ(runtime.profile().deliveries, 5);
}

TEST_F(KelmRuntimeCaller, CannotReachIntoWindowsThatAreGone) {
    KelmRuntime runtime = ingredients.make();
    runtime.run(10 * d_min);
    expectThrows<LookaheadViolation>(
        [&] { runtime.inject("in", 10 * d_min - 1, 1.0); },
        "KELM event inserted into an already processed window; d_min does not bound this edge");
    EXPECT_EQ(runtime.inputChannels()->stats(0).injections, 1);
    EXPECT_EQ(runtime.inputChannels()->stats(0).events, 0);
    EXPECT_EQ(runtime.inject("in", 10 * d_min, 1.0).size(), 2);
}

TEST_F(KelmRuntimeCaller, ReplaysAStreamAgainstTheTapeOfAnotherRun) {
    KelmRuntime recorded = ingredients.make();
    recorded.randomStreams().record("spontaneous", 1);
    recorded.run();
    const auto taped = recorded.randomStreams().tape("spontaneous", 1);
    std::vector<std::uint64_t> tape(taped.begin(), taped.end());
    ASSERT_GT(tape.size(), 10);

    KelmRuntime replayed = ingredients.make();
    replayed.randomStreams().replay("spontaneous", 1, tape);
    replayed.run();
    EXPECT_EQ(replayed.logHash(), recorded.logHash());

    KelmRuntime differing = ingredients.make();
    tape[5] ^= 1;
    differing.randomStreams().replay("spontaneous", 1, tape);
    expectThrows<std::runtime_error>(
        [&] { differing.run(); },
        "RandomContext replay differs from generated stream: spontaneous");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
