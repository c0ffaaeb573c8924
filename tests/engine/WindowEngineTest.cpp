#include "kelm/engine/WindowEngine.h"

#include <gtest/gtest.h>

#include <bit>
#include <cfenv>
#include <cstring>
#include <limits>
#include <optional>
#include <stdexcept>

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "tests/engine/ScriptedBackend.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/NaiveEventStore.h"
#include "tests/support/RunImage.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

Synapse synapse(NodeId source, NodeId target, ModelTime delay) {
    Synapse result;
    result.source = source;
    result.target = target;
    result.weight = 0.5F;
    result.delay = delay;
    return result;
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

/// Neurons without synapses that never fire, windows 10 ns long.
WindowEngine silentEngine(std::uint64_t node_count, ModelTime horizon = 1000) {
    return WindowEngine(SynapseGraph(node_count, 10, {}), Kernel::Neuron(), silentFiring(), 1,
                        horizon);
}

/// A store that tells when it is destroyed.
class MortalStore : public NaiveEventStore {
public:
    explicit MortalStore(bool& alive) : NaiveEventStore(10), alive_(alive) { alive_ = true; }
    ~MortalStore() override { alive_ = false; }

private:
    bool& alive_;
};

TEST(WindowEngineConstruction, ChecksHorizonThenCountsThenSmallestDelay) {
    struct Case {
        const char* fact;
        ModelTime horizon;
        std::size_t neurons, firings;
        bool has_store;
        const char* text;
    };
    const char* const horizon = "the window engine needs a positive horizon";
    const char* const count = "per-neuron parameter count does not match graph";
    const char* const d_min = "the graph has no d_min, so no window can be formed";
    for (const Case& c : {Case{"horizon 0 before all else", 0, 0, 5, false, horizon},
                          Case{"a negative horizon", -1, 1, 1, true, horizon},
                          Case{"too few neurons", 1, 0, 1, false, count},
                          Case{"too few firings", 1, 1, 0, false, count},
                          Case{"too many of both", 1, 2, 2, true, count},
                          Case{"no delay, no store", 1, 1, 1, false, d_min}}) {
        SCOPED_TRACE(c.fact);
        bool alive = false;
        const auto build = [&] {
            WindowEngine(SynapseGraph(1, std::nullopt, {}), std::vector<Kernel::Neuron>(c.neurons),
                         std::vector<Kernel::Firing>(c.firings), 1, c.horizon,
                         c.has_store ? std::make_unique<MortalStore>(alive) : nullptr);
        };
        expectThrows<WindowEngineError>(build, c.text);
        EXPECT_FALSE(alive);
    }
}

TEST(WindowEngineConstruction, TakesAGraphWithoutDelaysIfAStoreIsHandedIn) {
    WindowEngine engine(SynapseGraph(1, std::nullopt, {}), Kernel::Neuron(), silentFiring(), 1, 100,
                        std::make_unique<NaiveEventStore>(10));
    engine.post(inputAt(15, 0));
    CpuWindowBackend cpu;
    engine.run(cpu);
    EXPECT_EQ(engine.profile(), (WindowProfile{1, 1, 1, 0, 0}));
}

TEST(WindowEngineConstruction, TakesANetworkWithoutNeurons) {
    WindowEngine engine(SynapseGraph(0, 10, {}), std::vector<Kernel::Neuron>(), {}, 1, 1);
    CpuWindowBackend cpu;
    engine.run(cpu);
    EXPECT_EQ(engine.profile(), WindowProfile());
    EXPECT_EQ(engine.logHash(), 0x14650fb0739d0383);
    EXPECT_FALSE(engine.isHeterogeneous());
}

TEST(WindowEngineConstruction, CallsNeuronsHeterogeneousFromTheFirstFieldThatDiffers) {
    struct Case {
        const char* fact;
        void (*change)(std::vector<Kernel::Neuron>&, std::vector<Kernel::Firing>&);
        bool heterogeneous;
    };
    using Neurons = std::vector<Kernel::Neuron>;
    using Firings = std::vector<Kernel::Firing>;
    for (const Case& c : {
             Case{"all alike", [](Neurons&, Firings&) {}, false},
             Case{"an integer of the last", [](Neurons&n, Firings&) { ++n[5].tau_adaptation; },
                  true},
             Case{"a flag", [](Neurons&n, Firings&) { n[1].non_leaky = true; }, true},
             Case{"a flag that no formula reads",
                  [](Neurons&, Firings&f) { f[3].spare_flag = true; }, true},
             Case{"a float of the first", [](Neurons&, Firings&f) { f[0].gain += 1e-12; }, true},
             Case{"-0.0 against 0.0", [](Neurons&n, Firings&) { n[2].reset_value = -0.0; }, false},
             Case{"one NaN in neuron 0 and neuron 5",
                  [](Neurons&, Firings&f) { f[0].threshold = f[5].threshold = nan; }, true},
             Case{"the same NaN in all",
                  [](Neurons&n, Firings&) {
                      for (Kernel::Neuron& neuron : n) neuron.input_coupling = nan;
                  },
                  true},
         }) {
        SCOPED_TRACE(c.fact);
        Neurons neurons(6);
        Firings firings(6);
        c.change(neurons, firings);
        const WindowEngine engine(SynapseGraph(6, 10, {}), neurons, firings, 1, 100);
        EXPECT_EQ(engine.isHeterogeneous(), c.heterogeneous);
    }
    Kernel::Neuron lonely;
    lonely.trace_epsilon = nan;
    EXPECT_FALSE(
        WindowEngine(SynapseGraph(1, 10, {}), lonely, Kernel::Firing(), 1, 100).isHeterogeneous());
}

// In 50-digit arithmetic (bc), one SplitMix64 step from 0x3c9c77c8b045dfa4 and
// -ln(u) / 0.500000000000008 * 1e9 give 4082757387.266 ns. The bound is 0.5 * exp(4 * 4e-15).
TEST(WindowEngineConstruction, DrawsTheFirstCandidateOfADefaultNeuron) {
    WindowEngine engine(SynapseGraph(1, 10, {}), Kernel::Neuron(), Kernel::Firing(), 1,
                        10'000'000'000'000);
    EXPECT_EQ(engine.candidates()[0].time, 4082757387);
    EXPECT_EQ(std::bit_cast<std::uint64_t>(engine.candidates()[0].rate), 0x3fe0000000000048);
    EXPECT_EQ(engine.candidates()[0].event_id, 0);
    EXPECT_EQ(engine.spontaneousState(0), 0xdad3f1822f905bb9);
    EXPECT_EQ(initialSpontaneousState(1, 0), 0x3c9c77c8b045dfa4);
}

TEST(WindowEngineConstruction, PostsFirstCandidatesInNeuronOrderWhereThereIsOne) {
    // Neuron 1 cannot fire, so it draws nothing; neuron 3 draws, but far beyond the horizon.
    std::vector<Kernel::Firing> firings(5);
    for (Kernel::Firing& firing : firings) firing.base_rate = 1e6;
    firings[1].base_rate = 0.0;
    firings[3].base_rate = 1e-9;
    constexpr ModelTime horizon = 1'000'000;
    WindowEngine engine(SynapseGraph(5, 10, {}), std::vector<Kernel::Neuron>(5), firings, 77,
                        horizon);

    const std::uint64_t none = 0xffffffffffffffff;
    const std::uint64_t ids[] = {0, none, 1, none, 2};
    for (NodeId n = 0; n < 5; ++n) {
        SCOPED_TRACE(n);
        std::uint64_t rng = initialSpontaneousState(77, n);
        const Kernel::Candidate drawn = Kernel::nextCandidate(Kernel::State(), Kernel::Neuron(),
                                                              firings[n], 0, horizon, 0.0, rng);
        const CandidateSlot& slot = engine.candidates()[n];
        EXPECT_EQ(slot.event_id, ids[n]);
        EXPECT_EQ(slot.time, drawn.found ? drawn.time : -1);
        EXPECT_EQ(std::bit_cast<std::uint64_t>(slot.rate),
                  std::bit_cast<std::uint64_t>(drawn.bound));
        EXPECT_EQ(engine.spontaneousState(n), rng);
    }
    EXPECT_EQ(engine.spontaneousState(1), initialSpontaneousState(77, 1));
    EXPECT_NE(engine.spontaneousState(3), initialSpontaneousState(77, 3));
    EXPECT_GT(engine.candidates()[3].rate, 0.0);
}

TEST(WindowEnginePost, HandsTheEventToTheStoreAndRemembersThatItCameFromOutside) {
    WindowEngine engine = silentEngine(2);
    EXPECT_FALSE(engine.hasExternalEvents());
    expectThrows<SynapseRoutingViolation>([&] { engine.post(inputAt(5, 2)); },
                                          "KELM destination NodeId is out of range");
    EXPECT_FALSE(engine.hasExternalEvents());
    EXPECT_EQ(engine.post(inputAt(5, 1)), 0);
    EXPECT_EQ(engine.post(inputAt(5, 1)), 1);
    EXPECT_TRUE(engine.hasExternalEvents());
    CpuWindowBackend cpu;
    engine.run(cpu);
    EXPECT_EQ(engine.states()[1].membrane, 2.0);
    expectThrows<LookaheadViolation>(
        [&] { engine.post(inputAt(9, 0)); },
        "KELM event inserted into an already processed window; d_min does not bound this edge");
}

TEST(WindowEngineRun, GivesTheBackendOneItemANeuronWithItsEventsInStoreOrder) {
    WindowEngine engine = silentEngine(4);
    engine.post(inputAt(17, 3, 1.0));
    engine.post(inputAt(12, 1, 2.0));
    engine.post(inputAt(12, 3, 3.0));
    Event wake = inputAt(12, 3, 4.0);
    wake.kind = EventKind::candidate;
    engine.post(wake);
    Event delivery = inputAt(12, 3, 5.0);
    delivery.kind = EventKind::delivery;
    engine.post(delivery);

    std::vector<NodeId> items;
    std::vector<double> values;
    std::vector<bool> wakes;
    ScriptedBackend backend(
        [&](const WindowWork& item, const Kernel::WindowEvent* events, ModelTime window_end) {
            EXPECT_EQ(window_end, 20);
            EXPECT_EQ(item.rng, initialSpontaneousState(1, item.neuron));
            EXPECT_EQ(item.pending_time, -1);
            EXPECT_EQ(item.drive.term_count, 0);
            items.push_back(item.neuron);
            for (std::uint32_t i = 0; i < item.event_count; ++i) {
                values.push_back(events[i].value);
                wakes.push_back(events[i].wake_only);
            }
            return quietResult(item);
        });
    engine.run(backend);
    EXPECT_EQ(items, (std::vector<NodeId>{1, 3}));
    EXPECT_EQ(values, (std::vector<double>{2.0, 3.0, 4.0, 5.0, 1.0}));
    EXPECT_EQ(wakes, (std::vector<bool>{false, false, true, false, false}));
    EXPECT_EQ(backend.horizon_seen, 1000);
    EXPECT_EQ(backend.firing_seen, silentFiring());
    EXPECT_EQ(engine.profile(), (WindowProfile{1, 5, 0, 0, 0}));
}

/// Compares every item of a run with what the engine shows before the window.
class ItemChecker : public IWindowPrepare {
public:
    ItemChecker(const GeneratedModel& model, WindowEngine& engine)
        : model_(model), engine_(engine) {}

    void prepare(ModelTime, ModelTime, std::span<WindowWork> work, SynapseGraph&) override {
        for (const WindowWork& item : work) {
            const NodeId n = item.neuron;
            const CandidateSlot& slot = engine_.candidates()[n];
            ASSERT_EQ(std::memcmp(&item.state, &engine_.states()[n], sizeof item.state), 0);
            ASSERT_EQ(item.parameters, model_.neurons[n]);
            ASSERT_EQ(item.firing, model_.firings[n]);
            ASSERT_EQ(item.rng, engine_.spontaneousState(n));
            ASSERT_EQ(item.pending_time, slot.time);
            ASSERT_EQ(item.pending_bound, slot.rate);
            ++items;
        }
    }

    std::uint64_t items = 0;

private:
    const GeneratedModel& model_;
    WindowEngine& engine_;
};

TEST(WindowEngineRun, GivesEachItemWhatIsItsNeurons) {
    std::uint64_t items = 0;
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE("model seed " + std::to_string(seed));
        const GeneratedModel model = generateModel(seed);
        WindowEngine engine = makeEngine(model);
        postInputs(model, engine);
        ItemChecker checker(model, engine);
        engine.setHooks(&checker, nullptr, nullptr);
        CpuWindowBackend cpu;
        try {
            engine.run(cpu);
        } catch (const WindowEngineError&) {
            // A hot model; the windows before count.
        }
        items += checker.items;
    }
    EXPECT_GT(items, 1000);
}

