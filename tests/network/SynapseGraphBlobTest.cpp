#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <vector>

#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {
namespace {

// Where the fields of a snapshot lie.
constexpr std::size_t node_count_at = 8;
constexpr std::size_t has_min_delay_at = 16;
constexpr std::size_t min_delay_at = 17;
constexpr std::size_t excitatory_on_at = 25;
constexpr std::size_t inhibitory_on_at = 26;
constexpr std::size_t edge_count_at = 27;
constexpr std::size_t edges_at = 35;
constexpr std::size_t edge_bytes = 63;
// ... and those of a synapse in its 63 bytes.
constexpr std::size_t source_at = 0;
constexpr std::size_t target_at = 8;
constexpr std::size_t weight_at = 16;
constexpr std::size_t delay_at = 20;
constexpr std::size_t inhibitory_at = 28;
constexpr std::size_t enabled_at = 49;
constexpr std::size_t routed_at = 62;

template <class Value>
void put(Blob& blob, std::size_t offset, Value value) {
    ASSERT_LE(offset + sizeof(Value), blob.size());
    std::memcpy(blob.data() + offset, &value, sizeof(Value));
}

/// Two neurons, two synapses, every field of the second with a value of its own.
SynapseGraph smallGraph() {
    Synapse first;
    first.source = 1;
    first.target = 0;
    first.weight = 0.5F;
    first.delay = 7;
    Synapse second;
    second.source = 0;
    second.target = 1;
    second.weight = 1.25F;
    second.delay = 0x0102030405060708;
    second.inhibitory = true;
    second.reserved_a = 0x11121314;
    second.reserved_b = -2;
    second.last_change = 0x2122232425262728;
    second.enabled = false;
    second.reserved_c = 0x31323334;
    second.reserved_d = 0x4142434445464748;
    return SynapseGraph(2, 6, {first, second});
}

// Written by hand.
const Blob small_blob = {
    'K',  'E',  'L',  'M',  'S',  'Y',  'N',  '1',      // tag
    2,    0,    0,    0,    0,    0,    0,    0,        // node count
    1,    6,    0,    0,    0,    0,    0,    0,    0,  // has min_delay, min_delay
    1,    1,                                            // excitatory on, inhibitory on
    2,    0,    0,    0,    0,    0,    0,    0,        // edge count
    1,    0,    0,    0,    0,    0,    0,    0,    0,
    0,    0,    0,    0,    0,    0,    0,        // source, target
    0,    0,    0,    0x3f,                       // weight
    7,    0,    0,    0,    0,    0,    0,    0,  // delay
    0,    0,    0,    0,    0,                    // inhibitory, reserved_a
    0,    0,    0,    0,    0,    0,    0,    0,    0,
    0,    0,    0,    0,    0,    0,    0,           // reserved_b, last_change
    1,    0xff, 0xff, 0xff, 0xff,                    // enabled, reserved_c
    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // reserved_d
    1,                                               // routed
    0,    0,    0,    0,    0,    0,    0,    0,    1,
    0,    0,    0,    0,    0,    0,    0,           // source, target
    0,    0,    0xa0, 0x3f,                          // weight
    8,    7,    6,    5,    4,    3,    2,    1,     // delay
    1,    0x14, 0x13, 0x12, 0x11,                    // inhibitory, reserved_a
    0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,  // reserved_b
    0x28, 0x27, 0x26, 0x25, 0x24, 0x23, 0x22, 0x21,  // last_change
    0,    0x34, 0x33, 0x32, 0x31,                    // enabled, reserved_c
    0x48, 0x47, 0x46, 0x45, 0x44, 0x43, 0x42, 0x41,  // reserved_d
    1,                                               // routed
};

TEST(SynapseGraphBlob, HoldsTheDocumentedBytes) {
    SynapseGraph graph = smallGraph();
    EXPECT_EQ(graph.snapshot(), small_blob);
    // Without a declared delay its place holds 0; the switches show.
    SynapseGraph plain(2, {}, {graph.edge(0), graph.edge(1)});
    plain.setTransmissionEnabled(true, false);
    plain.setWeight(0, 1.25F);
    plain.setEnabled(1, true);
    Blob expected = small_blob;
    put<std::uint8_t>(expected, has_min_delay_at, 0);
    put<std::int64_t>(expected, min_delay_at, 0);
    put<std::uint8_t>(expected, inhibitory_on_at, 0);
    put<std::uint32_t>(expected, edges_at + weight_at, 0x3fa00000);
    put<std::uint8_t>(expected, edges_at + edge_bytes + enabled_at, 1);
    EXPECT_EQ(plain.snapshot(), expected);
}

TEST(SynapseGraphBlob, ReplacesAllButTheNeuronCount) {
    SynapseGraph graph(2, {}, {Synapse{.source = 1, .target = 1, .delay = 3}});
    ASSERT_EQ(graph.incoming(1).size(), 1U);
    ASSERT_EQ(graph.dMin(), 3);
    Blob blob = small_blob;
    put<std::uint8_t>(blob, excitatory_on_at, 0);
    put<std::uint8_t>(blob, edges_at + routed_at, 0);
    ASSERT_TRUE(graph.restore(blob));
    EXPECT_EQ(graph.snapshot(), blob);
    EXPECT_EQ(graph.edgeCount(), 2U);
    EXPECT_EQ(graph.routedCount(), 1U);
    EXPECT_FALSE(graph.isRouted(0));
    EXPECT_FALSE(graph.transmissionEnabled(false));
    EXPECT_EQ(graph.dMin(), 6);
    EXPECT_TRUE(graph.outgoing(1).empty());
    EXPECT_EQ(graph.incoming(1).front(), 1U);

    // The delay behind a has-flag of 0 is not looked at, and a switch is on for all but 0.
    put<std::uint8_t>(blob, has_min_delay_at, 0);
    put<std::int64_t>(blob, min_delay_at, -9);
    put<std::uint8_t>(blob, excitatory_on_at, 7);
    put<std::uint8_t>(blob, inhibitory_on_at, 255);
    ASSERT_TRUE(graph.restore(blob));
    EXPECT_TRUE(graph.transmissionEnabled(false));
    EXPECT_TRUE(graph.transmissionEnabled(true));
    EXPECT_EQ(graph.dMin(), 0x0102030405060708) << "the smallest that is routed";
    put<std::int64_t>(blob, min_delay_at, 0);
    put<std::uint8_t>(blob, excitatory_on_at, 1);
    put<std::uint8_t>(blob, inhibitory_on_at, 1);
    EXPECT_EQ(graph.snapshot(), blob);
}

TEST(SynapseGraphBlob, IsRefusedCutShortOrWithMoreBehindIt) {
    SynapseGraph graph(2, {}, {Synapse{.source = 1, .target = 1, .delay = 3}});
    const Blob before = graph.snapshot();
    for (std::size_t length = 0; length < small_blob.size(); ++length) {
        ASSERT_FALSE(graph.restore(BlobView(small_blob).first(length))) << length;
        ASSERT_EQ(graph.snapshot(), before) << length;
    }
    Blob longer = small_blob;
    longer.push_back(0);
    EXPECT_FALSE(graph.restore(longer));
    EXPECT_EQ(graph.snapshot(), before);
    EXPECT_TRUE(graph.restore(small_blob));
}

TEST(SynapseGraphBlob, IsRefusedWithAnyFieldForged) {
    const auto inEdge = [](EdgeId id, std::size_t field) {
        return edges_at + id * edge_bytes + field;
    };
    struct Case {
        const char* fact;
        std::function<void(Blob&)> forge;
    };
    const std::vector<Case> cases = {
        {"another tag", [&](Blob& b) { b[7] = '2'; }},
        {"another neuron count", [&](Blob& b) { put<std::uint64_t>(b, node_count_at, 3); }},
        {"has min_delay 2", [&](Blob& b) { b[has_min_delay_at] = 2; }},
        {"min_delay 0", [&](Blob& b) { put<std::int64_t>(b, min_delay_at, 0); }},
        {"min_delay -1", [&](Blob& b) { put<std::int64_t>(b, min_delay_at, -1); }},
        {"min_delay above a delay", [&](Blob& b) { put<std::int64_t>(b, min_delay_at, 8); }},
        {"one edge less", [&](Blob& b) { put<std::uint64_t>(b, edge_count_at, 1); }},
        {"one edge more", [&](Blob& b) { put<std::uint64_t>(b, edge_count_at, 3); }},
        {"the largest count", [&](Blob& b) { put<std::uint64_t>(b, edge_count_at, ~0ULL); }},
        {"source outside", [&](Blob& b) { put<std::uint64_t>(b, inEdge(0, source_at), 2); }},
        {"target outside", [&](Blob& b) { put<std::uint64_t>(b, inEdge(1, target_at), ~0ULL); }},
        {"weight below 0", [&](Blob& b) { put(b, inEdge(0, weight_at), -0.5F); }},
        {"weight infinite",
         [&](Blob& b) { put(b, inEdge(1, weight_at), std::numeric_limits<float>::infinity()); }},
        {"weight not a number",
         [&](Blob& b) { put(b, inEdge(1, weight_at), std::numeric_limits<float>::quiet_NaN()); }},
        {"delay 0", [&](Blob& b) { put<std::int64_t>(b, inEdge(0, delay_at), 0); }},
        {"delay below min_delay", [&](Blob& b) { put<std::int64_t>(b, inEdge(0, delay_at), 5); }},
        {"inhibitory 2", [&](Blob& b) { b[inEdge(1, inhibitory_at)] = 2; }},
        {"enabled 2", [&](Blob& b) { b[inEdge(0, enabled_at)] = 2; }},
        {"routed 2", [&](Blob& b) { b[inEdge(1, routed_at)] = 2; }},
        {"routed 255", [&](Blob& b) { b[inEdge(0, routed_at)] = 255; }},
    };
    // With a delay of 3, which the blob's own declared delay would refuse.
    SynapseGraph graph(2, {}, {Synapse{.source = 1, .target = 1, .delay = 3}});
    graph.outgoing(0);
    const Blob before = graph.snapshot();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fact);
        Blob forged = small_blob;
        c.forge(forged);
        EXPECT_FALSE(graph.restore(forged));
        EXPECT_EQ(graph.snapshot(), before);
        EXPECT_EQ(graph.dMin(), 3);
        EXPECT_EQ(graph.outgoing(1).size(), 1U);
        EXPECT_EQ(graph.rebuilds(), 1U);
    }
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
