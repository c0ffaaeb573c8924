// Whole runs on the device: an engine that offers its run to a device against an engine that goes
// window by window on the CPU, and the offers that the device must decline. The soak tests whole
// runs of generated networks, and their pending events.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "compare/RunImage.h"
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
#include "tests/support/GeneratedModel.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Compare;
using namespace Testing;

/// Runs two engines of one model, and offers the run of one to the device, whatever its size.
/// Returns whether the device accepted, and the first difference a few windows after the horizon,
/// where an input arrives.
std::pair<bool, std::string> compare(CudaWindowBackend& device, WindowEngine& offered,
                                     WindowEngine& ordinary, ModelTime d_min) {
    CpuWindowBackend cpu;
    const bool accepted = tryResidentRunFrom(device, offered, 1);
    const ModelTime horizon = ordinary.horizon();
    const std::string fault = failureOf(ordinary, cpu, horizon);
    const std::string device_fault = accepted ? "" : failureOf(offered, device, horizon);
    if (fault != device_fault) return {accepted, "'" + fault + "' vs '" + device_fault + "'"};
    if (!fault.empty()) return {accepted, ""};
    for (WindowEngine* const engine : {&offered, &ordinary}) {
        engine->post({.time = horizon, .kind = EventKind::input, .value = 1.0});
        engine->run(cpu, horizon + 4 * d_min);
    }
    return {accepted, firstDifference(imageOf(ordinary), imageOf(offered))};
}

void changeRates(GeneratedModel& model, double base_rate) {
    for (Kernel::Firing& firing : model.firings) firing.base_rate = base_rate;
}

class ResidentRunTest : public EmulatedDeviceTest {
protected:
    CpuWindowBackend cpu;
    CudaWindowBackend device;
};

/// A small model of the right shape in which something happens.
GeneratedModel livelyModel() {
    GeneratedModel model = ringModel(12, 2, 1'000'000, 20);
    changeRates(model, 60.0);
    return model;
}

TEST_F(ResidentRunTest, BringsTheStreamsUpToDateBeforeTheyAreReadOrRestored) {
    const GeneratedModel model = livelyModel();
    WindowEngine ordinary = makeEngine(model);
    const Blob before = ordinary.snapshot();
    ordinary.run(cpu);
    WindowEngine seen = makeEngine(model);
    WindowEngine restored = makeEngine(model);
    for (WindowEngine* const engine : {&seen, &restored}) {
        ASSERT_TRUE(tryResidentRunFrom(device, *engine, 1));
    }
    EXPECT_EQ(seen.randomStreams().snapshot(), ordinary.randomStreams().snapshot());
    ASSERT_TRUE(restored.restore(before));
    EXPECT_EQ(restored.snapshot(), before);
}