TEST(WindowEngineRun, TakesWindowsWholeAndSkipsEmptyOnes) {
    WindowEngine engine = silentEngine(1);
    for (const ModelTime time : {0, 9, 10, 35, 39, 40, 990, 1000}) engine.post(inputAt(time, 0));
    std::vector<ModelTime> ends;
    ScriptedBackend backend(
        [&](const WindowWork& item, const Kernel::WindowEvent*, ModelTime window_end) {
            ends.push_back(window_end);
            return quietResult(item);
        });
    struct Case {
        ModelTime until;
        std::vector<ModelTime> ends;
    };
    for (const Case& c :
         {Case{-5, {}}, Case{0, {}}, Case{1, {10}}, Case{10, {}}, Case{31, {20, 40}}, Case{40, {}},
          Case{1000, {50, 1000}}, Case{1000, {}}}) {
        SCOPED_TRACE(c.until);
        ends.clear();
        engine.run(backend, c.until);
        EXPECT_EQ(ends, c.ends);
    }
    // What lies at the horizon is never run.
    EXPECT_EQ(engine.profile(), (WindowProfile{5, 7, 0, 0, 0}));
}

TEST(WindowEngineRun, InPiecesEqualsARunAtOnce) {
    for (std::uint64_t seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE("model seed " + std::to_string(seed));
        const GeneratedModel model = generateModel(seed);
        WindowEngine whole = makeEngine(model);
        WindowEngine pieces = makeEngine(model);
        postInputs(model, whole);
        postInputs(model, pieces);
        CpuWindowBackend cpu;
        try {
            whole.run(cpu);
        } catch (const WindowEngineError&) {
            continue;  // a hot model; the side-by-side runs compare those
        }
        for (ModelTime until = 0; until < model.horizon; until += 1 + until / 3 + model.d_min / 3) {
            pieces.run(cpu, until);
            pieces.run(cpu, until);
            pieces.spikeLog();
        }
        pieces.run(cpu, model.horizon);
        EXPECT_EQ(firstDifference(imageOf(whole), imageOf(pieces)), "");
    }
}

