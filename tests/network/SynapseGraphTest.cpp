#include "kelm/network/SynapseGraph.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <random>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/ExpectThrows.h"
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
    Synapse made;
    made.source = source;
    made.target = target;
    made.weight = weight;
    made.delay = delay;
    made.inhibitory = inhibitory;
    return made;
}

using Nodes = std::vector<NodeId>;
using Edges = std::vector<EdgeId>;

Edges copyOf(std::span<const EdgeId> view) { return Edges(view.begin(), view.end()); }

Nodes takeTargets(SynapseGraph& graph) {
    Nodes targets = {77, 77};  // old contents must vanish
    graph.takeReweightedTargets(targets);
    return targets;
}

/// Where the routed byte of a synapse lies in a snapshot.
std::size_t routedAt(EdgeId id) { return 35 + 63 * id + 62; }

/// The same network with some synapses taken off the routing tables.
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
    struct Case {
        const char* fact;
        std::optional<ModelTime> min_delay;
        std::vector<Synapse> edges;
        const char* text;
    };
    const Synapse good = synapse(0, 1);
    const std::vector<Case> cases = {
        {"min_delay 0, before any synapse", 0, {synapse(9, 9, -1.0F, 0)}, min_delay_text},
        {"min_delay -1 without a synapse", -1, {}, min_delay_text},
        {"endpoint before weight and delay", {}, {synapse(0, 2, -1.0F, 0)}, endpoint_text},
        {"largest endpoint", {}, {synapse(~NodeId{0}, 0)}, endpoint_text},
        {"weight below 0", {}, {synapse(0, 1, -1e-45F)}, weight_text},
        {"weight minus infinite", {}, {synapse(0, 1, -infinite)}, weight_text},
        {"weight not a number", {}, {synapse(0, 1, undefined)}, weight_text},
        {"weight before delay", {}, {synapse(0, 1, undefined, 0)}, weight_text},
        {"delay 0 under a min_delay", 1, {synapse(0, 1, 0.5F, 0)}, delay_text},
        {"delay below 0", {}, {synapse(0, 1, 0.5F, first_model_time)}, delay_text},
        {"delay below min_delay", 5, {synapse(0, 1, 0.5F, 4)}, delay_text},
        {"the first of two faults", {}, {good, synapse(0, 1, 0.5F, 0), synapse(2, 0)}, delay_text},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fact);
        expectThrows<InvalidSynapse>([&] { SynapseGraph(2, c.min_delay, c.edges); }, c.text);
    }
}

TEST(SynapseGraph, TakesValuesAtTheEndsOfTheirRanges) {
    SynapseGraph graph(2, 5,
                       {synapse(0, 1, -0.0F, 5), synapse(1, 0, 0.0F, last_model_time),
                        synapse(1, 1, std::numeric_limits<float>::max(), 6)});
    EXPECT_EQ(graph.routedCount(), 3U);
    EXPECT_TRUE(std::signbit(graph.edge(0).weight));
    EXPECT_EQ(SynapseGraph(0, {}, {}).outOffsets().size(), 1U);
}

