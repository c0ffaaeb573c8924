#include <gtest/gtest.h>

#include <limits>

#include "kelm/network/SynapseGraph.h"
#include "tests/support/ForgedBlobs.h"

namespace Lumenar::Core::Kelm {
namespace {

using namespace Testing;

/// A blob of two neurons and two synapses: a header of 35 bytes, then 63 bytes per synapse.
const Blob sound = blobOf(BlobTag("KELMSYN1"), 2UL,  // neurons
                          true, 6L,                  // has min_delay, min_delay
                          true, true, 2UL,           // excitatory on, inhibitory on, synapses
                          1UL, 0UL, 0.5F, 7L,        // source, target, weight, delay
                          false, 0U, 0L, 0L,      // inhibitory, reserved_a, reserved_b, last_change
                          true, ~0U, ~0UL, true,  // enabled, reserved_c, reserved_d, routed
                          0UL, 1UL, 1.25F, 0x0102030405060708, true, 0x11121314, -2L,
                          0x2122232425262728, false, 0x31323334, 0x4142434445464748, true);
constexpr std::size_t first = 35;
constexpr std::size_t second = first + 63;

TEST(SynapseGraphBlob, HoldsTheDocumentedBytes) {
    const Synapse plain{.source = 1, .target = 0, .weight = 0.5F, .delay = 7};
    Synapse full{.source = 0, .target = 1, .weight = 1.25F, .delay = 0x0102030405060708};
    full.inhibitory = true;
    full.reserved_a = 0x11121314;
    full.reserved_b = -2;
    full.last_change = 0x2122232425262728;
    full.enabled = false;
    full.reserved_c = 0x31323334;
    full.reserved_d = 0x4142434445464748;
    EXPECT_EQ(SynapseGraph(2, 6, {plain, full}).snapshot(), sound);
}

TEST(SynapseGraphBlob, ReplacesAllButTheNeuronCount) {
    SynapseGraph graph(2, {}, {Synapse{.source = 1, .target = 1, .delay = 3}});
    ASSERT_EQ(graph.incoming(1).size(), 1U);
    ASSERT_EQ(graph.dMin(), 3);
    // Every value but 0 switches a class on.
    Blob blob = withValueAt(withValueAt(sound, 25, false), 26, '\7');
    blob = withValueAt(blob, first + 62, false);
    ASSERT_TRUE(graph.restore(blob));
    EXPECT_EQ(graph.snapshot(), withValueAt(blob, 26, true));
    EXPECT_EQ(graph.routedCount(), 1U);
    EXPECT_FALSE(graph.isRouted(0));
    EXPECT_FALSE(graph.transmissionEnabled(false));
    EXPECT_TRUE(graph.transmissionEnabled(true));
    EXPECT_EQ(graph.dMin(), 6);
    EXPECT_TRUE(graph.outgoing(1).empty());
    EXPECT_EQ(graph.incoming(1).front(), 1U);
    // A has-flag of 0 makes the delay after it meaningless.
    blob = withValueAt(withValueAt(blob, 16, false), 17, -9L);
    ASSERT_TRUE(graph.restore(withValueAt(blob, 25, '\2')));
    EXPECT_TRUE(graph.transmissionEnabled(false));
    EXPECT_EQ(graph.dMin(), 0x0102030405060708) << "the smallest routed delay";
}

TEST(SynapseGraphBlob, IsRestoredWholeOrLeavesTheGraphUnchanged) {
    // Its delay of 3 is below the declared delay of the blob.
    SynapseGraph graph(2, {}, {Synapse{.source = 1, .target = 1, .delay = 3}});
    graph.outgoing(0);
    SynapseGraph untouched = graph;
    expectTakesAllOrNothing(
        graph, sound,
        {{"another neuron count", withValueAt(sound, 8, 3UL)},
         {"has min_delay 2", withValueAt(sound, 16, '\2')},
         {"min_delay 0", withValueAt(sound, 17, 0L)},
         {"min_delay -1", withValueAt(sound, 17, -1L)},
         {"min_delay above a delay", withValueAt(sound, 17, 8L)},
         {"one edge less", withValueAt(sound, 27, 1UL)},
         {"one edge more", withValueAt(sound, 27, 3UL)},
         {"source outside", withValueAt(sound, first, 2UL)},
         {"target outside", withValueAt(sound, second + 8, ~0UL)},
         {"weight below 0", withValueAt(sound, first + 16, -0.5F)},
         {"weight infinite",
          withValueAt(sound, second + 16, std::numeric_limits<float>::infinity())},
         {"weight not a number",
          withValueAt(sound, second + 16, std::numeric_limits<float>::quiet_NaN())},
         {"delay 0", withValueAt(sound, first + 20, 0L)},
         {"delay below min_delay", withValueAt(sound, first + 20, 5L)},
         {"inhibitory 2", withValueAt(sound, second + 28, '\2')},
         {"enabled 2", withValueAt(sound, first + 49, '\2')},
         {"routed 2", withValueAt(sound, second + 62, '\2')}});
    EXPECT_FALSE(untouched.restore(BlobView(sound).first(90)));
    EXPECT_EQ(untouched.dMin(), 3);
    EXPECT_EQ(untouched.outgoing(1).size(), 1U);
    EXPECT_EQ(untouched.rebuilds(), 1U);
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
