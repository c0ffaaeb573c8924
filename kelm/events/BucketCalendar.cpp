#include "kelm/events/BucketCalendar.h"

#include <algorithm>

namespace Lumenar::Core::Kelm {

namespace {

constexpr BlobTag format_tag("KELMBKT1");
constexpr std::size_t header_bytes = 49;

/// A blob with a larger next_id is forged. At 10^9 ids a second this takes 146 years. The ids of
/// observations start at twice this value.
constexpr std::uint64_t max_next_id = std::uint64_t{1} << 62;

}  // namespace

BucketCalendar::BucketCalendar(ModelTime d_min, std::uint64_t bucket_count)
    : d_min_(d_min), bucket_count_(bucket_count), wheel_(std::max<ModelTime>(d_min, 1)) {
    if (d_min < 1) throw InvalidLookahead(InvalidLookahead::d_min);
    if (bucket_count < 4) throw InvalidLookahead(InvalidLookahead::bucket_count);
}

/// The list of a time. It becomes the recent one, unless a record there counts as far.
EventList& BucketCalendar::listFor(ModelTime time) {
    const std::int64_t bucket = bucketOf(time);
    EventList& list = wheel_.listOf(bucket);
    if (isFar(bucket)) return list;
    const ModelTime start = bucket * d_min_;
    // The last bucket ends with the range of ModelTime.
    const std::uint64_t left = static_cast<std::uint64_t>(last_model_time - start) + 1;
    recent_ = {start, std::min(static_cast<std::uint64_t>(d_min_), left), &list};
    return list;
}

bool BucketCalendar::advance(ModelTime until, std::int64_t other) {
    if (!started_) resumeAt(std::min(wheel_.firstBucket(no_bucket), other));
    const std::int64_t stop = until <= 0 ? 0 : (until - 1) / d_min_ + 1;
    if (cursor_ >= stop) return false;
    const std::int64_t found = wheel_.advance(std::min(stop, other));
    setCursor(found);
    return found < stop;
}

EventList BucketCalendar::take() noexcept {
    const EventList list = wheel_.takeCurrent();
    setCursor(cursor_ + 1);
    return list;
}

Blob BucketCalendar::snapshotOf(std::vector<Event> events) const {
    std::sort(events.begin(), events.end(), EventLess());
    Blob blob;
    blob.reserve(header_bytes + events.size() * sizeof(Event));
    appendTag(blob, format_tag);
    appendI64(blob, d_min_);
    appendU64(blob, bucket_count_);
    appendI64(blob, cursor_);
    appendFlag(blob, started_);
    appendU64(blob, next_id_);
    appendU64(blob, events.size());
    for (const Event& event : events) appendImage(blob, event);
    return blob;
}

/// Reads the header of a blob into this calendar, which must be new.
bool BucketCalendar::readHeader(BlobReader& in, std::uint64_t& event_count) {
    std::int64_t d_min = 0;
    std::uint64_t bucket_count = 0;
    std::int64_t cursor = 0;
    bool started = false;
    if (!in.expectTag(format_tag) || !in.readI64(d_min) || !in.readU64(bucket_count) ||
        !in.readI64(cursor) || !in.readFlag(started) || !in.readU64(next_id_) ||
        !in.readCount(sizeof(Event), event_count)) {
        return false;
    }
    if (d_min != d_min_ || bucket_count != bucket_count_ || next_id_ > max_next_id) return false;
    // No calendar writes a cursor outside the buckets of time, or one that moved before the start.
    if (cursor < 0 || cursor - 1 > last_model_time / d_min_) return false;
    if (!started && cursor != 0) return false;
    if (started) resumeAt(cursor);
    return true;
}

}  // namespace Lumenar::Core::Kelm
