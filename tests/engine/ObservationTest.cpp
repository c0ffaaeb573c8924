#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <tuple>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/events/BucketEventStore.h"
#include "tests/engine/ScriptedBackend.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/ForgedBlobs.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/SameBits.h"

// Other tests cover two facts: composed runs with and without a recorder are equal, and a restored
// run delivers the remaining observations once.

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

/// Keeps every observation.
class KeepingObserver : public IWindowObserver {
public:
    struct Sight {
        Event event;
        std::vector<Kernel::State> states;
        std::vector<ModelTime> candidate_times;
    };

    void observe(const Event&, std::span<const Kernel::State>, SynapseGraph&) override {
        ADD_FAILURE() << "the engine calls the other form";
    }
    void observe(const Event& event, std::span<const Kernel::State> states,
                 std::span<const ModelTime> candidate_times, SynapseGraph&) override {
        sights.push_back({event,
                          {states.begin(), states.end()},
                          {candidate_times.begin(), candidate_times.end()}});
        if (leaves_after_first != nullptr) leaves_after_first->setHooks(nullptr, nullptr, nullptr);
    }

    std::vector<Sight> sights;
    WindowEngine* leaves_after_first = nullptr;
};

/// An observation at `time` ns.
Event observationAt(ModelTime time) { return {.time = time, .kind = EventKind::observation}; }

/// Adds a constant drive to every item.
struct ConstantDrive : IWindowPrepare {
    void prepare(ModelTime, ModelTime, std::span<WindowWork> work, SynapseGraph&) override {
        for (WindowWork& item : work) item.drive.base = item.drive.bound = value;
    }
    double value = 0.25;
};

/// Two silent neurons without leak in windows of 10 ns: the membrane of neuron 0 counts its inputs,
/// which come at 12, 18 and 41 ns.
class ObservationTest : public testing::Test {
protected:
    ObservationTest() {
        engine.setHooks(nullptr, nullptr, &observer);
        for (const ModelTime time : {12, 18, 41}) {
            engine.post({.time = time, .kind = EventKind::input, .value = 1.0});
        }
    }

    void declare(const std::vector<ModelTime>& times) {
        for (const ModelTime time : times) engine.declareObserverEvent(observationAt(time));
    }

    KeepingObserver observer;
    WindowEngine engine{SynapseGraph(2, 10, {}), Kernel::Neuron{.non_leaky = true},
                        Kernel::Firing{.base_rate = 0.0}, 1, 100};
    CpuWindowBackend cpu;
};

TEST_F(ObservationTest, ComesInOrderOfTimeAndThenOfDeclaration) {
    const std::uint64_t first_id = 9223372036854775807U;  // above every id of a store
    Event event = observationAt(0);
    event.id = 77;
    fillGap(event.gap, 1);
    for (const ModelTime time : {18, 5, 18, 50, 5, 18}) {
        event.time = time;
        EXPECT_EQ(engine.declareObserverEvent(event), first_id + event.cause);
        ++event.cause;
    }
    engine.run(cpu);
    std::vector<std::uint64_t> order;
    for (const KeepingObserver::Sight& sight : observer.sights) {
        order.push_back(sight.event.cause);
        EXPECT_EQ(sight.event.id, first_id + order.back());
        EXPECT_EQ(sight.event.gap, Gap<7>());
    }
    EXPECT_EQ(order, (std::vector<std::uint64_t>{1, 4, 0, 2, 5, 3}));
}

TEST_F(ObservationTest, WaitsForTheRunAndForAnObserver) {
    declare({14, 20, 25, 30});
    engine.run(cpu, 10);
    declare({60});  // still allowed: none has been delivered
    // A run past 10 runs the window from 10 to 20 to its end.
    using Seen = std::pair<ModelTime, std::size_t>;
    for (const auto& [until, count] : {Seen{10, 0}, {11, 1}, {20, 1}, {25, 2}, {30, 3}, {31, 4}}) {
        SCOPED_TRACE("until " + std::to_string(until));
        engine.run(cpu, until);
        EXPECT_EQ(observer.sights.size(), count);
    }
    expectThrows<WindowEngineError>([&] { declare({90}); },
                                    "observer events must be declared before the run");
    engine.setHooks(nullptr, nullptr, nullptr);
    engine.run(cpu);
    EXPECT_EQ(observer.sights.size(), 4);
    // A late observation sees the state of the last commit.
    engine.setHooks(nullptr, nullptr, &observer);
    engine.run(cpu);
    ASSERT_EQ(observer.sights.size(), 5);
    EXPECT_EQ(observer.sights[4].states[0].membrane, 3.0);
}