TEST(WindowEngineRun, WithAnotherStoreIsTheSameRun) {
    for (std::uint64_t seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE("model seed " + std::to_string(seed));
        const GeneratedModel model = generateModel(seed);
        WindowEngine calendar = makeEngine(model);
        WindowEngine naive = makeEngine(model, std::make_unique<NaiveEventStore>(model.d_min));
        postInputs(model, calendar);
        postInputs(model, naive);
        CpuWindowBackend cpu;
        EXPECT_EQ(runSideBySide(calendar, cpu, naive, cpu, model.d_min), "");
    }
}

TEST(WindowEngineRun, CommitsNothingOfAWindowWhoseBackendThrows) {
    struct BackendFault {};
    WindowEngine engine = silentEngine(3);
    for (const ModelTime time : {1, 11, 21}) {
        for (NodeId n = 0; n < 3; ++n) engine.post(inputAt(time, n));
    }
    ScriptedBackend backend(
        [](const WindowWork& item, const Kernel::WindowEvent*, ModelTime window_end) {
            if (window_end == 20 && item.neuron == 2) throw BackendFault();
            Kernel::WindowResult result = spikingResult(item, {window_end - 1});
            result.state.membrane += 1.0;
            result.rng += 0x9e3779b97f4a7c15;
            result.next_candidate = window_end + 100;
            result.updates = result.accepted = 1;
            return result;
        });
    engine.run(backend, 10);
    const RunImage before = imageOf(engine);
    EXPECT_EQ(before.log.size(), 3);
    EXPECT_THROW(engine.run(backend), BackendFault);
    EXPECT_EQ(firstDifference(before, imageOf(engine)), "");
}

