// The memory that a run and its store allocate and keep, also after a failed allocation.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <new>
#include <optional>
#include <vector>

#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/events/BucketEventStore.h"
#include "kelm/network/Wiring.h"
#include "kelm/runtime/KelmRuntime.h"
#include "tests/faults/FailingAllocation.h"
#include "tests/support/GeneratedModel.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

/// With a commit hook a run also copies each window's spikes.
struct IdleHook : IWindowCommit {
    void commit(ModelTime, ModelTime, std::span<const SpikeRecord>, SynapseGraph&) override {}
};

TEST(MemoryUse, ARunAllocatesNothingPerWindow) {
    constexpr ModelTime d_min = 1'000'000;
    GeneratedModel model = ringModel(40, 4, d_min, 60'000);
    for (Synapse& synapse : model.synapses) {
        // Some delays are longer than a calendar's ring.
        const NodeId step = (synapse.target + 40 - synapse.source) % 40;
        synapse.delay = step == 4 ? 4500 * d_min : static_cast<ModelTime>(step) * d_min;
    }
    const Kernel::Firing firing{.base_rate = 40.0, .gain = 1.0};
    WindowEngine engine(model.graph(), Kernel::Neuron(), firing, 5, model.horizon);
    IdleHook hook;
    engine.setHooks(nullptr, &hook, nullptr);
    CpuWindowBackend cpu;
    engine.run(cpu, 20'000 * d_min);
    const WindowProfile warm = engine.profile();
    const std::uint64_t allocations = allocationCount();
    const std::int64_t bytes = liveBytes();
    engine.run(cpu);
    const std::uint64_t spikes = engine.profile().accepted - warm.accepted;
    EXPECT_GT(engine.profile().windows - warm.windows, 30'000U);
    EXPECT_GT(spikes, 20'000U);
    // The log grows by doubling, and a run's working storage reaches its size once. Allocations per
    // window, neuron or event would come tens of thousands of times.
    EXPECT_LT(allocationCount() - allocations, 100U);
    const auto log_bytes =
        static_cast<std::int64_t>(2 * engine.profile().accepted * sizeof(SpikeRecord));
    EXPECT_LT(liveBytes() - bytes, log_bytes + 100'000);
}

TEST(MemoryUse, ANetworkIsBuiltByRulesInLittleMoreThanItsOwnMemory) {
    const NeuronRange all = {0, 20'000};
    const ConnectionRule rules[] = {
        ConnectionRule::fixedInDegree(40),
        ConnectionRule::fixedInDegree(40).withoutMultipleConnections(),
        ConnectionRule::fixedOutDegree(40).withoutMultipleConnections(),
        ConnectionRule::fixedTotalNumber(800'000).withoutMultipleConnections(),
        ConnectionRule::bernoulli(0.002)};
    for (const ConnectionRule& rule : rules) {
        SCOPED_TRACE(static_cast<int>(rule.kind));
        const std::int64_t before = liveBytes();
        restartPeak();
        const SynapseGraph graph =
            Wiring(all.count, {}, {{"p", all, all, rule, 0.5, 1}}, 1).build();
        EXPECT_GT(liveBytes() - before, 15'000'000);
        EXPECT_LT(peakBytes() - before, (liveBytes() - before) * 14 / 10);
    }
}

TEST(MemoryUse, ADivisionTakesNothingANeuronAndIsFreed) {
    const NeuronRange all = {0, 100'000};
    SynapseGraph graph =
        Wiring(all.count, {}, {{"p", all, all, ConnectionRule::fixedInDegree(5), 0.5, 1}}, 1)
            .build();
    graph.divide({});  // builds the outgoing lists
    const std::int64_t before = liveBytes();
    for (const NodeId sections : {2U, 40U}) {
        std::vector<NodeId> ends;
        for (NodeId s = 1; s <= sections; ++s) ends.push_back(all.count * s / sections);
        graph.divide(ends);
        for (NodeId n = 0; n < all.count; ++n) graph.transmissionOf(n, true);
        constexpr std::int64_t large_page = 2 << 20;
        EXPECT_GE(liveBytes() - before, 8 * 500'000);
        EXPECT_LE(liveBytes() - before, 8 * 500'000 + large_page + 1000);
        graph.undivide();
        EXPECT_LE(liveBytes() - before, 1000);
    }
}

TEST(MemoryUse, AStoreKeepsNoMemoryForCancelledFarEvents) {
    BucketEventStore store(100, 64);
    std::int64_t most[2] = {};
    for (int i = 0; i < 100'000; ++i) {
        store.cancel(store.post({.time = 1'000'000 + i % 5000}));
        std::int64_t& peak = most[i < 10'000 ? 0 : 1];
        peak = std::max(peak, liveBytes());
    }
    EXPECT_LE(most[1], most[0]);
}

TEST(MemoryUse, AStoreKeepsLittleMoreThanAFarEventWhereverItLies) {
    constexpr std::int64_t count = 100'000;
    constexpr ModelTime ring = 100 * 4096;
    const std::int64_t before = liveBytes();
    BucketEventStore store(100, 4096);
    for (std::int64_t i = 0; i < count; ++i) {
        store.post({.time = (i * 7919 % count + 1) * ring, .kind = EventKind::input});
    }
    // An event has 64 bytes. Blocks double, the last one may be half empty, and a large one may
    // count twice, for its alignment.
    EXPECT_LT(liveBytes() - before, count * 256);
    const std::uint64_t allocations = allocationCount();
    EXPECT_TRUE(store.cancel(77));
    EXPECT_EQ(allocationCount(), allocations) << "the first cancel writes nothing down";
}

TEST(MemoryUse, AStoreKeepsNoneForEventsThatItHasHandedOut) {
    BucketEventStore store(100, 64);
    std::vector<Event> window;
    ModelTime start = 0;
    ModelTime end = 0;
    std::int64_t most[2] = {};
    for (int i = 0; i < 100'000; ++i) {
        // Alternately packed and unpacked events.
        store.post(
            {.time = end + i % 300, .kind = i % 2 == 0 ? EventKind::delivery : EventKind::input});
        if (i % 3 == 0) store.take(last_model_time, window, start, end);
        std::int64_t& peak = most[i < 10'000 ? 0 : 1];
        peak = std::max(peak, liveBytes());
    }
    EXPECT_LE(most[1], most[0]);
}

TEST(MemoryUse, ARestoreTakesOneCopyOfWhatItReads) {
    GeneratedModel model = ringModel(2000, 10, 1'000'000, 20);
    PlasticityConfig plasticity;
    plasticity.enabled = true;
    PhaseConfig phase;
    phase.oscillators = {{.id = 5, .frequency = 8.0, .amplitude = 0.1}};
    phase.bindings.assign(2000, {{.oscillator = 5, .strength = 0.1}});
    CpuWindowBackend cpu;
    KelmRuntime runtime = makeKelmRuntime(model.graph(), {}, {.base_rate = 40.0}, 5, model.horizon,
                                          &cpu, nullptr, plasticity, phase, RecorderConfig(), {},
                                          PredictionConfig{{{"error", {7}}}, {}});
    runtime.oscillators()->setMemberships(std::vector<std::vector<std::uint32_t>>(2000, {5}));
    for (int i = 0; i < 200'000; ++i) runtime.prediction()->observeValue(0, 0.5, 0.25, i);
    runtime.run();
    const Blob checkpoint = runtime.checkpoint();
    const std::int64_t before = liveBytes();
    restartPeak();
    ASSERT_TRUE(runtime.restore(checkpoint));
    // An eighth more than the stored bytes: the overhead of the allocator.
    const auto bytes = static_cast<std::int64_t>(checkpoint.size());
    EXPECT_LT(peakBytes() - before, bytes + bytes / 8);
}

TEST(MemoryUse, AnEngineKeepsAtMostFourBytesANeuronForParameters) {
    constexpr std::int64_t neurons = 1'000'000;
    const auto taken = [&](auto parameters) {
        const std::int64_t before = liveBytes();
        restartPeak();
        const WindowEngine engine(SynapseGraph(neurons, 10, {}), parameters, 1, 1000);
        return std::pair(liveBytes() - before, peakBytes() - before);
    };
    const auto size = static_cast<std::uint64_t>(neurons);
    const Kernel::Firing silent{.base_rate = 0.0};
    const auto [uniform, uniform_peak] = taken(ParameterTable(size, {}, silent));
    // A state of 40 bytes, a slot of 24, a stream of 8, a tree of times of 8 to 16, and what their
    // growth and large pages add.
    EXPECT_LT(uniform_peak, 110 * neurons);
    const std::vector<Population> populations{{"", size / 2, {}, silent},
                                              {"", size / 2, {.reset_value = 1.0}, silent}};
    // A table of four bytes a neuron, which the engine takes over, and a large page.
    const std::int64_t more = taken(ParameterTable(populations)).first - uniform;
    EXPECT_LT(more, 4 * neurons + (2 << 20));
    restartPeak();
    const std::int64_t before = liveBytes();
    const WindowEngine engine(SynapseGraph(size, 10, {}), {}, silent, 1, 1000);
    EXPECT_LE(peakBytes() - before, uniform_peak);
}

TEST(MemoryUse, AGraphMadeSynapseBySynapseTakesLittleMoreThanItKeeps) {
    constexpr std::uint64_t neurons = 1000, synapses = 1'000'000;
    const std::int64_t before = liveBytes();
    restartPeak();
    SynapseGraph graph(neurons, 10, synapses, [](EdgeId id) {
        return Synapse{.source = id * neurons / synapses, .target = id % neurons, .delay = 10};
    });
    EXPECT_EQ(graph.outOffsets()[neurons], synapses);
    // 20 bytes each, offsets, and the begin of a large page.
    EXPECT_LT(peakBytes() - before, 24 * static_cast<std::int64_t>(synapses));
}

TEST(MemoryUse, AStoreLosesNothingWhenMemoryRunsOut) {
    // A call that fails is repeated. The results must equal those of the history without a failure,
    // whichever allocation fails.
    const auto history = [](std::optional<std::uint64_t> failing, bool& failed) {
        std::vector<std::uint64_t> seen;
        seen.reserve(10'000);
        BucketEventStore store(10, 32);
        if (failing) failAllocation(*failing);
        const auto again = [](auto&& action) {
            try {
                return action();
            } catch (const std::bad_alloc&) {
                return action();
            }
        };
        const auto snapshot = [&] { return store.snapshot(); };
        const auto takeAll = [&](ModelTime until) {
            bool given = true;
            while (given) {
                std::vector<Event> events;
                ModelTime start = 0;
                ModelTime end = 0;
                given = again([&] { return store.take(until, events, start, end); });
                seen.push_back(static_cast<std::uint64_t>(start));
                for (const Event& event : events) seen.push_back(event.id);
            }
        };
        // Whole records, two a bucket, so that their pool has no free chunk when the first take
        // drops the cancelled one.
        for (const ModelTime time : {0, 10, 20, 30, 0, 10, 20, 30}) {
            again([&] { return store.post({.time = time, .kind = EventKind::input}); });
        }
        again([&] { return store.cancel(7); });
        // Far events are stored densely and need more room once they come near.
        for (const ModelTime era : {3, 4, 9}) {
            for (int i = 0; i < 30; ++i) {
                again([&] { return store.post({.time = era * 320 + i * 70 % 320}); });
            }
        }
        takeAll(5 * 320);
        for (int i = 0; i < 1400; ++i) {
            // Ids over several pages, times in the ring and beyond, and one sweep of cancelled
            // entries.
            const ModelTime time = 5 * 320 + i * 37 % 2000;
            const std::uint64_t id = again([&] { return store.post({.time = time}); });
            seen.push_back(id);
            if (i % 10 != 0) again([&] { return store.cancel(id); });
        }
        takeAll(1800);
        const Blob blob = again(snapshot);
        takeAll(2000);
        const Blob before = again(snapshot);
        const auto restoreOrStay = [&] {
            try {
                return store.restore(blob);
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(store.snapshot(), before);
                throw;
            }
        };
        EXPECT_TRUE(again(restoreOrStay));
        EXPECT_EQ(again(snapshot), blob);
        takeAll(last_model_time);
        seen.push_back(store.overflowPosts());
        failed = failing && failNoAllocation();
        return seen;
    };
    bool failed = false;
    const std::vector<std::uint64_t> expected = history(std::nullopt, failed);
    ASSERT_FALSE(failed);
    std::uint64_t failing = 0;
    do {
        ASSERT_EQ(history(failing, failed), expected) << "allocation " << failing;
        ++failing;
    } while (failed);
    EXPECT_GT(failing, 50U) << "too few allocations to cover every kind";
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
