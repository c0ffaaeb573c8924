#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "kelm/core/LargePages.h"
#include "kelm/events/CandidateSlot.h"
#include "kelm/events/DeliveryRun.h"
#include "kelm/events/Event.h"
#include "kelm/events/PackedDelivery.h"
#include "kelm/kernel/WindowProcessing.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

/// The events of one window in the form that a backend reads, target by target.
///
/// A record is a run or a single event. The records are sorted by time and first id. A first pass
/// over their events counts the events of each target. A second pass writes each event to the next
/// place of its target. The events of a target are then in the order of EventLess: a run has one
/// time and consecutive ids, and ids are unique, so two records of one time do not mix.
///
/// The time is proportional to the events plus the neurons. Storage is kept from window to window.
class PlacedEvents {
public:
    /// Begins a window of `record_count` records with `event_count` events, fewer than 2^32, for
    /// `node_count` neurons from `first` on. May throw std::bad_alloc.
    void begin(NodeId first, std::uint64_t node_count, std::size_t record_count,
               std::size_t event_count) {
        records_.clear();
        records_.reserve(record_count);
        // Longer than needed, so that no window but the largest clears memory.
        if (events_.size() < event_count) events_.resize(std::max(event_count, 2 * events_.size()));
        ends_.resize(node_count);
        first_ = first;
        size_ = event_count;
    }

    void add(const Event& event) {
        addSingle(event, event.target, event.value, event.kind == EventKind::candidate);
    }
    void add(const PackedDelivery& delivery) {
        addSingle(delivery, delivery.target, static_cast<double>(delivery.value), false);
    }
    void add(NodeId neuron, const CandidateSlot& slot) {
        records_.push_back({slot.time, slot.event_id, neuron, 0, slot.rate, true});
    }
    void add(const DeliveryRun& run) {
        records_.push_back({run.time, run.id, run.first_route, run.count, 0.0, false});
    }

    /// Places the events. All targets must be neurons that begin has named.
    template <class Entries>
    void place(const Entries& routed) noexcept {
        std::sort(records_.begin(), records_.end(), [](const Record& a, const Record& b) {
            return a.time != b.time ? a.time < b.time : a.id < b.id;
        });
        std::fill(ends_.begin(), ends_.end(), 0);
        std::uint32_t* const ends = ends_.data();
        const NodeId begin = first_;
        const auto count = [=](const Record&, NodeId target, double) { ++ends[target - begin]; };
        forEachEvent(routed, count, [](NodeId) {});
        std::uint32_t sum = 0;
        for (std::uint32_t& end : ends_) sum += std::exchange(end, sum);
        // Moves the place of each target from its first event to its end.
        Kernel::WindowEvent* const events = events_.data();
        const auto write = [=](const Record& record, NodeId target, double value) {
            Kernel::WindowEvent& event = events[ends[target - begin]++];
            // Field by field: a copy of the whole record would wait for its parts to be stored.
            event.time = record.time;
            event.value = value;
            event.wake_only = record.wake_only;
        };
        forEachEvent(routed, write,
                     [=](NodeId target) { prefetchLine(events + ends[target - begin]); });
    }

    std::size_t size() const { return size_; }
    const Kernel::WindowEvent* data() const { return events_.data(); }
    /// Where the events of a neuron end; those of the next neuron begin there.
    std::size_t endOf(NodeId neuron) const { return ends_[neuron - first_]; }

private:
    /// How many records ahead the synapses of a run are prefetched.
    static constexpr std::size_t prefetched_records = 4;
    /// How many events ahead a run's targets are announced.
    static constexpr std::uint64_t announced_events = 32;

    struct Record {
        ModelTime time;
        std::uint64_t id;
        std::uint64_t target_or_route;  ///< target of a single event, first_route of a run
        std::uint64_t delivery_count;   ///< of a run; 0 for a single event
        double value;                   ///< of a single event
        bool wake_only;
    };

    template <class Single>
    void addSingle(const Single& event, NodeId target, double value, bool wake_only) {
        records_.push_back({event.time, event.id, target, 0, value, wake_only});
    }

    /// Calls visit(record, target, value) for each event, record by record. Calls announce(target)
    /// for the events of a run some events before their visit.
    template <class Entries, class Visit, class Announce>
    void forEachEvent(const Entries& routed, Visit visit, Announce announce) const {
        for (std::size_t i = 0; i < records_.size(); ++i) {
            if (i + prefetched_records < records_.size()) {
                const Record& later = records_[i + prefetched_records];
                if (later.delivery_count != 0) {
                    routed.prefetch(later.target_or_route, later.delivery_count);
                }
            }
            const Record record = records_[i];  // a copy, which no store can change
            if (record.delivery_count == 0) {
                visit(record, record.target_or_route, record.value);
                continue;
            }
            const std::uint64_t end = record.target_or_route + record.delivery_count;
            for (std::uint64_t route = record.target_or_route; route < end; ++route) {
                announce(NodeId{routed[std::min(route + announced_events, end - 1)].target});
                const auto& synapse = routed[route];
                visit(record, NodeId{synapse.target}, static_cast<double>(synapse.value()));
            }
        }
    }

    std::size_t size_ = 0;
    std::vector<Record> records_;
    LargeArray<Kernel::WindowEvent> events_;  ///< size_ are in use
    NodeId first_ = 0;                        ///< the first neuron
    LargeArray<std::uint32_t> ends_;          ///< shape (neurons)
};

}  // namespace Lumenar::Core::Kelm
