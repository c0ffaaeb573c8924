#include "kelm/cuda/ShardLayout.h"

#include <gtest/gtest.h>

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
    EXPECT_NO_THROW(checkShardLayouts());
    for (const std::uint64_t node_count : {0x8000000000000000ULL, ~0ULL}) {
        for (const std::uint32_t shards : {1U, 7U, 0xffffffffU}) {
            SCOPED_TRACE(testing::Message() << node_count << " over " << shards);
            for (const std::uint32_t shard : {0U, shards / 2, shards - 1}) {
                const NodeId end = shardEnd(node_count, shards, shard);
                EXPECT_EQ(shardOf(node_count, shards, shardBegin(node_count, shards, shard)),
                          shard);
                EXPECT_EQ(shardOf(node_count, shards, end - 1), shard);
                EXPECT_EQ(end == node_count, shard == shards - 1);
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
