#include "kelm/engine/WindowCalendar.h"

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>

#include "kelm/core/Failures.h"
#include "kelm/events/BucketEventStore.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr std::uint64_t bucket_count = 4096;

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

/// To the bit: a blob keeps the bits of a NaN.
bool isCandidateOf(const CandidateSlot& slot, const Event& event) {
    const Event expected = candidateEvent(event.target, slot);
    return std::memcmp(&event, &expected, sizeof(Event)) == 0;
}

/// Posts the deliveries of a spike that are for one shard.
struct ShardSink {
    template <class Record>
    bool isOwn(const Record& record, std::uint64_t place) {
        calendar.setNextId(first_id + place);
        return record.target - begin < size;
    }
    void post(const Event& event, std::uint64_t place) {
        if (isOwn(event, place)) calendar.post(event);
    }
    void postPacked(const PackedDelivery& delivery, std::uint64_t place) {
        if (isOwn(delivery, place)) calendar.postPacked(delivery);
    }
    BucketCalendar& calendar;
    std::uint64_t first_id;
    NodeId begin;
    std::uint64_t size;
};

}  // namespace

WindowCalendar::Shard::Shard(NodeId first, NodeId last, BucketCalendar events)
    : begin(first), end(last), calendar(std::move(events)) {
    tree.reset(end - begin, begin);
}

WindowCalendar::WindowCalendar(SynapseGraph& graph, ModelTime d_min)
    : graph_(graph),
      first_neuron_(graph.share() ? graph.share()->begin : 0),
      slots_(graph.share() ? graph.share()->end - first_neuron_ : graph.nodeCount()) {
    shards_.emplace_back(first_neuron_, first_neuron_ + slots_.size(),
                         BucketCalendar(d_min, bucket_count));
}

WindowCalendar::WindowCalendar(SynapseGraph& graph, std::unique_ptr<IEventStore> store)
    : graph_(graph), slots_(graph.nodeCount()), store_is_given_(true), store_(std::move(store)) {
    shards_.emplace_back(0, 0, BucketCalendar(1, bucket_count));
    shards_.front().end = slots_.size();
}

/// Shards without events and candidates, with the cursor and the ids of the present ones.
std::vector<WindowCalendar::Shard> WindowCalendar::emptyShards(std::size_t count) const {
    std::vector<Shard> shards;
    shards.reserve(count);
    const auto n = static_cast<std::uint32_t>(count);
    for (std::uint32_t s = 0; s < n; ++s) {
        BucketCalendar calendar(first().bucketWidth(), bucket_count);
        if (first().isStarted()) calendar.resumeAt(first().cursor());
        shards.emplace_back(first_neuron_ + Kernel::shardBegin(slots_.size(), n, s),
                            first_neuron_ + Kernel::shardEnd(slots_.size(), n, s),
                            std::move(calendar));
    }
    shards.front().calendar.setNextId(nextId());
    return shards;
}

void WindowCalendar::setShards(std::size_t count) {
    if (store_) return;
    count = std::clamp<std::size_t>(count, 1, std::max<std::size_t>(slots_.size(), 1));
    if (count == shards_.size()) return;
    if (count > 1) {
        // Possible after a restore from a forged blob, or with a graph that a hook has replaced.
        for (const Shard& shard : shards_) {
            shard.calendar.forEachSingle(
                [&](const auto& record) { reaches_outside_ |= isForeign(record.target); });
        }
        if (reaches_outside_) return;
    }
    const int windows_without_runs = windows_without_runs_;
    expandRuns();
    std::vector<Shard> shards = emptyShards(count);
    const auto shardOf = [&](NodeId neuron) -> Shard& {
        if (count == 1 || isForeign(neuron)) return shards.back();
        return shards[Kernel::shardOf(slots_.size(), static_cast<std::uint32_t>(count),
                                      neuron - first_neuron_)];
    };
    for (const Shard& old : shards_) {
        old.calendar.forEachSingle(
            [&](const auto& record) { shardOf(record.target).calendar.adopt(record); });
        for (NodeId neuron = old.begin; neuron < old.end; ++neuron) {
            if (old.tree.isPending(neuron)) {
                shardOf(neuron).tree.schedule(neuron, candidate(neuron).time);
            }
        }
    }
    graph_.undivide();
    ends_.clear();
    for (const Shard& shard : shards) {
        if (count > 1) ends_.push_back(shard.end);
    }

    // From here on nothing can fail.
    shards_ = std::move(shards);
    windows_without_runs_ = windows_without_runs;
}

