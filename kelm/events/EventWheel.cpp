#include "kelm/events/EventWheel.h"

#include <algorithm>
#include <type_traits>
#include <utility>

namespace Lumenar::Core::Kelm {

EventWheel::EventWheel(ModelTime width) : width_(width) {
    lists_.resize(near_lists + levels * digits);
    occupied_.resize(lists_.size() / 64);
}

std::int64_t EventWheel::firstBucket(std::int64_t end) const {
    const auto position = static_cast<std::uint64_t>(position_);
    const std::uint64_t first = position % near_lists;
    const std::uint64_t block = position - first;
    // Words of level 0 from the position on, as far as they lie before `end`.
    const std::uint64_t stop = std::min(near_lists, static_cast<std::uint64_t>(end) - block);
    std::uint64_t bits = occupied_[first / 64] & (~std::uint64_t{0} << (first % 64));
    for (std::uint64_t word = first / 64; word * 64 < stop; bits = occupied_[++word]) {
        if (bits == 0) continue;
        const auto found = block + word * 64 + static_cast<std::uint64_t>(std::countr_zero(bits));
        return std::min(static_cast<std::int64_t>(found), end);
    }
    if (stop < near_lists) return end;
    for (int level = 1; level <= levels; ++level) {
        const std::size_t own = farIndex(level, position);
        const std::uint64_t later = occupied_[own / 64] & (~std::uint64_t{0} << (own % 64) << 1);
        if (later == 0) continue;
        const std::size_t index = own / 64 * 64 + static_cast<std::size_t>(std::countr_zero(later));
        const std::uint64_t range = digits << shiftOf(level);  // 0 means 2^64 or more
        const std::uint64_t begin = (position & ~(range - 1)) + ((index % 64) << shiftOf(level));
        // The list is searched only when the position is about to enter its range, so events that
        // wait cost nothing per window.
        if (static_cast<std::int64_t>(begin) >= end) return end;
        ModelTime earliest = last_model_time;
        const auto find = [&](const auto& record) { earliest = std::min(earliest, record.time); };
        lists_[index].forEachSingle(find);
        lists_[index].runs.forEach(find);
        return std::min(bucketOf(earliest), end);
    }
    return end;
}

/// Moves the position to a bucket that no event lies before. Of the lists above level 0 only one
/// can hold events whose place depends on the move: the one whose range the position enters.
void EventWheel::moveTo(std::int64_t bucket) {
    const std::uint64_t difference =
        static_cast<std::uint64_t>(bucket) ^ static_cast<std::uint64_t>(position_);
    if (difference < near_lists) {
        position_ = bucket;
        return;
    }
    const std::size_t index = farIndex(levelOf(difference), static_cast<std::uint64_t>(bucket));
    EventList& entered = lists_[index];
    // Each list that an event goes to may need one chunk more than the entered list gives back.
    events_.reserveChunks(std::min(entered.events.size(), lists_.size()));
    deliveries_.reserveChunks(std::min(entered.deliveries.size(), lists_.size()));
    runs_.reserveChunks(std::min(entered.runs.size(), lists_.size()));
    position_ = bucket;
    clearOccupied(index);
    moveDown(events_, entered.events, &EventList::events);
    moveDown(deliveries_, entered.deliveries, &EventList::deliveries);
    moveDown(runs_, entered.runs, &EventList::runs);
    entered.run_deliveries = 0;
}

template <class Record>
void EventWheel::moveDown(ChunkPool<Record>& pool, ChunkList<Record>& list,
                          ChunkList<Record> EventList::*member) noexcept {
    while (!list.isEmpty()) {
        const Record record = pool.takeAny(list);
        EventList& target = listOf(bucketOf(record.time));
        pool.append(target.*member, record);
        if constexpr (std::is_same_v<Record, DeliveryRun>) target.run_deliveries += record.count;
        setOccupied(target);
    }
}

EventList EventWheel::takeCurrent() noexcept {
    const std::size_t index = indexOf(position_);
    clearOccupied(index);
    count_ -= lists_[index].size();
    return std::exchange(lists_[index], EventList());
}

}  // namespace Lumenar::Core::Kelm
