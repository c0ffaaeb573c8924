#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/LargePages.h"
#include "kelm/core/ModelTime.h"
#include "kelm/core/ShardRanges.h"
#include "kelm/engine/WindowEvents.h"
#include "kelm/events/BucketCalendar.h"
#include "kelm/events/CandidateSlot.h"
#include "kelm/events/CandidateTree.h"
#include "kelm/events/IEventStore.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

/// What an engine has pending: one candidate per neuron, and all other events.
///
/// A candidate is an event that its neuron replaces each time the neuron takes part in a window, so
/// it is not posted as one. The calendar keeps it in the neuron's slot and its time in a tree. A
/// slot holds the fields of the candidate's event. Ids, order and snapshot are the same as if each
/// candidate were cancelled and posted as an event. The other events lie in a calendar of buckets.
///
/// An engine may be given a store. Then all events lie in that store, the candidates among them,
/// and the slots name them by their ids. The same holds after a restore from a blob in which a slot
/// names an event that is not its neuron's candidate: the calendar then makes itself a store.
///
/// A calendar of its own keeps the deliveries of a spike as one run where the graph defers them.
/// After weights have changed, it posts deliveries one by one for some windows.
///
/// A calendar of its own has one shard or several. A shard is a range of neurons, with their
/// candidates and the events that wait for them. All shards have one cursor and one sequence of
/// ids, so ids, order and snapshot do not depend on the number of shards. What takes a shard as an
/// argument may be called for several shards at once.
///
/// The calendar borrows its graph, which must outlive it. Used by one thread at a time, except as
/// said.
class WindowCalendar final : private IRunHolder {
public:
    /// A calendar of its own for the neurons of `graph`; `d_min` in ns, at least 1.
    WindowCalendar(SynapseGraph& graph, ModelTime d_min);
    /// A calendar that keeps all events in `store`, which must not be null.
    WindowCalendar(SynapseGraph& graph, std::unique_ptr<IEventStore> store);

    // Neither copied nor moved: the graph has the address of the calendar that keeps runs.
    WindowCalendar(const WindowCalendar&) = delete;
    WindowCalendar& operator=(const WindowCalendar&) = delete;
    ~WindowCalendar() override { graph_.releaseHolder(*this); }

    /// 1 where the events lie in a store.
    std::size_t shardCount() const { return shards_.size(); }
    /// Makes `count` shards, at most one a neuron; a store stays one shard. Call it between
    /// windows. May throw std::bad_alloc, with nothing changed.
    void setShards(std::size_t count);
    /// The first neuron of a shard, and the neuron behind its last one.
    NodeId shardBegin(std::size_t shard) const { return shards_[shard].begin; }
    NodeId shardEnd(std::size_t shard) const { return shards_[shard].end; }

    /// Width of a window in ns; no value where the events lie in a store.
    std::optional<ModelTime> windowWidth() const {
        return store_ ? std::nullopt : std::optional(first().bucketWidth());
    }

    /// The first time in ns at which a post is accepted; no value where the events lie in a store.
    std::optional<ModelTime> openFrom() const {
        return store_ ? std::nullopt : std::optional(first().openFrom());
    }
    /// The start in ns of the next window that holds an event, or last_model_time; no value where
    /// the events lie in a store.
    std::optional<ModelTime> nextWindowStart();

    /// Shape (neurons): each neuron's scheduled candidate. A slot keeps its address until restore
    /// or resume. In a share: of the neurons of its range.
    std::span<const CandidateSlot> candidates() const { return slots_; }
    const CandidateSlot& candidate(NodeId neuron) const { return slots_[neuron - first_neuron_]; }

    /// Posts an event and returns its id. Throws what the store throws, or LookaheadViolation for a
    /// time in a window already handed out, or before 0.
    std::uint64_t post(const Event& event);

    /// Posts the deliveries of a spike of `source` at `time` ns; throws as SynapseGraph::deliver.
    void deliver(NodeId source, ModelTime time) {
        if (store_) {
            graph_.deliver(source, time, *store_);
        } else if (shards_.size() > 1) {
            deliverSerially(source, time);
        } else if (!postsRuns() || !deliverRun(source, time)) {
            graph_.deliver(source, time, first());
        }
    }

    // Of several shards, one by one: what deliver and schedule do, with ids that the caller counts.

