#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kelm/core/Digest.h"
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

/// The spikes that were taken out of a spike log.
struct TakenSpikes {
    std::uint64_t count = 0;
    std::uint64_t digest = digest_start;  ///< of all of them, in the order in which they were taken
};

}  // namespace Lumenar::Core::Kelm
