#include "kelm/runtime/Probe.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "tests/engine/ScriptedBackend.h"
#include "tests/support/ComposedModel.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/PlainStore.h"
#include "tests/support/SameBits.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;
using std::chrono::nanoseconds;

/// A random composed runtime whose recorder samples traces at moments inside windows.
class ProbeTest : public testing::TestWithParam<std::uint64_t> {
protected:
    ProbeTest() {
        model.recorder.sample_interval = interval;
        model.recorder.sample_kinds = {SampleKind::membrane, SampleKind::adaptation,
                                       SampleKind::refractory_left};
        for (NodeId n = neurons; n-- > 0;) all.push_back(n);
    }

    std::unique_ptr<KelmRuntime> build(bool over_store = false) {
        return model.build(cpu, true,
                           over_store ? std::make_unique<PlainStore>(d_min, 4096) : nullptr);
    }
    ProbeConfig everythingAt(ModelTime period) const {
        return {all,
                {ProbeField::hazard, ProbeField::membrane, ProbeField::refractory_left,
                 ProbeField::adaptation},
                period};
    }
    static void append(Probe::Samples& samples, const Probe::Samples& piece) {
        samples.times.insert(samples.times.end(), piece.times.begin(), piece.times.end());
        for (std::size_t field = 0; field < 4; ++field) {
            samples.by_field[field].insert(samples.by_field[field].end(),
                                           piece.by_field[field].begin(),
                                           piece.by_field[field].end());
        }
    }
    /// Sample `place` of neuron `n` of a probe of all neurons.
    StateSample sampleOf(const Probe::Samples& samples, std::size_t place, NodeId n) const {
        const auto value = [&](ProbeField field) {
            return samples
                .by_field[static_cast<std::size_t>(field)][place * neurons + (neurons - 1 - n)];
        };
        return {value(ProbeField::membrane), value(ProbeField::adaptation),
                static_cast<ModelTime>(value(ProbeField::refractory_left)),
                value(ProbeField::hazard)};
    }
    static void expectSame(const StateSample& actual, const StateSample& expected) {
        EXPECT_TRUE(sameBits(actual.membrane, expected.membrane));
        EXPECT_TRUE(sameBits(actual.adaptation, expected.adaptation));
        EXPECT_EQ(actual.refractory_left, expected.refractory_left);
        EXPECT_TRUE(sameBits(actual.hazard, expected.hazard));
    }
    /// The recorder's values, and the hazard that follows from them.
    StateSample recordedOf(const RecordedSample& sample, NodeId n) const {
        const Kernel::Firing& firing = model.network.firings[n];
        StateSample recorded{sample.membrane[n], sample.adaptation[n],
                             static_cast<ModelTime>(sample.refractory_left[n]), 0.0};
        if (model.network.neurons[n].hard_refractory && recorded.refractory_left > 0) {
            return recorded;
        }
        const double drive = recorded.membrane - recorded.adaptation * firing.adaptation_weight;
        recorded.hazard = Kernel::hazardOf(firing, (drive + 0.0) - firing.threshold);
        return recorded;
    }

    CpuWindowBackend cpu;
    ComposedModel model = generateComposedModel(GetParam());
    const ModelTime d_min = model.network.d_min;
    const ModelTime interval = std::max<ModelTime>(d_min * 3 / 7, 1);
    const NodeId neurons = model.network.node_count;
    std::vector<NodeId> all;  ///< in descending order
};

