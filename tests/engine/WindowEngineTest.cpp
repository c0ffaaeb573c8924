#include "kelm/engine/WindowEngine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cfenv>
#include <limits>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "compare/BlobLayout.h"
#include "compare/RunImage.h"
#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/events/BucketEventStore.h"
#include "tests/engine/ScriptedBackend.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/ForgedBlobs.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/PlainStore.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Compare;
using namespace Testing;
using Neurons = std::vector<Kernel::Neuron>;
using Firings = std::vector<Kernel::Firing>;

Event inputAt(ModelTime time, NodeId target, double value = 1.0) {
    return {.time = time, .kind = EventKind::input, .target = target, .value = value};
}

/// Never fires.
constexpr Kernel::Firing silent_firing{.base_rate = 0.0};

/// Neurons without synapses that never fire, windows 10 ns long.
WindowEngine silentEngine(std::uint64_t node_count) {
    return WindowEngine(SynapseGraph(node_count, 10, {}), Kernel::Neuron(), silent_firing, 1, 1000);
}

TEST(WindowEngineConstruction, ChecksHorizonThenCountsThenRatesThenSmallestDelay) {
    const auto building = [](ModelTime horizon, std::size_t neurons, std::size_t firings,
                             double base_rate) {
        const Kernel::Firing firing{.base_rate = base_rate, .max_rate = -1.0};
        return [=] {
            WindowEngine(SynapseGraph(1, std::nullopt, {}), Neurons(neurons),
                         Firings(firings, firing), 1, horizon);
        };
    };
    const char* const horizon = "the window engine needs a positive horizon";
    const char* const count = "per-neuron parameter count does not match graph";
    expectRefusals<WindowEngineError>(
        {{horizon, building(0, 0, 5, 1.0)},
         {horizon, building(-1, 1, 1, 1.0)},
         {count, building(1, 0, 1, -1.0)},
         {count, building(1, 1, 0, 1.0)},
         {"a neuron with a negative rate and a negative ceiling has a negative hazard",
          building(1, 1, 1, -1.0)},
         {"the graph has no d_min, so no window can be formed", building(1, 1, 1, 1.0)}});
}

TEST(WindowEngineConstruction, AcceptsAStoreInPlaceOfDMinAndANetworkWithoutNeurons) {
    WindowEngine engine(SynapseGraph(0, std::nullopt, {}), Neurons(), {}, 1, 1,
                        std::make_unique<PlainStore>(10, 16));
    CpuWindowBackend cpu;
    engine.run(cpu);
    EXPECT_EQ(engine.profile(), WindowProfile());
    EXPECT_EQ(engine.logHash(), 0x14650fb0739d0383);
}

TEST(WindowEngineConstruction, CallsNeuronsHeterogeneousFromTheFirstFieldThatDiffers) {
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    const auto differ = [](void (*change)(Neurons&, Firings&)) {
        Neurons neurons(6);
        Firings firings(6);
        change(neurons, firings);
        return WindowEngine(SynapseGraph(6, 10, {}), neurons, firings, 1, 100).isHeterogeneous();
    };
    EXPECT_FALSE(differ([](Neurons& n, Firings&) { n[2].reset_value = -0.0; }));
    EXPECT_TRUE(differ([](Neurons& n, Firings&) { ++n[5].tau_adaptation; }));
    EXPECT_TRUE(differ([](Neurons&, Firings& f) { f[3].spare_flag = true; }));
    EXPECT_TRUE(differ([](Neurons&, Firings& f) { f[0].threshold = f[5].threshold = nan; }));
}

