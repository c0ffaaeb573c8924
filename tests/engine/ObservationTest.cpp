#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/events/BucketEventStore.h"
#include "tests/engine/ScriptedBackend.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/RunImage.h"
#include "tests/support/SameBits.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

/// What an observer was shown.
struct Sight {
    Event event;
    std::vector<Kernel::State> states;
    std::vector<ModelTime> candidate_times;
};

/// Keeps everything that it is shown.
class KeepingObserver : public IWindowObserver {
public:
    void observe(const Event&, std::span<const Kernel::State>, SynapseGraph&) override {
        ADD_FAILURE() << "the engine calls the other form";
    }
    void observe(const Event& event, std::span<const Kernel::State> states,
                 std::span<const ModelTime> candidate_times, SynapseGraph& graph) override {
        graph_seen = &graph;
        sights.push_back({event,
                          {states.begin(), states.end()},
                          {candidate_times.begin(), candidate_times.end()}});
        if (leaves_after_first != nullptr) leaves_after_first->setHooks(nullptr, nullptr, nullptr);
    }

    std::vector<ModelTime> times() const {
        std::vector<ModelTime> times;
        for (const Sight& sight : sights) times.push_back(sight.event.time);
        return times;
    }

    std::vector<Sight> sights;
    const SynapseGraph* graph_seen = nullptr;
    WindowEngine* leaves_after_first = nullptr;
};

Event observationAt(ModelTime time) {
    Event event;
    event.time = time;
    event.kind = EventKind::observation;
    return event;
}

Event inputAt(ModelTime time, NodeId target, double value = 1.0) {
    Event event;
    event.time = time;
    event.kind = EventKind::input;
    event.target = target;
    event.value = value;
    return event;
}

/// Never fires.
Kernel::Firing silentFiring() {
    Kernel::Firing firing;
    firing.base_rate = 0.0;
    return firing;
}

/// Two silent neurons without leak in windows of 10 ns: the membrane of neuron 0 counts its inputs,
/// which come at 12, 18 and 41 ns.
class ObservationTest : public testing::Test {
protected:
    ObservationTest() {
        engine.setHooks(nullptr, nullptr, &observer);
        for (const ModelTime time : {12, 18, 41}) engine.post(inputAt(time, 0));
    }

    static Kernel::Neuron countingNeuron() {
        Kernel::Neuron neuron;
        neuron.non_leaky = true;
        return neuron;
    }

    std::vector<double> membranes() const {
        std::vector<double> values;
        for (const Sight& sight : observer.sights) values.push_back(sight.states[0].membrane);
        return values;
    }

    KeepingObserver observer;
    WindowEngine engine{SynapseGraph(2, 10, {}), countingNeuron(), silentFiring(), 1, 100};
    CpuWindowBackend cpu;
};

TEST_F(ObservationTest, ShowsEachDeclaredMomentOnceAsOfItsTime) {
    struct Case {
        const char* fact;
        ModelTime time;
        double inputs;
    };
    const Case cases[] = {
        {"before the first window", 3, 0.0},
        {"at the start of a window", 10, 0.0},
        {"inside a window, before its events", 11, 0.0},
        {"at an event, which it does not yet show", 12, 0.0},
        {"right behind an event", 13, 1.0},
        {"at the last event of a window", 18, 1.0},
        {"at the end of a window", 20, 2.0},
        {"in a gap", 33, 2.0},
        {"inside a later window", 45, 3.0},
        {"behind the last window", 99, 3.0},
    };
    std::vector<ModelTime> times;
    std::vector<double> inputs;
    for (const Case& c : cases) {
        engine.declareObserverEvent(observationAt(c.time));
        times.push_back(c.time);
        inputs.push_back(c.inputs);
    }
    engine.run(cpu);
    engine.run(cpu);
    EXPECT_EQ(observer.times(), times);
    EXPECT_EQ(membranes(), inputs);
    EXPECT_EQ(observer.graph_seen, &engine.graph());
    for (const Sight& sight : observer.sights) {
        for (const Kernel::State& state : sight.states) {
            EXPECT_EQ(state.last_update, sight.event.time);
        }
        EXPECT_EQ(sight.candidate_times, (std::vector<ModelTime>{no_time, no_time}));
    }
    // Looking leaves the neuron that had no event as it was.
    EXPECT_EQ(engine.states()[1].last_update, 0);
    EXPECT_EQ(engine.profile(), (WindowProfile{2, 3, 3, 0, 0}));
}

