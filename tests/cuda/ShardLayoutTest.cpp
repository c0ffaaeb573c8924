#include "kelm/cuda/ShardLayout.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "kelm/core/Failures.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

TEST(ShardLayout, GivesTheFirstShardsOneNeuronMore) {
    EXPECT_EQ(shardBegin(7, 3, 1), 3);
    EXPECT_EQ(shardBegin(7, 3, 2), 5);
    EXPECT_EQ(shardBegin(100, 32, 4), 16);
    EXPECT_EQ(shardBegin(100, 32, 5), 19);
}

TEST(ShardLayout, HasRangesThatTouchAndAgreeWithItsInverse) {
    for (const std::uint64_t node_count :
         {1ULL, 2ULL, 7ULL, 64ULL, 100ULL, 100'003ULL, 0x8000000000000000ULL, ~0ULL}) {
        for (const std::uint32_t shards : {1U, 2U, 7U, 32U, 63U, 64U, 0xffffffffU}) {
            if (shards > node_count) continue;
            SCOPED_TRACE(testing::Message() << node_count << " over " << shards);
            EXPECT_EQ(shardBegin(node_count, shards, 0), 0);
            EXPECT_EQ(shardEnd(node_count, shards, shards - 1), node_count);
            for (std::uint32_t shard = 0; shard < std::min(shards, 70U); ++shard) {
                const NodeId begin = shardBegin(node_count, shards, shard);
                const NodeId last = shardEnd(node_count, shards, shard) - 1;
                EXPECT_EQ(shardOf(node_count, shards, begin), shard);
                EXPECT_EQ(shardOf(node_count, shards, last), shard);
                if (last != node_count - 1) {
                    EXPECT_EQ(shardOf(node_count, shards, last + 1), shard + 1);
                }
            }
        }
    }
}

TEST(ShardLayout, RefusesCountsAndNeuronsOutsideTheNetwork) {
    const char* const count = "CUDA shard count must be in [1, node count]";
    expectRefusals<InvalidShardLayout>(
        {{count, [] { shardBegin(0, 0, 0); }},
         {count, [] { shardBegin(0, 1, 0); }},
         {count, [] { shardEnd(4, 0, 0); }},
         {count, [] { shardOf(4, 5, 9); }},
         {"CUDA shard node is outside the network", [] { shardOf(4, 2, 4); }}});
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