TEST(SynapseGraph, ListsTheSynapsesOfEachNeuronInAscendingOrder) {
    // Against a search through all synapses; few neurons, so that self-loops and parallel synapses
    // abound, and some that have none.
    for (std::uint64_t seed = 0; seed < 200; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937_64 random(seed);
        const std::uint64_t node_count = 1 + random() % 12;
        std::vector<Synapse> edges;
        for (std::uint64_t i = random() % 60; i-- > 0;) {
            edges.push_back(synapse(random() % node_count, random() % node_count));
            edges.back().enabled = random() % 4 != 0;
        }
        Edges unrouted;
        for (EdgeId id = 0; id < edges.size(); ++id) {
            if (random() % 5 == 0) unrouted.push_back(id);
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
            ASSERT_EQ(copyOf(graph.outgoing(node)), out) << "of neuron " << node;
            ASSERT_EQ(copyOf(graph.incoming(node)), in) << "of neuron " << node;
            all.insert(all.end(), out.begin(), out.end());
            offsets.push_back(all.size());
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
    EXPECT_EQ(SynapseGraph(2, 6, edges).dMin(), Delay(6)) << "though every delay is longer";
    SynapseGraph graph(2, {}, edges);
    EXPECT_EQ(graph.dMin(), Delay(7)) << "a disabled synapse counts";
    graph.setEnabled(1, true);
    graph.setEnabled(2, false);
    EXPECT_EQ(graph.dMin(), Delay(7));
    graph = withUnrouted(graph, {1});
    EXPECT_EQ(graph.dMin(), Delay(8)) << "one that is not routed does not";
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

TEST(SynapseGraph, DeliversNothingAlongWhatIsSwitchedOff) {
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

TEST(SynapseGraph, LeavesTheDeliveriesBeforeOneBeyondTimePosted) {
    SynapseGraph graph(1, {},
                       {synapse(0, 0, 0.5F, 10), synapse(0, 0, 0.5F, 11), synapse(0, 0, 0.5F, 1)});
    RecordingSink sink;
    expectThrows<TimeOverflow>([&] { graph.deliver(0, last_model_time - 10, sink); },
                               "KELM model time overflow");
    ASSERT_EQ(edgesOf(sink.events), Edges{0});
    EXPECT_EQ(sink.events[0].time, last_model_time);
    // A synapse that delivers nothing computes no time.
    graph.setEnabled(1, false);
    EXPECT_EQ(graph.deliver(0, last_model_time - 10, sink), 2U);
}

TEST(SynapseGraph, RefusesIndicesOutsideTheNetwork) {
    SynapseGraph graph(2, {}, {synapse(0, 1)});
    const SynapseGraph& fixed = graph;
    RecordingSink sink;
    for (const std::uint64_t id : {std::uint64_t{2}, ~std::uint64_t{0}}) {
        SCOPED_TRACE(id);
        const auto refuses = [](auto&& call, const char* text) {
            expectThrows<SynapseRoutingViolation>(call, text);
        };
        refuses([&] { graph.outgoing(id); }, source_text);
        refuses([&] { graph.deliver(id, 0, sink); }, source_text);
        refuses([&] { graph.incoming(id); }, destination_text);
        refuses([&] { graph.edge(id); }, edge_text);
        refuses([&] { graph.isRouted(id); }, edge_text);
        refuses([&] { graph.lastChange(id) = 1; }, edge_text);
        refuses([&] { fixed.lastChange(id); }, edge_text);
        refuses([&] { graph.setWeight(id, 0.5F); }, edge_text);
        refuses([&] { graph.setEnabled(id, false); }, edge_text);
    }
    EXPECT_TRUE(sink.events.empty());
    graph.lastChange(0) = 12;
    EXPECT_EQ(fixed.lastChange(0), 12);
    EXPECT_EQ(fixed.edge(0).last_change, 12);
}

TEST(SynapseGraph, RefusesTablesThatNoMemoryHolds) {
    // One entry more than 2^64 - 1 neurons is none at all.
    SynapseGraph graph(~std::uint64_t{0}, {}, {});
    EXPECT_THROW(graph.outgoing(0), std::length_error);
    EXPECT_THROW(graph.outOffsets(), std::length_error);
    Nodes targets;
    EXPECT_THROW(graph.takeReweightedTargets(targets), std::length_error);
}

TEST(SynapseGraph, SetsAWeightFromTheNextDeliveryOn) {
    SynapseGraph graph(2, {}, {synapse(0, 1, 0.5F)});
    const Blob before = graph.snapshot();
    for (const float bad : {-1.0F, infinite, undefined}) {
        expectThrows<InvalidSynapse>([&] { graph.setWeight(0, bad); }, weight_text);
        expectThrows<InvalidSynapse>([&] { graph.setWeight(1, bad); }, weight_text);
    }
    EXPECT_EQ(graph.snapshot(), before);
    RecordingSink sink;
    graph.deliver(0, 0, sink);
    graph.setWeight(0, 0.25F);
    graph.deliver(0, 0, sink);
    EXPECT_EQ(sink.events[0].value, 0.5);
    EXPECT_EQ(sink.events[1].value, 0.25);
    EXPECT_EQ(graph.lastChange(0), 0) << "that is the caller's to move";
}

TEST(SynapseGraph, BuildsItsTablesOnceAndOnlyWhenTheyAreRead) {
    SynapseGraph graph(2, {}, {synapse(0, 1), synapse(1, 0)});
    graph.dMin();
    graph.setWeight(0, 1.0F);
    const Blob blob = graph.snapshot();
    EXPECT_EQ(graph.rebuilds(), 0U);
    graph.incoming(1);
    EXPECT_EQ(graph.rebuilds(), 1U);
    graph.outgoing(0);
    graph.outOffsets();
    graph.outEdges();
    graph.setWeight(0, 2.0F);
    graph.setTransmissionEnabled(true, false);
    graph.incoming(0);
    EXPECT_EQ(graph.rebuilds(), 1U);
    EXPECT_FALSE(graph.restore(BlobView(blob).first(20)));
    graph.outgoing(0);
    EXPECT_EQ(graph.rebuilds(), 1U);
    ASSERT_TRUE(graph.restore(blob));
    EXPECT_EQ(graph.rebuilds(), 1U) << "the next read builds";
    graph.outEdges();
    EXPECT_EQ(graph.rebuilds(), 2U);
}

TEST(SynapseGraph, CopiesStandOnTheirOwn) {
    SynapseGraph graph(2, {}, {synapse(0, 1), synapse(1, 0)});
    SynapseGraph unread = graph;
    graph.outgoing(0);
    SynapseGraph copy = graph;
    EXPECT_EQ(copy.outgoing(1).front(), 1U);
    EXPECT_NE(copy.outEdges().data(), graph.outEdges().data());
    EXPECT_EQ(copy.rebuilds(), 1U);
    EXPECT_EQ(unread.rebuilds(), 0U);
    const Blob before = graph.snapshot();
    copy.setWeight(0, 3.0F);
    copy.lastChange(1) = 5;
    copy.setEnabled(1, false);
    EXPECT_EQ(graph.snapshot(), before);
}

TEST(SynapseGraph, TellsWhoseIncomingWeightsWereSet) {
    SynapseGraph graph(5, {},
                       {synapse(0, 4), synapse(1, 2), synapse(3, 4), synapse(2, 2), synapse(0, 1)});
    const Nodes everyone = {0, 1, 2, 3, 4};
    graph.setWeight(4, 0.1F);
    EXPECT_EQ(takeTargets(graph), everyone) << "nobody had asked before";
    EXPECT_EQ(takeTargets(graph), Nodes{});
    for (const EdgeId id : {2U, 1U, 0U, 3U, 2U}) graph.setWeight(id, 0.25F);
    EXPECT_THROW(graph.setWeight(4, -1.0F), InvalidSynapse);
    EXPECT_THROW(graph.setWeight(5, 1.0F), SynapseRoutingViolation);
    EXPECT_EQ(takeTargets(graph), (Nodes{2, 4}));
    graph.setWeight(1, 0.25F);  // the value that it has
    EXPECT_EQ(takeTargets(graph), Nodes{2}) << "noted anew after it was taken";
    EXPECT_EQ(takeTargets(graph), Nodes{});
    graph.lastChange(0) = 3;
    graph.setEnabled(0, false);
    EXPECT_EQ(takeTargets(graph), Nodes{});

    // Another graph has not been looked at, however it came by its weights.
    graph.setWeight(0, 0.5F);
    SynapseGraph copy = graph;
    EXPECT_EQ(takeTargets(copy), everyone);
    copy.setWeight(1, 0.5F);
    EXPECT_EQ(takeTargets(graph), Nodes{4}) << "its own record is untouched";
    graph = copy;
    EXPECT_EQ(takeTargets(graph), everyone);
    EXPECT_EQ(takeTargets(copy), Nodes{2});
    graph.setWeight(4, 0.5F);
    EXPECT_FALSE(graph.restore(Blob{}));
    EXPECT_EQ(takeTargets(graph), Nodes{1}) << "a refused blob changes nothing";
    graph.setWeight(4, 0.5F);
    ASSERT_TRUE(graph.restore(graph.snapshot()));
    EXPECT_EQ(takeTargets(graph), everyone);
    SynapseGraph moved = std::move(graph);
    EXPECT_EQ(takeTargets(moved), everyone);
}

TEST(SynapseGraph, TellsWhoseIncomingWeightsWereSetInAnyOrder) {
    std::mt19937_64 random(11);
    std::vector<Synapse> edges;
    for (int i = 0; i < 300; ++i) edges.push_back(synapse(random() % 40, random() % 40));
    SynapseGraph graph(40, {}, edges);
    takeTargets(graph);
    for (int round = 0; round < 500; ++round) {
        std::set<NodeId> expected;
        for (std::uint64_t i = random() % 100; i-- > 0;) {
            const EdgeId id = random() % 300;
            graph.setWeight(id, 1.0F);
            expected.insert(edges[id].target);
        }
        ASSERT_EQ(takeTargets(graph), Nodes(expected.begin(), expected.end())) << round;
    }
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