bool WindowCalendar::canPostApart(ModelTime window_end) {
    // No delivery may lie in a window already handed out, or beyond the range of ModelTime.
    const std::optional<ModelTime> d_min = graph_.dMin();
    return !reaches_outside_ && hasItsGraph() && d_min && *d_min >= first().bucketWidth() &&
           graph_.longestDelay() <= last_model_time - window_end;
}

void WindowCalendar::divideGraph() {
    graph_.divide(ends_);
    if (postsRuns()) graph_.connectHolder(*this);
}

void WindowCalendar::deliverTo(std::size_t shard, NodeId source, ModelTime time, std::uint64_t id,
                               ModelTime run_delay) {
    BucketCalendar& calendar = shards_[shard].calendar;
    calendar.setNextId(id);
    if (run_delay != 0 && postsRuns()) {
        const DeliveryRun run = graph_.runOf(source, time + run_delay, shard);
        if (run.count != 0) calendar.postRun(run);
        return;
    }
    ShardSink sink{calendar, id, shards_[shard].begin, shards_[shard].end - shards_[shard].begin};
    graph_.deliver(source, time, sink);
}

void WindowCalendar::unschedule(std::size_t shard, NodeId neuron,
                                const CandidateSlot& slot) noexcept {
    slotOf(neuron) = slot;
    // A candidate of the window is no longer pending.
    if (slot.time < 0 || first().isPast(slot.time)) {
        shards_[shard].tree.cancel(neuron);
    } else {
        shards_[shard].tree.schedule(neuron, slot.time);
    }
}

template <class Record>
std::uint64_t WindowCalendar::postTo(NodeId target, const Record& record) {
    BucketCalendar& calendar = shardOf(target).calendar;
    reaches_outside_ |= isForeign(target);
    const std::uint64_t id = nextId();
    calendar.setNextId(id);
    if constexpr (std::is_same_v<Record, Event>) {
        calendar.post(record);
    } else {
        calendar.postPacked(record);
    }
    setNextId(id + 1);
    return id;
}

std::uint64_t WindowCalendar::post(const Event& event) {
    if (store_) return store_->post(event);
    if (graph_.share() && isForeign(event.target)) {
        // The rank of the neuron keeps the event.
        first().requireOpen(event.time);
        return first().issueId();
    }
    return shards_.size() == 1 ? first().post(event) : postTo(event.target, event);
}

void WindowCalendar::deliverSerially(NodeId source, ModelTime time) {
    struct Spread {
        void post(const Event& event) { calendar.postTo(event.target, event); }
        void postPacked(const PackedDelivery& delivery) {
            calendar.postTo(delivery.target, delivery);
        }
        WindowCalendar& calendar;
    };
    Spread spread{*this};
    graph_.deliver(source, time, spread);
}

/// A candidate in the store is an event like any other.
void WindowCalendar::scheduleInStore(NodeId neuron, ModelTime time, double rate) {
    CandidateSlot& slot = slotOf(neuron);
    // False for an event that the store has handed out, which does no harm.
    if (slot.event_id != no_event) store_->cancel(slot.event_id);
    slot = {time, rate, no_event};
    if (time >= 0) slot.event_id = store_->post(candidateEvent(neuron, slot));
}

void WindowCalendar::refusePast(NodeId neuron) {
    shardOf(neuron).tree.cancel(neuron);
    throw LookaheadViolation(LookaheadViolation::processed);
}

void WindowCalendar::expandRuns() {
    for (std::size_t s = 0; s < shards_.size(); ++s) {
        const auto deliveries = [this, s](const DeliveryRun& run, auto visit) {
            visitDeliveries(run, s, visit);
        };
        if (shards_[s].calendar.expandRuns(deliveries)) windows_without_runs_ = pause_windows;
    }
}