TEST(WindowEngineRun, StopsAtTheFirstFlaggedResultWithTheItemsBeforeItCommitted) {
    struct Case {
        const char* fact;
        bool violation, overflow;
        const char* text;
    };
    const char* const violation = "KELM hazard upper bound underestimated lambda";
    const char* const overflow =
        "more spikes in one window than the model allows; check d_min against the refractory "
        "period";
    for (const Case& c :
         {Case{"violation", true, false, violation}, Case{"overflow", false, true, overflow},
          Case{"both", true, true, violation}}) {
        SCOPED_TRACE(c.fact);
        WindowEngine engine = silentEngine(3);
        for (NodeId n = 0; n < 3; ++n) engine.post(inputAt(5, n));
        ScriptedBackend backend([&](const WindowWork& item, const Kernel::WindowEvent*, ModelTime) {
            Kernel::WindowResult result = spikingResult(item, {7});
            result.state.membrane = 3.0;
            result.rng += 0x9e3779b97f4a7c15;
            result.updates = 1;
            result.bound_violation = item.neuron == 1 && c.violation;
            result.spike_overflow = item.neuron == 1 && c.overflow;
            return result;
        });
        expectThrows<WindowEngineError>([&] { engine.run(backend); }, c.text);
        EXPECT_EQ(engine.profile(), (WindowProfile{1, 3, 1, 0, 0}));
        ASSERT_EQ(engine.spikeLog().size(), 1);
        EXPECT_EQ(engine.spikeLog()[0].neuron, 0);
        EXPECT_EQ(engine.states()[0].membrane, 3.0);
        EXPECT_EQ(engine.states()[1].membrane, 0.0);
        EXPECT_EQ(engine.spontaneousState(1), initialSpontaneousState(1, 1));
    }
}

