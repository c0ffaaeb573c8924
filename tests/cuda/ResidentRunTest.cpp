// Whole runs on the device: an engine that was offered one against an engine that went window by
// window on the CPU, and the offers that must be declined.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/Digest.h"
#include "kelm/core/Failures.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/LookaheadCudaTesting.h"
#include "kelm/cuda/ResidentArena.h"
#include "kelm/cuda/ResidentRecurrence.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/events/BucketEventStore.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/ResidentModel.h"
#include "tests/support/RunImage.h"

namespace Lumenar::Core::Kelm {

using namespace Testing;
namespace Emulation = Device::Emulation;

namespace {

/// The device backend without the lower limit of its size, and with a count of what it accepted.
class UnlimitedBackend final : public IWindowBackend {
public:
    const char* name() override { return inner_.name(); }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override {
        inner_.processWindow(work, events, window_end, horizon, neuron, firing, results);
    }
    bool tryResidentRun(WindowEngine& engine) override {
        const bool accepted = tryResidentRunFrom(inner_, engine, 1);
        (accepted ? accepted_ : declined_) += 1;
        return accepted;
    }

    CudaWindowBackend& inner() { return inner_; }
    int accepted() const { return accepted_; }
    int declined() const { return declined_; }

private:
    CudaWindowBackend inner_;
    int accepted_ = 0;
    int declined_ = 0;
};

/// The store in an engine's snapshot: position and pending events, without what an accepted run may
/// change, which is ids and the `edge` of events.
struct StoreImage {
    std::int64_t cursor = 0;
    bool started = false;
    std::vector<Event> events;
};

StoreImage storeOf(WindowEngine& engine) {
    const Blob blob = engine.snapshot();
    const std::string tag = "KELMBKT1";
    const auto found = std::find_end(blob.begin(), blob.end(), tag.begin(), tag.end());
    BlobReader in(BlobView(blob).subspan(static_cast<std::size_t>(found - blob.begin()) + 8));
    StoreImage image;
    std::uint64_t skipped = 0;
    std::uint64_t count = 0;
    EXPECT_TRUE(in.readU64(skipped) && in.readU64(skipped) && in.readI64(image.cursor) &&
                in.readFlag(image.started) && in.readU64(skipped) && in.readU64(count) &&
                in.readImages(count, image.events));
    for (Event& event : image.events) {
        event.id = 0;
        event.edge = 0;
    }
    return image;
}

std::string storeDifference(WindowEngine& a, WindowEngine& b) {
    const StoreImage x = storeOf(a);
    const StoreImage y = storeOf(b);
    if (x.started != y.started || x.cursor != y.cursor) {
        return "the stores stand at windows " + std::to_string(x.cursor) + " and " +
               std::to_string(y.cursor);
    }
    if (x.events.size() != y.events.size()) return "the stores hold different numbers of events";
    for (std::size_t i = 0; i < x.events.size(); ++i) {
        if (std::memcmp(&x.events[i], &y.events[i], sizeof(Event)) != 0) {
            return "the stores differ at event " + std::to_string(i);
        }
    }
    return "";
}

/// What running `engine` on `backend` throws, or nothing.
std::string failureOf(WindowEngine& engine, IWindowBackend& backend, ModelTime until) {
    try {
        engine.run(backend, until);
    } catch (const std::exception& failure) {
        return failure.what();
    }
    return "";
}

/// Runs two engines of one model, one of them offered to the device, and tells how they differ: at
/// the horizon, and after some windows more.
std::string offeredAgainstOrdinary(WindowEngine& offered, UnlimitedBackend& device,
                                   WindowEngine& ordinary, ModelTime d_min) {
    CpuWindowBackend cpu;
    const std::string fault = failureOf(ordinary, cpu, ordinary.horizon());
    const std::string device_fault = failureOf(offered, device, offered.horizon());
    if (fault != device_fault) return "one throws '" + fault + "', one '" + device_fault + "'";
    if (!fault.empty()) return "";
    for (const ModelTime until : {offered.horizon(), offered.horizon() + 4 * d_min}) {
        if (until != offered.horizon()) {
            offered.run(device, until);
            ordinary.run(cpu, until);
        }
        std::string difference = firstDifference(imageOf(ordinary), imageOf(offered));
        if (difference.empty()) difference = storeDifference(ordinary, offered);
        if (!difference.empty()) return "until " + std::to_string(until) + " ns: " + difference;
    }
    return "";
}

class ResidentRunTest : public EmulatedDeviceTest {};

TEST_F(ResidentRunTest, EqualsTheOrdinaryLoopOverGeneratedNetworksAndThreadOrders) {
    UnlimitedBackend device;
    int spiking = 0;
    for (std::uint64_t seed = 1; seed <= 400; ++seed) {
        const ResidentModel model = generateResidentModel(seed, 2500);
        SCOPED_TRACE("seed " + std::to_string(seed));
        Emulation::permuteThreads(seed);
        WindowEngine offered = model.engine();
        WindowEngine ordinary = model.engine();
        ASSERT_EQ(offeredAgainstOrdinary(offered, device, ordinary, model.d_min), "");
        spiking += offered.spikeLog().empty() ? 0 : 1;
    }
    // Hot networks overflow what is kept for a whole run, and only they may.
    EXPECT_GT(device.accepted(), 250);
    EXPECT_GT(device.declined(), 5);
    EXPECT_GT(spiking, 200);
    EXPECT_EQ(device.inner().windowCount() > 0, device.declined() > 0);
}

/// A small model of the right shape in which something happens.
ResidentModel livelyModel() {
    ResidentModel model;
    model.node_count = 12;
    model.fanout = 2;
    model.d_min = 1'000'000;
    model.horizon = 20'000'000;
    model.run_seed = 3;
    for (NodeId n = 0; n < model.node_count; ++n) {
        for (const NodeId step : {1U, 5U}) {
            Synapse synapse;
            synapse.source = n;
            synapse.target = (n + step) % model.node_count;
            synapse.weight = 0.2F;
            synapse.inhibitory = step == 5;
            synapse.delay = model.d_min;
            model.synapses.push_back(synapse);
        }
    }
    model.firing.base_rate = 60.0;
    model.firing.gain = 1.0;
    return model;
}

TEST_F(ResidentRunTest, IsDeclinedWhereTheDeviceCouldNotEndAsTheOrdinaryLoop) {
    struct Case {
        const char* fact;
        void (*change_model)(ResidentModel&);
        void (*change_engine)(WindowEngine&);
        bool accepted = false;
    };
    const auto nothing = [](WindowEngine&) {};
    const Case cases[] = {
        {"the shape as it should be", [](ResidentModel&) {}, nothing, true},
        {"a horizon inside a window", [](ResidentModel& m) { m.horizon += 1; }, nothing},
        {"a last window cut short", [](ResidentModel& m) { m.horizon -= 1; }, nothing},
        {"a disabled synapse", [](ResidentModel& m) { m.synapses[7].enabled = false; }, nothing},
        {"a long delay", [](ResidentModel& m) { m.synapses[7].delay *= 2; }, nothing},
        {"a missing synapse", [](ResidentModel& m) { m.synapses.pop_back(); }, nothing},
        {"a class that does not transmit", [](ResidentModel&) {},
         [](WindowEngine& e) { e.graph().setTransmissionEnabled(true, false); }},
        {"candidates drawn anew", [](ResidentModel&) {},
         [](WindowEngine& e) {
             e.reseedInitialCandidates(std::vector<double>(e.states().size(), 0.5));
         }},
        {"an input before the run", [](ResidentModel&) {},
         [](WindowEngine& e) {
             Event input;
             input.time = 2'500'000;
             input.kind = EventKind::input;
             input.target = 4;
             input.value = 2.0;
             e.post(input);
         }},
        {"a part of the run done already", [](ResidentModel&) {},
         [](WindowEngine& e) {
             CpuWindowBackend cpu;
             e.run(cpu, e.horizon() / 2);
         }},
        {"a state restored from before the run", [](ResidentModel&) {},
         [](WindowEngine& e) { ASSERT_TRUE(e.restore(e.snapshot())); }},
        {"a weight set before the run", [](ResidentModel&) {},
         [](WindowEngine& e) { e.graph().setWeight(3, 0.9F); }, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fact);
        ResidentModel model = livelyModel();
        c.change_model(model);
        WindowEngine offered = model.engine();
        WindowEngine ordinary = model.engine();
        c.change_engine(offered);
        c.change_engine(ordinary);
        UnlimitedBackend device;
        EXPECT_EQ(offeredAgainstOrdinary(offered, device, ordinary, model.d_min), "");
        EXPECT_EQ(device.accepted(), c.accepted ? 1 : 0);
        EXPECT_FALSE(offered.spikeLog().empty());
    }
}

TEST_F(ResidentRunTest, IsDeclinedForAStoreThatWasHandedIn) {
    const ResidentModel model = livelyModel();
    const auto make = [&] {
        auto store = std::make_unique<BucketEventStore>(model.d_min, 16);
        Event early;
        early.time = 700'000;
        early.kind = EventKind::input;
        early.target = 2;
        early.value = 3.0;
        store->post(early);
        return WindowEngine(model.graph(), model.neuron, model.firing, model.run_seed,
                            model.horizon, std::move(store));
    };
    WindowEngine offered = make();
    WindowEngine ordinary = make();
    UnlimitedBackend device;
    EXPECT_EQ(offeredAgainstOrdinary(offered, device, ordinary, model.d_min), "");
    EXPECT_EQ(device.declined(), 1);
}

TEST_F(ResidentRunTest, IsDeclinedForAnEngineThatSomebodyLooksAt) {
    struct Hook final : IWindowCommit {
        void commit(ModelTime, ModelTime, std::span<const SpikeRecord>, SynapseGraph&) override {}
    };
    const ResidentModel model = livelyModel();
    CudaWindowBackend backend;
    Hook hook;
    WindowEngine hooked = model.engine();
    hooked.setHooks(nullptr, &hook, nullptr);
    EXPECT_FALSE(tryResidentRunFrom(backend, hooked, 1));
    WindowEngine observed = model.engine();
    observed.declareObserverEvent(Event());
    EXPECT_FALSE(tryResidentRunFrom(backend, observed, 1));
}

TEST_F(ResidentRunTest, LeavesStreamsThatCandidatesCanBeDrawnFromAnew) {
    // A run in which nothing happens may still be followed by new first candidates.
    ResidentModel model = livelyModel();
    model.firing.base_rate = 1e-6;
    UnlimitedBackend device;
    CpuWindowBackend cpu;
    WindowEngine offered = model.engine();
    WindowEngine ordinary = model.engine();
    offered.run(device);
    ordinary.run(cpu);
    ASSERT_EQ(device.accepted(), 1);
    const std::vector<double> bounds(model.node_count, 25.0);
    offered.reseedInitialCandidates(bounds);
    ordinary.reseedInitialCandidates(bounds);
    offered.run(device);
    ordinary.run(cpu);
    EXPECT_EQ(firstDifference(imageOf(ordinary), imageOf(offered)), "");
}

TEST_F(ResidentRunTest, IsDeclinedForNeuronsThatAreEqualInNumberAlone) {
    const ResidentModel model = livelyModel();
    const auto make = [&] {
        std::vector<Kernel::Neuron> neurons(model.node_count, model.neuron);
        neurons[5].reset_value = -0.0;
        return WindowEngine(model.graph(), neurons,
                            std::vector<Kernel::Firing>(model.node_count, model.firing),
                            model.run_seed, model.horizon);
    };
    WindowEngine offered = make();
    WindowEngine ordinary = make();
    ASSERT_FALSE(offered.isHeterogeneous());
    UnlimitedBackend device;
    EXPECT_EQ(offeredAgainstOrdinary(offered, device, ordinary, model.d_min), "");
    EXPECT_EQ(device.declined(), 1);
}

TEST_F(ResidentRunTest, LeavesModelFaultsToTheOrdinaryLoop) {
    ResidentModel model = livelyModel();
    // Neurons without a refractory period that would fire far more than eight times in a window,
    // early enough that the log does not overflow first.
    model.neuron.hard_refractory = false;
    model.neuron.adaptation_increment = 0.0;
    model.firing.base_rate = 30'000.0;
    model.horizon = model.d_min;
    WindowEngine offered = model.engine();
    WindowEngine ordinary = model.engine();
    UnlimitedBackend device;
    CpuWindowBackend cpu;
    const std::string fault = failureOf(ordinary, cpu, model.horizon);
    EXPECT_EQ(fault, std::string(WindowEngineError::spike_overflow));
    EXPECT_EQ(failureOf(offered, device, model.horizon), fault);
    EXPECT_EQ(device.declined(), 1);
}

TEST_F(ResidentRunTest, CountsNoQuietWindowsAndTouchesNoQuietNeurons) {
    ResidentModel model = livelyModel();
    model.firing.base_rate = 1.0;
    model.horizon = 400 * model.d_min;
    WindowEngine offered = model.engine();
    WindowEngine ordinary = model.engine();
    UnlimitedBackend device;
    ASSERT_EQ(offeredAgainstOrdinary(offered, device, ordinary, model.d_min), "");
    ASSERT_EQ(device.accepted(), 1);
    EXPECT_LT(offered.profile().windows, 100);
    EXPECT_GT(offered.profile().windows, 0);
}

TEST_F(ResidentRunTest, GivesUpOnARunInWhichAlmostNothingHappens) {
    // 200000 empty steps would cost the device far more than the ordinary loop, which skips them.
    ResidentModel model = livelyModel();
    model.d_min = 10;
    for (Synapse& synapse : model.synapses) synapse.delay = model.d_min;
    model.horizon = 200'000 * model.d_min;
    WindowEngine offered = model.engine();
    WindowEngine ordinary = model.engine();
    UnlimitedBackend device;
    const std::uint64_t before = Emulation::operationCount();
    EXPECT_EQ(offeredAgainstOrdinary(offered, device, ordinary, model.d_min), "");
    EXPECT_EQ(device.declined(), 1);
    // Eight or so a step, and some for the few windows of the ordinary loop.
    EXPECT_LT(Emulation::operationCount() - before, 20'000);
}

TEST_F(ResidentRunTest, NeedsAsManyNeuronsAsTheLimitSays) {
    for (const std::uint64_t node_count : {32767U, 32768U}) {
        std::vector<Synapse> synapses;
        for (NodeId n = 0; n < node_count; ++n) {
            Synapse synapse;
            synapse.source = n;
            synapse.target = (n + 1) % node_count;
            synapse.weight = 0.1F;
            synapse.delay = 1'000'000;
            synapses.push_back(synapse);
        }
        WindowEngine engine(SynapseGraph(node_count, 1'000'000, std::move(synapses)),
                            Kernel::Neuron(), Kernel::Firing(), 1, 3'000'000);
        CudaWindowBackend backend;
        engine.run(backend);
        EXPECT_EQ(backend.windowCount() == 0, node_count == 32768) << node_count;
    }
}

/// Runs neurons whose input has no effect on the device, each with `fanout` synapses, in windows of
/// 1000 ns.
ResidentRun runLone(std::uint64_t node_count, std::uint64_t fanout, double base_rate,
                    ModelTime refractory_period, ModelTime horizon) {
    std::vector<Synapse> synapses;
    for (NodeId n = 0; n < node_count; ++n) {
        for (std::uint64_t k = 0; k < fanout; ++k) {
            Synapse synapse;
            synapse.source = n;
            synapse.target = (n + k) % node_count;
            synapse.delay = 1000;
            synapses.push_back(synapse);
        }
    }
    SynapseGraph graph(node_count, 1000, std::move(synapses));
    Kernel::Neuron neuron;
    neuron.refractory_period = refractory_period;
    Kernel::Firing firing;
    firing.base_rate = base_rate;
    firing.max_rate = base_rate;
    firing.gain = 0.0;
    CudaWindowBackend backend;
    return runResidentRecurrence(backend, graph, fanout, 1, neuron, firing, 1000, horizon, 5);
}

TEST_F(ResidentRunTest, FitsItsBuffersExactlyAndNotOneMore) {
    // A bucket of n * f / 2 + n arrivals, a log of 8 * n spikes. With one neuron of fan-out f a
    // window's spikes s give s * f arrivals, against f / 2 + 1.
    struct Run {
        std::uint64_t arrivals = 0;  // the most of a window
        std::uint64_t spikes = 0;
        bool fits = true;
    };
    const auto expected = [](std::uint64_t fanout, double rate, ModelTime refractory_period,
                             ModelTime horizon) {
        // Window by window on the CPU.
        std::vector<Synapse> synapses(fanout);
        for (Synapse& synapse : synapses) synapse.delay = 1000;
        Kernel::Neuron neuron;
        neuron.refractory_period = refractory_period;
        Kernel::Firing firing;
        firing.base_rate = rate;
        firing.max_rate = rate;
        firing.gain = 0.0;
        WindowEngine engine(SynapseGraph(1, 1000, synapses), neuron, firing, 5, horizon);
        CpuWindowBackend cpu;
        engine.run(cpu);
        std::vector<std::uint64_t> per_window(static_cast<std::size_t>(horizon / 1000));
        for (const SpikeRecord& spike : engine.spikeLog()) {
            ++per_window[static_cast<std::size_t>(spike.time / 1000)];
        }
        Run run;
        run.spikes = engine.spikeLog().size();
        run.arrivals = fanout * *std::max_element(per_window.begin(), per_window.end());
        run.fits = run.arrivals <= fanout / 2 + 1 && run.spikes <= 8;
        return run;
    };
    // A short refractory period gives several spikes in a window, and a long one at most one, so
    // that the log fills before a bucket does.
    bool bucket_full = false, bucket_over = false, log_full = false, log_over = false;
    for (const std::uint64_t fanout : {1U, 2U, 3U, 4U}) {
        for (const ModelTime refractory_period : {200, 1000}) {
            for (ModelTime windows = 1; windows <= 40; ++windows) {
                const Run run = expected(fanout, 1e6, refractory_period, windows * 1000);
                const ResidentRun resident =
                    runLone(1, fanout, 1e6, refractory_period, windows * 1000);
                ASSERT_EQ(resident.capacity_ok, run.fits)
                    << "fan-out " << fanout << ", refractory " << refractory_period
                    << " ns, windows " << windows;
                bucket_full |= run.fits && run.arrivals == fanout / 2 + 1;
                bucket_over |= run.arrivals == fanout / 2 + 2;
                log_full |= run.fits && run.spikes == 8;
                log_over |= run.arrivals <= fanout / 2 + 1 && run.spikes == 9;
            }
        }
    }
    EXPECT_TRUE(bucket_full && bucket_over && log_full && log_over)
        << bucket_full << bucket_over << log_full << log_over;
}

TEST_F(ResidentRunTest, RunsAsManyStepsAsThereAreWholeWindows) {
    EXPECT_EQ(runLone(3, 1, 0.0, 200, 999).windows, 0);
    EXPECT_EQ(runLone(3, 1, 0.0, 200, 1000).windows, 1);
    EXPECT_EQ(runLone(3, 1, 0.0, 200, 1999).windows, 1);
    const ResidentRun silent = runLone(3, 1, 0.0, 200, 7000);
    EXPECT_EQ(silent.windows, 7);
    EXPECT_EQ(silent.profile.windows, 0);
    EXPECT_TRUE(silent.capacity_ok);
    EXPECT_EQ(silent.log_hash, digest_start);
}

TEST_F(ResidentRunTest, RefusesWhatItCannotRun) {
    ResidentModel model = livelyModel();
    SynapseGraph graph = model.graph();
    CudaWindowBackend backend;
    const auto run = [&](std::uint64_t fanout, std::uint32_t shards, ModelTime window,
                         ModelTime horizon) {
        return [&, fanout, shards, window, horizon] {
            runResidentRecurrence(backend, graph, fanout, shards, model.neuron, model.firing,
                                  window, horizon, 1);
        };
    };
    const std::string dimensions = "invalid resident recurrence dimensions";
    expectThrows<WindowEngineError>(run(0, 1, 1'000'000, 1'000'000), dimensions);
    expectThrows<WindowEngineError>(run(2, 0, 1'000'000, 1'000'000), dimensions);
    expectThrows<WindowEngineError>(run(2, 13, 1'000'000, 1'000'000), dimensions);
    expectThrows<WindowEngineError>(run(2, 1, 0, 1'000'000), dimensions);
    expectThrows<WindowEngineError>(run(2, 1, 1'000'000, 0), dimensions);
    expectThrows<WindowEngineError>(run(2, 1, 1'000'000, last_model_time), dimensions);
    expectThrows<WindowEngineError>(run(3, 1, 1'000'000, 1'000'000),
                                    "resident recurrence requires fixed fan-out");
    const std::string edges = "resident recurrence requires enabled d_min edges";
    expectThrows<WindowEngineError>(run(2, 1, 999'999, 1'000'000), edges);
    graph.setEnabled(23, false);
    expectThrows<WindowEngineError>(run(2, 1, 1'000'000, 1'000'000), edges);
    graph.setEnabled(23, true);
    EXPECT_NO_THROW(run(2, 12, 1'000'000, 1'000'000)());
}

TEST_F(ResidentRunTest, TellsWhyANetworkIsNotEligible) {
    const auto reasonFor = [](SynapseGraph graph) {
        std::string reason = "stale";
        const bool eligible = residentEligible(graph, &reason);
        EXPECT_EQ(residentEligible(graph, nullptr), eligible);
        EXPECT_EQ(eligible, reason.empty());
        return reason;
    };
    const ResidentModel model = livelyModel();
    EXPECT_EQ(reasonFor(model.graph()), "");
    EXPECT_EQ(reasonFor(SynapseGraph(0, 5, {})), "the graph has no neurons");
    EXPECT_EQ(reasonFor(SynapseGraph(3, std::nullopt, {})), "the graph has no positive d_min");
    EXPECT_EQ(reasonFor(SynapseGraph(3, 5, {})), "resident CUDA requires non-zero fan-out");

    // The first offence in the order of neurons and edges decides.
    ResidentModel mixed = livelyModel();
    mixed.synapses[4].delay += 1;
    mixed.synapses[7].enabled = false;
    mixed.synapses.pop_back();
    EXPECT_EQ(reasonFor(mixed.graph()), "resident CUDA requires every delay to equal d_min");
    mixed.synapses[4].delay -= 1;
    EXPECT_EQ(reasonFor(mixed.graph()), "resident CUDA does not yet support disabled edges");
    mixed.synapses[7].enabled = true;
    EXPECT_EQ(reasonFor(mixed.graph()), "resident CUDA requires uniform fan-out");
    SynapseGraph silent_class = model.graph();
    silent_class.setTransmissionEnabled(false, false);
    EXPECT_EQ(reasonFor(silent_class), "resident CUDA does not yet support disabled edges");
}

TEST_F(ResidentRunTest, EveryFailedCallLeavesTheEngineUntouchedAndNothingBehind) {
    ResidentModel model = livelyModel();
    model.firing.base_rate = 500.0;  // the last window too leaves something behind
    model.horizon = 8 * model.d_min;
    std::vector<std::string> texts;
    for (std::uint64_t n = 0;; ++n) {
        UnlimitedBackend device;
        WindowEngine engine = model.engine();
        const Blob before = engine.snapshot();
        Emulation::failOperation(n, 2);
        std::string text;
        try {
            engine.run(device);
        } catch (const std::runtime_error& failure) {
            text = failure.what();  // the library's own, from a scan or a sort
        } catch (const WindowEngineError& failure) {
            text = failure.what();
        }
        Emulation::failNothing();
        if (text.empty()) break;
        EXPECT_EQ(engine.snapshot(), before) << text;
        if (std::find(texts.begin(), texts.end(), text) == texts.end()) texts.push_back(text);
    }
    std::vector<std::string> expected;
    for (const char* what : {"alloc resident arena",
                             "upload resident targets",
                             "upload resident values",
                             "upload resident RNG",
                             "clear resident spikes",
                             "clear resident fire overflow",
                             "clear resident metrics",
                             "launch resident initialization",
                             "synchronise resident initialization",
                             "clear resident window spikes",
                             "convert resident bucket",
                             "process resident window",
                             "count resident fan-out",
                             "clear resident target counts",
                             "count resident targets",
                             "download window spike count",
                             "clear resident target cursors",
                             "emit resident fan-out",
                             "sort resident target segments",
                             "synchronise resident recurrence",
                             "download resident spikes",
                             "download fire overflow",
                             "download resident fire log",
                             "download resident states",
                             "download resident final RNG",
                             "download resident pending times",
                             "download resident pending bounds",
                             "download resident metrics",
                             "download resident future bucket"}) {
        expected.push_back("CUDA " + std::string(what) + ": out of memory");
    }
    expected.push_back("out of memory");
    std::sort(expected.begin(), expected.end());
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(texts, expected);
}

TEST_F(ResidentRunTest, PreparingAheadTakesTheAllocationOutOfTheRun) {
    const ResidentModel model = livelyModel();
    UnlimitedBackend device;
    WindowEngine engine = model.engine();
    device.inner().prepareResident(engine.graph(), model.fanout);
    EXPECT_EQ(Emulation::liveAllocations(), 1);
    engine.run(device);
    EXPECT_EQ(Emulation::liveAllocations(), 1);
    EXPECT_EQ(device.accepted(), 1);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
