#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/Failures.h"
#include "kelm/core/ModelTime.h"
#include "kelm/events/DeliveryRun.h"
#include "kelm/events/Event.h"
#include "kelm/events/EventWheel.h"
#include "kelm/events/PackedDelivery.h"
#include "kelm/events/PendingIds.h"

namespace Lumenar::Core::Kelm {

/// A calendar of events in buckets one d_min wide (R. Brown, "Calendar queues: a fast O(1) priority
/// queue implementation for the simulation event set problem", Communications of the ACM 31, 1988).
/// It gives ids, hands out one bucket at a time, and writes and reads the stored form. It cannot
/// cancel an event: BucketEventStore adds that.
///
/// The cursor is the next bucket to be handed out. Before the first advance the calendar is not
/// started: events may be posted at any time, and the first advance puts the cursor to the earliest
/// one. A calendar that was moved from may only be destroyed or assigned to.
class BucketCalendar {
public:
    static constexpr std::int64_t no_bucket = std::numeric_limits<std::int64_t>::max();

    /// `d_min`: bucket width in ns. `bucket_count`: part of the stored form; an event that is
    /// posted as many buckets ahead or more counts in overflowPosts() and is kept like any other.
    /// Throws InvalidLookahead for a d_min below 1, then for fewer than four buckets.
    BucketCalendar(ModelTime d_min, std::uint64_t bucket_count);

    ModelTime bucketWidth() const { return d_min_; }
    std::uint64_t bucketCount() const { return bucket_count_; }
    std::int64_t bucketOf(ModelTime time) const { return wheel_.bucketOf(time); }
    /// Number of events. A run counts as its deliveries, here and in overflowPosts().
    std::uint64_t size() const { return wheel_.size(); }
    bool isStarted() const { return started_; }
    /// The first time in ns at which an event may be posted.
    ModelTime openFrom() const {
        // Behind the last bucket there is none.
        return static_cast<ModelTime>(
            std::min(open_from_, static_cast<std::uint64_t>(last_model_time)));
    }
    /// The first bucket that holds an event, or no_bucket.
    std::int64_t firstBucket() const { return wheel_.firstBucket(no_bucket); }
    std::uint64_t overflowPosts() const { return overflow_posts_; }

    /// The id of the next event.
    std::uint64_t nextId() const { return next_id_; }
    /// Gives an id to an event that is kept elsewhere.
    std::uint64_t issueId() { return next_id_++; }
    /// Ids go on from `id`: other ids were given elsewhere.
    void setNextId(std::uint64_t id) { next_id_ = id; }

    /// Whether a time, which must not be negative, lies in a window already handed out.
    bool isPast(ModelTime time) const { return static_cast<std::uint64_t>(time) < open_from_; }

    /// Throws LookaheadViolation for a time in a window already handed out, or before 0.
    void requireOpen(ModelTime time) const {
        if (time < 0 || isPast(time)) throw LookaheadViolation(LookaheadViolation::processed);
    }

    /// Adds a copy of a record under the next id, and returns the id.
    /// Throws as requireOpen does.
    std::uint64_t post(const Event& event) { return postRecord(event); }
    std::uint64_t postPacked(const PackedDelivery& delivery) { return postRecord(delivery); }
    /// Adds a run under as many ids as it has deliveries, and returns the first id.
    /// Throws as requireOpen does.
    std::uint64_t postRun(const DeliveryRun& run) { return postRecord(run, run.count); }

    /// Adds a record that has its id from another calendar of the same cursor.
    template <class Record>
    void adopt(const Record& record) {
        wheel_.append(wheel_.listOf(bucketOf(record.time)), record) = record.id;
    }

    /// Moves the cursor to the first bucket that holds an event or is `other`, but not beyond the
    /// first one that starts at `until` ns or later. Returns whether it found one before that.
    /// `other` is no_bucket if there is none; the calendar must then hold an event.
    /// May throw std::bad_alloc; the events are then as they were.
    bool advance(ModelTime until, std::int64_t other);

    // Of the cursor's bucket, after an advance that has returned true.
    const EventList& current() const { return wheel_.current(); }
    ModelTime windowStart() const { return cursor_ * d_min_; }
    std::int64_t cursor() const { return cursor_; }
    /// Throws TimeOverflow where the end lies beyond the range of ModelTime.
    ModelTime windowEnd() const { return addTime(windowStart(), d_min_); }
    bool windowEndsInRange() const { return windowStart() <= last_model_time - d_min_; }
    /// Takes the bucket's events out and moves the cursor behind it. The storage of the events
    /// stays in use until release.
    EventList take() noexcept;
    void release(EventList& list) noexcept { wheel_.release(list); }