// The recorder's samples come from observations, which repeat a window's work on all neurons.
TEST_P(ProbeTest, GivesTheRecordersValuesWhateverTheSlicesAndDisturbsNothing) {
    const auto bare = build();
    bare->run();
    const auto probed = build(GetParam() % 2 == 0);
    Probe& probe = probed->addProbe(everythingAt(interval));
    Probe* late = nullptr;
    ModelTime late_from = 0;
    Probe::Samples samples;
    Draws draws(GetParam());
    while (probed->position() < model.network.horizon) {
        const ModelTime step = draws.timeBelow(static_cast<std::uint64_t>(5 * d_min));
        probed->run(std::min(model.network.horizon, probed->position() + step));
        if (draws.oneIn(2)) append(samples, probe.take());
        if (late == nullptr && probed->position() > model.network.horizon / 3) {
            late_from = probe.times().empty() ? samples.times.back() : probe.times().back();
            late = &probed->addProbe({{0}, {ProbeField::membrane}, interval});
        }
    }
    append(samples, probe.take());
    EXPECT_TRUE(probe.times().empty() && probe.values(ProbeField::membrane).empty());

    const std::span<const RecordedSample> recorded = probed->recorder()->samples();
    ASSERT_GT(recorded.size(), 10U);
    // A probe samples at 0 as well, and in the last window past the horizon.
    ASSERT_GT(samples.times.size(), recorded.size());
    for (std::size_t i = 0; i < recorded.size(); ++i) {
        SCOPED_TRACE("sample " + std::to_string(i));
        ASSERT_EQ(samples.times[i + 1], recorded[i].time);
        for (NodeId n = 0; n < neurons; ++n) {
            expectSame(sampleOf(samples, i + 1, n), recordedOf(recorded[i], n));
        }
    }
    ASSERT_NE(late, nullptr);
    ASSERT_GT(late->times().size(), 2U);
    const std::size_t begin = samples.times.size() - late->times().size();
    EXPECT_EQ(samples.times[begin - 1], late_from);
    for (std::size_t i = 0; i < late->times().size(); ++i) {
        EXPECT_EQ(late->times()[i], samples.times[begin + i]);
        EXPECT_TRUE(sameBits(late->values(ProbeField::membrane)[i],
                             sampleOf(samples, begin + i, 0).membrane));
    }
    EXPECT_TRUE(late->values(ProbeField::hazard).empty());
    EXPECT_EQ(probed->logHash(), bare->logHash());
    if (GetParam() % 2 != 0) {
        EXPECT_EQ(probed->checkpoint(), bare->checkpoint());
    }
}

// A run that is cut at multiples of the window, and an uncut one with a probe at those moments.
TEST_P(ProbeTest, AgreesWithTheStatesAtTheEndOfARun) {
    const auto cut = build(GetParam() % 2 == 0);
    const auto uncut = build();
    Probe& probe = uncut->addProbe(everythingAt(d_min));
    uncut->run();
    const Probe::Samples samples = probe.take();
    for (std::size_t i = 0; i < samples.times.size(); i += 3) {
        cut->run(samples.times[i]);
        const std::vector<StateSample> states = cut->statesAt(samples.times[i]);
        ASSERT_EQ(states.size(), neurons);
        for (NodeId n = 0; n < neurons; ++n) expectSame(states[n], sampleOf(samples, i, n));
        const NodeId some[] = {neurons - 1, 0};
        const std::vector<StateSample> chosen = cut->statesAt(samples.times[i], some);
        ASSERT_EQ(chosen.size(), 2U);
        expectSame(chosen[0], states[neurons - 1]);
        expectSame(chosen[1], states[0]);
    }
}

TEST_P(ProbeTest, RunsBesideProgressThatStoresStopsAndEndsTheRun) {
    const auto straight = build();
    straight->run();
    const auto watched = build();
    Blob stored;
    std::uint64_t reports = 0;
    watched->setProgress(
        [&](const RunProgress& progress) {
            EXPECT_EQ(std::min(progress.position, watched->horizon()), watched->position());
            EXPECT_EQ(progress.spikes, watched->takenSpikes() + watched->spikeLog().size());
            (void)watched->takeSpikes();
            EXPECT_EQ(watched->statesAt(progress.position).size(), neurons);
            if (++reports == 5) stored = watched->checkpoint();
            if (reports == 5 || reports == 9) watched->requestStop();
            if (reports == 7) throw std::runtime_error("enough");
        },
        nanoseconds(0));
    watched->run();
    ASSERT_TRUE(watched->stopped());
    EXPECT_EQ(watched->checkpoint(), stored) << "stored in the callback";
    EXPECT_EQ(watched->position() % d_min, 0);
    expectThrows<std::runtime_error>([&] { watched->run(); }, "enough");
    EXPECT_FALSE(watched->stopped());
    watched->run();
    EXPECT_TRUE(watched->stopped());
    watched->run();
    EXPECT_EQ(reports, straight->profile().windows);
    EXPECT_EQ(watched->position(), straight->position());
    EXPECT_EQ(watched->logHash(), straight->logHash());
    const auto continued = build();
    ASSERT_TRUE(continued->restore(stored));
    continued->run();
    EXPECT_EQ(continued->logHash(), straight->logHash());
    EXPECT_EQ(continued->position(), straight->position());
}

INSTANTIATE_TEST_SUITE_P(Seeds, ProbeTest, testing::Values(2, 5, 6, 8, 9, 13));

