#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/ModelTime.h"
#include "kelm/events/ChunkPool.h"
#include "kelm/events/DeliveryRun.h"
#include "kelm/events/Event.h"
#include "kelm/events/PackedDelivery.h"

namespace Lumenar::Core::Kelm {

/// Events in no meaningful order. A delivery is part of a run, or packed where it fits that form.
struct EventList {
    ChunkList<Event> events;
    ChunkList<PackedDelivery> deliveries;
    ChunkList<DeliveryRun> runs;
    std::uint64_t run_deliveries = 0;  ///< sum over the runs

    bool isEmpty() const { return events.isEmpty() && deliveries.isEmpty() && runs.isEmpty(); }
    std::size_t singleCount() const { return events.size() + deliveries.size(); }
    std::size_t size() const { return singleCount() + run_deliveries; }
    /// Calls visit(record) for each single event, with an Event or a PackedDelivery.
    template <class Visit>
    void forEachSingle(Visit visit) const {
        events.forEach(visit);
        deliveries.forEach(visit);
    }
};

inline const Event& unpackedEvent(const Event& event) { return event; }
inline Event unpackedEvent(const PackedDelivery& delivery) { return delivery.unpacked(); }

/// Waiting events by bucket: a hierarchical timing wheel (G. Varghese, T. Lauck, "Hashed and
/// hierarchical timing wheels: data structures for the efficient implementation of a timer
/// facility", Proceedings of the 11th ACM Symposium on Operating Systems Principles, 1987).
///
/// The bucket of a time is time / width. The wheel has a position: no event waits in a bucket
/// before it. Level 0 has one list for each of the 4096 buckets in the position's block. A list of
/// level 1 holds a block of buckets, and a list of each further level 64 times as many as one of
/// the level below. An event of the position's block lies in level 0, and any other in the level of
/// the highest digit in which its bucket differs from the position. When the position enters the
/// range of a list, the events of that list move down. So an event moves at most once per level,
/// however long it waits, and takes little more storage than its own size.
///
/// A wheel that was moved from may only be destroyed or assigned to.
class EventWheel {
public:
    /// `width`: of a bucket, in ns, at least 1.
    explicit EventWheel(ModelTime width);

    // The lists of a copy would lie in the pools of this wheel.
    EventWheel(const EventWheel&) = delete;
    EventWheel& operator=(const EventWheel&) = delete;
    EventWheel(EventWheel&&) = default;
    EventWheel& operator=(EventWheel&&) = default;
    ~EventWheel() = default;

    std::int64_t bucketOf(ModelTime time) const { return time / width_; }
    /// Number of events; a run counts as its deliveries.
    std::uint64_t size() const { return count_; }

    /// The list for a bucket that is not before the position. Valid until the wheel moves.
    EventList& listOf(std::int64_t bucket) { return lists_[indexOf(bucket)]; }

    /// Adds a record to `list` and returns the place of its id. May throw std::bad_alloc, with
    /// nothing changed.
    std::uint64_t& append(EventList& list, const Event& event) {
        if (PackedDelivery::holds(event)) return append(list, PackedDelivery::packed(event));
        Event& stored = events_.append(list.events, event);
        clearGap(stored.gap);
        ++count_;
        setOccupied(list);
        return stored.id;
    }
    std::uint64_t& append(EventList& list, const PackedDelivery& delivery) {
        PackedDelivery& stored = deliveries_.append(list.deliveries, delivery);
        ++count_;
        setOccupied(list);
        return stored.id;
    }
    std::uint64_t& append(EventList& list, const DeliveryRun& run) {
        DeliveryRun& stored = runs_.append(list.runs, run);
        list.run_deliveries += run.count;
        count_ += run.count;
        setOccupied(list);
        return stored.id;
    }

    /// The first bucket before `end` that holds an event, or `end`.
    std::int64_t firstBucket(std::int64_t end) const;

    /// Moves the position to firstBucket(end) and returns it. `end` must not be before the
    /// position. May throw std::bad_alloc, with nothing changed.
    std::int64_t advance(std::int64_t end) {
        moveTo(firstBucket(end));
        return position_;
    }

    /// The events of the position's bucket.
    const EventList& current() const { return lists_[indexOf(position_)]; }
    /// Takes them out of the wheel. Their storage stays in use until release.
    EventList takeCurrent() noexcept;
    void release(EventList& list) noexcept {
        events_.clear(list.events);
        deliveries_.clear(list.deliveries);
        runs_.clear(list.runs);
        list.run_deliveries = 0;
    }

    /// Calls visit(record) for each single event, with an Event or a PackedDelivery.
    template <class Visit>
    void forEachSingle(Visit visit) const {
        forEachList([&](std::size_t index) { lists_[index].forEachSingle(visit); });
    }
    /// Calls visit(run) for each run.
    template <class Visit>
    void forEachRun(Visit visit) const {
        forEachList([&](std::size_t index) { lists_[index].runs.forEach(visit); });
    }

