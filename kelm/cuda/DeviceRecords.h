#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kelm/core/HostDevice.h"
#include "kelm/core/ModelTime.h"

// Records that live on the device alone, private to the device unit and its tests.

namespace Lumenar::Core::Kelm {

/// One delivery on its way to a target, in a shard queue or a resident bucket.
struct ShardArrival {
    std::uint64_t sequence = 0;  ///< place in the order of emission; unique in a queue or a run
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

}  // namespace Lumenar::Core::Kelm
