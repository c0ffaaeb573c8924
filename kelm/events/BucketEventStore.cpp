#include "kelm/events/BucketEventStore.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>
#include <limits>
#include <utility>

#include "kelm/core/Failures.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr BlobTag format_tag("KELMBKT1");

/// A blob that claims more is forged: a store that issues a thousand million ids a second reaches
/// this after 146 years, and is then still as far from the ids of observations.
constexpr std::uint64_t max_next_id = std::uint64_t{1} << 62;

const Event& unpackedEvent(const Event& event) { return event; }
Event unpackedEvent(const PackedDelivery& delivery) { return delivery.unpacked(); }

Event candidateEvent(NodeId neuron, const CandidateSlot& slot) {
    Event event;
    event.time = slot.time;
    event.id = slot.event_id;
    event.kind = EventKind::candidate;
    event.source = neuron;
    event.target = neuron;
    event.value = slot.rate;
    return event;
}

/// The window of takeWindow that take hands out.
struct Copies {
    std::vector<Event>& events;

    void begin(std::size_t places) { events.reserve(places); }
    void addCandidates(std::span<const NodeId> neurons, std::span<const CandidateSlot> slots) {
        for (const NodeId n : neurons) events.push_back(candidateEvent(n, slots[n]));
    }
    template <class Record, class Test>
    void addChunk(std::span<const Record> records, Test is_pending) {
        for (const Record& record : records) {
            if (is_pending(record)) events.push_back(unpackedEvent(record));
        }
    }
};

}  // namespace

struct BucketEventStore::Header {
    std::int64_t d_min = 0;
    std::uint64_t bucket_count = 0;
    std::int64_t cursor = 0;
    bool started = false;
    std::uint64_t next_id = 0;
    std::uint64_t event_count = 0;
};

BucketEventStore::BucketEventStore(ModelTime d_min, std::uint64_t bucket_count)
    : d_min_(d_min), bucket_count_(bucket_count) {
    if (d_min < 1) throw InvalidLookahead(InvalidLookahead::d_min);
    if (bucket_count < 4) throw InvalidLookahead(InvalidLookahead::bucket_count);
    window_buckets_ = last_model_time / d_min;
    const auto width = static_cast<std::uint64_t>(d_min);
    constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
    window_times_ = static_cast<std::uint64_t>(window_buckets_) * width;
    reach_ns_ = bucket_count > most / width ? most : bucket_count * width;
    ring_.resize(bucket_count);
    occupied_.resize(bucket_count / 64 + 1);
}

std::uint64_t BucketEventStore::postSlowly(const Event& event) {
    const std::int64_t bucket = event.time / d_min_;
    if (event.time < 0 || (started_ && bucket < cursor_)) {
        throw LookaheadViolation(LookaheadViolation::processed);
    }
    if (dead_count_ > live_count_ + min_sweep) sweepDeadEntries();

    Event stored = event;
    stored.id = next_id_;
    // Whatever can fail comes before the first change.
    if (ids_known_) live_.reserve(stored.id);
    place(stored, bucket);
    if (!beyondReach(bucket)) {
        const ModelTime start = bucket * d_min_;
        // Not beyond the end of time, where the negative ones would follow.
        const std::uint64_t left = static_cast<std::uint64_t>(last_model_time - start) + 1;
        recent_ = {start, std::min(static_cast<std::uint64_t>(d_min_), left),
                   &ring_[slotOf(bucket)]};
    }
    return notePost();
}

/// Puts an event with its id into the ring or into its era.
void BucketEventStore::place(const Event& event, std::int64_t bucket) {
    if (beyondReach(bucket)) {
        pool_.reserveChunk();
        delivery_pool_.reserveChunk();
        append(eras_[bucket / static_cast<std::int64_t>(bucket_count_)], event);
        ++overflow_posts_;
    } else {
        const std::uint64_t slot = slotOf(bucket);
        append(ring_[slot], event);
        noteEntry(slot);
    }
}