TEST_F(ObservationTest, MayRemoveTheHooksDuringARun) {
    ConstantDrive driving;
    engine.setHooks(&driving, nullptr, &observer);
    observer.leaves_after_first = &engine;
    declare({15, 16});
    std::vector<double> drives;
    ScriptedBackend backend([&](const WindowWork& item, const Kernel::WindowEvent*, ModelTime) {
        drives.push_back(item.drive.base);
        return quietResult(item);
    });
    engine.run(backend);
    EXPECT_EQ(observer.sights.size(), 1);
    // The hook's drive is gone from the items.
    EXPECT_EQ(drives, (std::vector<double>{0.25, 0.0}));
}

TEST_F(ObservationTest, CannotBeDeclaredWhileARunIsOn) {
    struct Declaring : IWindowCommit {
        void commit(ModelTime, ModelTime window_end, std::span<const SpikeRecord>,
                    SynapseGraph&) override {
            engine->declareObserverEvent(observationAt(window_end - 1));
        }
        WindowEngine* engine = nullptr;
    } declaring;
    declaring.engine = &engine;
    engine.setHooks(nullptr, &declaring, &observer);
    expectThrows<WindowEngineError>([&] { engine.run(cpu); },
                                    "observer events must be declared before the run");
    EXPECT_TRUE(observer.sights.empty());
}

TEST_F(ObservationTest, OfASeriesComesAsIfEachHadBeenDeclared) {
    const auto sightsOf = [&](auto declaring, auto running) {
        observer.sights.clear();
        WindowEngine subject{SynapseGraph(2, 10, {}), Kernel::Neuron{.non_leaky = true},
                             Kernel::Firing{.base_rate = 1e7}, 1, 100};
        subject.setHooks(nullptr, nullptr, &observer);
        declaring(subject);
        running(subject);
        std::vector<std::tuple<std::uint64_t, ModelTime, double, ModelTime>> sights;
        for (const KeepingObserver::Sight& sight : observer.sights) {
            sights.emplace_back(sight.event.id, sight.event.time, sight.states[1].adaptation,
                                sight.candidate_times[0]);
        }
        return sights;
    };
    const auto one_by_one = [](WindowEngine& subject) {
        for (ModelTime time = 3; time < 100; time += 4) {
            subject.declareObserverEvent(observationAt(time));
        }
    };
    const auto series = [](WindowEngine& subject) {
        subject.declareObserverSeries(observationAt(3), 4);
    };
    const auto straight = [&](WindowEngine& subject) { subject.run(cpu); };
    // The window of a stop runs to its end, with the observations inside it.
    const auto sliced = [&](WindowEngine& subject) {
        for (const ModelTime until : {1, 3, 4, 25, 27, 50, 99, 100}) {
            ASSERT_TRUE(subject.restore(subject.snapshot()));
            subject.run(cpu, until);
        }
    };
    const auto expected = sightsOf(one_by_one, straight);
    EXPECT_EQ(expected.size(), 25U);
    EXPECT_EQ(sightsOf(series, straight), expected);
    EXPECT_EQ(sightsOf(series, sliced), expected);

    // An engine accepts no observation that its series does not have.
    const auto snapshotAt = [&](ModelTime until, auto declaring) {
        WindowEngine writer{SynapseGraph(2, 10, {}), Kernel::Neuron(), {}, 1, 100};
        writer.setHooks(nullptr, nullptr, &observer);
        declaring(writer);
        writer.run(cpu, until);
        return writer.snapshot();
    };
    const auto other_series = [](ModelTime first, ModelTime interval) {
        return [=](WindowEngine& writer) {
            writer.declareObserverSeries(observationAt(first), interval);
        };
    };
    WindowEngine reader{SynapseGraph(2, 10, {}), Kernel::Neuron(), {}, 1, 100};
    series(reader);
    EXPECT_TRUE(reader.restore(snapshotAt(50, series)));
    EXPECT_TRUE(reader.restore(snapshotAt(100, series)));
    EXPECT_FALSE(reader.restore(snapshotAt(0, other_series(2, 4))));
    EXPECT_FALSE(reader.restore(snapshotAt(10, other_series(3, 6))));
    EXPECT_FALSE(reader.restore(snapshotAt(10, other_series(3, 8))));
    EXPECT_FALSE(reader.restore(snapshotAt(0, one_by_one)));
    const char* const late = "observer events must be declared before the run";
    expectThrows<WindowEngineError>([&] { declare({1}), series(engine); }, late);
    expectRefusals<WindowEngineError>(
        {{late, [&] { series(reader); }},
         {late, [&] { reader.declareObserverEvent(observationAt(9)); }}});
}

TEST_F(ObservationTest, EndsTheRunWhereItsRepetitionBreaksABound) {
    // The backend returns a candidate whose bound is far too low.
    WindowEngine hot(SynapseGraph(1, 10, {}), Kernel::Neuron(), Kernel::Firing{.base_rate = 1e8}, 1,
                     100);
    hot.setHooks(nullptr, nullptr, &observer);
    ScriptedBackend faulty([](const WindowWork& item, const Kernel::WindowEvent*, ModelTime end) {
        Kernel::WindowResult result = quietResult(item);
        result.next_candidate = end + 5;
        result.next_bound = 1e-3;
        return result;
    });
    hot.post({});
    hot.declareObserverEvent(observationAt(17));
    expectThrows<WindowEngineError>([&] { hot.run(faulty); },
                                    "observer shadow run violated neuron bounds");
    EXPECT_TRUE(observer.sights.empty());
    EXPECT_EQ(hot.candidates()[0].time, 25);  // the window is committed
}