TEST_F(ObservationTest, ComesInOrderOfTimeAndThenOfDeclaration) {
    const ModelTime times[] = {18, 5, 18, 50, 5, 18};
    std::uint64_t source = 100;
    for (const ModelTime time : times) {
        Event event = observationAt(time);
        event.id = 77;
        event.source = source++;
        event.value = -0.5;
        event.cause = 9;
        event.gap[3] = 1;
        // Above every id of a store, by order of declaration.
        EXPECT_EQ(engine.declareObserverEvent(event), 9223372036854775807U + event.source - 100);
    }
    engine.run(cpu);
    std::vector<std::uint64_t> sources;
    for (const Sight& sight : observer.sights) {
        sources.push_back(sight.event.source);
        EXPECT_EQ(sight.event.id, 9223372036854775807U + sight.event.source - 100);
        EXPECT_EQ(sight.event.value, -0.5);
        EXPECT_EQ(sight.event.cause, 9);
        EXPECT_EQ(sight.event.gap[3], 0);
    }
    EXPECT_EQ(sources, (std::vector<std::uint64_t>{101, 104, 100, 102, 105, 103}));
}

TEST_F(ObservationTest, WaitsWhileTheRunHasNotReachedIt) {
    for (const ModelTime time : {14, 20, 25, 30, 60}) {
        engine.declareObserverEvent(observationAt(time));
    }
    struct Case {
        ModelTime until;
        std::vector<ModelTime> seen;
    };
    for (const Case& c : {
             Case{10, {}},
             // The window of 10 to 20 is taken whole.
             Case{11, {14}},
             Case{20, {14}},
             Case{25, {14, 20}},
             Case{30, {14, 20, 25}},
             Case{31, {14, 20, 25, 30}},
             Case{100, {14, 20, 25, 30, 60}},
         }) {
        SCOPED_TRACE("until " + std::to_string(c.until));
        engine.run(cpu, c.until);
        EXPECT_EQ(observer.times(), c.seen);
    }
}

TEST_F(ObservationTest, StaysWhereItIsWithoutAnObserver) {
    for (const ModelTime time : {14, 15, 30}) engine.declareObserverEvent(observationAt(time));
    engine.setHooks(nullptr, nullptr, nullptr);
    engine.run(cpu, 20);
    engine.setHooks(nullptr, nullptr, &observer);
    // One that comes to late is shown what the last commit left.
    observer.leaves_after_first = &engine;
    engine.run(cpu, 40);
    EXPECT_EQ(observer.times(), (std::vector<ModelTime>{14}));
    EXPECT_EQ(membranes(), (std::vector<double>{2.0}));
    engine.setHooks(nullptr, nullptr, &observer);
    observer.leaves_after_first = nullptr;
    engine.run(cpu, 40);
    EXPECT_EQ(observer.times(), (std::vector<ModelTime>{14, 15, 30}));
}

TEST_F(ObservationTest, IsDeclaredBeforeTheFirstOneIsDelivered) {
    engine.declareObserverEvent(observationAt(14));
    engine.run(cpu, 10);
    engine.declareObserverEvent(observationAt(16));
    engine.run(cpu, 20);
    expectThrows<WindowEngineError>([&] { engine.declareObserverEvent(observationAt(90)); },
                                    "observer events must be declared before the run");
    engine.run(cpu);
    EXPECT_EQ(observer.times(), (std::vector<ModelTime>{14, 16}));
}

