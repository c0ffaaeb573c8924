#pragma once

#include <cstdint>

#include "kelm/core/HostDevice.h"
#include "kelm/core/ModelTime.h"

// A shard is a contiguous range of neurons. The layout needs no table: the first
// node_count % shard_count shards have one neuron more than the others. These are the formulas,
// also for device threads. They do not check their arguments.

namespace Lumenar::Core::Kelm::Kernel {

KELM_HD constexpr NodeId shardBegin(std::uint64_t node_count, std::uint32_t shard_count,
                                    std::uint32_t shard) {
    const std::uint64_t base = node_count / shard_count;
    const std::uint64_t rem = node_count % shard_count;
    return shard * base + (rem < shard ? rem : shard);
}
KELM_HD constexpr NodeId shardEnd(std::uint64_t node_count, std::uint32_t shard_count,
                                  std::uint32_t shard) {
    const std::uint64_t base = node_count / shard_count;
    const std::uint64_t rem = node_count % shard_count;
    return shardBegin(node_count, shard_count, shard) + base + (shard < rem ? 1 : 0);
}
KELM_HD constexpr std::uint32_t shardOf(std::uint64_t node_count, std::uint32_t shard_count,
                                        NodeId node) {
    const std::uint64_t base = node_count / shard_count;
    const std::uint64_t rem = node_count % shard_count;
    const std::uint64_t boundary = (base + 1) * rem;
    return static_cast<std::uint32_t>(node < boundary ? node / (base + 1)
                                                      : (node - boundary) / base + rem);
}

}  // namespace Lumenar::Core::Kelm::Kernel
