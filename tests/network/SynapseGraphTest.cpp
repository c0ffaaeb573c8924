#include "kelm/network/SynapseGraph.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>
#include <optional>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/RecordingSink.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {
namespace {

using namespace Testing;

constexpr const char* endpoint_text = "synapse endpoint is outside the network";
constexpr const char* weight_text = "synapse weight magnitude must be finite and >= 0";
constexpr const char* delay_text = "synapse delay must be >= network min_delay and > 0";
constexpr const char* min_delay_text = "network min_delay must be positive";
constexpr const char* source_text = "KELM source NodeId is out of range";
constexpr const char* destination_text = "KELM destination NodeId is out of range";
constexpr const char* edge_text = "KELM synapse EdgeId is out of range";

constexpr auto infinite = static_cast<float>(infinity);
constexpr auto undefined = static_cast<float>(not_a_number);

Synapse synapse(NodeId source, NodeId target, float weight = 0.5F, ModelTime delay = 10,
                bool inhibitory = false) {
    return {.source = source,
            .target = target,
            .weight = weight,
            .delay = delay,
            .inhibitory = inhibitory};
}

using Nodes = std::vector<NodeId>;
using Edges = std::vector<EdgeId>;

Edges copyOf(std::span<const EdgeId> view) { return Edges(view.begin(), view.end()); }

/// Takes the reweighted targets since `last_call`, and sets that to the number of this call.
Nodes takeTargets(SynapseGraph& graph, std::uint64_t& last_call) {
    Nodes targets = {77, 77};  // must be replaced
    last_call = graph.takeReweightedTargets(last_call, targets);
    return targets;
}

/// The position of a synapse's routed byte in a snapshot.
std::size_t routedAt(EdgeId id) { return 35 + 63 * id + 62; }

/// The same network with some synapses removed from the routing tables.
SynapseGraph withUnrouted(SynapseGraph graph, const Edges& unrouted) {
    Blob blob = graph.snapshot();
    for (const EdgeId id : unrouted) blob.at(routedAt(id)) = 0;
    EXPECT_TRUE(graph.restore(blob));
    return graph;
}

Edges edgesOf(const std::vector<Event>& events) {
    Edges edges;
    for (const Event& event : events) edges.push_back(event.edge);
    return edges;
}

TEST(SynapseGraph, RefusesTheFirstFaultOfTheFirstSynapseThatHasOne) {
    using Delay = std::optional<ModelTime>;
    const auto building = [](Delay min_delay, const std::vector<Synapse>& edges) {
        return [=] { SynapseGraph(2, min_delay, edges); };
    };
    const Synapse undelayed = synapse(0, 1, 0.5F, 0);
    expectRefusals<InvalidSynapse>(
        {{min_delay_text, building(0, {synapse(9, 9, -1.0F, 0)})},
         {min_delay_text, building(-1, {})},
         {endpoint_text, building({}, {synapse(0, 2, -1.0F, 0)})},
         {endpoint_text, building({}, {synapse(~NodeId{0}, 0)})},
         {weight_text, building({}, {synapse(0, 1, -1e-45F)})},
         {weight_text, building({}, {synapse(0, 1, -infinite)})},
         {weight_text, building({}, {synapse(0, 1, undefined, 0)})},
         {delay_text, building(1, {undelayed})},
         {delay_text, building({}, {synapse(0, 1, 0.5F, first_model_time)})},
         {delay_text, building(5, {synapse(0, 1, 0.5F, 4)})},
         {delay_text, building({}, {synapse(0, 1), undelayed, synapse(2, 0)})}});
    EXPECT_NO_THROW(building(5, {synapse(0, 1, -0.0F, 5), synapse(1, 0, 0.0F, last_model_time)})());
}

TEST(SynapseGraph, IsTheSameWithoutAListOfItsSynapses) {
    std::vector<Synapse> list = {synapse(1, 0), synapse(0, 1, 2.0F, 30, true), synapse(0, 0)};
    list[2].reserved_d = 7;
    const auto building = [&] {
        return SynapseGraph(2, 10, list.size(), [&](EdgeId id) { return list[id]; });
    };
    EXPECT_EQ(building().snapshot(), SynapseGraph(2, 10, list).snapshot());
    EXPECT_EQ(copyOf(building().outgoing(0)), (Edges{1, 2}));
    list[1].delay = 9;
    expectThrows<InvalidSynapse>(building, delay_text);
}

TEST(SynapseGraph, IsTheSameFromColumns) {
    const std::vector<NodeId> sources = {1, 0, 0};
    const std::vector<NodeId> targets = {0, 1, 0};
    const std::vector<float> weights = {0.5F, 2.0F, 0.25F};
    const std::vector<ModelTime> delays = {10, 30, 20};
    const std::vector<std::uint8_t> inhibitory = {0, 1, 0};
    const SynapseColumns all = {sources, targets, weights, delays, inhibitory};
    EXPECT_EQ(SynapseGraph(2, 10, all).snapshot(),
              SynapseGraph(2, 10,
                           {synapse(1, 0, 0.5F, 10), synapse(0, 1, 2.0F, 30, true),
                            synapse(0, 0, 0.25F, 20)})
                  .snapshot());
    const SynapseColumns values = {sources, targets, 0.5, 10, true};
    EXPECT_EQ(SynapseGraph(2, {}, values).snapshot(),
              SynapseGraph(2, {},
                           {synapse(1, 0, 0.5F, 10, true), synapse(0, 1, 0.5F, 10, true),
                            synapse(0, 0, 0.5F, 10, true)})
                  .snapshot());

    const auto building = [](ModelTime min_delay, const SynapseColumns& columns) {
        return [=] { SynapseGraph(2, min_delay, columns); };
    };
    const std::vector<NodeId> outside = {2, 0, 0};
    const std::vector<std::uint8_t> signs = {0, 2, 0};
    const std::vector<float> one_weight = {0.5F};
    const std::vector<ModelTime> two_delays = {10, 10};
    expectRefusals<InvalidSynapse>(
        {{min_delay_text, building(0, all)},
         {delay_text, building(11, all)},
         {endpoint_text, building(1, {outside, targets, -1.0, 10, false})},
         {weight_text, building(1, {sources, targets, -1.0, 10, false})},
         {"synapse sign must be 0 or 1", building(1, {sources, targets, 0.5, 10, signs})},
         {"synapse column targets has 2 values for 3 sources",
          building(1, {sources, std::span(targets).first(2), 0.5, 10, false})},
         {"synapse column weights has 1 values for 3 sources",
          building(1, {sources, targets, one_weight, 10, false})},
         {"synapse column delays has 2 values for 3 sources",
          building(1, {sources, targets, 0.5, two_delays, false})}});
}

TEST(SynapseGraph, LooksAgainAfterARestoreWhetherDeliveriesFormARun) {
    struct Holder final : IRunHolder {
        void expandRuns() override {}
    } holder;
    std::vector<Synapse> edges;
    for (NodeId target = 1; target < 6; ++target) edges.push_back(synapse(0, target, 1.0F, 10));
    SynapseGraph graph(6, 10, edges);
    EXPECT_TRUE(graph.deferRun(0, 5, holder));
    edges[2].delay = 20;
    ASSERT_TRUE(graph.restore(SynapseGraph(6, 10, edges).snapshot()));
    EXPECT_FALSE(graph.deferRun(0, 5, holder));
    graph.releaseHolder(holder);
}

/// Compares the runs of all sections with what deliver() posts to their neurons. Returns how many
/// deliveries were in runs.
std::size_t expectEqualSections(SynapseGraph& graph, const Nodes& ends) {
    std::size_t count = 0;
    for (NodeId source = 0; source < graph.nodeCount(); ++source) {
        const SynapseGraph::Transmission transmission = graph.transmissionOf(source, true);
        if (transmission.delay == 0) continue;
        RecordingSink sink;
        graph.deliver(source, 5, sink);
        NodeId begin = 0;
        for (std::size_t s = 0; s < ends.size(); begin = ends[s++]) {
            std::vector<Event> expected;
            for (const Event& event : sink.events) {
                if (event.target >= begin && event.target < ends[s]) expected.push_back(event);
            }
            const DeliveryRun run = graph.runOf(source, 5 + transmission.delay, s);
            EXPECT_EQ(run.count, expected.size());
            if (run.count != expected.size() || run.count == 0) continue;
            count += run.count;
            std::size_t i = 0;
            graph.visitDeliveries(run, s, [&](const PackedDelivery& delivery) {
                const Event event = delivery.unpacked();
                const SynapseGraph::SectionEntry& entry =
                    graph.sectionEntries()[run.first_route + i];
                EXPECT_EQ(event.edge, expected[i].edge);
                EXPECT_EQ(event.time, expected[i].time);
                EXPECT_EQ(entry.target, expected[i].target);
                EXPECT_EQ(static_cast<double>(entry.value()), expected[i].value);
                ++i;
            });
            EXPECT_EQ(i, run.count);
        }
    }
    return count;
}

TEST(SynapseGraph, KeepsTheSectionsOfItsRunsWhenWeightsAndSwitchesChange) {
    std::size_t compared = 0;
    for (std::uint64_t seed = 1; seed <= 30; ++seed) {
        SCOPED_TRACE(seed);
        Draws draws(seed);
        const std::uint64_t nodes = 1 + draws.below(40);
        std::vector<Synapse> synapses;
        for (NodeId n = 0; n < nodes; ++n) {
            const ModelTime delay = 10 + draws.timeBelow(3);
            const bool inhibitory = draws.oneIn(4);
            for (std::uint64_t i = draws.below(40); i > 0; --i) {
                synapses.push_back(synapse(n, draws.below(nodes), 0.1F * static_cast<float>(i),
                                           delay, inhibitory));
            }
        }
        if (draws.oneIn(2)) std::ranges::reverse(synapses);  // lists that are not ascending
        SynapseGraph graph(nodes, 10, synapses);
        Nodes ends;
        for (std::uint64_t s = draws.below(20); s > 0; --s) ends.push_back(draws.below(nodes + 1));
        ends.push_back(nodes);
        std::ranges::sort(ends);
        graph.divide(ends);
        compared += expectEqualSections(graph, ends);
        if (synapses.empty()) continue;
        for (int step = 0; step < 6; ++step) {
            const EdgeId edge = draws.below(synapses.size());
            const auto weight = static_cast<float>(draws.between(0, 9));
            switch (draws.below(5)) {
                case 0:
                    graph.setWeight(edge, weight);
                    break;
                case 1:
                    graph.setEnabled(edge, false);
                    (void)expectEqualSections(graph, ends);
                    graph.setEnabled(edge, true);
                    break;
                case 2:
                    graph.prepareWriters(2, false);
                    graph.setWeight(1, edge, weight);
                    break;
                case 3:
                    // There are 65535 numbers of rounds, so the last call gets one anew.
                    graph.prepareWriters(1, false);
                    graph.setWeight(0, edge, weight);
                    for (int i = 0; i < 65534; ++i) graph.prepareWriters(1, false);
                    break;
                default: {
                    SynapseGraph copy(graph);
                    copy.setWeight(edge, weight);
                    graph = copy;
                    graph.divide(ends);
                }
            }
            compared += expectEqualSections(graph, ends);
        }
    }
    EXPECT_GT(compared, 10'000U);
}

TEST(SynapseGraph, ListsTheSynapsesOfEachNeuronInAscendingOrder) {
    // Compared with a search through all synapses. Few neurons, so that self-loops and parallel
    // synapses are frequent, and some neurons have no synapse.
    for (std::uint64_t seed = 0; seed < 200; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Draws draws(seed);
        const std::uint64_t node_count = 1 + draws.below(12);
        std::vector<Synapse> edges;
        for (std::uint64_t i = draws.below(60); i-- > 0;) {
            edges.push_back(synapse(draws.below(node_count), draws.below(node_count)));
            edges.back().enabled = !draws.oneIn(4);
            edges.back().delay = static_cast<ModelTime>(edges.size());  // shows the id
        }
        Edges unrouted;
        for (EdgeId id = 0; id < edges.size(); ++id) {
            if (draws.oneIn(5)) unrouted.push_back(id);
        }
        SynapseGraph graph = withUnrouted(SynapseGraph(node_count, {}, edges), unrouted);
        ASSERT_EQ(graph.routedCount(), edges.size() - unrouted.size());

        std::vector<std::uint64_t> offsets = {0};
        Edges all;
        for (NodeId node = 0; node < node_count; ++node) {
            Edges out;
            Edges in;
            for (EdgeId id = 0; id < edges.size(); ++id) {
                if (std::ranges::count(unrouted, id) != 0) continue;
                if (edges[id].source == node) out.push_back(id);
                if (edges[id].target == node) in.push_back(id);
            }
            Edges visited;
            const auto visit = [&](const Synapse& edge) {
                visited.push_back(static_cast<EdgeId>(edge.delay - 1));
                return true;
            };
            ASSERT_TRUE(graph.visitOutgoing(node, visit));
            ASSERT_EQ(visited, out) << "of neuron " << node;
            ASSERT_EQ(copyOf(graph.outgoing(node)), out) << "of neuron " << node;
            ASSERT_EQ(copyOf(graph.incoming(node)), in) << "of neuron " << node;
            all.insert(all.end(), out.begin(), out.end());
            offsets.push_back(all.size());
        }
        for (EdgeId id = 0; id < edges.size(); ++id) {
            ASSERT_EQ(graph.source(id), edges[id].source);
            ASSERT_EQ(graph.target(id), edges[id].target);
        }
        ASSERT_EQ(copyOf(graph.outOffsets()), offsets);
        ASSERT_EQ(copyOf(graph.outEdges()), all);
    }
}

TEST(SynapseGraph, FormsWindowsByTheDeclaredDelayElseByTheSmallestRouted) {
    Synapse disabled = synapse(0, 1, 0.5F, 7);
    disabled.enabled = false;
    const std::vector<Synapse> edges = {synapse(0, 1, 0.5F, 9), disabled, synapse(1, 0, 0.5F, 8)};
    using Delay = std::optional<ModelTime>;

    EXPECT_EQ(SynapseGraph(2, {}, {}).dMin(), Delay());
    EXPECT_EQ(SynapseGraph(2, 6, {}).dMin(), Delay(6));
    EXPECT_EQ(SynapseGraph(2, 6, edges).dMin(), Delay(6)) << "although every delay is longer";
    SynapseGraph graph(2, {}, edges);
    EXPECT_EQ(graph.dMin(), Delay(7)) << "a disabled synapse counts";
    graph.setEnabled(1, true);
    graph.setEnabled(2, false);
    EXPECT_EQ(graph.dMin(), Delay(7));
    graph = withUnrouted(graph, {1});
    EXPECT_EQ(graph.dMin(), Delay(8)) << "a synapse that is not routed does not count";
    graph = withUnrouted(graph, {0, 2});
    EXPECT_EQ(graph.dMin(), Delay());
    EXPECT_EQ(graph.dMin(), Delay());
}

TEST(SynapseGraph, DeliversASpikeToEachTargetInEdgeOrder) {
    SynapseGraph graph(
        3, {},
        {synapse(1, 2, 0.25F, 10, true), synapse(0, 1, 9.0F), synapse(1, 1, 0.3F, 30),
         synapse(1, 0, 0.0F, 20, true), synapse(1, 2, 0.0F, 10)});
    RecordingSink sink;
    EXPECT_EQ(graph.deliver(1, 1000, sink), 4U);
    EXPECT_EQ(graph.deliver(2, 1000, sink), 0U) << "a neuron without outgoing synapses";
    // 0.3 in single precision is exactly 0x1.333334p-2.
    constexpr auto delivery = EventKind::delivery;
    const std::vector<Event> expected = {{1010, 0, delivery, {}, 1, 2, 0, -0.25, 0},
                                         {1030, 0, delivery, {}, 1, 1, 2, 0x1.333334p-2, 0},
                                         {1020, 0, delivery, {}, 1, 0, 3, -0.0, 0},
                                         {1010, 0, delivery, {}, 1, 2, 4, 0.0, 0}};
    EXPECT_TRUE(sameImages<Event>(sink.events, expected));
}

TEST(SynapseGraph, SkipsDisabledSynapsesAndClassesOnDelivery) {
    std::vector<Synapse> edges = {synapse(0, 1), synapse(0, 1, 0.5F, 10, true), synapse(0, 0),
                                  synapse(0, 0, 0.5F, 10, true), synapse(0, 1)};
    edges[4].enabled = false;
    SynapseGraph graph = withUnrouted(SynapseGraph(2, {}, edges), {2});
    const auto delivered = [&graph] {
        RecordingSink sink;
        const std::uint64_t count = graph.deliver(0, 0, sink);
        EXPECT_EQ(count, sink.events.size());
        return edgesOf(sink.events);
    };
    EXPECT_EQ(delivered(), (Edges{0, 1, 3}));
    graph.setTransmissionEnabled(true, false);
    EXPECT_FALSE(graph.transmissionEnabled(true));
    EXPECT_TRUE(graph.transmissionEnabled(false));
    EXPECT_EQ(delivered(), Edges{0});
    graph.setTransmissionEnabled(false, false);
    EXPECT_EQ(delivered(), Edges{});
    graph.setTransmissionEnabled(true, true);
    EXPECT_EQ(delivered(), (Edges{1, 3}));
    graph.setTransmissionEnabled(false, true);
    graph.setEnabled(3, false);
    graph.setEnabled(4, true);
    EXPECT_EQ(delivered(), (Edges{0, 1, 4}));
    EXPECT_EQ(copyOf(graph.outgoing(0)), (Edges{0, 1, 3, 4})) << "all stay routed";
    EXPECT_EQ(graph.rebuilds(), 1U);
}

TEST(SynapseGraph, KeepsTheDeliveriesBeforeATimeOverflow) {
    SynapseGraph graph(1, {},
                       {synapse(0, 0, 0.5F, 10), synapse(0, 0, 0.5F, 11), synapse(0, 0, 0.5F, 1)});
    RecordingSink sink;
    expectThrows<TimeOverflow>([&] { graph.deliver(0, last_model_time - 10, sink); },
                               "KELM model time overflow");
    ASSERT_EQ(edgesOf(sink.events), Edges{0});
    EXPECT_EQ(sink.events[0].time, last_model_time);
    // A disabled synapse computes no time.
    graph.setEnabled(1, false);
    EXPECT_EQ(graph.deliver(0, last_model_time - 10, sink), 2U);
}

TEST(SynapseGraph, RefusesIndicesOutsideTheNetwork) {
    SynapseGraph graph(2, {}, {synapse(0, 1)});
    const SynapseGraph& fixed = graph;
    RecordingSink sink;
    const Blob before = graph.snapshot();
    for (const std::uint64_t id : {std::uint64_t{2}, ~std::uint64_t{0}}) {
        expectRefusals<SynapseRoutingViolation>(
            {{source_text, [&] { graph.outgoing(id); }},
             {source_text, [&] { graph.deliver(id, 0, sink); }},
             {destination_text, [&] { graph.incoming(id); }},
             {edge_text, [&] { graph.edge(id); }},
             {edge_text, [&] { graph.isRouted(id); }},
             {edge_text, [&] { graph.lastChange(id) = 1; }},
             {edge_text, [&] { fixed.lastChange(id); }},
             {edge_text, [&] { graph.setWeight(id, 0.5F); }},
             {edge_text, [&] { graph.setEnabled(id, false); }}});
        expectThrows<InvalidSynapse>([&] { graph.setWeight(id, -1.0F); }, weight_text);
    }
    expectThrows<InvalidSynapse>([&] { graph.setWeight(0, undefined); }, weight_text);
    EXPECT_TRUE(sink.events.empty());
    EXPECT_EQ(graph.snapshot(), before);
}

TEST(SynapseGraph, RefusesTablesTooLargeForMemory) {
    // The offsets have one entry more than neurons, which wraps to 0 here.
    SynapseGraph graph(~std::uint64_t{0}, {}, {});
    EXPECT_THROW(graph.outgoing(0), std::length_error);
    EXPECT_THROW(graph.outOffsets(), std::length_error);
    Nodes targets;
    EXPECT_THROW(graph.takeReweightedTargets(0, targets), std::length_error);
}

TEST(SynapseGraph, BuildsItsTablesOnceAndOnlyWhenTheyAreRead) {
    SynapseGraph graph(2, {}, {synapse(0, 1), synapse(1, 0)});
    graph.dMin();
    graph.setWeight(0, 1.0F);
    EXPECT_EQ(graph.rebuilds(), 0U);
    const Blob blob = graph.snapshot();
    for (const std::uint64_t rebuilds : {1U, 2U}) {
        graph.incoming(1);
        graph.outgoing(0);
        graph.outEdges();
        graph.setWeight(0, 2.0F);
        graph.setTransmissionEnabled(true, false);
        EXPECT_FALSE(graph.restore(BlobView(blob).first(20)));
        graph.incoming(0);
        EXPECT_EQ(graph.rebuilds(), rebuilds);
        ASSERT_TRUE(graph.restore(blob));
    }
    EXPECT_EQ(graph.rebuilds(), 2U) << "the next read builds";
}

// These are all neurons at the first call, after the call of another reader, and after a copy,
// move, assignment or restore.
TEST(SynapseGraph, ReturnsTheNeuronsWhoseIncomingWeightsWereSetSinceTheLastCall) {
    Draws draws(11);
    std::vector<Synapse> edges;
    for (int i = 0; i < 300; ++i) edges.push_back(synapse(draws.below(40), draws.below(40)));
    SynapseGraph graph(40, {}, edges);
    Nodes all(40);
    std::iota(all.begin(), all.end(), NodeId{0});
    std::set<NodeId> expected(all.begin(), all.end());
    std::uint64_t last_call = 0;
    std::uint64_t intruders_call = 0;
    for (int round = 0; round < 500; ++round) {
        for (std::uint64_t i = draws.below(100); i-- > 0;) {
            const EdgeId id = draws.below(300);
            graph.setWeight(id, 0.5F);  // sometimes the value that it has
            expected.insert(edges[id].target);
        }
        EXPECT_THROW(graph.setWeight(0, -1.0F), InvalidSynapse);
        EXPECT_FALSE(graph.restore(Blob{}));
        if (draws.oneIn(8)) {
            SynapseGraph copy = graph;
            std::uint64_t copys_call = last_call;
            ASSERT_EQ(takeTargets(copy, copys_call), all);
            const std::uint64_t way = draws.below(5);
            if (way == 0) graph = copy;
            if (way == 1) graph = std::move(copy);
            if (way == 2) {
                ASSERT_TRUE(graph.restore(graph.snapshot()));
            }
            if (way == 3) {
                ASSERT_EQ(takeTargets(graph, intruders_call), all);
            }
            if (way != 4) expected.insert(all.begin(), all.end());
        }
        ASSERT_EQ(takeTargets(graph, last_call), Nodes(expected.begin(), expected.end())) << round;
        expected.clear();
    }
}

// While an engine runs, its calendar holds runs of deliveries that read the weights.
TEST(SynapseGraph, WritesARangeOfWeightsAsOneByOneAllOrNone) {
    CpuWindowBackend cpu;
    for (std::uint64_t seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const GeneratedModel model = generateModel(seed, {.alike = true, .fans = true});
        WindowEngine engine = makeEngine(model);
        WindowEngine twin = makeEngine(model);
        std::uint64_t call = 0, twins_call = 0;
        takeTargets(engine.graph(), call);
        takeTargets(twin.graph(), twins_call);
        Draws draws(seed);
        const std::uint64_t count = model.synapses.size();
        for (int round = 1; round <= 4; ++round) {
            engine.run(cpu, model.horizon * round / 5);
            twin.run(cpu, model.horizon * round / 5);
            const EdgeId first = draws.below(count);
            std::vector<float> weights(draws.below(count - first + 1));
            for (float& weight : weights) weight = static_cast<float>(draws.between(0.0, 2.0));
            engine.graph().writeWeights(first, weights);
            for (std::size_t i = 0; i < weights.size(); ++i) {
                twin.graph().setWeight(first + i, weights[i]);
            }
            std::vector<float> read(weights.size());
            engine.graph().readWeights(first, read);
            ASSERT_EQ(read, weights);
            ASSERT_EQ(takeTargets(engine.graph(), call), takeTargets(twin.graph(), twins_call));
            ASSERT_EQ(engine.snapshot(), twin.snapshot());

            weights.assign(count - first, 1.0F);
            const Blob before = engine.snapshot();
            for (const auto& [from, size] :
                 {std::pair(first, count - first + 1), {count + 1, 0}, {~std::uint64_t{0}, 2}}) {
                weights.resize(size, 1.0F);
                const auto write = [&, from = from] { engine.graph().writeWeights(from, weights); };
                const auto read_back = [&, from = from] {
                    engine.graph().readWeights(from, weights);
                };
                expectThrows<SynapseRoutingViolation>(write, edge_text);
                expectThrows<SynapseRoutingViolation>(read_back, edge_text);
            }
            weights.assign({1.0F, -1.0F, undefined});
            try {
                engine.graph().writeWeights(first, weights);
                FAIL() << "a negative weight";
            } catch (const InvalidSynapse& failure) {
                EXPECT_EQ(std::string(failure.what()), weight_text);
                ASSERT_NE(failure.detail(), nullptr);
                EXPECT_EQ(failure.detail()->text(), "synapse " + std::to_string(first + 1) +
                                                        ": weight is -1, must be finite and at "
                                                        "least 0");
            }
            ASSERT_EQ(engine.snapshot(), before);
        }
        engine.graph().writeWeights(count, {});
    }
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
