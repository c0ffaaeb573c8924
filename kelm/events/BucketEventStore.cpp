#include "kelm/events/BucketEventStore.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace Lumenar::Core::Kelm {

std::uint64_t BucketEventStore::post(const Event& event) {
    calendar_.requireOpen(event.time);
    if (deadCount() > pending_count_ + min_dead) removeDead();
    // What can fail comes before the first change.
    pending_.reserve(calendar_.nextId());
    const std::uint64_t id = calendar_.post(event);
    pending_.insert(id);
    ++pending_count_;
    return id;
}

bool BucketEventStore::cancel(std::uint64_t id) {
    if (!pending_.erase(id)) return false;
    --pending_count_;
    return true;
}

bool BucketEventStore::holdsPending(const EventList& list) const {
    bool holds = false;
    list.forEachSingle([&](const auto& record) { holds |= pending_.contains(record.id); });
    return holds;
}

bool BucketEventStore::take(ModelTime until, std::vector<Event>& events, ModelTime& window_start,
                            ModelTime& window_end) {
    events.clear();
    if (pending_count_ == 0) return false;
    // The first window is that of the earliest pending event, not of a dead entry before it.
    if (!calendar_.isStarted() && deadCount() != 0) removeDead();
    ModelTime start = 0;
    while (events.empty()) {
        if (!calendar_.advance(until, BucketCalendar::no_bucket)) return false;
        const EventList& bucket = calendar_.current();
        if (!calendar_.windowEndsInRange() && holdsPending(bucket)) {
            throw TimeOverflow(TimeOverflow::out_of_range);
        }
        events.reserve(bucket.size());
        bucket.forEachSingle([&](const auto& record) {
            if (pending_.erase(record.id)) events.push_back(unpackedEvent(record));
        });
        start = calendar_.windowStart();
        EventList taken = calendar_.take();
        calendar_.release(taken);
    }
    pending_count_ -= events.size();
    window_start = start;
    window_end = start + calendar_.bucketWidth();
    std::sort(events.begin(), events.end(), EventLess());
    return true;
}

Blob BucketEventStore::snapshot() {
    std::vector<Event> events;
    events.reserve(pending_count_);
    calendar_.forEachSingle([&](const auto& record) {
        if (pending_.contains(record.id)) events.push_back(unpackedEvent(record));
    });
    return calendar_.snapshotOf(std::move(events));
}

bool BucketEventStore::restore(BlobView blob) {
    PendingIds pending;
    std::optional<BucketCalendar> calendar =
        calendar_.read(blob, pending, [](const Event&) { return false; });
    if (!calendar) return false;
    calendar_ = std::move(*calendar);
    pending_ = std::move(pending);
    pending_count_ = calendar_.size();
    return true;
}

}  // namespace Lumenar::Core::Kelm
