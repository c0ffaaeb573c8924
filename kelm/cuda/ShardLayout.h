#pragma once

#include <cstdint>

#include "kelm/core/ModelTime.h"
#include "kelm/core/ShardRanges.h"

// The layout of shards, with arguments checked.

namespace Lumenar::Core::Kelm {

/// The first neuron of a shard. `shard` must be below shard_count.
/// Throws InvalidShardLayout unless 1 <= shard_count <= node_count.
NodeId shardBegin(std::uint64_t node_count, std::uint32_t shard_count, std::uint32_t shard);

/// The neuron behind the last one of a shard. `shard` must be below shard_count.
/// Throws InvalidShardLayout unless 1 <= shard_count <= node_count.
NodeId shardEnd(std::uint64_t node_count, std::uint32_t shard_count, std::uint32_t shard);

/// The shard that holds a neuron.
/// Throws InvalidShardLayout unless 1 <= shard_count <= node_count; then, for a neuron outside the
/// network.
std::uint32_t shardOf(std::uint64_t node_count, std::uint32_t shard_count, NodeId node);

/// Checks that the three functions agree, for a table of layouts. Needs no device.
/// Throws std::runtime_error at the first disagreement.
void checkShardLayouts();

}  // namespace Lumenar::Core::Kelm
