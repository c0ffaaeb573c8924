#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// The event id of a slot without an event.
inline constexpr std::uint64_t no_event = 0xffffffffffffffff;

/// A neuron's one scheduled candidate. Goes into blobs byte for byte.
struct CandidateSlot {
    ModelTime time = no_time;           ///< ns, or no_time
    double rate = 0.0;                  ///< spikes/s; the hazard bound it was drawn under
    std::uint64_t event_id = no_event;  ///< its event in the store, or no_event
};
static_assert(std::is_trivially_copyable_v<CandidateSlot> &&
              std::is_standard_layout_v<CandidateSlot>);
static_assert(sizeof(CandidateSlot) == 24);
static_assert(offsetof(CandidateSlot, rate) == 8);
static_assert(offsetof(CandidateSlot, event_id) == 16);

}  // namespace Lumenar::Core::Kelm
