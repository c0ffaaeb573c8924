#pragma once

#include <cstdint>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/events/Event.h"

namespace Lumenar::Core::Kelm {

/// Takes events.
class IEventSink {
public:
    virtual ~IEventSink() = default;

    /// Takes a copy of `event` and returns the id given to it; the event's own id is ignored.
    virtual std::uint64_t post(const Event& event) = 0;
};

/// Holds the pending events and hands them out one window at a time.
///
/// The events of a window come in the order of EventLess. Ids are given in the order of posting,
/// each once in the life of a store. A store is used by one thread at a time.
class IEventStore : public IEventSink {
public:
    /// A text that names the implementation.
    virtual const char* name() = 0;

    /// Removes a pending event. False, without effect, for an id that is not pending.
    virtual bool cancel(std::uint64_t id) = 0;

    /// True when no event is pending.
    virtual bool isEmpty() = 0;

    /// Removes the events of the next window that holds any, if that window starts before `until`
    /// ns. Returns false, with `events` empty, where there is none; the window's bounds are then
    /// as they were.
    virtual bool take(ModelTime until, std::vector<Event>& events, ModelTime& window_start,
                      ModelTime& window_end) = 0;

    virtual Blob snapshot() = 0;

    /// Replaces the pending events by those of `blob`. After false the store may only be destroyed,
    /// unless the implementation promises more.
    [[nodiscard]] virtual bool restore(BlobView blob) = 0;
};

}  // namespace Lumenar::Core::Kelm
