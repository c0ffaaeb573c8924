#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "kelm/core/Blob.h"
#include "kelm/core/LargePages.h"
#include "kelm/core/ModelTime.h"
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
/// The calendar borrows its graph, which must outlive it. Used by one thread at a time.
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

    /// Width of a window in ns; no value where the events lie in a store.
    std::optional<ModelTime> windowWidth() const {
        return store_ ? std::nullopt : std::optional(calendar_.bucketWidth());
    }

    /// The first time in ns at which a post is accepted; no value where the events lie in a store.
    std::optional<ModelTime> openFrom() const {
        return store_ ? std::nullopt : std::optional(calendar_.openFrom());
    }
    /// The start in ns of the next window that holds an event, or last_model_time; no value where
    /// the events lie in a store.
    std::optional<ModelTime> nextWindowStart();

    /// Shape (neurons): each neuron's scheduled candidate. A slot keeps its address until restore
    /// or resume.
    std::span<const CandidateSlot> candidates() const { return slots_; }

    /// Posts an event and returns its id. Throws what the store throws, or LookaheadViolation for a
    /// time in a window already handed out, or before 0.
    std::uint64_t post(const Event& event) {
        return store_ ? store_->post(event) : calendar_.post(event);
    }

    /// Posts the deliveries of a spike of `source` at `time` ns; throws as SynapseGraph::deliver.
    void deliver(NodeId source, ModelTime time) {
        if (store_) {
            graph_.deliver(source, time, *store_);
        } else if (!postsRuns() || !deliverRun(source, time)) {
            graph_.deliver(source, time, calendar_);
        }
    }

    /// Prefetches what deliver for a spike of `source` reads.
    void prefetchSynapses(NodeId source) const { graph_.prefetchSynapses(source, postsRuns()); }

    /// Replaces a neuron's candidate by one for `time` ns, drawn under `rate`, or by none where the
    /// time is negative. Throws as post does; the slot then names no event.
    void schedule(NodeId neuron, ModelTime time, double rate) {
        if (store_) return scheduleInStore(neuron, time, rate);
        CandidateSlot& slot = slots_[neuron];
        slot = {time, rate, no_event};
        if (time < 0) return tree_.cancel(neuron);
        if (calendar_.isPast(time)) refusePast(neuron);
        tree_.schedule(neuron, time);
        slot.event_id = calendar_.issueId();
    }

    /// Prefetches what schedule for `neuron` writes.
    void prefetch(NodeId neuron) const {
        prefetchLine(&slots_[neuron]);
        prefetchLine(&slots_[neuron].event_id);
        if (!store_) tree_.prefetch(neuron);
    }

    /// Takes the next window that holds an event or the time `also` in ns, if it starts before
    /// `until` ns, and replaces the content of `events` by its events. `also` is negative for none;
    /// a store does not read it. An event is valid until the next call, a candidate until its
    /// neuron is scheduled, and a delivery of a run until the graph changes. False where there is
    /// none. Throws what WindowEvents::begin and the store throw; TimeOverflow where the window's
    /// end lies beyond the range of ModelTime. In a calendar of its own the window is then still
    /// there.
    bool takeWindow(ModelTime until, ModelTime also, WindowEvents& events, ModelTime& window_start,
                    ModelTime& window_end);

    /// Blob of the store, or of a BucketEventStore that holds the same events.
    Blob snapshot();

    /// Replaces slots and events by `slots`, shape (neurons), and those of a blob. False for a blob
    /// that is refused; the calendar is then as it was, unless a store that was given refused after
    /// it had changed itself.
    /// `needs_buckets`: refuse a blob for which the calendar would make itself a store.
    [[nodiscard]] bool restore(BlobView blob, LargeArray<CandidateSlot>&& slots,
                               bool needs_buckets = false);

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

    bool postsRuns() const { return !store_ && windows_without_runs_ == 0; }
    /// False if the graph does not defer the deliveries.
    bool deliverRun(NodeId source, ModelTime time) {
        // A hook may have replaced the graph by a larger one. The targets of a run are not checked
        // again, those of single deliveries are.
        if (graph_.nodeCount() != slots_.size()) return false;
        const std::optional<DeliveryRun> run = graph_.deferRun(source, time, *this);
        if (!run) return false;
        calendar_.postRun(*run);
        return true;
    }
    void expandRuns() override;
    bool restoreOwn(BlobView blob, LargeArray<CandidateSlot>& slots, bool needs_buckets);
    void scheduleInStore(NodeId neuron, ModelTime time, double rate);
    [[noreturn]] void refusePast(NodeId neuron);
    std::int64_t firstCandidateBucket();

    SynapseGraph& graph_;
    LargeArray<CandidateSlot> slots_;  ///< shape (neurons)
    // Unused while there is a store.
    BucketCalendar calendar_;
    CandidateTree tree_;            ///< times of the pending candidates
    EventList taken_;               ///< the last window's events
    int windows_without_runs_ = 0;  ///< windows until deliveries are deferred again

    bool store_is_given_ = false;
    std::unique_ptr<IEventStore> store_;  ///< null where the events lie in calendar_ and tree_
    std::vector<Event> copied_;           ///< the last window's events, out of store_
};

}  // namespace Lumenar::Core::Kelm