TEST_F(ResidentRunTest, IsDeclinedWhereItCouldNotEqualTheOrdinaryLoop) {
    struct Case {
        const char* fact;
        void (*change_model)(GeneratedModel&);
        void (*change_engine)(WindowEngine&);
        bool accepted = false;
        bool hands_store_in = false;
    };
    const auto as_it_is = [](GeneratedModel&) {};
    const auto nothing = [](WindowEngine&) {};
    const Case cases[] = {
        {"the shape as it should be", as_it_is, nothing, true},
        {"a horizon inside a window", [](GeneratedModel& m) { m.horizon += 1; }, nothing},
        {"a disabled synapse", [](GeneratedModel& m) { m.synapses[7].enabled = false; }, nothing},
        {"a long delay", [](GeneratedModel& m) { m.synapses[7].delay *= 2; }, nothing},
        {"neurons that are equal as numbers and not as bits",
         [](GeneratedModel& m) { m.neurons[5].reset_value = -0.0; }, nothing},
        {"a store from the caller", as_it_is, nothing, false, true},
        {"a class that does not transmit", as_it_is,
         [](WindowEngine& e) { e.graph().setTransmissionEnabled(true, false); }},
        {"candidates drawn anew", as_it_is,
         [](WindowEngine& e) {
             e.reseedInitialCandidates(std::vector<double>(e.states().size(), 0.5));
         }},
        {"streams that a caller has read", as_it_is, [](WindowEngine& e) { e.randomStreams(); }},
        {"an input from outside", as_it_is, [](WindowEngine& e) { e.post({.time = 5'000'000}); }},
        {"an observation to come", as_it_is,
         [](WindowEngine& e) { e.declareObserverEvent({.time = 5}); }},
        {"a state restored from before the run", as_it_is,
         [](WindowEngine& e) { ASSERT_TRUE(e.restore(e.snapshot())); }},
        {"a graph of longer delays restored before the run", as_it_is,
         [](WindowEngine& e) {
             std::vector<Synapse> longer;
             for (EdgeId id = 0; id < e.graph().edgeCount(); ++id) {
                 longer.push_back(e.graph().edge(id));
                 longer.back().delay *= 2;
             }
             const SynapseGraph other(e.graph().nodeCount(), std::nullopt, longer);
             ASSERT_TRUE(e.graph().restore(other.snapshot()));
         }},
        {"a weight set before the run", as_it_is,
         [](WindowEngine& e) { e.graph().setWeight(3, 0.9F); }, true},
        {"mostly quiet windows",
         [](GeneratedModel& m) {
             changeRates(m, 1.0);
             m.horizon = 400 * m.d_min;
         },
         nothing, true},
        {"whole blocks of threads",
         [](GeneratedModel& m) {
             m = ringModel(768, 2, m.d_min, 20);
             changeRates(m, 60.0);
         },
         nothing, true},
        // 200000 empty steps take far longer than the ordinary loop.
        {"quiet windows almost only",
         [](GeneratedModel& m) {
             m = ringModel(12, 2, 10, 200'000);
             changeRates(m, 60.0);
         },
         nothing},
        // After its first spike, a neuron fires far more than eight times in the same window.
        {"neurons too hot for the model",
         [](GeneratedModel& m) {
             changeRates(m, 5.0);
             for (Kernel::Neuron& neuron : m.neurons) {
                 neuron.hard_refractory = false;
                 neuron.reset_value = 20.0;
             }
         },
         nothing},
    };
    const std::string empty;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fact);
        GeneratedModel model = livelyModel();
        c.change_model(model);
        const auto store = [&] {
            return c.hands_store_in ? std::make_unique<BucketEventStore>(model.d_min, 16) : nullptr;
        };
        WindowEngine offered = makeEngine(model, store());
        WindowEngine ordinary = makeEngine(model, store());
        c.change_engine(offered);
        c.change_engine(ordinary);
        const std::uint64_t before = Emulation::operationCount();
        EXPECT_EQ(compare(device, offered, ordinary, model.d_min), std::pair(c.accepted, empty));
        EXPECT_LT(Emulation::operationCount() - before, 20'000);
        EXPECT_GT(offered.profile().deliveries, 0);
    }
}

TEST_F(ResidentRunTest, LeavesStreamsFromWhichFirstCandidatesCanBeDrawnAgain) {
    // The engine permits that after a run in which nothing happened.
    GeneratedModel model = livelyModel();
    changeRates(model, 1e-6);
    WindowEngine offered = makeEngine(model);
    WindowEngine ordinary = makeEngine(model);
    ASSERT_TRUE(tryResidentRunFrom(device, offered, 1));
    for (WindowEngine* const engine : {&offered, &ordinary}) {
        engine->reseedInitialCandidates(std::vector<double>(model.node_count, 25.0));
        engine->run(cpu);
    }
    EXPECT_GT(ordinary.profile().candidates, 0);
    EXPECT_EQ(firstDifference(imageOf(ordinary), imageOf(offered)), "");
}

TEST_F(ResidentRunTest, NeedsAsManyNeuronsAsTheLimitSays) {
    for (const std::uint64_t node_count : {32767U, 32768U}) {
        const GeneratedModel model = ringModel(node_count, 1, 1'000'000, 3);
        WindowEngine engine = makeEngine(model);
        CudaWindowBackend backend;
        engine.run(backend);
        EXPECT_EQ(backend.windowCount() == 0, node_count == 32768) << node_count;
    }
}

ResidentRun runOnDevice(const GeneratedModel& model) {
    CudaWindowBackend backend;
    SynapseGraph graph = model.graph();
    return runResidentRecurrence(backend, graph, model.fanout(), 1, model.neurons[0],
                                 model.firings[0], model.d_min, model.horizon, model.run_seed);
}

// With one neuron of fan-out f, a bucket holds f / 2 + 1 arrivals and the log 8 spikes. A short
// refractory period allows several spikes in a window, and a long one allows one, so that the log
// is full before a bucket is.
TEST_F(ResidentRunTest, FitsItsBuffersExactlyAndNotOneMore) {
    std::set<std::string> met;
    for (const std::uint64_t fanout : {1U, 2U, 3U, 4U}) {
        for (const ModelTime refractory_period : {200, 1000}) {
            for (std::int64_t windows = 1; windows <= 40; ++windows) {
                GeneratedModel model = ringModel(1, fanout, 1000, windows);
                model.neurons[0].refractory_period = refractory_period;
                model.firings[0].base_rate = model.firings[0].max_rate = 1e6;
                model.firings[0].gain = 0.0;
                WindowEngine engine = makeEngine(model);
                engine.run(cpu);
                std::map<ModelTime, std::uint64_t> arrivals;
                std::uint64_t most = 0;
                for (const SpikeRecord& spike : engine.spikeLog()) {
                    most = std::max(most, arrivals[spike.time / 1000] += fanout);
                }
                const std::size_t spikes = engine.spikeLog().size();
                const bool bucket_fits = most <= fanout / 2 + 1;
                const ResidentRun run = runOnDevice(model);
                ASSERT_EQ(run.capacity_ok, bucket_fits && spikes <= 8)
                    << "fan-out " << fanout << ", " << most << " arrivals, " << spikes << " spikes";
                EXPECT_FALSE(run.model_fault);
                if (bucket_fits && spikes == 8) met.insert("log full");
                if (bucket_fits && spikes == 9) met.insert("log over");
                if (spikes <= 8 && most == fanout / 2 + 1) met.insert("bucket full");
                if (spikes <= 8 && most == fanout / 2 + 2) met.insert("bucket over");
            }
        }
    }
    EXPECT_EQ(met.size(), 4);
}

