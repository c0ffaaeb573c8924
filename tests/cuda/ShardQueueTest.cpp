// Shard queues, and above all their verification: every fault planted between the device's work and
// the checks must be found. Built against the unit's testing build.

#include "kelm/cuda/ShardQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/cuda/LookaheadCudaTesting.h"
#include "kelm/cuda/ShardLayout.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/ResidentModel.h"

namespace Lumenar::Core::Kelm {

using namespace Testing;
namespace Emulation = Device::Emulation;

namespace {

class ShardQueueTest : public EmulatedDeviceTest {
protected:
    ~ShardQueueTest() override {
        tamper_with_shard_counts = nullptr;
        tamper_with_shard_queue = nullptr;
    }

    static ShardQueueReport run(const ResidentModel& model, std::uint64_t source_events,
                                std::uint32_t shards) {
        SynapseGraph graph = model.graph();
        return runShardQueue(graph, model.fanout, source_events, shards, model.neuron, model.firing,
                             model.d_min, model.horizon);
    }
};

/// Local arrivals by walking source events one by one.
std::uint64_t countLocal(const ResidentModel& model, std::uint64_t source_events,
                         std::uint32_t shards) {
    SynapseGraph graph = model.graph();
    std::uint64_t local = 0;
    for (std::uint64_t e = 0; e < source_events; ++e) {
        const NodeId source = e % model.node_count;
        for (const EdgeId id : graph.outgoing(source)) {
            local += shardOf(model.node_count, shards, source) ==
                     shardOf(model.node_count, shards, graph.edge(id).target);
        }
    }
    return local;
}

TEST_F(ShardQueueTest, RoutesEveryArrivalOverGeneratedNetworksAndThreadOrders) {
    for (std::uint64_t seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const ResidentModel model = generateResidentModel(seed, 800);
        Emulation::permuteThreads(seed);
        for (const std::uint32_t wanted : {1U, 2U, 7U, 32U}) {
            const auto shards =
                static_cast<std::uint32_t>(std::min<std::uint64_t>(wanted, model.node_count));
            // Fewer and more events than neurons: sources wrap around.
            for (const std::uint64_t source_events : {std::uint64_t{1}, 3 * model.node_count + 1}) {
                const ShardQueueReport report = run(model, source_events, shards);
                EXPECT_EQ(report.routed_events, source_events * model.fanout);
                EXPECT_EQ(report.local_events, countLocal(model, source_events, shards));
                EXPECT_EQ(report.local_events + report.cross_events, report.routed_events);
                EXPECT_EQ(report.shards, shards);
                EXPECT_TRUE(report.physics_identical);
                SynapseGraph graph = model.graph();
                std::vector<bool> reached(model.node_count);
                for (std::uint64_t e = 0; e < source_events; ++e) {
                    for (const EdgeId id : graph.outgoing(e % model.node_count)) {
                        reached[graph.edge(id).target] = true;
                    }
                }
                EXPECT_EQ(report.processed_targets, static_cast<std::uint64_t>(std::count(
                                                        reached.begin(), reached.end(), true)));
            }
        }
    }
}

/// A network whose every neuron has something to do.
ResidentModel plainModel() {
    ResidentModel model;
    model.node_count = 10;
    model.fanout = 3;
    model.d_min = 1'000'000;
    model.horizon = 10'000'000;
    for (NodeId n = 0; n < model.node_count; ++n) {
        for (std::uint64_t k = 1; k <= model.fanout; ++k) {
            Synapse synapse;
            synapse.source = n;
            synapse.target = (n + k) % model.node_count;
            synapse.weight = 0.5F;
            synapse.delay = model.d_min;
            model.synapses.push_back(synapse);
        }
    }
    model.firing.base_rate = 100.0;
    return model;
}

TEST_F(ShardQueueTest, RefusesWhatItCannotRoute) {
    const ResidentModel model = plainModel();
    const std::string dimensions = "invalid CUDA shard queue benchmark dimensions";
    const auto with = [&](std::uint64_t fanout, std::uint64_t events, std::uint32_t shards) {
        return [&, fanout, events, shards] {
            SynapseGraph graph = model.graph();
            runShardQueue(graph, fanout, events, shards, model.neuron, model.firing, model.d_min,
                          model.horizon);
        };
    };
    expectThrows<WindowEngineError>(with(0, 5, 2), dimensions);
    expectThrows<WindowEngineError>(with(3, 0, 2), dimensions);
    expectThrows<WindowEngineError>(with(3, 5, 0), dimensions);
    expectThrows<WindowEngineError>(with(3, 5, 11), dimensions);
    expectThrows<WindowEngineError>(with(3, 0x5555555555555556, 2),
                                    "CUDA shard queue benchmark size overflow");
    expectThrows<WindowEngineError>(with(2, 5, 2), "CUDA shard benchmark requires fixed fan-out");
    expectThrows<WindowEngineError>(
        [] {
            SynapseGraph empty(0, 5, {});
            runShardQueue(empty, 1, 1, 1, Kernel::Neuron(), Kernel::Firing(), 5, 5);
        },
        dimensions);
}

TEST_F(ShardQueueTest, FindsEveryFaultPlantedInTheDevicesWork) {
    using Queue = std::vector<ShardArrival>;
    using Results = std::vector<Kernel::WindowResult>;
    struct Case {
        const char* fact;
        std::function<void(Queue&, Results&)> tamper;
        const char* text;
    };
    const char* order = "CUDA shard queue is not canonical";
    const char* physics = "CUDA shard neuron physics differs from CPU";
    const char* routing = "CUDA shard queue routing mismatch";
    const Case cases[] = {
        {"two arrivals swapped", [](Queue& q, Results&) { std::swap(q[3], q[4]); }, order},
        {"a first arrival moved to the end",
         [](Queue& q, Results&) { std::rotate(q.begin(), q.begin() + 1, q.end()); }, order},
        {"a membrane", [](Queue&, Results& r) { r[4].state.membrane += 1e-12; }, physics},
        {"a generator", [](Queue&, Results& r) { r[4].rng ^= 1; }, physics},
        {"a spike count", [](Queue&, Results& r) { r[4].spike_count += 1; }, physics},
        {"a candidate", [](Queue&, Results& r) { r[9].next_candidate += 1; }, physics},
        {"a bound", [](Queue&, Results& r) { r[0].next_bound *= 1.5; }, physics},
        {"a bound that is no number",
         [](Queue&, Results& r) { r[0].state.hazard_bound = Kernel::quietNan(); }, physics},
        {"a flag", [](Queue&, Results& r) { r[2].bound_violation = true; }, physics},
        {"a value", [](Queue& q, Results&) { q[5].value *= 2.0; }, physics},
        {"a source", [](Queue& q, Results&) { q[5].source += 1; }, routing},
        {"an edge", [](Queue& q, Results&) { q[5].edge += 1; }, routing},
        {"a target outside the network",
         [](Queue& q, Results&) {
             for (ShardArrival& arrival : q) arrival.target += arrival.target == 9 ? 1 : 0;
         },
         routing},
    };
    const ResidentModel model = plainModel();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fact);
        tamper_with_shard_queue = c.tamper;
        expectThrows<WindowEngineError>([&] { run(model, 20, 3); }, c.text);
        EXPECT_EQ(Emulation::liveAllocations(), 0);
    }
    tamper_with_shard_queue = nullptr;
    tamper_with_shard_counts = [](std::vector<std::uint64_t>& sizes) { --sizes[1]; };
    expectThrows<WindowEngineError>([&] { run(model, 20, 3); },
                                    "CUDA shard count lost fan-out events");
    tamper_with_shard_counts = nullptr;
    EXPECT_TRUE(run(model, 20, 3).physics_identical);
}