TEST(WindowEngineRun, RefusesANinthSpikeOfANeuronThatIsTooHot) {
    Kernel::Neuron neuron;
    neuron.hard_refractory = false;
    neuron.adaptation_increment = 0.0;
    Kernel::Firing firing;
    firing.base_rate = 1e6;
    WindowEngine engine(SynapseGraph(1, 1'000'000, {}), neuron, firing, 3, 10'000'000);
    CpuWindowBackend cpu;
    expectThrows<WindowEngineError>(
        [&] { engine.run(cpu); },
        "more spikes in one window than the model allows; check d_min against the refractory "
        "period");
}

TEST(WindowEngineRun, PassesOnWhatStoreAndGraphRefuse) {
    const auto spikeAt = [](ModelTime time) {
        return ScriptedBackend([time](const WindowWork& item, const Kernel::WindowEvent*,
                                      ModelTime) { return spikingResult(item, {time}); });
    };
    {
        // Windows of 20 ns over a synapse of 10 ns: the spike lands where it came from.
        WindowEngine engine(SynapseGraph(2, std::nullopt, {synapse(0, 1, 10)}), Kernel::Neuron(),
                            silentFiring(), 1, 100, std::make_unique<NaiveEventStore>(20));
        engine.post(inputAt(1, 0));
        ScriptedBackend backend = spikeAt(5);
        expectThrows<LookaheadViolation>([&] { engine.run(backend); },
                                         "KELM event inserted into an already processed window; "
                                         "d_min does not bound this edge");
    }
    {
        WindowEngine engine(SynapseGraph(2, std::nullopt, {synapse(0, 1, 10)}), Kernel::Neuron(),
                            silentFiring(), 1, 100);
        engine.post(inputAt(1, 0));
        ScriptedBackend backend = spikeAt(last_model_time - 9);
        expectThrows<TimeOverflow>([&] { engine.run(backend); }, "KELM model time overflow");
    }
    {
        auto store = std::make_unique<NaiveEventStore>(10);
        store->post(inputAt(1, 2));
        WindowEngine engine(SynapseGraph(2, 10, {}), Kernel::Neuron(), silentFiring(), 1, 100,
                            std::move(store));
        CpuWindowBackend cpu;
        expectThrows<SynapseRoutingViolation>([&] { engine.run(cpu); },
                                              "KELM destination NodeId is out of range");
    }
}