std::int64_t WindowCalendar::firstCandidateBucket(Shard& shard) {
    if (shard.tree.pendingCount() == 0) return BucketCalendar::no_bucket;
    return first().bucketOf(shard.tree.firstTime());
}

std::int64_t WindowCalendar::candidateBucket() {
    std::int64_t bucket = BucketCalendar::no_bucket;
    for (Shard& shard : shards_) bucket = std::min(bucket, firstCandidateBucket(shard));
    return bucket;
}

std::int64_t WindowCalendar::eventBucket() const {
    std::int64_t bucket = BucketCalendar::no_bucket;
    for (const Shard& shard : shards_) bucket = std::min(bucket, shard.calendar.firstBucket());
    return bucket;
}

std::uint64_t WindowCalendar::eventCount() const {
    std::uint64_t count = 0;
    for (const Shard& shard : shards_) count += shard.calendar.size();
    return count;
}

ModelTime WindowCalendar::firstTime() {
    const std::int64_t bucket = candidateBucket();
    if (bucket == BucketCalendar::no_bucket && eventCount() == 0) return no_time;
    return std::min(bucket, eventBucket()) * first().bucketWidth();
}

std::optional<ModelTime> WindowCalendar::nextWindowStart() {
    if (store_) return std::nullopt;
    const ModelTime time = firstTime();
    return time == no_time ? last_model_time : time;
}

bool WindowCalendar::openWindow(ModelTime until, ModelTime also, ModelTime& window_start,
                                ModelTime& window_end) {
    if (store_) return store_->take(until, copied_, window_start, window_end);
    for (Shard& shard : shards_) shard.calendar.release(shard.taken);
    std::int64_t other = BucketCalendar::no_bucket;
    if (graph_.share()) {
        // The ranks have agreed on the next window; `also` lies in it.
        if (also < 0) return false;
        other = first().bucketOf(also);
    } else {
        other = candidateBucket();
        if (also >= 0) other = std::min(other, first().bucketOf(also));
        // Only events tell the last bucket of time from none.
        if (other == BucketCalendar::no_bucket && eventCount() == 0) return false;
        // A single calendar looks for its own first bucket when it advances.
        if (shards_.size() > 1) other = std::min(other, eventBucket());
    }
    bool found = false;
    for (Shard& shard : shards_) found = shard.calendar.advance(until, other);
    if (!found) return false;
    const ModelTime start = first().windowStart();
    window_end = first().windowEnd();
    window_start = start;
    if (windows_without_runs_ != 0) --windows_without_runs_;
    return true;
}

std::size_t WindowCalendar::openedCount() const {
    if (store_) return 0;
    std::size_t count = 0;
    for (const Shard& shard : shards_) count += shard.calendar.current().size();
    return count;
}

void WindowCalendar::takeEvents(std::size_t shard_index, WindowEvents& events) {
    if (store_) return events.addAll(copied_);
    Shard& shard = shards_[shard_index];
    const EventList& bucket = shard.calendar.current();
    const auto begin = [&](std::size_t candidate_count) {
        WindowEvents::RunEntries entries;
        if (!bucket.runs.isEmpty()) {
            entries.of_section = shards_.size() > 1;
            if (entries.of_section) {
                entries.section = graph_.sectionEntries();
            } else {
                entries.routed = graph_.routedTransmissions();
            }
        }
        events.begin(candidate_count, bucket, entries);
    };
    const std::span<const NodeId> due = shard.tree.take(shard.calendar.windowEnd(), begin);

    // From here on nothing can fail.
    events.add(due, std::span(slots_).subspan(shard.begin - first_neuron_, shard.end - shard.begin),
               bucket);
    shard.taken = shard.calendar.take();
}