void BucketEventStore::scheduleCandidate(NodeId neuron, ModelTime time, double rate) {
    CandidateSlot& slot = slots_[neuron];
    if (slots_name_events_ && slot.event_id != no_event && !candidates_.isPending(neuron)) {
        // Beyond the last window, or, in a forged state, somebody else's event.
        cancel(slot.event_id);
    }
    slot.rate = rate;
    slot.time = time;
    slot.event_id = no_event;
    if (time < 0) {
        candidates_.cancel(neuron);
        return;
    }
    // In times instead of buckets: a division for each candidate is what its scheduling would
    // mostly take. The cursor is at most one behind the last bucket of time, so its time fits
    // without a sign.
    const std::uint64_t width = static_cast<std::uint64_t>(d_min_);
    const std::uint64_t at = static_cast<std::uint64_t>(time);
    const std::uint64_t cursor_time = static_cast<std::uint64_t>(cursor_) * width;
    if (at < cursor_time && started_) {
        candidates_.cancel(neuron);
        throw LookaheadViolation(LookaheadViolation::processed);
    }
    if (at >= window_times_) {
        candidates_.cancel(neuron);
        slots_name_events_ = true;
        slot.event_id = post(candidateEvent(neuron, slot));
        return;
    }
    candidates_.schedule(neuron, time);
    if (at - cursor_time >= reach_ns_) ++overflow_posts_;
    slot.event_id = next_id_++;
}

void BucketEventStore::learnIds() {
    PendingIds ids;
    forEachEntry([&](const auto& record) {
        ids.reserve(record.id);
        ids.insert(record.id);
    });
    live_ = std::move(ids);
    ids_known_ = true;
}

bool BucketEventStore::cancel(std::uint64_t id) {
    if (!ids_known_) learnIds();
    if (!live_.erase(id)) return false;
    --live_count_;
    ++dead_count_;
    return true;
}

bool BucketEventStore::take(ModelTime until, std::vector<Event>& events, ModelTime& window_start,
                            ModelTime& window_end) {
    events.clear();
    Copies copies{events};
    if (!takeWindow(until, copies, window_start, window_end)) return false;
    std::sort(events.begin(), events.end(), EventLess());
    return true;
}

/// Puts the cursor of a store that has never been asked to the earliest pending bucket.
void BucketEventStore::start() {
    std::int64_t first = last_model_time;
    forEachLive([&](const Event& event) { first = std::min(first, event.time / d_min_); });
    cursor_ = first;
    started_ = true;
}

/// The bucket of the earliest candidate in a slot, or last_model_time where there is none.
std::int64_t BucketEventStore::firstCandidateBucket() {
    return candidates_.pendingCount() == 0 ? last_model_time : candidates_.firstTime() / d_min_;
}

/// Moves the cursor to the next slot with an entry, dead or alive, or with a candidate, but not
/// beyond `stop`. False where there is none before it.
///
/// Eras are entered here, before a window leaves the store, and not when the cursor moves on:
/// should memory run out on the way, no event has been taken and the next call goes on.
bool BucketEventStore::skipToOccupied(std::int64_t stop) {
    const auto reach = static_cast<std::int64_t>(bucket_count_);
    const std::int64_t candidate = firstCandidateBucket();
    const std::int64_t limit = std::min(candidate, stop);
    while (cursor_ < limit) {
        enterEras();
        // Of the slots, those from the cursor's to the end of the ring are its own era's buckets;
        // the ones before it belong to the next era, some of which may still wait outside.
        const std::int64_t era = cursor_ / reach;
        const std::int64_t era_end =
            era < last_model_time / reach ? (era + 1) * reach : last_model_time;
        const std::int64_t end = std::min(era_end, limit);
        const std::int64_t found = firstOccupied(cursor_, end);
        cursor_ = found;
        if (found < end) return true;
        if (occupied_count_ == 0) {
            const std::int64_t next = eras_.empty() ? limit : eras_.begin()->first * reach;
            cursor_ = std::min(std::max(end, next), limit);
        }
    }
    if (candidate >= stop) return false;
    enterEras();
    return true;
}