    /// Calls visit(record) for each single event, with an Event or a PackedDelivery.
    template <class Visit>
    void forEachSingle(Visit visit) const {
        wheel_.forEachSingle(visit);
    }
    /// Calls visit(run) for each run.
    template <class Visit>
    void forEachRun(Visit visit) const {
        wheel_.forEachRun(visit);
    }
    /// As EventWheel::expandRuns.
    template <class VisitDeliveries>
    bool expandRuns(VisitDeliveries visitDeliveries) {
        return wheel_.expandRuns(visitDeliveries);
    }
    /// Removes each event for which test(id) holds, from a calendar without runs. May throw
    /// std::bad_alloc, with nothing changed.
    template <class Test>
    void removeIf(Test test) {
        recent_ = {};
        wheel_.removeIf(test);
    }

    /// Moves a calendar without events to `bucket`, as if all windows before it had been handed
    /// out. `bucket` must not be negative, nor its time beyond the range of ModelTime.
    void resumeAt(std::int64_t bucket) {
        started_ = true;
        setCursor(bucket);
    }

    /// A blob of this calendar's header and of `events`; its own events are not written. Format
    /// "KELMBKT1": tag, d_min (8), bucket count (8), cursor (8), started (1), next_id (8), event
    /// count (8), then the events as images of 64 bytes, by time and id.
    Blob snapshotOf(std::vector<Event> events) const;

    /// The calendar in a blob of the same d_min and bucket count, or nothing for a blob that is cut
    /// short, forged or of another format. Bytes behind the last event are not looked at.
    ///
    /// Adds all ids to `ids`, which must be empty. Calls claims(event) for each event; an event for
    /// which it returns true is left out of the calendar.
    template <class Claims>
    std::optional<BucketCalendar> read(BlobView blob, PendingIds& ids, Claims claims) const;

private:
    /// The list of the last record, which holds the times from `start` on: most records go to the
    /// list of the record before. `width` is 0 where there is none.
    struct RecentList {
        ModelTime start = 0;
        std::uint64_t width = 0;
        EventList* list = nullptr;
    };

    template <class Record>
    std::uint64_t postRecord(const Record& record, std::uint64_t event_count = 1) {
        const auto offset =
            static_cast<std::uint64_t>(record.time) - static_cast<std::uint64_t>(recent_.start);
        if (offset < recent_.width) {
            wheel_.append(*recent_.list, record) = next_id_;
        } else {
            requireOpen(record.time);
            wheel_.append(listFor(record.time), record) = next_id_;
            if (isFar(bucketOf(record.time))) overflow_posts_ += event_count;
        }
        return std::exchange(next_id_, next_id_ + event_count);
    }
    EventList& listFor(ModelTime time);
    void setCursor(std::int64_t bucket) {
        cursor_ = bucket;
        // The cursor is at most one behind the last bucket, so this fits without a sign.
        open_from_ = static_cast<std::uint64_t>(bucket) * static_cast<std::uint64_t>(d_min_);
        recent_ = {};
    }
    bool isFar(std::int64_t bucket) const {
        return static_cast<std::uint64_t>(bucket - cursor_) >= bucket_count_;
    }
    bool readHeader(BlobReader& in, std::uint64_t& event_count);
    bool acceptsStored(const Event& event) const {
        return event.id < next_id_ && event.time >= 0 && !isPast(event.time);
    }

    ModelTime d_min_;
    std::uint64_t bucket_count_;
    EventWheel wheel_;
    std::int64_t cursor_ = 0;
    bool started_ = false;
    std::uint64_t open_from_ = 0;  ///< ns; time of the cursor, and 0 before the start
    std::uint64_t next_id_ = 0;
    std::uint64_t overflow_posts_ = 0;
    RecentList recent_;
};

template <class Claims>
std::optional<BucketCalendar> BucketCalendar::read(BlobView blob, PendingIds& ids,
                                                   Claims claims) const {
    BlobReader in(blob);
    BucketCalendar stored(d_min_, bucket_count_);
    std::uint64_t event_count = 0;
    if (!stored.readHeader(in, event_count)) return std::nullopt;
    for (std::uint64_t i = 0; i < event_count; ++i) {
        BlobView image;
        if (!in.readView(sizeof(Event), image)) return std::nullopt;
        Event event;
        std::memcpy(&event, image.data(), sizeof(Event));
        clearGap(event.gap);
        if (!stored.acceptsStored(event) || ids.contains(event.id)) return std::nullopt;
        ids.reserve(event.id);
        ids.insert(event.id);
        if (claims(event)) continue;
        const std::int64_t bucket = bucketOf(event.time);
        stored.wheel_.append(stored.wheel_.listOf(bucket), event) = event.id;
        if (stored.isFar(bucket)) ++stored.overflow_posts_;
    }
    return stored;
}

}  // namespace Lumenar::Core::Kelm