TEST(WindowEngineConstruction, TakesPopulationsAsTheirNeuronsOneByOne) {
    for (std::uint64_t seed = 0; seed < 20; ++seed) {
        SCOPED_TRACE(seed);
        GeneratedModel model = generateModel(seed);
        std::vector<Population> populations;
        for (NodeId n = 0; n < model.node_count;) {
            const std::uint64_t size = std::min(1 + (n + seed) % 5, model.node_count - n);
            // The parameters of every third population occur before.
            const NodeId like = populations.size() % 3 == 2 ? 0 : n;
            populations.push_back({"", size, model.neurons[like], model.firings[like]});
            populations.push_back({});
            for (const NodeId end = n + size; n < end; ++n) {
                model.neurons[n] = populations.rbegin()[1].neuron;
                model.firings[n] = populations.rbegin()[1].firing;
            }
        }
        WindowEngine one_by_one = makeEngine(model);
        WindowEngine engine(model.graph(), ParameterTable(populations), model.run_seed,
                            model.horizon);
        EXPECT_EQ(engine.isHeterogeneous(), one_by_one.isHeterogeneous());
        CpuWindowBackend cpu;
        const auto outcome = [&](WindowEngine& subject) {
            postInputs(model, subject);
            try {
                subject.run(cpu);
            } catch (const WindowEngineError& error) {
                return std::pair(std::string(error.what()), Blob());
            }
            return std::pair(std::string(), subject.snapshot());
        };
        EXPECT_EQ(outcome(engine), outcome(one_by_one));
    }
}

// In 50-digit arithmetic (bc), one SplitMix64 step from 0x3c9c77c8b045dfa4 and
// -ln(u) / 0.500000000000008 * 1e9 give 4082757387.266 ns. The bound is 0.5 * exp(4 * 4e-15).
TEST(WindowEngineConstruction, DrawsTheFirstCandidateOfADefaultNeuron) {
    WindowEngine engine(SynapseGraph(1, 10, {}), Kernel::Neuron(), Kernel::Firing(), 1,
                        10'000'000'000'000);
    EXPECT_EQ(engine.candidates()[0].time, 4082757387);
    EXPECT_EQ(std::bit_cast<std::uint64_t>(engine.candidates()[0].rate), 0x3fe0000000000048);
    EXPECT_EQ(engine.spontaneousState(0), 0xdad3f1822f905bb9);
    EXPECT_EQ(initialSpontaneousState(1, 0), 0x3c9c77c8b045dfa4);
}

TEST(WindowEngineReseed, RefusesAProcessedTimeAndServesAnyStore) {
    const GeneratedModel model = generateModel(4, {.alike = true, .external_events = false});
    WindowEngine engine = makeEngine(model);
    WindowEngine stored = makeEngine(model, std::make_unique<BucketEventStore>(model.d_min, 4096));
    EXPECT_TRUE(engine.isPristine());
    engine.reseed(8, 0);
    stored.reseed(8, 0);
    EXPECT_FALSE(engine.isPristine());
    CpuWindowBackend cpu;
    engine.run(cpu, model.horizon / 2);
    stored.run(cpu, model.horizon / 2);
    const Blob before = engine.snapshot();
    const ModelTime from = engine.openFrom();
    ASSERT_GT(from, 0);
    expectThrows<LookaheadViolation>(
        [&] { engine.reseed(9, from - 1); },
        "KELM event inserted into an already processed window; d_min does not bound this edge");
    EXPECT_EQ(engine.snapshot(), before);
    EXPECT_EQ(engine.seed(), 8U);
    engine.reseed(9, from);
    stored.reseed(9, from);
    engine.run(cpu);
    stored.run(cpu);
    EXPECT_NE(engine.snapshot(), before);
    EXPECT_EQ(engine.snapshot(), stored.snapshot());
}

TEST(WindowEngineRun, TakesWindowsWholeAndSkipsEmptyOnes) {
    WindowEngine engine = silentEngine(1);
    for (const ModelTime time : {0, 9, 10, 35, 39, 40, 990, 1000}) engine.post(inputAt(time, 0));
    ScriptedBackend backend;
    using Case = std::pair<ModelTime, int>;
    for (const auto& [until, windows] :
         {Case{-5, 0}, {0, 0}, {1, 1}, {10, 1}, {31, 3}, {40, 3}, {1000, 5}, {1000, 5}}) {
        engine.run(backend, until);
        EXPECT_EQ(backend.windows, windows) << "until " << until;
    }
    // An event at the horizon is never run.
    EXPECT_EQ(engine.profile(), (WindowProfile{5, 7, 0, 0, 0}));
}