TEST_F(ObservationTest, EndsTheRunWhereItsRepetitionBreaksABound) {
    // A backend that lies: it leaves a candidate of far too low a bound pending.
    Kernel::Firing firing;
    firing.base_rate = 1e8;
    firing.max_rate = 1e9;
    WindowEngine hot(SynapseGraph(1, 10, {}), Kernel::Neuron(), firing, 1, 100);
    hot.setHooks(nullptr, nullptr, &observer);
    ScriptedBackend liar([](const WindowWork& item, const Kernel::WindowEvent*, ModelTime end) {
        Kernel::WindowResult result = quietResult(item);
        result.next_candidate = end + 5;
        result.next_bound = 1e-3;
        return result;
    });
    hot.post(inputAt(5, 0));
    hot.run(liar, 10);
    const std::uint64_t windows = hot.profile().windows;
    ASSERT_EQ(hot.candidates()[0].time, 15);
    hot.declareObserverEvent(observationAt(17));
    hot.declareObserverEvent(observationAt(18));
    expectThrows<WindowEngineError>([&] { hot.run(liar); },
                                    "observer shadow run violated neuron bounds");
    EXPECT_TRUE(observer.sights.empty());
    EXPECT_EQ(hot.profile().windows, windows + 1);
    EXPECT_EQ(hot.candidates()[0].time, 25);  // the window is committed
    expectThrows<WindowEngineError>([&] { hot.declareObserverEvent(observationAt(90)); },
                                    "observer events must be declared before the run");
}

/// Adds a constant drive to every item.
class ConstantDrive : public IWindowPrepare {
public:
    explicit ConstantDrive(double value) : value_(value) {}
    void prepare(ModelTime, ModelTime, std::span<WindowWork> work, SynapseGraph&) override {
        for (WindowWork& item : work) {
            item.drive.base = value_;
            item.drive.bound = value_;
        }
    }

private:
    double value_;
};

/// Moments inside windows, at their borders and beyond, some of them twice.
std::vector<ModelTime> momentsOf(const GeneratedModel& model, Draws& draws) {
    std::vector<ModelTime> times;
    for (int i = 0; i < 12; ++i) {
        ModelTime time = draws.timeBelow(static_cast<std::uint64_t>(model.horizon));
        if (draws.oneIn(4)) time = time / model.d_min * model.d_min;
        times.push_back(time);
        if (draws.oneIn(6)) times.push_back(time);
    }
    std::sort(times.begin(), times.end());
    return times;
}

TEST_F(ObservationTest, MayTakeTheHooksAwayInTheMiddleOfARun) {
    ConstantDrive driving(0.25);
    engine.setHooks(&driving, nullptr, &observer);
    observer.leaves_after_first = &engine;
    for (const ModelTime time : {15, 16}) engine.declareObserverEvent(observationAt(time));
    std::vector<double> drives;
    ScriptedBackend backend([&](const WindowWork& item, const Kernel::WindowEvent*, ModelTime) {
        drives.push_back(item.drive.base);
        return quietResult(item);
    });
    engine.run(backend);
    EXPECT_EQ(observer.times(), (std::vector<ModelTime>{15}));
    // Nothing of the hook's stays in the items.
    EXPECT_EQ(drives, (std::vector<double>{0.25, 0.0}));
}

/// A copy of the engine's neurons as of `time` ns, and their candidates.
Sight stoppedAt(const WindowEngine& engine, const GeneratedModel& model, ModelTime time) {
    Sight sight;
    for (NodeId n = 0; n < model.node_count; ++n) {
        Kernel::State state = engine.states()[n];
        Kernel::advanceTraces(state, model.neurons[n], time);
        sight.states.push_back(state);
        sight.candidate_times.push_back(engine.candidates()[n].time);
    }
    return sight;
}

