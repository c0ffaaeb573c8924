#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "kelm/events/CandidateSlot.h"
#include "kelm/events/CandidateTree.h"
#include "kelm/events/ChunkPool.h"
#include "kelm/events/IEventStore.h"
#include "kelm/events/PackedDelivery.h"
#include "kelm/events/PendingIds.h"

namespace Lumenar::Core::Kelm {

/// A calendar queue: a ring of buckets one d_min wide, and a far calendar for what lies beyond the
/// ring's reach (R. Brown, "Calendar queues: a fast O(1) priority queue implementation for the
/// simulation event set problem", Communications of the ACM 31, 1988).
///
/// The bucket of a time is time / d_min. Bucket b lives in slot b modulo bucket_count, and the ring
/// reaches from `cursor`, the next bucket to be taken, up to cursor + bucket_count, exclusive.
/// Events beyond wait in eras, each as long as the ring: an era moves into the ring when a window
/// is looked for in it, so a far event is touched when it is posted and once more, whatever it
/// waits. Which of the two holds an event shows in overflowPosts() and nowhere else. Candidates
/// that are kept in slots lie in neither, but in a tree of their own.
///
/// A cancelled event stays in its place as a dead entry until its bucket is taken, or until the
/// dead outnumber the living, when all are swept out. Which ids are pending is written down from
/// the first cancel on: hardly any run needs one. Memory follows the number of pending events.
class BucketEventStore final : public IEventStore {
public:
    /// `d_min`: bucket width in ns. `bucket_count`: slots of the ring.
    /// Throws InvalidLookahead for a d_min below 1, then for fewer than four buckets.
    BucketEventStore(ModelTime d_min, std::uint64_t bucket_count);

    // A copy's lists would lie in this one's pools.
    BucketEventStore(const BucketEventStore&) = delete;
    BucketEventStore& operator=(const BucketEventStore&) = delete;
    BucketEventStore(BucketEventStore&&) = default;
    BucketEventStore& operator=(BucketEventStore&&) = default;
    ~BucketEventStore() override = default;

    const char* name() override { return "bucket"; }

    /// Takes a copy of the event and gives it the next id.
    /// Throws LookaheadViolation for a time in a window already handed out, or before 0.
    std::uint64_t post(const Event& event) override {
        if (!followsLast(event.time)) return postSlowly(event);
        // Whatever can fail comes before the first change.
        if (ids_known_) live_.reserve(next_id_);
        append(*recent_.bucket, event) = next_id_;
        return notePost();
    }

    /// post of a delivery that is packed already. Its id is not looked at.
    std::uint64_t postPacked(const PackedDelivery& delivery) {
        if (!followsLast(delivery.time)) return postSlowly(delivery.unpacked());
        if (ids_known_) live_.reserve(next_id_);
        delivery_pool_.append(recent_.bucket->deliveries, delivery).id = next_id_;
        return notePost();
    }

    /// The first call may throw std::bad_alloc, with nothing changed.
    bool cancel(std::uint64_t id) override;

    bool isEmpty() override { return pendingCount() == 0; }

    /// Throws TimeOverflow where the window's end lies beyond the range of ModelTime; the window
    /// is then still in the store.
    bool take(ModelTime until, std::vector<Event>& events, ModelTime& window_start,
              ModelTime& window_end) override;

    /// take without the order within the window and without copies. Calls window.begin(places)
    /// with the number of places in which the events lie, which may throw, with the window still in
    /// the store; then once window.addCandidates(neurons, slots) for the candidates out of slots,
    /// chunk_places of which fill a chunk; then for each chunk of places
    /// window.addChunk(records, is_pending), which has to ask is_pending(record) of each record in
    /// it, once. Neither may throw. Records are of type Event or PackedDelivery. A window whose
    /// events were all cancelled is passed over, and begin called again for the next one. All of it
    /// stays where it lies until the next window is asked for; the slot of a candidate, until its
    /// neuron is scheduled anew.
    template <class Window>
    bool takeWindow(ModelTime until, Window& window, ModelTime& window_start,
                    ModelTime& window_end);

    static constexpr std::size_t chunk_places = ChunkList<Event>::chunk_records;
    static_assert(chunk_places == ChunkList<PackedDelivery>::chunk_records);

    /// Keeps the candidates of a network in `slots`, shape (neurons), none of which may hold an
    /// event: one candidate per neuron, scheduled by scheduleCandidate. The slots are the caller's
    /// and must stay where they are until others are given. Ids, order and snapshot are those of
    /// candidates that are cancelled and posted as events.
    void holdCandidates(std::span<CandidateSlot> slots) {
        candidates_.reset(slots.size());
        slots_ = slots;
    }

