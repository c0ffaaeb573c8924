#pragma once

#include <cstdint>
#include <vector>

#include "kelm/events/BucketCalendar.h"
#include "kelm/events/IEventStore.h"
#include "kelm/events/PendingIds.h"

namespace Lumenar::Core::Kelm {

/// The calendar store: events in buckets one d_min wide, each of which can be cancelled.
///
/// The ids of pending events are kept in a set. A cancelled event stays in its bucket as a dead
/// entry until the bucket is taken, or until a post finds more dead entries than pending events,
/// when all dead entries are removed. Memory follows the number of pending events.
///
/// A store that was moved from may only be destroyed or assigned to.
class BucketEventStore final : public IEventStore {
public:
    /// `d_min`: bucket width in ns. `bucket_count`: how many buckets ahead an event counts in
    /// overflowPosts(); part of the stored form.
    /// Throws InvalidLookahead for a d_min below 1, then for fewer than four buckets.
    BucketEventStore(ModelTime d_min, std::uint64_t bucket_count)
        : calendar_(d_min, bucket_count) {}

    // A copy's lists would lie in the pools of this one.
    BucketEventStore(const BucketEventStore&) = delete;
    BucketEventStore& operator=(const BucketEventStore&) = delete;
    BucketEventStore(BucketEventStore&&) = default;
    BucketEventStore& operator=(BucketEventStore&&) = default;
    ~BucketEventStore() override = default;

    const char* name() override { return "bucket"; }

    /// Takes a copy of the event and gives it the next id.
    /// Throws LookaheadViolation for a time in a window already handed out, or before 0.
    std::uint64_t post(const Event& event) override;

    bool cancel(std::uint64_t id) override;

    bool isEmpty() override { return pending_count_ == 0; }

    /// Throws TimeOverflow where the window's end lies beyond the range of ModelTime; the window
    /// is then still in the store.
    bool take(ModelTime until, std::vector<Event>& events, ModelTime& window_start,
              ModelTime& window_end) override;

    /// The pending events in the format "KELMBKT1" (BucketCalendar::snapshotOf).
    Blob snapshot() override;

    /// False for a blob that is cut short, forged, of another format, or of a store with another
    /// d_min or bucket count; the store is then as it was. Bytes behind the last event are not
    /// looked at.
    [[nodiscard]] bool restore(BlobView blob) override;

    /// How many events were posted `bucket_count` buckets ahead or more.
    std::uint64_t overflowPosts() const { return calendar_.overflowPosts(); }

private:
    /// Fewer dead entries are not worth a walk over all events.
    static constexpr std::uint64_t min_dead = 1024;

    std::uint64_t deadCount() const { return calendar_.size() - pending_count_; }
    void removeDead() {
        calendar_.removeIf([this](std::uint64_t id) { return !pending_.contains(id); });
    }

    bool holdsPending(const EventList& list) const;

    BucketCalendar calendar_;
    PendingIds pending_;
    std::uint64_t pending_count_ = 0;
};

}  // namespace Lumenar::Core::Kelm
