#include "kelm/engine/WindowCalendar.h"

#include <algorithm>
#include <cstring>
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

}  // namespace

WindowCalendar::WindowCalendar(SynapseGraph& graph, ModelTime d_min)
    : graph_(graph), slots_(graph.nodeCount()), calendar_(d_min, bucket_count) {
    tree_.reset(slots_.size());
}

WindowCalendar::WindowCalendar(SynapseGraph& graph, std::unique_ptr<IEventStore> store)
    : graph_(graph),
      slots_(graph.nodeCount()),
      calendar_(1, bucket_count),
      store_is_given_(true),
      store_(std::move(store)) {}

/// A candidate in the store is an event like any other.
void WindowCalendar::scheduleInStore(NodeId neuron, ModelTime time, double rate) {
    CandidateSlot& slot = slots_[neuron];
    // False for an event that the store has handed out, which does no harm.
    if (slot.event_id != no_event) store_->cancel(slot.event_id);
    slot = {time, rate, no_event};
    if (time >= 0) slot.event_id = store_->post(candidateEvent(neuron, slot));
}

void WindowCalendar::refusePast(NodeId neuron) {
    tree_.cancel(neuron);
    throw LookaheadViolation(LookaheadViolation::processed);
}

void WindowCalendar::expandRuns() {
    const auto visitDeliveries = [this](const DeliveryRun& run, auto visit) {
        graph_.visitDeliveries(run, visit);
    };
    if (calendar_.expandRuns(visitDeliveries)) windows_without_runs_ = pause_windows;
}

std::int64_t WindowCalendar::firstCandidateBucket() {
    if (tree_.pendingCount() == 0) return BucketCalendar::no_bucket;
    return calendar_.bucketOf(tree_.firstTime());
}

std::optional<ModelTime> WindowCalendar::nextWindowStart() {
    if (store_) return std::nullopt;
    const std::int64_t bucket = std::min(calendar_.firstBucket(), firstCandidateBucket());
    return bucket == BucketCalendar::no_bucket ? last_model_time : bucket * calendar_.bucketWidth();
}

bool WindowCalendar::takeWindow(ModelTime until, ModelTime also, WindowEvents& events,
                                ModelTime& window_start, ModelTime& window_end) {
    if (store_) {
        if (!store_->take(until, copied_, window_start, window_end)) return false;
        events.addAll(copied_);
        return true;
    }
    calendar_.release(taken_);
    std::int64_t other = firstCandidateBucket();
    if (also >= 0) other = std::min(other, calendar_.bucketOf(also));
    if (calendar_.size() == 0 && other == BucketCalendar::no_bucket) return false;
    if (!calendar_.advance(until, other)) return false;
    const ModelTime start = calendar_.windowStart();
    const ModelTime end = calendar_.windowEnd();
    const EventList& bucket = calendar_.current();
    const auto begin = [&](std::size_t candidate_count) {
        events.begin(candidate_count, bucket,
                     bucket.runs.isEmpty() ? SynapseGraph::RoutedTransmissions()
                                           : graph_.routedTransmissions());
    };
    const std::span<const NodeId> due = tree_.take(end, begin);

    // From here on nothing can fail.
    events.add(due, slots_, bucket);
    taken_ = calendar_.take();
    if (windows_without_runs_ != 0) --windows_without_runs_;
    window_start = start;
    window_end = end;
    return true;
}

Blob WindowCalendar::snapshot() {
    if (store_) return store_->snapshot();
    std::vector<Event> events;
    events.reserve(calendar_.size() + tree_.pendingCount());
    calendar_.forEachSingle([&](const auto& record) { events.push_back(unpackedEvent(record)); });
    const auto add = [&](const PackedDelivery& delivery) { events.push_back(delivery.unpacked()); };
    calendar_.forEachRun([&](const DeliveryRun& run) { graph_.visitDeliveries(run, add); });
    for (NodeId neuron = 0; neuron < slots_.size(); ++neuron) {
        if (tree_.isPending(neuron)) events.push_back(candidateEvent(neuron, slots_[neuron]));
    }
    return calendar_.snapshotOf(std::move(events));
}

bool WindowCalendar::restore(BlobView blob, LargeArray<CandidateSlot>&& slots, bool needs_buckets) {
    if (!(store_is_given_ ? store_->restore(blob) : restoreOwn(blob, slots, needs_buckets))) {
        return false;
    }
    slots_ = std::move(slots);
    return true;
}

bool WindowCalendar::restoreOwn(BlobView blob, LargeArray<CandidateSlot>& slots,
                                bool needs_buckets) {
    CandidateTree tree;
    tree.reset(slots.size());
    PendingIds ids;
    std::optional<BucketCalendar> calendar = calendar_.read(blob, ids, [&](const Event& event) {
        if (event.target >= slots.size() || tree.isPending(event.target) ||
            !isCandidateOf(slots[event.target], event)) {
            return false;
        }
        tree.schedule(event.target, event.time);
        return true;
    });
    if (!calendar) return false;

    // Reached only with a forged snapshot: a slot holds the id of a pending or future event that is
    // not its neuron's candidate. The neuron's next candidate cancels that event.
    const auto names_foreign_event = [&](NodeId neuron) {
        const std::uint64_t id = slots[neuron].event_id;
        return !tree.isPending(neuron) && id != no_event &&
               (ids.contains(id) || id >= calendar->nextId());
    };
    NodeId neuron = 0;
    while (neuron < slots.size() && !names_foreign_event(neuron)) ++neuron;
    std::unique_ptr<IEventStore> store;
    if (neuron < slots.size()) {
        if (needs_buckets) return false;
        store = std::make_unique<BucketEventStore>(calendar_.bucketWidth(), bucket_count);
        if (!store->restore(blob)) return false;
    }
    taken_ = {};
    calendar_ = std::move(*calendar);
    tree_ = std::move(tree);
    store_ = std::move(store);
    return true;
}

void WindowCalendar::resume(LargeArray<CandidateSlot>&& candidates,
                            std::optional<std::int64_t> next_window,
                            std::span<const Event> events) {
    BucketCalendar calendar(calendar_.bucketWidth(), bucket_count);
    if (next_window) calendar.resumeAt(*next_window);
    for (const Event& event : events) calendar.post(event);
    tree_.reset(candidates.size());

    // From here on nothing can fail.
    taken_ = {};
    calendar_ = std::move(calendar);
    slots_ = std::move(candidates);
}

}  // namespace Lumenar::Core::Kelm