    /// Replaces a neuron's candidate: cancels the event in its slot, if that is still pending, and
    /// posts one for `time` ns, drawn under `rate`, unless the time is negative.
    /// Throws LookaheadViolation as post does; the slot is then without an event.
    void scheduleCandidate(NodeId neuron, ModelTime time, double rate);

    /// Hints that scheduleCandidate for `neuron` comes soon.
    void prefetchCandidate(NodeId neuron) const { candidates_.prefetch(neuron); }

    /// Format "KELMBKT1": tag, d_min (8), bucket_count (8), cursor (8), started (1), next_id (8),
    /// event count (8), then the pending events as images of 64 bytes, by time and id.
    Blob snapshot() override;

    /// False for a blob that is cut short, forged, of another format, or of a store with another
    /// d_min or bucket_count; the store is then as it was. Bytes behind the last event are not
    /// looked at.
    [[nodiscard]] bool restore(BlobView blob) override { return restore(blob, {}); }

    /// The same, and keeps candidates in `slots` from then on as holdCandidates does: a candidate
    /// in the blob that is the event of its neuron's slot is kept there.
    [[nodiscard]] bool restore(BlobView blob, std::span<CandidateSlot> slots);

    /// ns.
    ModelTime bucketWidth() const { return d_min_; }

    /// Lets a store that was never used go on at `bucket`, as one that has handed out all windows
    /// before it. `bucket` must not be negative, nor its time beyond the range of ModelTime.
    void resumeAt(std::int64_t bucket) {
        cursor_ = bucket;
        started_ = true;
        recent_ = {};
    }

    /// How many events have gone beyond the ring's reach when they were posted.
    std::uint64_t overflowPosts() const { return overflow_posts_; }

private:
    struct Header;

    /// Dead entries below this number are not worth a sweep.
    static constexpr std::uint64_t min_sweep = 1024;

    /// The entries of a slot of the ring, or of an era: deliveries packed, where they can be.
    struct Bucket {
        ChunkList<Event> events;
        ChunkList<PackedDelivery> deliveries;

        bool isEmpty() const { return events.isEmpty() && deliveries.isEmpty(); }
        std::size_t size() const { return events.size() + deliveries.size(); }
        /// Calls visit(record) for each entry, of either type.
        template <class Visit>
        void forEach(Visit visit) const {
            events.forEach(visit);
            deliveries.forEach(visit);
        }
    };

    /// The bucket of the last post, whose times are those from start on: most posts go where the
    /// one before has gone. It holds an entry; width is 0 where there is none.
    struct RecentBucket {
        ModelTime start = 0;
        std::uint64_t width = 0;
        Bucket* bucket = nullptr;
    };

    std::uint64_t pendingCount() const { return live_count_ + candidates_.pendingCount(); }

    std::uint64_t slotOf(std::int64_t bucket) const {
        return static_cast<std::uint64_t>(bucket) % bucket_count_;
    }
    /// Shared by post and restore: true where `bucket` lies beyond the ring's reach.
    bool beyondReach(std::int64_t bucket) const {
        return static_cast<std::uint64_t>(bucket - cursor_) >= bucket_count_;
    }
    static bool readHeader(BlobReader& in, Header& header);
    /// Whether an event of that time goes where the last post has gone, and nothing else is due.
    bool followsLast(ModelTime time) const {
        const auto offset =
            static_cast<std::uint64_t>(time) - static_cast<std::uint64_t>(recent_.start);
        return offset < recent_.width && dead_count_ <= live_count_ + min_sweep;
    }
    /// The event that has just been stored has the next id.
    std::uint64_t notePost() noexcept {
        if (ids_known_) live_.insert(next_id_);
        ++live_count_;
        return next_id_++;
    }
    bool isLive(std::uint64_t id) const { return !ids_known_ || live_.contains(id); }
    void learnIds();
    std::uint64_t postSlowly(const Event& event);
    /// Returns the place of the event's id.
    std::uint64_t& append(Bucket& bucket, const Event& event) {
        if (PackedDelivery::holds(event)) {
            return delivery_pool_.append(bucket.deliveries, PackedDelivery::packed(event)).id;
        }
        Event& stored = pool_.append(bucket.events, event);
        clearGap(stored.gap);
        return stored.id;
    }
    void place(const Event& event, std::int64_t bucket);
    void start();
    std::int64_t firstCandidateBucket();
    bool skipToOccupied(std::int64_t stop);
    /// Whether a bucket's window ends within the range of time. One that does not is never handed
    /// out, and no candidate is kept for it in a slot.
    bool isTimeOfWindow(std::int64_t bucket) const { return bucket < window_buckets_; }
    void requireEmpty(std::uint64_t slot) const;
    void noteEntry(std::uint64_t slot) {
        const std::uint64_t bit = std::uint64_t{1} << (slot % 64);
        if ((occupied_[slot / 64] & bit) != 0) return;
        occupied_[slot / 64] |= bit;
        ++occupied_count_;
    }
    bool claimCandidate(const Event& event, std::int64_t bucket);
    std::int64_t firstOccupied(std::int64_t from, std::int64_t to) const;
    void enterEras();
    template <class Window>
    std::uint64_t takeSlot(Window& window);
    void dropHandedOut();
    void sweepDeadEntries();
    void sweepBucket(Bucket& bucket);
    template <class Record>
    void sweepList(ChunkPool<Record>& pool, ChunkList<Record>& list);
    template <class Record>
    void moveIntoRing(ChunkPool<Record>& pool, ChunkList<Record>& list,
                      ChunkList<Record> Bucket::*member);
    template <class Visit>
    void forEachEntry(Visit visit) const;
    template <class Visit>
    void forEachLive(Visit visit) const;