// 40 neurons have 160 synapses; 25 * 24 / 4 moves are fewer, and 26 * 25 / 4 are more.
TEST_F(ResidentRunTest, IsDeclinedWhereOneNeuronHasTooManyIncomingSynapses) {
    for (const std::uint64_t in_degree : {25U, 26U}) {
        GeneratedModel model = ringModel(40, 4, 1'000'000, 20);
        changeRates(model, 60.0);
        std::uint64_t count = 0;
        for (Synapse& synapse : model.synapses) count += synapse.target == 0;
        for (std::size_t i = 0; count < in_degree; i += 5) {
            count += model.synapses[i].target != 0;
            model.synapses[i].target = 0;
        }
        WindowEngine offered = makeEngine(model);
        WindowEngine ordinary = makeEngine(model);
        EXPECT_EQ(compare(device, offered, ordinary, model.d_min),
                  std::pair(in_degree == 25, std::string()));
        // The shape is right: runResidentRecurrence still runs it.
        EXPECT_TRUE(residentEligible(offered.graph(), nullptr));
        EXPECT_TRUE(runOnDevice(model).capacity_ok);
    }
}

TEST_F(ResidentRunTest, ReportsAFaultOfTheModelApartFromItsCapacity) {
    GeneratedModel model = livelyModel();
    changeRates(model, 5.0);
    model.neurons[0].hard_refractory = false;
    model.neurons[0].reset_value = 20.0;
    // Up to the first window in which a neuron has fired, which has then fired too often.
    for (model.horizon = model.d_min;; model.horizon += model.d_min) {
        const ResidentRun run = runOnDevice(model);
        EXPECT_TRUE(run.capacity_ok);
        EXPECT_EQ(run.model_fault, run.spikes != 0);
        if (run.spikes != 0) break;
    }
}

TEST_F(ResidentRunTest, RunsAsManyStepsAsThereAreWholeWindows) {
    GeneratedModel silent = ringModel(3, 1, 1000, 1);
    changeRates(silent, 0.0);
    for (const ModelTime horizon : {999, 1000, 1999, 7000}) {
        silent.horizon = horizon;
        const ResidentRun run = runOnDevice(silent);
        EXPECT_EQ(run.windows, horizon / 1000);
        EXPECT_EQ(run.profile.windows, 0);
        EXPECT_EQ(run.log_hash, digest_start);
    }
}

// The calls of a window: counts and their kernels; a conversion if it has arrivals; sums and the
// kernels that write arrivals if it has spikes.
TEST_F(ResidentRunTest, MakesOnlyTheCallsThatAWindowNeeds) {
    GeneratedModel model = livelyModel();
    changeRates(model, 20.0);
    model.horizon = 100 * model.d_min;
    WindowEngine engine = makeEngine(model);
    engine.run(cpu);
    std::set<ModelTime> firing;
    for (const SpikeRecord& spike : engine.spikeLog()) firing.insert(spike.time / model.d_min);
    const std::uint64_t spiking = firing.size();
    const std::uint64_t receiving = spiking - firing.count(99);
    EXPECT_TRUE(spiking > 5 && spiking < 50) << spiking;

    SynapseGraph graph = model.graph();
    device.prepareResident(graph, model.fanout());
    const Emulation::Counts before = Emulation::counts();
    runResidentRecurrence(device, graph, model.fanout(), 1, model.neurons[0], model.firings[0],
                          model.d_min, model.horizon, model.run_seed);
    const Emulation::Counts after = Emulation::counts();
    EXPECT_EQ(after.uploads - before.uploads, 3);
    EXPECT_EQ(after.downloads - before.downloads, 100 + 8 + firing.count(99));
    EXPECT_EQ(after.synchronisations - before.synchronisations, 2);
    EXPECT_EQ(after.clears - before.clears, 4 + 2 * 100 + spiking);
    EXPECT_EQ(after.launches - before.launches, 1 + 3 * 100 + receiving + 2 * spiking);
    EXPECT_EQ(after.library_calls - before.library_calls, 2 * spiking + 1);
}