TEST_F(ShardQueueTest, ReportsEveryFailedCallAndReleasesAllBlocks) {
    const ResidentModel model = plainModel();
    std::vector<std::string> texts;
    for (std::uint64_t n = 0;; ++n) {
        Emulation::failOperation(n, 2);
        std::string text;
        try {
            run(model, 20, 3);
        } catch (const std::runtime_error& failure) {
            text = failure.what();  // the sort's own
        } catch (const WindowEngineError& failure) {
            text = failure.what();
        }
        Emulation::failNothing();
        EXPECT_EQ(Emulation::liveAllocations(), 0) << text;
        if (text.empty()) break;
        texts.push_back(text);
    }
    const std::vector<std::string> calls = {"alloc shard counts",
                                            "alloc shard offsets",
                                            "alloc local/cross counts",
                                            "alloc CSR targets",
                                            "alloc CSR values",
                                            "alloc shard window events",
                                            "alloc shard states",
                                            "alloc shard RNG",
                                            "alloc shard results",
                                            "alloc processed target count",
                                            "alloc shard queues",
                                            "upload CSR targets",
                                            "upload CSR values",
                                            "clear shard states",
                                            "upload shard RNG",
                                            "clear processed target count",
                                            "clear shard counts",
                                            "clear local/cross counts",
                                            "launch shard count",
                                            "download shard counts",
                                            "download local/cross counts",
                                            "upload shard offsets",
                                            "clear shard cursors",
                                            "launch shard fan-out",
                                            "",
                                            "launch shard event conversion",
                                            "launch shard target processing",
                                            "synchronise shard fan-out",
                                            "download shard queues",
                                            "download shard results",
                                            "download processed target count",
                                            "free shard queues",
                                            "free processed target count",
                                            "free shard results",
                                            "free shard RNG",
                                            "free shard states",
                                            "free shard window events",
                                            "free CSR values",
                                            "free CSR targets",
                                            "free local/cross counts",
                                            "free shard offsets",
                                            "free shard counts"};
    ASSERT_EQ(texts.size(), calls.size());
    for (std::size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(texts[i],
                  calls[i].empty() ? "out of memory" : "CUDA " + calls[i] + ": out of memory");
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