TEST(WindowEngineLog, StandsInCommitOrderUntilItIsAskedFor) {
    WindowEngine engine = silentEngine(4);
    for (NodeId n = 0; n < 4; ++n) engine.post(inputAt(1, n));
    ScriptedBackend backend([](const WindowWork& item, const Kernel::WindowEvent*, ModelTime) {
        return spikingResult(item, {static_cast<ModelTime>(8 - item.neuron), 9});
    });
    engine.run(backend);
    const std::vector<SpikeRecord> sorted = {{5, 3}, {6, 2}, {7, 1}, {8, 0},
                                             {9, 0}, {9, 1}, {9, 2}, {9, 3}};
    EXPECT_EQ(std::vector(engine.spikeLog().begin(), engine.spikeLog().end()), sorted);
}

TEST(WindowEngineOffer, IsMadeOnceForAWholeRunThatNobodyTakesPartIn) {
    struct Hooks : IWindowPrepare, IWindowCommit, IWindowObserver {
        void prepare(ModelTime, ModelTime, std::span<WindowWork>, SynapseGraph&) override {}
        void commit(ModelTime, ModelTime, std::span<const SpikeRecord>, SynapseGraph&) override {}
        void observe(const Event&, std::span<const Kernel::State>, SynapseGraph&) override {}
        void observe(const Event&, std::span<const Kernel::State>, std::span<const ModelTime>,
                     SynapseGraph&) override {}
    };
    static Hooks hooks;
    struct Case {
        const char* fact;
        void (*arrange)(WindowEngine& engine, ScriptedBackend& backend);
        ModelTime until;
        int offers;
    };
    for (const Case& c : {
             Case{"nothing in the way", [](WindowEngine&, ScriptedBackend&) {}, 1000, 1},
             Case{"not to the horizon", [](WindowEngine&, ScriptedBackend&) {}, 999, 0},
             Case{"beyond the horizon", [](WindowEngine&, ScriptedBackend&) {}, 1001, 0},
             Case{"a prepare hook",
                  [](WindowEngine&engine, ScriptedBackend&) {
                      engine.setHooks(&hooks, nullptr, nullptr);
                  },
                  1000, 0},
             Case{"a commit hook",
                  [](WindowEngine&engine, ScriptedBackend&) {
                      engine.setHooks(nullptr, &hooks, nullptr);
                  },
                  1000, 0},
             Case{"an observer",
                  [](WindowEngine&engine, ScriptedBackend&) {
                      engine.setHooks(nullptr, nullptr, &hooks);
                  },
                  1000, 0},
             Case{"a declared observation, though nobody observes",
                  [](WindowEngine&engine, ScriptedBackend&) {
                      engine.declareObserverEvent(inputAt(5, 0));
                  },
                  1000, 0},
             Case{"an event from outside",
                  [](WindowEngine&engine, ScriptedBackend&) { engine.post(inputAt(5, 0)); }, 1000,
                  0},
         }) {
        SCOPED_TRACE(c.fact);
        WindowEngine engine = silentEngine(2);
        ScriptedBackend backend([](const WindowWork& item, const Kernel::WindowEvent*, ModelTime) {
            return quietResult(item);
        });
        c.arrange(engine, backend);
        engine.run(backend, c.until);
        EXPECT_EQ(backend.offers, c.offers);
    }
}

