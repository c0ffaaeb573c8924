#pragma once

#include <cstdint>

#include "kelm/core/PortableMath.h"
#include "kelm/events/Event.h"

namespace Lumenar::Core::Kelm {

/// A delivery in half a cache line. Its fields are those of an Event, for a delivery whose ids fit
/// 32 bits, whose cause is 0 and whose value is exact in single precision: nearly all of them.
struct PackedDelivery {
    ModelTime time = 0;
    std::uint64_t id = 0;
    std::uint32_t source = 0;
    std::uint32_t target = 0;
    std::uint32_t edge = 0;
    float value = 0.0F;

    /// Whether packing and unpacking an event gives the same bits.
    static bool holds(const Event& event) {
        constexpr std::uint64_t end = std::uint64_t{1} << 32;
        return event.kind == EventKind::delivery && event.cause == 0 &&
               (event.source | event.target | event.edge) < end &&
               Kernel::bitsOf(static_cast<double>(static_cast<float>(event.value))) ==
                   Kernel::bitsOf(event.value);
    }
    static PackedDelivery packed(const Event& event) {
        return {event.time,
                event.id,
                static_cast<std::uint32_t>(event.source),
                static_cast<std::uint32_t>(event.target),
                static_cast<std::uint32_t>(event.edge),
                static_cast<float>(event.value)};
    }
    Event unpacked() const {
        Event event;
        event.time = time;
        event.id = id;
        event.source = source;
        event.target = target;
        event.edge = edge;
        event.value = static_cast<double>(value);
        return event;
    }
};
static_assert(sizeof(PackedDelivery) == 32);

}  // namespace Lumenar::Core::Kelm
