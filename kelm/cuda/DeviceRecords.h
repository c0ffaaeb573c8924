#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kelm/core/HostDevice.h"
#include "kelm/core/ModelTime.h"

// Records that exist only on the device. They are private to the device unit and its tests.

namespace Lumenar::Core::Kelm {

/// One delivery on its way to a target, in a shard queue or a resident bucket.
struct ShardArrival {
    std::uint64_t sequence = 0;  ///< place in the order of emission, unique in a queue or a run
    std::uint64_t source = 0;    ///< neuron that spiked
    std::uint64_t target = 0;    ///< neuron that receives
    std::uint64_t edge = 0;      ///< place in the fan-out table
    ModelTime time = 0;          ///< ns of arrival
    double value = 0.0;          ///< signed weight
};
static_assert(std::is_trivially_copyable_v<ShardArrival> &&
              std::is_standard_layout_v<ShardArrival>);
static_assert(sizeof(ShardArrival) == 48);
static_assert(offsetof(ShardArrival, source) == 8);
static_assert(offsetof(ShardArrival, target) == 16);
static_assert(offsetof(ShardArrival, edge) == 24);
static_assert(offsetof(ShardArrival, time) == 32);
static_assert(offsetof(ShardArrival, value) == 40);

/// The canonical order of arrivals: target, time, sequence. Total, because sequences are unique.
struct ShardArrivalLess {
    KELM_HD bool operator()(const ShardArrival& a, const ShardArrival& b) const {
        if (a.target != b.target) return a.target < b.target;
        if (a.time != b.time) return a.time < b.time;
        return a.sequence < b.sequence;
    }
};

/// One spike in a device's log, laid out as a SpikeRecord.
struct DeviceFire {
    ModelTime time = 0;
    std::uint64_t neuron = 0;
};
static_assert(std::is_trivially_copyable_v<DeviceFire> && std::is_standard_layout_v<DeviceFire>);
static_assert(sizeof(DeviceFire) == 16);
static_assert(offsetof(DeviceFire, neuron) == 8);

/// The canonical order of a spike log: time, then neuron.
struct DeviceFireLess {
    KELM_HD bool operator()(const DeviceFire& a, const DeviceFire& b) const {
        return a.time != b.time ? a.time < b.time : a.neuron < b.neuron;
    }
};

/// What can end a resident run without a result. Each flag is 0 or 1.
struct ResidentFlags {
    std::uint32_t fire_overflow = 0;  ///< the fire log was too small
    std::uint32_t model_fault = 0;    ///< a Kernel::WindowResult had a flag set
};
static_assert(sizeof(ResidentFlags) == 8);

/// What a resident run counts over all neurons and windows. Sums of integers: the order of the
/// threads does not change them.
struct ResidentMetrics {
    std::uint64_t updates = 0;
    std::uint64_t candidates = 0;
    std::uint64_t accepted = 0;
    std::uint64_t due_candidates = 0;  ///< candidates that fell due in a window
};
static_assert(sizeof(ResidentMetrics) == 32);

}  // namespace Lumenar::Core::Kelm
