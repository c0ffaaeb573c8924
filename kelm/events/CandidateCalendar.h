#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <span>
#include <vector>

#include "kelm/core/ModelTime.h"
#include "kelm/core/Prefetch.h"
#include "kelm/events/CandidateSlot.h"
#include "kelm/events/ChunkPool.h"

namespace Lumenar::Core::Kelm {

/// The one scheduled candidate of each neuron, in a ring of buckets like that of the event store
/// that owns it.
///
/// A candidate is drawn anew whenever its neuron is touched, mostly long before it falls due, so it
/// is not an entry that is cancelled and entered again. It lives in its slot alone, and the ring
/// only holds wake-ups: a neuron is looked at in the bucket of its wake-up, which is never later
/// than that of its candidate, and is put off if the candidate has moved on. A wake-up that is no
/// longer its neuron's is passed over.
///
/// Borrows the slots, and reads of them no more than the time. Buckets lie below the last one of
/// model time.
class CandidateCalendar {
public:
    /// What a ring does not reach waits in eras of `bucket_count` buckets.
    CandidateCalendar(ModelTime d_min, std::uint64_t bucket_count)
        : d_min_(d_min), bucket_count_(bucket_count) {}

    /// Holds the candidates of `slots`, shape (neurons), from now on; none of them is pending. May
    /// throw std::bad_alloc, with nothing held.
    void attach(std::span<CandidateSlot> slots);

    std::span<CandidateSlot> slots() const { return slots_; }
    bool isPending(NodeId neuron) const { return pending_[neuron] != 0; }
    std::uint64_t pendingCount() const { return pending_count_; }

    std::uint64_t wakeUps() const { return wake_count_; }

    /// Hints that a neuron's candidate is scheduled soon.
    void prefetch(NodeId neuron) const {
        prefetchLine(&wake_buckets_[neuron]);
        prefetchLine(&pending_[neuron]);
    }

    /// Takes a neuron's candidate back, if it is pending.
    void cancel(NodeId neuron) noexcept {
        pending_count_ -= pending_[neuron];
        pending_[neuron] = 0;
    }
    /// Schedules the candidate that stands in a neuron's slot, which is not pending; its bucket
    /// lies at or behind `cursor`. True where a wake-up has been put into the ring. May throw
    /// std::bad_alloc, with nothing changed.
    bool schedule(NodeId neuron, std::int64_t cursor) {
        // Whether the candidate's bucket comes before that of the wake-up, without a division.
        const std::int64_t wake = wake_buckets_[neuron];
        const bool earlier = wake == no_bucket || slots_[neuron].time < wake * d_min_;
        const bool entered = earlier && wakeEarlier(neuron, cursor);
        pending_[neuron] = 1;
        ++pending_count_;
        return entered;
    }

    /// Moves every pending candidate's wake-up from before bucket `cursor` to the candidate's own,
    /// calling entered(slot) for each slot that it fills: for a store that sets out at `cursor`,
    /// where candidates that were replaced have been the first. May throw std::bad_alloc; a call
    /// for the same bucket then goes on.
    template <class Entered>
    void startAt(std::int64_t cursor, Entered entered);

    bool holdsSlot(std::uint64_t slot) const {
        return slot < ring_.size() && !ring_[slot].isEmpty();
    }
    bool hasEras() const { return !eras_.empty(); }
    /// The first bucket of the earliest era. There must be one.
    std::int64_t firstEraBucket() const {
        return eras_.begin()->first * static_cast<std::int64_t>(bucket_count_);
    }
    /// Moves every era at or before that of `cursor` into the ring, calling entered(slot) for each
    /// slot that it fills.
    template <class Entered>
    void enterEras(std::int64_t cursor, Entered entered);

    /// Empties the slot of bucket `cursor`: calls room(count) with the number of candidates that
    /// are pending in it, then due(neuron) for each, which then is not pending any longer, and
    /// before all that entered(slot) for each slot into which a neuron has been put off. due must
    /// not throw. May throw std::bad_alloc, and what room throws; all candidates are then still
    /// pending.
    template <class Room, class Due, class Entered>
    void take(std::int64_t cursor, Room room, Due due, Entered entered);

private:
    static constexpr std::int64_t no_bucket = std::numeric_limits<std::int64_t>::max();
    /// Stands for a neuron that take has found: a second wake-up in the slot is no longer its own.
    static constexpr std::int64_t found_here = no_bucket - 1;