    ModelTime d_min_;
    std::uint64_t bucket_count_;
    std::int64_t window_buckets_ = 0;  ///< see isTimeOfWindow
    std::uint64_t window_times_ = 0;   ///< ns, exclusive end of the times in those buckets
    std::uint64_t reach_ns_ = 0;       ///< of the ring, or as much as there is
    ChunkPool<Event> pool_;
    ChunkPool<PackedDelivery> delivery_pool_;
    std::vector<Bucket> ring_;
    std::vector<std::uint64_t> occupied_;  ///< one bit per slot: it holds an entry, dead or alive
    std::uint64_t occupied_count_ = 0;
    std::map<std::int64_t, Bucket> eras_;  ///< by bucket / bucket_count, from the cursor's on
    Bucket handed_out_;                    ///< the last window's entries
    std::span<CandidateSlot> slots_;       ///< shape (neurons); the caller's
    CandidateTree candidates_;             ///< those in slots_
    bool ids_known_ = false;
    PendingIds live_;  ///< ids of pending events, candidates in slots apart, if ids_known_
    /// Whether a candidate's slot may hold the id of an event that has come in through post.
    bool slots_name_events_ = false;
    std::int64_t cursor_ = 0;
    bool started_ = false;
    std::uint64_t next_id_ = 0;
    std::uint64_t live_count_ = 0;  ///< pending events, candidates in slots apart
    std::uint64_t dead_count_ = 0;
    std::uint64_t overflow_posts_ = 0;
    RecentBucket recent_;
};

template <class Window>
bool BucketEventStore::takeWindow(ModelTime until, Window& window, ModelTime& window_start,
                                  ModelTime& window_end) {
    dropHandedOut();
    if (pendingCount() == 0) return false;
    recent_ = {};
    if (!started_) start();
    // The first bucket that starts at `until` or later.
    const std::int64_t stop = until <= 0 ? 0 : (until - 1) / d_min_ + 1;
    for (std::uint64_t taken = 0; taken == 0; ++cursor_) {
        dropHandedOut();
        if (!skipToOccupied(stop)) return false;
        taken = takeSlot(window);
    }
    window_start = (cursor_ - 1) * d_min_;
    window_end = window_start + d_min_;
    return true;
}

/// Empties the cursor's slot into `window` and returns the number of its events.
template <class Window>
std::uint64_t BucketEventStore::takeSlot(Window& window) {
    const std::uint64_t slot = slotOf(cursor_);
    Bucket& bucket = ring_[slot];
    const auto begin = [&](std::size_t candidate_count) {
        const std::size_t chunks = (candidate_count + chunk_places - 1) / chunk_places;
        window.begin((bucket.events.chunk_count + bucket.deliveries.chunk_count + chunks) *
                     chunk_places);
    };
    std::span<const NodeId> due;
    if (isTimeOfWindow(cursor_)) {
        due = candidates_.take((cursor_ + 1) * d_min_, begin);
    } else {
        requireEmpty(slot);
        begin(0);
    }

    // From here on nothing can fail.
    window.addCandidates(due, slots_);
    std::uint64_t dead = 0;
    const auto hand_out = [&](auto records) {
        if (!ids_known_) {
            window.addChunk(records, [](const auto&) { return true; });
            return;
        }
        window.addChunk(records, [&](const auto& record) {
            const bool live = live_.erase(record.id);
            dead += live ? 0 : 1;
            return live;
        });
    };
    bucket.events.forEachChunk(hand_out);
    bucket.deliveries.forEachChunk(hand_out);
    const std::uint64_t taken = bucket.size() - dead;
    live_count_ -= taken;
    dead_count_ -= dead;
    handed_out_ = bucket;
    bucket = {};
    const std::uint64_t bit = std::uint64_t{1} << (slot % 64);
    if ((occupied_[slot / 64] & bit) != 0) --occupied_count_;
    occupied_[slot / 64] &= ~bit;
    return taken + due.size();
}

}  // namespace Lumenar::Core::Kelm
