#pragma once

#include <cstdint>
#include <optional>

namespace Lumenar::Core::Kelm {

/// Where everything of a resident run lies in its one device allocation: byte offsets of the
/// sections, in their order, each directly behind the one before and at a multiple of 8.
struct ResidentArena {
    std::uint64_t arrival_capacity = 0;  ///< arrivals that a bucket holds
    std::uint64_t fire_capacity = 0;     ///< spikes that the fire log holds

    std::uint64_t csr_targets = 0;     ///< (neurons, fan-out) u64
    std::uint64_t csr_values = 0;      ///< (neurons, fan-out) f64
    std::uint64_t device_states = 0;   ///< (neurons) Kernel::State
    std::uint64_t device_random = 0;   ///< (neurons) u64
    std::uint64_t pending_times = 0;   ///< (neurons) i64
    std::uint64_t pending_rates = 0;   ///< (neurons) f64
    std::uint64_t device_results = 0;  ///< (neurons) Kernel::WindowResult
    std::uint64_t fanout_counts = 0;   ///< (neurons) u64
    std::uint64_t fanout_offsets = 0;  ///< (neurons) u64
    std::uint64_t target_counts = 0;   ///< (neurons) u64
    std::uint64_t target_offsets = 0;  ///< (neurons) u64
    std::uint64_t target_cursors = 0;  ///< (neurons) u64
    std::uint64_t total_spikes = 0;    ///< u64
    std::uint64_t window_spikes = 0;   ///< u64
    std::uint64_t fire_log = 0;        ///< (fire_capacity) DeviceFire
    std::uint64_t fire_overflow = 0;   ///< u32 and 4 bytes of alignment
    std::uint64_t metrics = 0;         ///< (4) u64
    std::uint64_t window_events = 0;   ///< (arrival_capacity) Kernel::WindowEvent
    std::uint64_t first_bucket = 0;    ///< (arrival_capacity) ShardArrival
    std::uint64_t second_bucket = 0;   ///< (arrival_capacity) ShardArrival
    std::uint64_t bytes = 0;           ///< of the whole

    /// The layout for a network of `node_count` neurons with `fanout` synapses each, both at least
    /// 1. No value where its size leaves the range of 64 bits.
    static std::optional<ResidentArena> of(std::uint64_t node_count, std::uint64_t fanout);
};

}  // namespace Lumenar::Core::Kelm