TEST(Probe, IsRefusedIfItSamplesNothingThatThereIs) {
    using enum ProbeField;
    const auto refuses = [](const std::string& text, ProbeConfig config) {
        expectThrows<InvalidProbe>([&] { Probe(std::move(config), 5, 0); }, text);
    };
    refuses("a probe names no neuron", {{}, {}, 0});
    refuses("a probe names neuron 5 of a network of 5", {{4, 5, 0}, {}, 0});
    refuses("a probe's interval must be at least 1 ns", {{4}, {}, 0});
    refuses("a probe names no field", {{4}, {}, 1});
    refuses("a probe names an unknown field", {{4}, {membrane, ProbeField(4)}, 1});
    // The last moment of the range is none.
    EXPECT_EQ(Probe({{4}, {membrane}, 10}, 5, last_model_time - 6).nextSample(), last_model_time);
    Probe last({{4}, {membrane, membrane}, 10}, 5, last_model_time - 8);
    EXPECT_EQ(last.nextSample(), last_model_time - 7);
    last.addSamples(std::vector<StateSample>(1));
    EXPECT_EQ(last.nextSample(), last_model_time);
    EXPECT_EQ(last.values(membrane).size(), 1U);
}

TEST(Probe, StartsAtThePositionOfARunWithoutWindows) {
    CpuWindowBackend cpu;
    KelmRuntime silent = makeKelmRuntime(SynapseGraph(1, 10, {}), {},
                                         Kernel::Firing{.base_rate = 0.0}, 1, 100, &cpu);
    silent.run(33);
    const Probe& probe = silent.addProbe({{0}, {ProbeField::membrane}, 3});
    EXPECT_EQ(probe.nextSample(), 33);
    silent.run(40);
    EXPECT_EQ(probe.times().size(), 3U);
    EXPECT_EQ(probe.nextSample(), 42);
    const Blob stored = silent.checkpoint();
    silent.run(90);
    ASSERT_TRUE(silent.restore(stored));
    EXPECT_TRUE(probe.times().empty());
    EXPECT_EQ(probe.nextSample(), 42);
    silent.run();
    EXPECT_EQ(probe.times().size(), 20U) << "42 to 99";
}

// Without a probe the engine would keep the items of the last part alone.
TEST(Probe, SeesAllItemsOfAWindowThatABackendTakesInParts) {
    struct : ScriptedBackend {
        using ScriptedBackend::ScriptedBackend;
        std::size_t partItems() const override { return 1; }
    } backend([](const WindowWork& item, const Kernel::WindowEvent* events, ModelTime end) {
        return Kernel::processWindow(item.state, item.rng, item.parameters, item.firing, events,
                                     item.event_count, end, 100, item.drive, item.pending_time,
                                     item.pending_bound);
    });
    WindowEngine engine(SynapseGraph(3, 10, {}), Kernel::Neuron{.non_leaky = true},
                        Kernel::Firing{.base_rate = 0.0}, 1, 100);
    Probe probe({{0, 1, 2}, {ProbeField::membrane}, 5}, 3, 0);
    engine.addSampler(probe);
    for (const auto& [time, target] : {std::pair(12, 0), {16, 1}, {15, 2}}) {
        engine.post({.time = time,
                     .kind = EventKind::input,
                     .target = static_cast<NodeId>(target),
                     .value = 1.0});
    }
    engine.run(backend, 20);
    EXPECT_EQ(backend.windows, 1);
    const std::vector<double> expected = {0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0};
    EXPECT_TRUE(std::ranges::equal(probe.values(ProbeField::membrane), expected));
}

/// One silent neuron in windows of 10 ns, with inputs at 12 and 48 ns.
class KnownMomentsTest : public testing::TestWithParam<bool> {
protected:
    static WindowEngine build() {
        return {SynapseGraph(1, 10, {}),
                Kernel::Neuron{.non_leaky = true},
                Kernel::Firing{.base_rate = 0.0},
                1,
                100,
                GetParam() ? std::make_unique<PlainStore>(10, 4096) : nullptr};
    }
    void post(ModelTime time) {
        engine.post({.time = time, .kind = EventKind::input, .value = 1.0});
    }
    void expectKnown(ModelTime first, ModelTime last, double membrane) {
        EXPECT_EQ(engine.processedUntil(), first);
        for (const ModelTime time : {first, last}) {
            EXPECT_EQ(engine.statesAt(time)[0].membrane, membrane);
        }
        std::vector<ModelTime> unknown = {first - 1};
        if (last != last_model_time) unknown.push_back(last + 1);
        for (const ModelTime time : unknown) {
            expectThrows<InvalidMoment>([&] { engine.statesAt(time, {}); },
                                        "states are known from " + std::to_string(first) +
                                            " ns to " + std::to_string(last) + " ns, not at " +
                                            std::to_string(time) + " ns");
        }
    }

