// Shard queues and their verification, which must find every fault that a test plants between the
// device's work and the checks. Linked to the unit's testing build.

#include "kelm/cuda/ShardQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/cuda/LookaheadCudaTesting.h"
#include "kelm/cuda/ShardLayout.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/GeneratedModel.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

class ShardQueue : public EmulatedDeviceTest {
protected:
    ~ShardQueue() override {
        tamper_with_shard_counts = nullptr;
        tamper_with_shard_queue = nullptr;
    }

    static ShardQueueReport run(const GeneratedModel& model, std::uint64_t fanout,
                                std::uint64_t source_events, std::uint32_t shards) {
        SynapseGraph graph = model.graph();
        return runShardQueue(graph, fanout, source_events, shards, model.neurons[0],
                             model.firings[0], model.d_min, model.horizon);
    }
};

TEST_F(ShardQueue, RoutesEveryArrivalOverGeneratedNetworksAndThreadOrders) {
    for (std::uint64_t seed = 1; seed <= 60; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const GeneratedModel model =
            generateModel(seed, {seed % 8 == 0 ? 800U : 60U, 10, true, false, true});
        Emulation::permuteThreads(seed);
        for (const std::uint32_t wanted : {1U, 2U, 7U, 32U}) {
            const auto shards =
                static_cast<std::uint32_t>(std::min<std::uint64_t>(wanted, model.node_count));
            // Fewer and more events than neurons: sources wrap around.
            for (const std::uint64_t source_events : {std::uint64_t{1}, 3 * model.node_count + 1}) {
                tamper_with_shard_queue = [&](const std::vector<ShardArrival>& queue,
                                              const std::vector<Kernel::WindowResult>& results) {
                    for (const ShardArrival& arrival : queue) {
                        EXPECT_EQ(arrival.time, model.d_min - 1);
                        const Kernel::WindowResult& result = results[arrival.target];
                        for (std::int32_t s = 0; s < result.spike_count; ++s) {
                            EXPECT_LT(result.spike_times[s], model.d_min);
                        }
                    }
                };
                const ShardQueueReport report = run(model, model.fanout(), source_events, shards);
                // Counted source event by source event.
                std::uint64_t local = 0;
                std::set<NodeId> reached;
                SynapseGraph graph = model.graph();
                for (std::uint64_t e = 0; e < source_events; ++e) {
                    const NodeId source = e % model.node_count;
                    for (const EdgeId id : graph.outgoing(source)) {
                        const NodeId target = graph.edge(id).target;
                        local += shardOf(model.node_count, shards, source) ==
                                 shardOf(model.node_count, shards, target);
                        reached.insert(target);
                    }
                }
                EXPECT_EQ(report.routed_events, source_events * model.fanout());
                EXPECT_EQ(report.local_events, local);
                EXPECT_EQ(report.cross_events, report.routed_events - local);
                EXPECT_EQ(report.processed_targets, reached.size());
                EXPECT_EQ(report.shards, shards);
                EXPECT_TRUE(report.physics_identical);
                EXPECT_GT(report.seconds, 0.0);
            }
        }
    }
}

TEST_F(ShardQueue, RefusesWhatItCannotRoute) {
    const GeneratedModel model = ringModel(10, 3, 1'000'000, 10);
    const auto running = [&](std::uint64_t fanout, std::uint64_t events, std::uint32_t shards) {
        return [=] { run(model, fanout, events, shards); };
    };
    const char* const dimensions = "invalid CUDA shard queue benchmark dimensions";
    expectRefusals<WindowEngineError>(
        {{dimensions, running(0, 5, 2)},
         {dimensions, running(3, 0, 2)},
         {dimensions, running(3, 5, 0)},
         {dimensions, running(3, 5, 11)},
         {"CUDA shard queue benchmark size overflow", running(3, 0x5555555555555556, 2)},
         {"CUDA shard benchmark requires fixed fan-out", running(2, 5, 2)}});
}

TEST_F(ShardQueue, FindsEveryFaultPlantedInTheDevicesWork) {
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
    const GeneratedModel model = ringModel(10, 3, 1'000'000, 10);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fact);
        tamper_with_shard_queue = c.tamper;
        expectThrows<WindowEngineError>([&] { run(model, 3, 20, 3); }, c.text);
    }
    // The arrivals and states of two equal neurons of one shard are exchanged.
    GeneratedModel silent = model;
    for (Kernel::Firing& firing : silent.firings) firing.base_rate = 0.0;
    tamper_with_shard_queue = [](Queue& q, Results& r) {
        for (ShardArrival& arrival : q) {
            if (arrival.target < 2) arrival.target = 1 - arrival.target;
        }
        std::sort(q.begin(), q.end(), ShardArrivalLess());
        std::swap(r[0].state, r[1].state);
    };
    expectThrows<WindowEngineError>([&] { run(silent, 3, 20, 3); }, routing);
    tamper_with_shard_queue = nullptr;
    tamper_with_shard_counts = [](std::vector<std::uint64_t>& sizes) { --sizes[1]; };
    expectThrows<WindowEngineError>([&] { run(model, 3, 20, 3); },
                                    "CUDA shard count lost fan-out events");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