// Windows may be any size up to the smallest delay, and only the order of ids depends on it. With
// windows of 1 ns an engine can be stopped anywhere, with nothing but the events before that moment
// behind it: it computes without a shadow what the shadow has to show.
TEST(ObservationShadow, ShowsWhatAnEngineShowsThatStopsAtThatMoment) {
    std::uint64_t compared = 0;
    std::uint64_t spikes = 0;
    for (std::uint64_t seed = 1; seed <= 150; ++seed) {
        SCOPED_TRACE("model seed " + std::to_string(seed));
        const GeneratedModel model = generateModel(seed, {12, 20, false, true});
        // In shorter windows several deliveries meet at one instant, whose order is the ids'.
        if (model.d_min < 250'000) continue;
        Draws draws(seed);
        const double drive = draws.oneIn(2) ? 0.0 : draws.between(0.0, 0.5);
        const std::vector<double> bounds(model.node_count, drive);
        ConstantDrive driving(drive);
        const std::vector<ModelTime> times = momentsOf(model, draws);

        KeepingObserver observer;
        WindowEngine watched = makeEngine(model);
        watched.setHooks(&driving, nullptr, &observer);
        watched.reseedInitialCandidates(bounds);
        postInputs(model, watched);
        for (const ModelTime time : times) watched.declareObserverEvent(observationAt(time));
        CpuWindowBackend cpu;
        try {
            watched.run(cpu);
        } catch (const WindowEngineError&) {
            continue;  // too hot for its windows
        }
        ASSERT_EQ(observer.times(), times);

        WindowEngine stopping = makeEngine(model, std::make_unique<BucketEventStore>(1, 4096));
        stopping.setHooks(&driving, nullptr, nullptr);
        stopping.reseedInitialCandidates(bounds);
        postInputs(model, stopping);
        for (std::size_t i = 0; i < times.size(); ++i) {
            stopping.run(cpu, times[i]);
            const Sight expected = stoppedAt(stopping, model, times[i]);
            const Sight& sight = observer.sights[i];
            SCOPED_TRACE("at " + std::to_string(times[i]));
            EXPECT_EQ(sight.candidate_times, expected.candidate_times);
            for (NodeId n = 0; n < model.node_count; ++n) {
                SCOPED_TRACE("neuron " + std::to_string(n));
                const Kernel::State& state = sight.states[n];
                EXPECT_TRUE(sameBits(state.membrane, expected.states[n].membrane));
                EXPECT_TRUE(sameBits(state.adaptation, expected.states[n].adaptation));
                EXPECT_EQ(state.last_update, expected.states[n].last_update);
                EXPECT_EQ(state.refractory_until, expected.states[n].refractory_until);
                ++compared;
            }
        }
        if (HasFailure()) return;
        spikes += watched.profile().accepted;
    }
    EXPECT_GT(compared, 3000);
    EXPECT_GT(spikes, 1000);
}

TEST(ObservationShadow, LeavesTheRunAsItIsWithoutIt) {
    for (std::uint64_t seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE("model seed " + std::to_string(seed));
        const GeneratedModel model = generateModel(seed);
        KeepingObserver observer;
        WindowEngine watched = makeEngine(model);
        WindowEngine unwatched = makeEngine(model);
        watched.setHooks(nullptr, nullptr, &observer);
        Draws draws(seed);
        for (const ModelTime time : momentsOf(model, draws)) {
            watched.declareObserverEvent(observationAt(time));
        }
        postInputs(model, watched);
        postInputs(model, unwatched);
        CpuWindowBackend cpu;
        EXPECT_EQ(runSideBySide(watched, cpu, unwatched, cpu, model.d_min), "");
        EXPECT_FALSE(observer.sights.empty());
    }
}

/// Gives every item a sine whose bound lasts for its window.
class SineDrive : public IWindowPrepare {
public:
    void prepare(ModelTime start, ModelTime end, std::span<WindowWork> work,
                 SynapseGraph&) override {
        for (WindowWork& item : work) {
            item.drive.origin = start;
            item.drive.bound = 0.5 + 1e-9;
            item.drive.term_count = 1;
            item.drive.terms[0] = {0.5, 0.25, 3.0 / static_cast<double>(end - start)};
        }
    }
};

/// The CPU backend, which keeps the last window's work and events.
class KeepingBackend : public IWindowBackend {
public:
    const char* name() override { return "keeping"; }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override {
        last_work.assign(work.begin(), work.end());
        last_events.assign(events.begin(), events.end());
        cpu_.processWindow(work, events, window_end, horizon, neuron, firing, results);
    }
    bool tryResidentRun(WindowEngine&) override { return false; }

    std::vector<WindowWork> last_work;
    std::vector<Kernel::WindowEvent> last_events;

private:
    CpuWindowBackend cpu_;
};

// A sine's bound ends with its window, so its candidates depend on where windows lie and no engine
// of other windows can tell them. The kernel cuts a walk by itself at a window's end.
TEST(ObservationShadow, WalksUnderTheDriveOfItsWindow) {
    GeneratedModel model;
    for (std::uint64_t seed = 1; model.d_min < 250'000 || model.firings[0].base_rate == 0.0;
         ++seed) {
        model = generateModel(seed, {12, 40, true, true});
    }
    SineDrive sine;
    KeepingBackend backend;
    const ModelTime time = model.horizon / 2 / model.d_min * model.d_min + model.d_min / 2;
    KeepingObserver observer;
    WindowEngine engine = makeEngine(model);
    engine.setHooks(&sine, nullptr, &observer);
    engine.reseedInitialCandidates(std::vector<double>(model.node_count, 0.5));
    postInputs(model, engine);
    engine.declareObserverEvent(observationAt(time));
    const ModelTime window_start = time / model.d_min * model.d_min;
    engine.run(backend, window_start);
    std::vector<Kernel::State> states(engine.states().begin(), engine.states().end());
    engine.run(backend, time);
    ASSERT_EQ(observer.sights.size(), 1);
    ASSERT_FALSE(backend.last_work.empty());
    for (const WindowWork& item : backend.last_work) {
        const Kernel::WindowResult cut =
            Kernel::processWindow(item, backend.last_events.data(), time, model.horizon);
        states[item.neuron] = cut.state;
        EXPECT_EQ(observer.sights[0].candidate_times[item.neuron], cut.next_candidate);
    }
    for (NodeId n = 0; n < model.node_count; ++n) {
        Kernel::advanceTraces(states[n], model.neurons[n], time);
        EXPECT_TRUE(sameBits(observer.sights[0].states[n].membrane, states[n].membrane));
        EXPECT_TRUE(sameBits(observer.sights[0].states[n].adaptation, states[n].adaptation));
    }
}

TEST(Reseed, DrawsAgainBehindTheDrawsOfConstruction) {
    const GeneratedModel model = generateModel(4, {12, 40, false, false});
    WindowEngine engine = makeEngine(model);
    std::vector<double> bounds(model.node_count);
    for (NodeId n = 0; n < model.node_count; ++n) bounds[n] = 0.1 * static_cast<double>(n);
    std::vector<std::uint64_t> streams;
    for (NodeId n = 0; n < model.node_count; ++n) streams.push_back(engine.spontaneousState(n));
    // Ids go on behind those that construction gave out.
    std::uint64_t id = 0;
    for (const CandidateSlot& slot : engine.candidates()) id += slot.event_id != no_event;
    EXPECT_GT(id, 2);
    engine.reseedInitialCandidates(bounds);
    for (NodeId n = 0; n < model.node_count; ++n) {
        const Kernel::Candidate drawn =
            Kernel::nextCandidate(Kernel::State(), model.neurons[n], model.firings[n], 0,
                                  model.horizon, bounds[n], streams[n]);
        const CandidateSlot& slot = engine.candidates()[n];
        EXPECT_EQ(slot.time, drawn.found ? drawn.time : no_time);
        EXPECT_TRUE(sameBits(slot.rate, drawn.bound));
        EXPECT_EQ(slot.event_id, drawn.found ? id++ : no_event);
        EXPECT_EQ(engine.spontaneousState(n), streams[n]);
    }
}

TEST(Reseed, RefusesBoundsOfAnotherNumberAndARunThatHasBegun) {
    WindowEngine engine(SynapseGraph(2, 10, {}), Kernel::Neuron(), silentFiring(), 1, 100);
    const std::vector<double> bounds(2, 0.0);
    const auto mismatched = [&] { engine.reseedInitialCandidates(std::vector<double>(3, 0.0)); };
    expectThrows<WindowEngineError>(mismatched, "initial modulation bounds do not match neurons");
    CpuWindowBackend cpu;
    engine.run(cpu, 50);
    engine.reseedInitialCandidates(bounds);  // no window has been run
    engine.post(inputAt(60, 0));
    engine.run(cpu, 70);
    expectThrows<WindowEngineError>([&] { engine.reseedInitialCandidates(bounds); },
                                    "initial candidates can only be reseeded before run");
    expectThrows<WindowEngineError>(mismatched, "initial modulation bounds do not match neurons");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