/// The first bucket of [from, to) whose slot holds an entry, or `to`. Both lie in one era.
std::int64_t BucketEventStore::firstOccupied(std::int64_t from, std::int64_t to) const {
    const std::uint64_t first_slot = slotOf(from);
    const std::uint64_t end_slot = first_slot + static_cast<std::uint64_t>(to - from);
    std::uint64_t word = first_slot / 64;
    std::uint64_t bits = occupied_[word] & (~std::uint64_t{0} << (first_slot % 64));
    while (bits == 0 && (word + 1) * 64 < end_slot) bits = occupied_[++word];
    if (bits == 0) return to;
    const std::uint64_t slot = word * 64 + static_cast<std::uint64_t>(std::countr_zero(bits));
    return slot < end_slot ? from + static_cast<std::int64_t>(slot - first_slot) : to;
}

/// Empties a list of an era into the slots that its entries belong to.
template <class Record>
void BucketEventStore::moveIntoRing(ChunkPool<Record>& pool, ChunkList<Record>& list,
                                    ChunkList<Record> Bucket::*member) {
    while (!list.isEmpty()) {
        // Room first: an event that has left its era must not be lost.
        pool.reserveChunk();
        const Record record = pool.takeAny(list);
        if (isLive(record.id)) {
            const std::uint64_t slot = slotOf(record.time / d_min_);
            pool.append(ring_[slot].*member, record);
            noteEntry(slot);
        } else {
            --dead_count_;
        }
    }
}

/// Moves every era that the cursor has reached into the ring, which covers what is left of it.
void BucketEventStore::enterEras() {
    const std::int64_t current = cursor_ / static_cast<std::int64_t>(bucket_count_);
    while (!eras_.empty() && eras_.begin()->first <= current) {
        Bucket& era = eras_.begin()->second;
        moveIntoRing(pool_, era.events, &Bucket::events);
        moveIntoRing(delivery_pool_, era.deliveries, &Bucket::deliveries);
        eras_.erase(eras_.begin());
    }
}

void BucketEventStore::dropHandedOut() {
    pool_.clear(handed_out_.events);
    delivery_pool_.clear(handed_out_.deliveries);
}

/// Throws where the cursor's slot, whose window ends beyond the range of time, holds something.
void BucketEventStore::requireEmpty(std::uint64_t slot) const {
    bool holds = false;
    ring_[slot].forEach([&](const auto& record) { holds |= isLive(record.id); });
    if (holds) throw TimeOverflow(TimeOverflow::out_of_range);
}

void BucketEventStore::sweepDeadEntries() {
    recent_ = {};
    // With one chunk in hand no list runs out: it gives back a chunk for each that it fills anew.
    pool_.reserveChunk();
    delivery_pool_.reserveChunk();
    for (std::uint64_t word = 0; word < occupied_.size(); ++word) {
        for (std::uint64_t bits = occupied_[word]; bits != 0; bits &= bits - 1) {
            const std::uint64_t slot =
                word * 64 + static_cast<std::uint64_t>(std::countr_zero(bits));
            sweepBucket(ring_[slot]);
            if (!ring_[slot].isEmpty()) continue;
            occupied_[word] &= ~(bits & -bits);
            --occupied_count_;
        }
    }
    for (auto era = eras_.begin(); era != eras_.end();) {
        sweepBucket(era->second);
        era = era->second.isEmpty() ? eras_.erase(era) : std::next(era);
    }
}

void BucketEventStore::sweepBucket(Bucket& bucket) {
    sweepList(pool_, bucket.events);
    sweepList(delivery_pool_, bucket.deliveries);
}

template <class Record>
void BucketEventStore::sweepList(ChunkPool<Record>& pool, ChunkList<Record>& list) {
    ChunkList<Record> kept;
    while (!list.isEmpty()) {
        const Record record = pool.takeAny(list);
        if (isLive(record.id)) {
            pool.append(kept, record);
        } else {
            --dead_count_;
        }
    }
    list = kept;
}