    /// Removes each event for which test(id) holds, from a wheel without runs. May throw
    /// std::bad_alloc, with nothing changed.
    template <class Test>
    void removeIf(Test test);

    /// Replaces each run by single deliveries. visitDeliveries(run, visit) must call
    /// visit(delivery) for each delivery of the run. Returns whether there was a run. May throw
    /// std::bad_alloc, with nothing changed.
    template <class VisitDeliveries>
    bool expandRuns(VisitDeliveries visitDeliveries);

private:
    static constexpr int near_bits = 12;
    static constexpr std::uint64_t near_lists = std::uint64_t{1} << near_bits;
    static constexpr int digit_bits = 6;
    static constexpr std::uint64_t digits = std::uint64_t{1} << digit_bits;
    static constexpr int levels = (63 - near_bits + digit_bits - 1) / digit_bits;

    /// The lists are stored level by level. Each level above 0 fills one word of occupied_.
    std::size_t indexOf(std::int64_t bucket) const {
        const auto b = static_cast<std::uint64_t>(bucket);
        const std::uint64_t difference = b ^ static_cast<std::uint64_t>(position_);
        return difference < near_lists ? b % near_lists : farIndex(levelOf(difference), b);
    }
    /// The highest level at which two buckets of different blocks differ.
    static int levelOf(std::uint64_t difference) {
        return (static_cast<int>(std::bit_width(difference)) - 1 - near_bits) / digit_bits + 1;
    }
    static int shiftOf(int level) { return near_bits + (level - 1) * digit_bits; }
    static std::uint64_t digitAt(int level, std::uint64_t bucket) {
        return bucket >> shiftOf(level) & (digits - 1);
    }
    static std::size_t farIndex(int level, std::uint64_t bucket) {
        return near_lists + static_cast<std::uint64_t>(level - 1) * digits + digitAt(level, bucket);
    }

    void setOccupied(const EventList& list) {
        const auto index = static_cast<std::size_t>(&list - lists_.data());
        occupied_[index / 64] |= std::uint64_t{1} << (index % 64);
    }
    void clearOccupied(std::size_t index) {
        occupied_[index / 64] &= ~(std::uint64_t{1} << (index % 64));
    }
    /// Calls visit(index) for each list that holds an event.
    template <class Visit>
    void forEachList(Visit visit) const {
        for (std::size_t word = 0; word < occupied_.size(); ++word) {
            for (std::uint64_t bits = occupied_[word]; bits != 0; bits &= bits - 1) {
                visit(word * 64 + static_cast<std::size_t>(std::countr_zero(bits)));
            }
        }
    }
    void moveTo(std::int64_t bucket);
    template <class Record>
    void moveDown(ChunkPool<Record>& pool, ChunkList<Record>& list,
                  ChunkList<Record> EventList::*member) noexcept;
    template <class Record, class Test>
    void removeFrom(ChunkPool<Record>& pool, ChunkList<Record>& list, Test test) noexcept;

    ModelTime width_;
    std::int64_t position_ = 0;
    std::uint64_t count_ = 0;
    ChunkPool<Event> events_;
    ChunkPool<PackedDelivery> deliveries_;
    ChunkPool<DeliveryRun> runs_;
    std::vector<EventList> lists_;
    std::vector<std::uint64_t> occupied_;  ///< one bit a list: whether it holds an event
};

template <class Test>
void EventWheel::removeIf(Test test) {
    // One free chunk is enough, because each list frees a chunk before it needs a second one.
    events_.reserveChunks(1);
    deliveries_.reserveChunks(1);
    forEachList([&](std::size_t index) {
        removeFrom(events_, lists_[index].events, test);
        removeFrom(deliveries_, lists_[index].deliveries, test);
        if (lists_[index].isEmpty()) clearOccupied(index);
    });
}

template <class VisitDeliveries>
bool EventWheel::expandRuns(VisitDeliveries visitDeliveries) {
    constexpr std::size_t chunk_records = ChunkList<PackedDelivery>::chunk_records;
    std::size_t chunks = 0;
    forEachList([&](std::size_t index) {
        chunks += (lists_[index].run_deliveries + chunk_records - 1) / chunk_records;
    });
    deliveries_.reserveChunks(chunks);
    forEachList([&](std::size_t index) {
        EventList& list = lists_[index];
        const auto append = [&](const PackedDelivery& delivery) {
            deliveries_.append(list.deliveries, delivery);
        };
        list.runs.forEach([&](const DeliveryRun& run) { visitDeliveries(run, append); });
        runs_.clear(list.runs);
        list.run_deliveries = 0;
    });
    return chunks != 0;
}

template <class Record, class Test>
void EventWheel::removeFrom(ChunkPool<Record>& pool, ChunkList<Record>& list, Test test) noexcept {
    ChunkList<Record> kept;
    while (!list.isEmpty()) {
        const Record record = pool.takeAny(list);
        if (test(record.id)) {
            --count_;
        } else {
            pool.append(kept, record);
        }
    }
    list = kept;
}

}  // namespace Lumenar::Core::Kelm