TEST(WindowEngineRun, StopsAtTheFirstFlaggedResultAndCommitsNothingIfTheBackendThrows) {
    using Flaw = void (*)(Kernel::WindowResult&);
    const std::pair<Flaw, const char*> cases[] = {
        {[](Kernel::WindowResult& result) { result.bound_violation = true; },
         "KELM hazard upper bound underestimated lambda"},
        {[](Kernel::WindowResult& result) { result.spike_overflow = true; },
         "more spikes in one window than the model allows; check d_min against the refractory "
         "period"},
        {[](Kernel::WindowResult& result) {
             result.bound_violation = result.spike_overflow = true;
         },
         "KELM hazard upper bound underestimated lambda"},
        {[](Kernel::WindowResult&) { throw WindowEngineError("broken"); }, "broken"},
    };
    for (const auto& [flaw, message] : cases) {
        SCOPED_TRACE(message);
        WindowEngine engine = silentEngine(3);
        for (NodeId n = 0; n < 3; ++n) engine.post(inputAt(5, n));
        const RunImage before = imageOf(engine);
        ScriptedBackend backend(
            [spoil = flaw](const WindowWork& item, const Kernel::WindowEvent*, ModelTime) {
                // Change everything that a commit writes.
                Kernel::WindowResult result = quietResult(item, {7});
                result.state.membrane = 3.0;
                result.rng += 0x9e3779b97f4a7c15;
                result.next_candidate = 100;
                result.updates = result.accepted = 1;
                if (item.neuron == 1) spoil(result);
                return result;
            });
        expectThrows<WindowEngineError>([&] { engine.run(backend); }, message);
        RunImage expected = before;
        if (message != std::string("broken")) {
            expected.states[0].membrane = 3.0;
            expected.random_states[0] += 0x9e3779b97f4a7c15;
            expected.candidates[0] = {100, 0.0, 3};
            expected.log = {{7, 0}};
            expected.profile = {1, 3, 1, 0, 1};
        }
        EXPECT_EQ(firstDifference(expected, imageOf(engine)), "");
    }
}

// A walk from there would draw through all windows in between.
TEST(WindowEngineRun, EndsAtACandidateOfAForgedSnapshotThatLiesBeforeItsWindow) {
    WindowEngine writer = silentEngine(2);
    writer.post(inputAt(35, 1));
    const BlobLayout layout(writer.snapshot());
    for (const auto& [time, text] :
         {std::pair<ModelTime, const char*>{-1, ""},
          {0, "a candidate lies before the window that takes up its neuron"},
          {29, "a candidate lies before the window that takes up its neuron"},
          {30, ""}}) {
        WindowEngine reader = silentEngine(2);
        const std::size_t second = layout.begin("candidates") + sizeof(CandidateSlot);
        ASSERT_TRUE(reader.restore(withValueAt(layout.bytes(), second, time)));
        CpuWindowBackend cpu;
        EXPECT_EQ(failureOf(reader, cpu, reader.horizon()), text) << time;
    }
}