std::vector<Event> WindowCalendar::pendingEvents() const {
    std::vector<Event> events;
    std::uint64_t count = 0;
    for (const Shard& shard : shards_) count += shard.calendar.size() + shard.tree.pendingCount();
    events.reserve(count);
    for (std::size_t s = 0; s < shards_.size(); ++s) {
        const Shard& shard = shards_[s];
        shard.calendar.forEachSingle(
            [&](const auto& record) { events.push_back(unpackedEvent(record)); });
        const auto add = [&](const PackedDelivery& delivery) {
            events.push_back(delivery.unpacked());
        };
        shard.calendar.forEachRun([&](const DeliveryRun& run) { visitDeliveries(run, s, add); });
        for (NodeId neuron = shard.begin; neuron < shard.end; ++neuron) {
            if (shard.tree.isPending(neuron)) {
                events.push_back(candidateEvent(neuron, candidate(neuron)));
            }
        }
    }
    return events;
}

Blob WindowCalendar::snapshotOf(std::vector<Event> events) const {
    return first().snapshotOf(std::move(events));
}

Blob WindowCalendar::snapshot() {
    return store_ ? store_->snapshot() : first().snapshotOf(pendingEvents());
}

bool WindowCalendar::restore(BlobView blob, LargeArray<CandidateSlot>&& slots, bool needs_buckets,
                             const std::function<bool(bool)>& agree) {
    const bool restored =
        store_is_given_ ? store_->restore(blob) : restoreOwn(blob, slots, needs_buckets, agree);
    if (restored) slots_ = std::move(slots);
    return restored;
}

/// The calendar is then one shard.
bool WindowCalendar::restoreOwn(BlobView blob, LargeArray<CandidateSlot>& slots, bool needs_buckets,
                                const std::function<bool(bool)>& agree) {
    CandidateTree tree;
    tree.reset(slots.size(), first_neuron_);
    PendingIds ids;
    std::optional<BucketCalendar> calendar = first().read(blob, ids, [&](const Event& event) {
        if (isForeign(event.target)) {
            // Of another rank. Without a rank of its own, the event ends the run.
            return graph_.share().has_value() && event.target < graph_.nodeCount();
        }
        if (tree.isPending(event.target) ||
            !isCandidateOf(slots[event.target - first_neuron_], event)) {
            return false;
        }
        tree.schedule(event.target, event.time);
        return true;
    });
    if (!calendar) return false;

    // Reached only with a forged snapshot: a slot holds the id of a pending or future event that is
    // not its neuron's candidate. The neuron's next candidate cancels that event.
    const auto names_foreign_event = [&](std::size_t place) {
        const std::uint64_t id = slots[place].event_id;
        return !tree.isPending(first_neuron_ + place) && id != no_event &&
               (ids.contains(id) || id >= calendar->nextId());
    };
    std::size_t place = 0;
    while (place < slots.size() && !names_foreign_event(place)) ++place;
    std::unique_ptr<IEventStore> store;
    if (place < slots.size()) {
        if (needs_buckets || graph_.share()) return false;
        store = std::make_unique<BucketEventStore>(first().bucketWidth(), bucket_count);
        if (!store->restore(blob)) return false;
    }
    if (agree != nullptr && !agree(true)) return false;
    becomeOneShard(std::move(*calendar), std::move(tree));
    store_ = std::move(store);
    return true;
}

void WindowCalendar::resume(LargeArray<CandidateSlot>&& candidates,
                            std::optional<std::int64_t> next_window,
                            std::span<const Event> events) {
    BucketCalendar calendar(first().bucketWidth(), bucket_count);
    if (next_window) calendar.resumeAt(*next_window);
    for (const Event& event : events) calendar.post(event);
    CandidateTree tree;
    tree.reset(candidates.size());

    // From here on nothing can fail.
    becomeOneShard(std::move(calendar), std::move(tree));
    slots_ = std::move(candidates);
}

void WindowCalendar::becomeOneShard(BucketCalendar&& calendar, CandidateTree&& tree) noexcept {
    shards_.erase(shards_.begin() + 1, shards_.end());
    Shard& only = shards_.front();
    only.end = first_neuron_ + slots_.size();
    only.taken = {};
    only.calendar = std::move(calendar);
    only.tree = std::move(tree);
    ends_.clear();
    reaches_outside_ = false;
    graph_.undivide();
}

}  // namespace Lumenar::Core::Kelm