/// Visits the entries of ring and eras, dead or alive.
template <class Visit>
void BucketEventStore::forEachEntry(Visit visit) const {
    for (const Bucket& bucket : ring_) bucket.forEach(visit);
    for (const auto& [era, bucket] : eras_) bucket.forEach(visit);
}

template <class Visit>
void BucketEventStore::forEachLive(Visit visit) const {
    forEachEntry([&](const auto& record) {
        if (isLive(record.id)) visit(unpackedEvent(record));
    });
    for (NodeId neuron = 0; neuron < slots_.size(); ++neuron) {
        if (candidates_.isPending(neuron)) visit(candidateEvent(neuron, slots_[neuron]));
    }
}

Blob BucketEventStore::snapshot() {
    std::vector<Event> events;
    events.reserve(pendingCount());
    forEachLive([&](const Event& event) { events.push_back(event); });
    std::sort(events.begin(), events.end(), EventLess());

    Blob blob;
    blob.reserve(49 + events.size() * sizeof(Event));
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

bool BucketEventStore::readHeader(BlobReader& in, Header& header) {
    return in.expectTag(format_tag) && in.readI64(header.d_min) &&
           in.readU64(header.bucket_count) && in.readI64(header.cursor) &&
           in.readFlag(header.started) && in.readU64(header.next_id) &&
           in.readCount(sizeof(Event), header.event_count);
}

/// Keeps an event as the candidate of its neuron's slot, if that is what it is.
bool BucketEventStore::claimCandidate(const Event& event, std::int64_t bucket) {
    if (event.kind != EventKind::candidate || event.target >= slots_.size() ||
        !isTimeOfWindow(bucket)) {
        return false;
    }
    const CandidateSlot& slot = slots_[event.target];
    const Event expected = candidateEvent(event.target, slot);
    if (candidates_.isPending(event.target) || std::memcmp(&event, &expected, sizeof(Event)) != 0) {
        return false;
    }
    candidates_.schedule(event.target, event.time);
    if (beyondReach(bucket)) ++overflow_posts_;
    return true;
}

bool BucketEventStore::restore(BlobView blob, std::span<CandidateSlot> slots) {
    BlobReader in(blob);
    Header header;
    if (!readHeader(in, header)) return false;
    if (header.d_min != d_min_ || header.bucket_count != bucket_count_) return false;
    // No store writes a cursor outside the buckets of time, or one that moved before the start.
    if (header.cursor < 0 || header.cursor - 1 > last_model_time / d_min_) return false;
    if (!header.started && header.cursor != 0) return false;
    if (header.next_id > max_next_id) return false;

    BucketEventStore restored(d_min_, bucket_count_);
    restored.cursor_ = header.cursor;
    restored.started_ = header.started;
    restored.next_id_ = header.next_id;
    restored.holdCandidates(slots);
    PendingIds seen;
    for (std::uint64_t i = 0; i < header.event_count; ++i) {
        BlobView image;
        if (!in.readView(sizeof(Event), image)) return false;
        Event event;
        std::memcpy(&event, image.data(), sizeof(Event));
        clearGap(event.gap);
        const std::int64_t bucket = event.time / d_min_;
        if (event.id >= header.next_id || event.time < 0) return false;
        if (header.started && bucket < header.cursor) return false;
        if (seen.contains(event.id)) return false;
        seen.reserve(event.id);
        seen.insert(event.id);
        if (restored.claimCandidate(event, bucket)) continue;
        restored.place(event, bucket);
        ++restored.live_count_;
    }
    for (NodeId neuron = 0; neuron < slots.size(); ++neuron) {
        restored.slots_name_events_ |=
            slots[neuron].event_id != no_event && !restored.candidates_.isPending(neuron);
    }
    *this = std::move(restored);
    return true;
}

}  // namespace Lumenar::Core::Kelm