TEST(WindowEngineRun, StartsTheStreamsThatAForgedSnapshotLacks) {
    const auto make = [] {
        return WindowEngine(SynapseGraph(5, 10'000'000, {}), Kernel::Neuron(), Kernel::Firing(), 1,
                            20'000'000'000);
    };
    const BlobLayout layout(make().snapshot());
    const BlobView bytes(layout.bytes());
    const auto runWith = [&](std::initializer_list<NodeId> streams) {
        Runtime::RandomContext random(1);
        for (const NodeId n : streams) random.streamFor("spontaneous", n);
        const BlobLayout::Field& field = layout.field("random");
        const BlobView behind = bytes.subspan(field.end);
        Blob forged(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(field.begin));
        appendNested(forged, random.snapshot());
        appendBytes(forged, behind.data(), behind.size());
        WindowEngine engine = make();
        EXPECT_TRUE(engine.restore(forged));
        CpuWindowBackend cpu;
        engine.run(cpu);
        return imageOf(engine);
    };
    const RunImage all = runWith({0, 1, 2, 3, 4});
    EXPECT_GT(all.profile.accepted, 20U);
    EXPECT_EQ(firstDifference(runWith({}), all), "");
    EXPECT_EQ(firstDifference(runWith({0, 1, 3}), all), "");
    EXPECT_EQ(firstDifference(runWith({4, 2}), all), "");
}

TEST(WindowEngineRun, RefusesEventsForNeuronsOutsideTheNetworkFromCallerAndStore) {
    auto store = std::make_unique<PlainStore>(10, 16);
    store->post(inputAt(1, 2));
    WindowEngine engine(SynapseGraph(2, 10, {}), Kernel::Neuron(), silent_firing, 1, 100,
                        std::move(store));
    ScriptedBackend backend;
    const char* const outside = "KELM destination NodeId is out of range";
    expectRefusals<SynapseRoutingViolation>(
        {{outside, [&] { engine.post(inputAt(5, 2)); }}, {outside, [&] { engine.run(backend); }}});
    EXPECT_FALSE(engine.hasExternalEvents());
}

TEST(WindowEngineRun, EndsAtADeliveryOutsideTheNetworkAfterAHookHasReplacedTheGraph) {
    // Eight synapses from neuron 0, so that a spike is kept as one run.
    const auto fan = [](std::uint64_t neurons, NodeId target) {
        return SynapseGraph(neurons, 10,
                            std::vector<Synapse>(8, {.target = target, .weight = 1, .delay = 10}));
    };
    struct Replacing : IWindowCommit {
        explicit Replacing(SynapseGraph&& graph) : larger(std::move(graph)) {}
        void commit(ModelTime, ModelTime, std::span<const SpikeRecord>,
                    SynapseGraph& graph) override {
            graph = larger;
        }
        SynapseGraph larger;
    };
    WindowEngine engine(fan(2, 1), Kernel::Neuron(), silent_firing, 1, 100);
    Replacing hook(fan(100, 50));
    engine.setHooks(nullptr, &hook, nullptr);
    engine.post(inputAt(5, 1));
    engine.post(inputAt(25, 0));
    ScriptedBackend backend([](const WindowWork& item, const Kernel::WindowEvent*, ModelTime end) {
        return item.neuron == 0 ? quietResult(item, {end - 1}) : quietResult(item);
    });
    expectThrows<SynapseRoutingViolation>([&] { engine.run(backend); },
                                          "KELM destination NodeId is out of range");
}

TEST(WindowEngineStore, MayBeRestoredAndToldToCancelFromOutside) {
    // The same acts on two stores whose addresses are kept. One of the two shows no more than the
    // interface.
    const GeneratedModel model = generateModel(3, {40, 60, false, true});
    const auto runOver = [&](auto store) {
        IEventStore& kept = *store;
        WindowEngine engine = makeEngine(model, std::move(store));
        postInputs(model, engine);
        CpuWindowBackend cpu;
        for (const ModelTime until : {model.horizon / 3, model.horizon / 2}) {
            EXPECT_EQ(failureOf(engine, cpu, until), "");
            EXPECT_TRUE(kept.restore(kept.snapshot()));
        }
        const RunImage image = imageOf(engine);
        int cancelled = 0;
        for (const CandidateSlot& slot : engine.candidates()) {
            if (slot.event_id == no_event) continue;
            EXPECT_TRUE(kept.cancel(slot.event_id));
            EXPECT_FALSE(kept.cancel(slot.event_id));
            ++cancelled;
        }
        EXPECT_GT(cancelled, 0);
        // A neuron whose candidate is gone may get an input later, which ends the run.
        const std::string failure = failureOf(engine, cpu, model.horizon);
        return std::pair(image, failure + std::to_string(engine.logHash()));
    };
    const auto bucket = runOver(std::make_unique<BucketEventStore>(model.d_min, 8));
    const auto plain = runOver(std::make_unique<PlainStore>(model.d_min, 8));
    EXPECT_EQ(firstDifference(bucket.first, plain.first), "");
    EXPECT_EQ(bucket.second, plain.second);
}

TEST(WindowEngineOffer, IsMadeOnceForAWholeRunThatNobodyTakesPartIn) {
    static struct : IWindowPrepare, IWindowCommit, IWindowObserver {
        void prepare(ModelTime, ModelTime, std::span<WindowWork>, SynapseGraph&) override {}
        void commit(ModelTime, ModelTime, std::span<const SpikeRecord>, SynapseGraph&) override {}
        void observe(const Event&, std::span<const Kernel::State>, SynapseGraph&) override {}
        void observe(const Event&, std::span<const Kernel::State>, std::span<const ModelTime>,
                     SynapseGraph&) override {}
    } hooks;
    const auto offers = [](void (*arrange)(WindowEngine&, ScriptedBackend&), ModelTime until = 1000,
                           bool alike = true) {
        Firings firings(2);
        for (Kernel::Firing& firing : firings) firing.base_rate = firing.max_rate = 1e8;
        if (!alike) firings[1].gain += 1.0;
        WindowEngine engine(SynapseGraph(2, 10, {}), Neurons(2), firings, 1, 1000);
        ScriptedBackend backend;
        arrange(engine, backend);
        engine.run(backend, until);
        EXPECT_EQ(backend.windows == 0, backend.takes_whole_runs);
        return backend.offers;
    };
    using Engine = WindowEngine;
    using Backend = ScriptedBackend;
    const auto nothing = [](Engine&, Backend&) {};
    EXPECT_EQ(offers(nothing), 1);
    EXPECT_EQ(offers([](Engine&, Backend& b) { b.takes_whole_runs = true; }), 1);
    EXPECT_EQ(offers(nothing, 999), 0);
    EXPECT_EQ(offers(nothing, 1000, false), 0);
    void (*const participants[])(Engine&, Backend&) = {
        [](Engine& e, Backend&) { e.setHooks(&hooks, nullptr, nullptr); },
        [](Engine& e, Backend&) { e.setHooks(nullptr, &hooks, nullptr); },
        [](Engine& e, Backend&) { e.setHooks(nullptr, nullptr, &hooks); },
        [](Engine& e, Backend&) { e.declareObserverEvent(inputAt(5, 0)); },
        [](Engine& e, Backend&) { e.post(inputAt(5, 0)); },
        [](Engine& e, Backend& b) { e.run(b, 999); }};
    for (const auto& takePart : participants) EXPECT_EQ(offers(takePart), 0);
}

TEST(WindowEngineEnvironment, MustRoundToNearestWhenAnEngineIsBuiltAndRun) {
    WindowEngine built = silentEngine(1);
    CpuWindowBackend cpu;
    const char* const text =
        "the floating-point environment does not round to nearest, ties to even";
    std::fesetround(FE_UPWARD);
    expectThrows<std::runtime_error>([] { silentEngine(1); }, text);
    expectThrows<std::runtime_error>([&] { built.run(cpu); }, text);
    std::fesetround(FE_TONEAREST);
}

using Trace = std::vector<std::string>;

template <class... Parts>
std::string text(const Parts&... parts) {
    std::ostringstream line;
    (line << ... << parts);
    return line.str();
}

/// Records the engine's calls.
class TracingStore : public PlainStore {
public:
    explicit TracingStore(Trace& trace) : PlainStore(10, 16), trace_(trace) {}

    std::uint64_t post(const Event& event) override {
        const std::uint64_t id = PlainStore::post(event);
        const char* const kind = event.kind == EventKind::candidate ? "candidate " : "delivery ";
        trace_.push_back(
            text("post ", id, ": ", kind, event.source, "->", event.target, " at ", event.time));
        return id;
    }
    bool cancel(std::uint64_t id) override {
        const bool pending = PlainStore::cancel(id);
        trace_.push_back(text("cancel ", id, pending ? "" : ", too late"));
        return pending;
    }

private:
    Trace& trace_;
};

/// Records every call and the engine's state at that time: the mark that the scripted backend
/// leaves on the membrane of neuron 0, and the number of spikes so far.
class TracingHooks : public IWindowPrepare, public IWindowCommit, public IWindowObserver {
public:
    TracingHooks(Trace& trace, WindowEngine& engine) : trace_(trace), engine_(engine) {}

    void prepare(ModelTime start, ModelTime end, std::span<WindowWork> work,
                 SynapseGraph& graph) override {
        EXPECT_EQ(&graph, &engine_.graph());
        for (WindowWork& item : work) item.drive.base = 0.25;
        trace_.push_back(
            text("prepare ", start, " to ", end, ": ", work.size(), " items", state()));
    }
    void commit(ModelTime start, ModelTime end, std::span<const SpikeRecord> spikes,
                SynapseGraph& graph) override {
        EXPECT_EQ(&graph, &engine_.graph());
        // Reading the log sorts it, which must not change the spikes that the hook gets.
        trace_.push_back(text("commit ", start, " to ", end, state()));
        for (const SpikeRecord& spike : spikes) {
            trace_.back() += text(' ', spike.neuron, '@', spike.time);
        }
    }
    void observe(const Event&, std::span<const Kernel::State>, SynapseGraph&) override {
        ADD_FAILURE() << "the engine calls the other form";
    }
    void observe(const Event& event, std::span<const Kernel::State>, std::span<const ModelTime>,
                 SynapseGraph&) override {
        trace_.push_back(text("observe ", event.time));
    }

private:
    std::string state() {
        return text("; mark ", engine_.states()[0].membrane, ", ", engine_.spikeLog().size(),
                    " spikes");
    }

    Trace& trace_;
    WindowEngine& engine_;
};

/// In the first window neuron 0 fires once and neuron 2 twice, and both get a candidate.
Kernel::WindowResult play(const WindowWork& item, ModelTime window_end) {
    Kernel::WindowResult result = quietResult(item);
    if (window_end == 10) {
        result = item.neuron == 0 ? quietResult(item, {8}) : quietResult(item, {6, 9});
        result.state.membrane = 1.0;
        result.next_candidate = item.neuron == 0 ? 12 : 35;
        result.next_bound = 64.0;
    }
    if (window_end == 30) result.next_candidate = 47;
    return result;
}

TEST(WindowHooks, AreCalledAtTheirPlacesInTheOrderOfAWindow) {
    Trace trace;
    WindowEngine engine(SynapseGraph(3, 10, {{0, 1, 0.5F, 10}, {0, 2, 0.5F, 15}, {2, 0, 0.5F, 10}}),
                        Kernel::Neuron(), silent_firing, 1, 60,
                        std::make_unique<TracingStore>(trace));
    TracingHooks hooks(trace, engine);
    engine.setHooks(&hooks, &hooks, &hooks);
    for (const ModelTime time : {55, 38, 10, 7}) engine.declareObserverEvent(inputAt(time, 0));
    engine.post(inputAt(5, 2, 1.0));
    engine.post(inputAt(3, 0, 2.0));
    engine.post(inputAt(3, 0, 3.0));
    trace.clear();
    ScriptedBackend backend([&](const WindowWork& item, const Kernel::WindowEvent* events,
                                ModelTime window_end) {
        EXPECT_EQ(item.drive.base, 0.25);
        trace.push_back(text("compute ", item.neuron, ':'));
        for (const Kernel::WindowEvent& event : std::span(events, item.event_count)) {
            trace.back() += text(event.wake_only ? " wake " : " ", event.value, '@', event.time);
        }
        return play(item, window_end);
    });
    engine.run(backend);
    const Trace expected = {
        "prepare 0 to 10: 2 items; mark 0, 0 spikes",
        "compute 0: 2@3 3@3",
        "compute 2: 1@5",
        // Posts by neuron, then spike time, then synapse; the candidate last.
        "post 3: delivery 0->1 at 18",
        "post 4: delivery 0->2 at 23",
        "post 5: candidate 0->0 at 12",
        "post 6: delivery 2->0 at 16",
        "post 7: delivery 2->0 at 19",
        "post 8: candidate 2->2 at 35",
        "commit 0 to 10; mark 1, 3 spikes 0@8 2@6 2@9",
        "observe 7",
        "prepare 10 to 20: 2 items; mark 1, 3 spikes",
        "compute 0: wake 64@12 0.5@16 0.5@19",
        "compute 1: 0.5@18",
        "cancel 5, too late",
        "commit 10 to 20; mark 1, 3 spikes",
        "observe 10",
        "prepare 20 to 30: 1 items; mark 1, 3 spikes",
        "compute 2: 0.5@23",
        "cancel 8",
        "post 9: candidate 2->2 at 47",
        "commit 20 to 30; mark 1, 3 spikes",
        "observe 38",
        "prepare 40 to 50: 1 items; mark 1, 3 spikes",
        "compute 2: wake 64@47",
        "cancel 9, too late",
        "commit 40 to 50; mark 1, 3 spikes",
        "observe 55",
    };
    EXPECT_EQ(trace, expected);
    EXPECT_EQ(engine.profile(), (WindowProfile{4, 9, 0, 0, 0}));
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
