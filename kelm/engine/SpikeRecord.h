#pragma once

#include <cstddef>
#include <type_traits>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// One entry of the spike log. Goes into blobs and digests byte for byte.
struct SpikeRecord {
    ModelTime time = 0;  ///< ns
    NodeId neuron = 0;

    friend bool operator==(const SpikeRecord&, const SpikeRecord&) = default;
};
static_assert(std::is_trivially_copyable_v<SpikeRecord> && std::is_standard_layout_v<SpikeRecord>);
static_assert(sizeof(SpikeRecord) == 16);
static_assert(offsetof(SpikeRecord, neuron) == 8);

/// The canonical order of a spike log: time, then neuron. It is total, because a neuron does not
/// fire twice at one time.
struct SpikeRecordLess {
    bool operator()(const SpikeRecord& a, const SpikeRecord& b) const {
        return a.time != b.time ? a.time < b.time : a.neuron < b.neuron;
    }
};

}  // namespace Lumenar::Core::Kelm