    /// Whether shards may be posted to one by one: no post of the window can fail, and the graph is
    /// the calendar's.
    bool canPostApart(ModelTime window_end);
    /// Divides the graph as the neurons are. May throw std::bad_alloc.
    void divideGraph();
    /// The delay of the deliveries of a spike if they are kept as runs here, else 0; for spikes of
    /// all ranks. Several threads may read it, each for other sources. May throw std::bad_alloc.
    ModelTime runDelayOf(NodeId source) { return graph_.runDelayOf(source, postsRuns()); }
    /// The first id that is not given yet.
    std::uint64_t nextId() const { return first().nextId(); }
    void setNextId(std::uint64_t id) { first().setNextId(id); }
    /// What the deliveries of a spike of `source` have in common. Called by the shard of `source`.
    SynapseGraph::Transmission transmissionOf(NodeId source) {
        return graph_.transmissionOf(source, postsRuns());
    }
    void prefetchTransmission(NodeId source) const { graph_.prefetchTransmission(source); }
    /// Posts the deliveries of a spike to the neurons of a shard. `id`: of the first delivery of
    /// the spike to any neuron. `run_delay`: the delay of transmissionOf. May throw std::bad_alloc.
    void deliverTo(std::size_t shard, NodeId source, ModelTime time, std::uint64_t id,
                   ModelTime run_delay);
    /// Prefetches what deliverTo reads: first the place of it, then the data.
    void prefetchDeliveryPlace(NodeId source) const { graph_.prefetchRunPlace(source); }
    void prefetchDelivery(NodeId source) const { graph_.prefetchRun(source); }
    /// Schedules the candidate of a neuron of a shard as schedule does, without an id.
    void scheduleIn(std::size_t shard, NodeId neuron, ModelTime time, double rate) noexcept {
        slotOf(neuron) = {time, rate, no_event};
        if (time < 0) return shards_[shard].tree.cancel(neuron);
        shards_[shard].tree.schedule(neuron, time);
    }
    void setCandidateId(NodeId neuron, std::uint64_t id) { slotOf(neuron).event_id = id; }
    /// Undoes the schedule of a neuron in the current window.
    void unschedule(std::size_t shard, NodeId neuron, const CandidateSlot& slot) noexcept;

    /// Prefetches what deliver for a spike of `source` reads.
    void prefetchSynapses(NodeId source) const { graph_.prefetchSynapses(source, postsRuns()); }

    /// Replaces a neuron's candidate by one for `time` ns, drawn under `rate`, or by none where the
    /// time is negative. Throws as post does; the slot then names no event.
    void schedule(NodeId neuron, ModelTime time, double rate) {
        if (store_) return scheduleInStore(neuron, time, rate);
        CandidateSlot& slot = slotOf(neuron);
        slot = {time, rate, no_event};
        CandidateTree& tree = shardOf(neuron).tree;
        if (time < 0) return tree.cancel(neuron);
        if (first().isPast(time)) refusePast(neuron);
        tree.schedule(neuron, time);
        slot.event_id = first().issueId();
    }

    /// Prefetches what schedule for `neuron`, which lies in `shard`, writes.
    void prefetch(std::size_t shard, NodeId neuron) const {
        prefetchLine(&candidate(neuron));
        prefetchLine(&candidate(neuron).event_id);
        if (!store_) shards_[shard].tree.prefetch(neuron);
    }

    /// The start in ns of the next window that holds an event, or no_time; not for a store.
    ModelTime firstTime();
    /// All pending events, in no order.
    std::vector<Event> pendingEvents() const;

    /// Takes the next window that holds an event or the time `also` in ns, if it starts before
    /// `until` ns, and replaces the content of `events` by its events. `also` is negative for none;
    /// a store does not read it. An event is valid until the next call, a candidate until its
    /// neuron is scheduled, and a delivery of a run until the graph changes. False where there is
    /// none. Throws what WindowEvents::begin and the store throw; TimeOverflow where the window's
    /// end lies beyond the range of ModelTime. In a calendar of its own the window is then still
    /// there.
    bool takeWindow(ModelTime until, ModelTime also, WindowEvents& events, ModelTime& window_start,
                    ModelTime& window_end) {
        if (!openWindow(until, also, window_start, window_end)) return false;
        takeEvents(0, events);
        return true;
    }
    /// The two steps of takeWindow for several shards: the second one for each shard, with events
    /// of its neurons. If one throws, the run cannot go on.
    bool openWindow(ModelTime until, ModelTime also, ModelTime& window_start,
                    ModelTime& window_end);
    void takeEvents(std::size_t shard, WindowEvents& events);
    /// Events in the opened window, without candidates; 0 where the events lie in a store.
    std::size_t openedCount() const;

    /// Blob of the store, or of a BucketEventStore that holds the same events.
    Blob snapshot();
    /// Blob of a calendar of its own as it would be with these events.
    Blob snapshotOf(std::vector<Event> events) const;

    /// Replaces slots and events by `slots`, shape (neurons), and those of a blob. False for a blob
    /// that is refused; the calendar is then as it was, unless a store that was given refused after
    /// it had changed itself.
    /// `needs_buckets`: refuse a blob for which the calendar would make itself a store.
    /// `agree(accepts)`: called before a calendar of its own changes; the blob is refused where it
    /// returns false.
    [[nodiscard]] bool restore(BlobView blob, LargeArray<CandidateSlot>&& slots,
                               bool needs_buckets = false,
                               const std::function<bool(bool)>& agree = nullptr);

