#include "kelm/cuda/ShardLayout.h"

#include <gtest/gtest.h>

#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

/// The sizes of the shards, found by asking for the shard of each neuron.
std::vector<std::uint64_t> sizesByNeuron(std::uint64_t node_count, std::uint32_t shard_count) {
    std::vector<std::uint64_t> sizes(shard_count);
    std::uint32_t last = 0;
    for (NodeId node = 0; node < node_count; ++node) {
        const std::uint32_t shard = shardOf(node_count, shard_count, node);
        EXPECT_GE(shard, last);
        EXPECT_LT(shard, shard_count);
        if (shard >= shard_count) return sizes;
        ++sizes[shard];
        last = shard;
    }
    return sizes;
}

TEST(ShardLayout, GivesTheFirstShardsOneNeuronMore) {
    struct Case {
        std::uint64_t node_count;
        std::uint32_t shard_count;
        std::vector<std::uint64_t> sizes;
    };
    for (const Case& c : {Case{7, 2, {4, 3}}, Case{7, 3, {3, 2, 2}}, Case{5, 5, {1, 1, 1, 1, 1}},
                          Case{1, 1, {1}}, Case{6, 3, {2, 2, 2}}}) {
        SCOPED_TRACE(testing::Message() << c.node_count << " over " << c.shard_count);
        EXPECT_EQ(sizesByNeuron(c.node_count, c.shard_count), c.sizes);
    }
    std::vector<std::uint64_t> hundred(32, 3);
    for (std::size_t shard = 0; shard < 4; ++shard) hundred[shard] = 4;
    EXPECT_EQ(sizesByNeuron(100, 32), hundred);
}

TEST(ShardLayout, HasRangesThatTouchAndAgreeWithItsInverse) {
    for (std::uint64_t node_count = 1; node_count <= 70; ++node_count) {
        for (std::uint32_t shard_count = 1; shard_count <= node_count; ++shard_count) {
            SCOPED_TRACE(testing::Message() << node_count << " over " << shard_count);
            const std::vector<std::uint64_t> sizes = sizesByNeuron(node_count, shard_count);
            NodeId begin = 0;
            for (std::uint32_t shard = 0; shard < shard_count; ++shard) {
                ASSERT_EQ(shardBegin(node_count, shard_count, shard), begin);
                begin += sizes[shard];
                ASSERT_EQ(shardEnd(node_count, shard_count, shard), begin);
                ASSERT_GT(sizes[shard], 0);
            }
            ASSERT_EQ(begin, node_count);
        }
    }
}

TEST(ShardLayout, HoldsAtTheBordersOfNetworksThatNoTableCouldHold) {
    for (const std::uint64_t node_count : {0x8000000000000000, 0xffffffffffffffff}) {
        for (const std::uint32_t shard_count : {1U, 7U, 32U, 0xffffffffU}) {
            SCOPED_TRACE(testing::Message() << node_count << " over " << shard_count);
            EXPECT_EQ(shardBegin(node_count, shard_count, 0), 0);
            EXPECT_EQ(shardEnd(node_count, shard_count, shard_count - 1), node_count);
            for (const std::uint32_t shard : {0U, 1U, 5U, 6U, shard_count - 1}) {
                if (shard >= shard_count) continue;
                const NodeId begin = shardBegin(node_count, shard_count, shard);
                const NodeId end = shardEnd(node_count, shard_count, shard);
                EXPECT_EQ(shardOf(node_count, shard_count, begin), shard);
                EXPECT_EQ(shardOf(node_count, shard_count, end - 1), shard);
                if (shard != 0) {
                    EXPECT_EQ(shardOf(node_count, shard_count, begin - 1), shard - 1);
                }
            }
        }
    }
}

TEST(ShardLayout, RefusesCountsAndNeuronsOutsideTheNetwork) {
    const char* const count = "CUDA shard count must be in [1, node count]";
    for (const auto& [node_count, shard_count] :
         std::vector<std::pair<std::uint64_t, std::uint32_t>>{{0, 0}, {0, 1}, {4, 0}, {4, 5}}) {
        SCOPED_TRACE(testing::Message() << node_count << " over " << shard_count);
        const std::uint64_t nodes = node_count;
        const std::uint32_t shards = shard_count;
        expectThrows<InvalidShardLayout>([&] { shardBegin(nodes, shards, 0); }, count);
        expectThrows<InvalidShardLayout>([&] { shardEnd(nodes, shards, 0); }, count);
        // The count is refused before the neuron.
        expectThrows<InvalidShardLayout>([&] { shardOf(nodes, shards, 9); }, count);
    }
    expectThrows<InvalidShardLayout>([] { shardOf(4, 2, 4); },
                                     "CUDA shard node is outside the network");
}

TEST(ShardLayout, PassesItsOwnCheck) { EXPECT_NO_THROW(checkShardLayouts()); }

}  // namespace

}  // namespace Lumenar::Core::Kelm