// Windows may have any length up to the smallest delay; only the order of ids depends on it. An
// engine with windows of 1 ns can stop at any time, after exactly the events before that time. It
// computes without a shadow run what the shadow run must show.
TEST_F(ObservationTest, ShowsTheStateOfAnEngineThatStopsAtThatTime) {
    std::uint64_t spikes = 0;
    for (std::uint64_t seed = 1; seed <= 150; ++seed) {
        SCOPED_TRACE("model seed " + std::to_string(seed));
        const GeneratedModel model = generateModel(seed, {12, 20, false, true});
        // In shorter windows several deliveries come at one time, in the order of their ids.
        if (model.d_min < 250'000) continue;
        Draws draws(seed);
        ConstantDrive driving;
        if (draws.oneIn(2)) driving.value = 0.0;
        KeepingObserver seen;
        WindowEngine watched = makeEngine(model);
        WindowEngine stopping = makeEngine(model, std::make_unique<BucketEventStore>(1, 4096));
        watched.setHooks(&driving, nullptr, &seen);
        stopping.setHooks(&driving, nullptr, nullptr);
        for (WindowEngine* const each : {&watched, &stopping}) {
            each->reseedInitialCandidates(std::vector<double>(model.node_count, 0.25));
            postInputs(model, *each);
        }
        for (int i = 0; i < 14; ++i) {
            ModelTime time = draws.timeBelow(static_cast<std::uint64_t>(model.horizon));
            if (draws.oneIn(4)) time -= time % model.d_min;
            watched.declareObserverEvent(observationAt(time));
        }
        try {
            watched.run(cpu);
        } catch (const WindowEngineError&) {
            continue;  // too many spikes for a window
        }
        ASSERT_EQ(seen.sights.size(), 14);
        for (const KeepingObserver::Sight& sight : seen.sights) {
            SCOPED_TRACE("at " + std::to_string(sight.event.time));
            stopping.run(cpu, sight.event.time);
            for (NodeId n = 0; n < model.node_count; ++n) {
                Kernel::State expected = stopping.states()[n];
                Kernel::advanceTraces(expected, model.neurons[n], sight.event.time);
                const Kernel::State& state = sight.states[n];
                ASSERT_TRUE(sameBits(state.membrane, expected.membrane));
                ASSERT_TRUE(sameBits(state.adaptation, expected.adaptation));
                ASSERT_EQ(state.last_update, expected.last_update);
                ASSERT_EQ(state.refractory_until, expected.refractory_until);
                ASSERT_EQ(sight.candidate_times[n], stopping.candidates()[n].time);
            }
        }
        spikes += watched.profile().accepted;
    }
    EXPECT_GT(spikes, 1000);
}

TEST_F(ObservationTest, ReseedContinuesStreamsAndIdsUntilARunHasBegun) {
    const GeneratedModel model = generateModel(4, {12, 40, true, false});
    WindowEngine seeded = makeEngine(model);
    std::uint64_t id = 0;
    const auto expectIdsInNeuronOrder = [&] {
        for (const CandidateSlot& slot : seeded.candidates()) {
            EXPECT_EQ(slot.event_id, slot.time == no_time ? no_event : id++);
        }
    };
    expectIdsInNeuronOrder();
    std::vector<double> bounds(model.node_count + 1, 0.1);
    const auto reseed = [&] { seeded.reseedInitialCandidates(bounds); };
    const char* const mismatch = "initial modulation bounds do not match neurons";
    expectThrows<WindowEngineError>(reseed, mismatch);
    bounds.pop_back();
    seeded.run(cpu, 0);
    reseed();  // no window has been run
    expectIdsInNeuronOrder();
    EXPECT_GT(id, 10);
    seeded.run(cpu, model.horizon / 2);
    const char* const late = "initial candidates can only be reseeded before run";
    expectThrows<WindowEngineError>(reseed, late);
    // A restored log also counts as a begun run, and so do windows without spikes.
    const Blob profile = blobOf(seeded.profile());
    Blob blob = seeded.snapshot();
    std::fill_n(std::search(blob.begin(), blob.end(), profile.begin(), profile.end()), 8, 0);
    ASSERT_TRUE(seeded.restore(blob));
    ASSERT_EQ(seeded.profile().windows, 0);
    expectThrows<WindowEngineError>(reseed, late);
    engine.run(cpu, 20);
    expectThrows<WindowEngineError>([&] { engine.reseedInitialCandidates(std::vector<double>(2)); },
                                    late);
    bounds.clear();
    expectThrows<WindowEngineError>(reseed, mismatch);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