    /// For a calendar of its own: replaces its candidates by `candidates`, shape (neurons), none of
    /// which names an event, and its events by `events`, posted in their order. `next_window`: the
    /// next window to hand out; none if no window has been handed out. May throw std::bad_alloc,
    /// with nothing changed.
    void resume(LargeArray<CandidateSlot>&& candidates, std::optional<std::int64_t> next_window,
                std::span<const Event> events);

private:
    /// Windows without runs after an expansion. In a network whose weights change in each window, a
    /// run would only be expanded, which costs a little more than single deliveries.
    static constexpr int pause_windows = 16;

    /// A range of neurons. Unused while there is a store.
    struct Shard {
        Shard(NodeId begin, NodeId end, BucketCalendar calendar);

        NodeId begin;
        NodeId end;
        BucketCalendar calendar;  ///< the events that wait for the neurons
        CandidateTree tree;       ///< times of their pending candidates
        EventList taken;          ///< the last window's events
    };
    BucketCalendar& first() { return shards_.front().calendar; }
    const BucketCalendar& first() const { return shards_.front().calendar; }
    Shard& shardOf(NodeId neuron) {
        return shards_.size() == 1 ? shards_.front() : shards_[indexOf(neuron)];
    }
    std::size_t indexOf(NodeId neuron) const {
        // A graph that a hook has replaced may have more neurons.
        if (isForeign(neuron)) return shards_.size() - 1;
        return Kernel::shardOf(slots_.size(), static_cast<std::uint32_t>(shards_.size()),
                               neuron - first_neuron_);
    }
    /// Whether a neuron has no slot here.
    bool isForeign(NodeId neuron) const { return neuron - first_neuron_ >= slots_.size(); }
    CandidateSlot& slotOf(NodeId neuron) { return slots_[neuron - first_neuron_]; }
    /// Whether the graph has the neurons that the calendar was made for.
    bool hasItsGraph() const {
        return graph_.share() ? graph_.share()->begin == first_neuron_ &&
                                    graph_.share()->end == first_neuron_ + slots_.size()
                              : graph_.nodeCount() == slots_.size();
    }
    template <class Record>
    std::uint64_t postTo(NodeId target, const Record& record);
    void deliverSerially(NodeId source, ModelTime time);
    std::vector<Shard> emptyShards(std::size_t count) const;
    void becomeOneShard(BucketCalendar&& calendar, CandidateTree&& tree) noexcept;
    // Over all shards; no_bucket for none.
    std::int64_t candidateBucket();
    std::int64_t eventBucket() const;
    /// Events of all shards, without candidates.
    std::uint64_t eventCount() const;

    bool postsRuns() const { return !store_ && windows_without_runs_ == 0; }
    /// False if the graph does not defer the deliveries.
    bool deliverRun(NodeId source, ModelTime time) {
        // A hook may have replaced the graph by a larger one. The targets of a run are not checked
        // again, those of single deliveries are.
        if (!hasItsGraph()) return false;
        const std::optional<DeliveryRun> run = graph_.deferRun(source, time, *this);
        if (!run) return false;
        first().postRun(*run);
        return true;
    }
    void expandRuns() override;
    template <class Visit>
    void visitDeliveries(const DeliveryRun& run, std::size_t shard, Visit visit) const {
        if (shards_.size() == 1) return graph_.visitDeliveries(run, visit);
        graph_.visitDeliveries(run, shard, visit);
    }
    bool restoreOwn(BlobView blob, LargeArray<CandidateSlot>& slots, bool needs_buckets,
                    const std::function<bool(bool)>& agree);
    void scheduleInStore(NodeId neuron, ModelTime time, double rate);
    [[noreturn]] void refusePast(NodeId neuron);
    std::int64_t firstCandidateBucket(Shard& shard);

    SynapseGraph& graph_;
    NodeId first_neuron_ = 0;          ///< of slots_
    LargeArray<CandidateSlot> slots_;  ///< shape (neurons), or (neurons of the share)
    std::vector<NodeId> ends_;         ///< of the shards; empty for one
    std::vector<Shard> shards_;        ///< ascending; the calendar of the first one counts the ids
    int windows_without_runs_ = 0;     ///< windows until deliveries are deferred again
    bool reaches_outside_ = false;     ///< several shards hold an event of a foreign neuron

    bool store_is_given_ = false;
    std::unique_ptr<IEventStore> store_;  ///< null where the events lie in the shards
    std::vector<Event> copied_;           ///< the last window's events, out of store_
};

}  // namespace Lumenar::Core::Kelm
