#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "kelm/core/Gap.h"
#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// What an event is. A `candidate` wakes its neuron for the pending candidate; every other kind is
/// an input. Value 2 is not assigned.
enum class EventKind : std::uint8_t {
    delivery = 0,      ///< a spike at the end of a synapse; value: the signed weight
    candidate = 1,     ///< a candidate falls due; value: the bound it was drawn under
    input = 3,         ///< an injection on an input channel; value: the input times the gain
    perturbation = 4,  ///< a direct action on a neuron; value: the signed strength
    observation = 5,   ///< a moment at which an observer sees the network; never in a store
};

/// An input to a neuron, or a candidate, at a time. Goes into blobs byte for byte.
struct Event {
    ModelTime time = 0;    ///< ns
    std::uint64_t id = 0;  ///< given by the store in the order of posting
    EventKind kind = EventKind::delivery;
    Gap<7> gap = {};           ///< always zero: equal events have equal bytes
    std::uint64_t source = 0;  ///< a NodeId, or a channel's index plus 1000000 for an input
    NodeId target = 0;         ///< the neuron that it reaches
    EdgeId edge = 0;           ///< the synapse of a delivery, else 0
    double value = 0.0;        ///< by kind
    std::uint64_t cause = 0;   ///< given by the caller; 0 for a delivery and a candidate
};
static_assert(std::is_trivially_copyable_v<Event> && std::is_standard_layout_v<Event>);
static_assert(sizeof(Event) == 64);
static_assert(offsetof(Event, id) == 8);
static_assert(offsetof(Event, kind) == 16);
static_assert(offsetof(Event, gap) == 17);
static_assert(offsetof(Event, source) == 24);
static_assert(offsetof(Event, target) == 32);
static_assert(offsetof(Event, edge) == 40);
static_assert(offsetof(Event, value) == 48);
static_assert(offsetof(Event, cause) == 56);

/// The order of events everywhere: time, and at equal times the order of posting.
struct EventLess {
    bool operator()(const Event& a, const Event& b) const {
        return a.time != b.time ? a.time < b.time : a.id < b.id;
    }
};

}  // namespace Lumenar::Core::Kelm