TEST_F(ResidentRunTest, RefusesWhatItCannotRun) {
    const GeneratedModel model = livelyModel();
    SynapseGraph graph = model.graph();
    const char* const dimensions = "invalid resident recurrence dimensions";
    const char* const edges = "resident recurrence requires enabled d_min edges";
    const auto running = [&](std::uint64_t fanout, std::uint32_t shards, ModelTime window,
                             ModelTime horizon) {
        return [=, &model, &graph, this] {
            runResidentRecurrence(device, graph, fanout, shards, model.neurons[0], model.firings[0],
                                  window, horizon, 1);
        };
    };
    expectRefusals<WindowEngineError>(
        {{dimensions, running(0, 1, 1'000'000, 1'000'000)},
         {dimensions, running(2, 0, 1'000'000, 1'000'000)},
         {dimensions, running(2, 13, 1'000'000, 1'000'000)},
         {dimensions, running(2, 1, 0, 1'000'000)},
         {dimensions, running(2, 1, 1'000'000, 0)},
         {dimensions, running(2, 1, 1'000'000, last_model_time)},
         {"resident recurrence requires fixed fan-out", running(3, 1, 1'000'000, 1'000'000)},
         {edges, running(2, 12, 999'999, 1'000'000)}});
    graph.setEnabled(23, false);
    expectThrows<WindowEngineError>(running(2, 1, 1'000'000, 1'000'000), edges);
}

TEST_F(ResidentRunTest, TellsWhyANetworkIsNotEligible) {
    const auto reasonFor = [](SynapseGraph graph) {
        std::string reason = "stale";
        const bool eligible = residentEligible(graph, &reason);
        EXPECT_EQ(residentEligible(graph, nullptr), eligible);
        EXPECT_EQ(eligible, reason.empty());
        return reason;
    };
    EXPECT_EQ(reasonFor(livelyModel().graph()), "");
    EXPECT_EQ(reasonFor(SynapseGraph(0, 5, {})), "the graph has no neurons");
    EXPECT_EQ(reasonFor(SynapseGraph(3, std::nullopt, {})), "the graph has no positive d_min");
    EXPECT_EQ(reasonFor(SynapseGraph(3, 5, {})), "resident CUDA requires non-zero fan-out");

    // The first neuron or synapse in order that fails a test decides.
    GeneratedModel mixed = livelyModel();
    mixed.synapses[4].delay += 1;
    mixed.synapses[7].enabled = false;
    mixed.synapses.pop_back();
    EXPECT_EQ(reasonFor(mixed.graph()), "resident CUDA requires every delay to equal d_min");
    mixed.synapses[4].delay -= 1;
    EXPECT_EQ(reasonFor(mixed.graph()), "resident CUDA does not yet support disabled edges");
    mixed.synapses[7].enabled = true;
    EXPECT_EQ(reasonFor(mixed.graph()), "resident CUDA requires uniform fan-out");
    SynapseGraph silent_class = livelyModel().graph();
    silent_class.setTransmissionEnabled(false, false);
    EXPECT_EQ(reasonFor(silent_class), "resident CUDA does not yet support disabled edges");
}

// Sizes added up by hand: 15 entries of 8 bytes in each table, 40 bytes a state, 152 a result, 16 a
// spike, 24 an event and 48 an arrival. Half of an odd number of synapses is rounded down.
TEST(ResidentArena, LaysItsSectionsOneBehindTheOtherWithinSixtyFourBits) {
    const ResidentArena arena = ResidentArena::at(4096, 3, 5).value();
    EXPECT_EQ(arena.arrival_capacity, 10);
    EXPECT_EQ(arena.counters.fire_capacity, 24);
    const std::pair<const void*, std::uint64_t> sections[] = {
        {arena.neurons.csr_values, 120}, {arena.neurons.results, 432},
        {arena.counters.fire_log, 1024}, {arena.window_events, 1448},
        {arena.next_bucket, 2168},
    };
    for (const auto& [section, offset] : sections) {
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(section), 4096 + offset);
    }
    EXPECT_EQ(arena.bytes, 2648);

    constexpr std::uint64_t one = 1;
    EXPECT_FALSE(ResidentArena::at(0, one << 32, one << 32).has_value());
    EXPECT_FALSE(ResidentArena::at(0, one << 61, 1).has_value());
    // Each section fits, and their sum does not.
    EXPECT_FALSE(ResidentArena::at(0, one << 56, 2).has_value());
    EXPECT_FALSE(ResidentArena::at(0, 1, one << 61).has_value());
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