    std::uint64_t slotOf(std::int64_t bucket) const {
        return static_cast<std::uint64_t>(bucket) % bucket_count_;
    }
    std::int64_t eraOf(std::int64_t bucket) const {
        return bucket / static_cast<std::int64_t>(bucket_count_);
    }
    std::int64_t bucketOf(NodeId neuron) const { return slots_[neuron].time / d_min_; }
    /// Asks for what is known of the neurons in the chunk behind a list's head, which lie anywhere,
    /// and for the chunk behind that.
    void prefetchBehind(const ChunkList<NodeId>& list) const {
        const auto* chunk = list.head->next;
        if (chunk == nullptr) return;
        if (chunk->next != nullptr) chunk->next->prefetch();
        for (const NodeId neuron : chunk->records) {
            prefetch(neuron);
            prefetchLine(&slots_[neuron].time);
        }
    }
    /// Puts a wake-up into the ring, which is told by true, or into its era.
    bool insert(NodeId neuron, std::int64_t bucket, std::int64_t cursor);
    bool wakeEarlier(NodeId neuron, std::int64_t cursor);
    void sweep(std::int64_t cursor);

    ModelTime d_min_;
    std::uint64_t bucket_count_;
    std::span<CandidateSlot> slots_;
    std::vector<std::uint8_t> pending_;       ///< shape (neurons): 1 for a pending candidate
    std::vector<std::int64_t> wake_buckets_;  ///< shape (neurons), or no_bucket
    ChunkPool<NodeId> pool_;
    std::vector<ChunkList<NodeId>> ring_;  ///< empty until there are slots
    std::map<std::int64_t, ChunkList<NodeId>> eras_;
    std::uint64_t pending_count_ = 0;
    std::uint64_t wake_count_ = 0;  ///< wake-ups in ring and eras
};

template <class Entered>
void CandidateCalendar::startAt(std::int64_t cursor, Entered entered) {
    for (NodeId neuron = 0; neuron < slots_.size(); ++neuron) {
        if (wake_buckets_[neuron] >= cursor) continue;
        if (pending_[neuron] == 0) {
            wake_buckets_[neuron] = no_bucket;
        } else if (insert(neuron, bucketOf(neuron), cursor)) {
            entered(slotOf(bucketOf(neuron)));
        }
    }
}

template <class Entered>
void CandidateCalendar::enterEras(std::int64_t cursor, Entered entered) {
    while (!eras_.empty() && eras_.begin()->first <= eraOf(cursor)) {
        const std::int64_t era = eras_.begin()->first;
        ChunkList<NodeId>& list = eras_.begin()->second;
        while (!list.isEmpty()) {
            // Room first: a neuron that has left its era must not be lost.
            pool_.reserveChunks(1);
            const NodeId neuron = pool_.takeAny(list);
            const std::int64_t bucket = wake_buckets_[neuron];
            if (bucket != no_bucket && eraOf(bucket) == era) {
                pool_.append(ring_[slotOf(bucket)], neuron);
                entered(slotOf(bucket));
            } else {
                --wake_count_;
            }
        }
        eras_.erase(eras_.begin());
    }
}

template <class Room, class Due, class Entered>
void CandidateCalendar::take(std::int64_t cursor, Room room, Due due, Entered entered) {
    if (!holdsSlot(slotOf(cursor))) return;
    ChunkList<NodeId>& list = ring_[slotOf(cursor)];
    ChunkList<NodeId> found;
    std::size_t count = 0;
    const void* asked_head = nullptr;
    try {
        while (!list.isEmpty()) {
            // With one chunk in hand no list here runs out: it takes what the others give back.
            pool_.reserveChunks(1);
            if (list.head != asked_head) {
                asked_head = list.head;
                prefetchBehind(list);
            }
            const NodeId neuron = pool_.takeAny(list);
            if (wake_buckets_[neuron] == cursor && pending_[neuron] != 0) {
                const std::int64_t bucket = bucketOf(neuron);
                if (bucket == cursor) {
                    pool_.append(found, neuron);
                    ++count;
                    wake_buckets_[neuron] = found_here;
                    continue;
                }
                pool_.append(list, neuron);  // until it stands elsewhere
                if (insert(neuron, bucket, cursor)) entered(slotOf(bucket));
                pool_.takeAny(list);
            } else if (wake_buckets_[neuron] == cursor) {
                wake_buckets_[neuron] = no_bucket;
            }
            --wake_count_;
        }
        room(count);
    } catch (...) {
        while (!found.isEmpty()) {
            const NodeId neuron = pool_.takeAny(found);
            wake_buckets_[neuron] = cursor;
            pool_.append(list, neuron);
        }
        throw;
    }
    while (!found.isEmpty()) {
        const NodeId neuron = pool_.takeAny(found);
        --wake_count_;
        wake_buckets_[neuron] = no_bucket;
        cancel(neuron);
        due(neuron);
    }
}

}  // namespace Lumenar::Core::Kelm