    CpuWindowBackend cpu;
    WindowEngine engine = build();
};

TEST_P(KnownMomentsTest, ReachFromTheLastWindowToTheNextOne) {
    post(12);
    post(48);
    expectKnown(0, GetParam() ? 0 : 10, 0.0);
    engine.run(cpu, 33);
    expectKnown(20, GetParam() ? 33 : 40, 1.0);
    const NodeId outside[] = {0, 1};
    expectThrows<SynapseRoutingViolation>([&] { engine.statesAt(20, outside); },
                                          "KELM destination NodeId is out of range");
    const Blob stored = engine.snapshot();
    post(44);
    expectKnown(20, GetParam() ? 33 : 40, 1.0);
    engine.run(cpu, 45);
    expectKnown(50, GetParam() ? 50 : last_model_time, 3.0);
    ASSERT_TRUE(engine.restore(stored));
    // An input is now accepted from 40 ns on, and the state was updated at 12 ns.
    expectKnown(GetParam() ? 12 : 40, GetParam() ? 12 : 40, 1.0);
}

TEST_P(KnownMomentsTest, ReachTheEndOfARunInsideTheNextWindow) {
    post(12);
    engine.run(cpu, 45);
    post(47);
    expectKnown(20, 45, 1.0);
    // Every neuron draws anew at 43 ns.
    engine.reseed(2, 43);
    expectKnown(20, 43, 1.0);
}

TEST_P(KnownMomentsTest, EndAtAnInputOfTheLastObservation) {
    struct LateInput final : IWindowObserver {
        explicit LateInput(WindowEngine& engine_of_test) : engine(engine_of_test) {}
        void observe(const Event&, std::span<const Kernel::State>, SynapseGraph&) override {}
        void observe(const Event&, std::span<const Kernel::State>, std::span<const ModelTime>,
                     SynapseGraph&) override {
            engine.post({.time = 47, .kind = EventKind::input, .value = 1.0});
        }
        WindowEngine& engine;
    } observer(engine);
    engine.setHooks(nullptr, nullptr, &observer);
    engine.declareObserverEvent({.time = 44});
    engine.run(cpu, 60);
    expectKnown(0, 47, 0.0);
}

TEST_P(KnownMomentsTest, EndAtAGivenSpike) {
    if (GetParam()) {
        expectThrows<InvalidSpikeTrain>(
            [&] {
                engine.giveSpikes({{5, 0}});
            },
            "spikes cannot be given to an engine with a store");
        return;
    }
    engine.giveSpikes({{0, 0}, {27, 0}, {99, 0}, {100, 0}, {700, 0}});
    EXPECT_EQ(engine.givenSpikes().size(), 3U);  // none from the horizon on
    expectKnown(0, 0, 0.0);
    engine.run(cpu, 15);
    expectKnown(10, 27, 0.0);
    expectThrows<InvalidSpikeTrain>(
        [&] {
            engine.giveSpikes({{50, 0}});
        },
        "spikes can be given once, before the first run");
}

TEST(KnownMoments, EndAtAnInputThatAStoreAcceptsBeforeTheEndOfTheRun) {
    struct IdleStore final : PlainStore {
        using PlainStore::PlainStore;
        bool take(ModelTime, std::vector<Event>&, ModelTime&, ModelTime&) override { return false; }
    };
    CpuWindowBackend cpu;
    WindowEngine engine(SynapseGraph(1, 10, {}), Kernel::Neuron(), Kernel::Firing(), 1, 100,
                        std::make_unique<IdleStore>(10, 16));
    engine.run(cpu, 33);
    EXPECT_EQ(engine.statesAt(33).size(), 1U);
    engine.post({.time = 31, .kind = EventKind::input});
    EXPECT_EQ(engine.statesAt(31).size(), 1U);
    EXPECT_THROW(engine.statesAt(32), InvalidMoment);
}

INSTANTIATE_TEST_SUITE_P(Calendars, KnownMomentsTest, testing::Bool());

}  // namespace

}  // namespace Lumenar::Core::Kelm