TEST(WindowEngineOffer, IsNotMadeForNeuronsThatDifferNorOnceARunHasBegun) {
    std::vector<Kernel::Firing> firings(2);
    for (Kernel::Firing& firing : firings) firing.base_rate = firing.max_rate = 1e8;
    ScriptedBackend backend([](const WindowWork& item, const Kernel::WindowEvent*, ModelTime) {
        return quietResult(item);
    });
    {
        WindowEngine begun(SynapseGraph(2, 10, {}), std::vector<Kernel::Neuron>(2), firings, 1,
                           1000);
        begun.run(backend, 999);
        ASSERT_GT(begun.profile().windows, 0);
        begun.run(backend);
        EXPECT_EQ(backend.offers, 0);
    }
    firings[1].gain = 2.0;
    WindowEngine differing(SynapseGraph(2, 10, {}), std::vector<Kernel::Neuron>(2), firings, 1,
                           1000);
    differing.run(backend);
    EXPECT_EQ(backend.offers, 0);
}

TEST(WindowEngineOffer, EndsTheRunWhereItIsTakenAndIsFollowedByTheLoopWhereNot) {
    for (const bool takes : {true, false}) {
        Kernel::Firing firing;
        firing.base_rate = firing.max_rate = 1e8;
        WindowEngine engine(SynapseGraph(2, 10, {}), Kernel::Neuron(), firing, 1, 1000);
        ScriptedBackend backend([](const WindowWork& item, const Kernel::WindowEvent*, ModelTime) {
            return quietResult(item);
        });
        backend.takes_whole_runs = takes;
        engine.run(backend);
        EXPECT_EQ(backend.offers, 1);
        EXPECT_EQ(backend.windows > 0, !takes);
    }
}

class RoundingMode {
public:
    explicit RoundingMode(int mode) { std::fesetround(mode); }
    ~RoundingMode() { std::fesetround(FE_TONEAREST); }
};

#if defined(__SSE__)
class ControlBits {
public:
    explicit ControlBits(unsigned bits) : before_(_mm_getcsr()) { _mm_setcsr(before_ | bits); }
    ~ControlBits() { _mm_setcsr(before_); }

private:
    unsigned before_;
};
#endif

template <class Environment, class Value>
void expectRefusedUnder(Value value, const char* text) {
    WindowEngine built = silentEngine(1);
    CpuWindowBackend cpu;
    expectThrows<std::runtime_error>(
        [&] {
            const Environment environment(value);
            silentEngine(1);
        },
        text);
    expectThrows<std::runtime_error>(
        [&] {
            const Environment environment(value);
            built.run(cpu);
        },
        text);
    built.run(cpu);
}

TEST(WindowEngineEnvironment, MustRoundToNearestAndKeepSubnormals) {
    for (const int mode : {FE_UPWARD, FE_DOWNWARD, FE_TOWARDZERO}) {
        SCOPED_TRACE(mode);
        expectRefusedUnder<RoundingMode>(
            mode, "the floating-point environment does not round to nearest, ties to even");
    }
#if defined(__SSE__)
    constexpr unsigned flush_results = 0x8000;
    constexpr unsigned flush_operands = 0x0040;
    for (const unsigned bits : {flush_results, flush_operands}) {
        SCOPED_TRACE(bits);
        expectRefusedUnder<ControlBits>(bits,
                                        "the floating-point environment flushes subnormal numbers");
    }
#endif
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
