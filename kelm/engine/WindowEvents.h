#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <utility>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/core/LargePages.h"
#include "kelm/core/Prefetch.h"
#include "kelm/engine/PlacedEvents.h"
#include "kelm/events/CandidateSlot.h"
#include "kelm/events/ChunkPool.h"
#include "kelm/events/DeliveryRun.h"
#include "kelm/events/Event.h"
#include "kelm/events/EventWheel.h"
#include "kelm/events/PackedDelivery.h"
#include "kelm/network/SynapseGraph.h"

namespace Lumenar::Core::Kelm {

/// The events of one window in the order of their targets.
///
/// A dense window has several run deliveries per neuron. Its events are written straight to their
/// places (PlacedEvents). In any other window, each event has a key of one word: target in the high
/// bits, place in the low bits. The event stays in the calendar, and a delivery of a run stays in
/// the graph. Keys are added in the order of their places and targets are small integers, so a
/// large window is sorted digit by digit (D. E. Knuth, "The Art of Computer Programming", volume 3,
/// 1998, section 5.2.5). Storage is kept from window to window; the events belong to the calendar.
class WindowEvents {
public:
    /// The part of an event that its neuron's work item holds, and its id.
    struct Input {
        ModelTime time;
        std::uint64_t id;
        double value;
        bool wake_only;
    };

    static constexpr std::size_t chunk_places = ChunkList<Event>::chunk_records;
    static_assert(chunk_places == ChunkList<PackedDelivery>::chunk_records);

    /// How many chunks hold as many candidates, or events that are added at once.
    static std::size_t chunksOf(std::size_t count) {
        return (count + chunk_places - 1) / chunk_places;
    }

    explicit WindowEvents(std::uint64_t node_count) : node_count_(node_count) {}

    /// Begins a window of `candidate_count` candidates and the events of `list`, whose runs go
    /// through `routed`.
    /// Throws WindowEngineError for more events than a window can hold.
    void begin(std::size_t candidate_count, const EventList& list,
               const SynapseGraph::RoutedTransmissions& routed) {
        routed_ = routed;
        runs_.clear();
        runs_.reserve(list.runs.size());
        std::size_t run_chunks = 0;
        list.runs.forEach([&](const DeliveryRun& run) {
            runs_.push_back(run);
            run_chunks += chunksOf(run.count);
        });
        const std::size_t singles = candidate_count + list.singleCount();
        const std::size_t event_count = singles + list.run_deliveries;
        if (isDense(list.run_deliveries, singles)) {
            placed_.begin(node_count_, singles + runs_.size(), event_count);
            is_placed_ = true;
            outside_ = false;
        } else {
            beginKeys(chunksOf(candidate_count) + list.events.chunk_count +
                          list.deliveries.chunk_count + run_chunks,
                      event_count);
        }
    }
    /// Adds what begin has made room for: the candidates of `neurons`, each named once, in `slots`,
    /// shape (neurons of the network), and the events of `list`.
    void add(std::span<const NodeId> neurons, std::span<const CandidateSlot> slots,
             const EventList& list) {
        if (is_placed_) {
            for (const NodeId neuron : neurons) placed_.add(neuron, slots[neuron]);
            list.forEachSingle([&](const auto& record) {
                outside_ |= record.target >= node_count_;
                placed_.add(record);
            });
            for (const DeliveryRun& run : runs_) placed_.add(run);
            return;
        }
        addCandidates(neurons, slots);
        list.events.forEachChunk([&](auto records) { addChunk(records); });
        list.deliveries.forEachChunk([&](auto records) { addChunk(records); });
        for (std::size_t i = 0; i < runs_.size(); ++i) {
            if (i + prefetched_runs < runs_.size()) {
                const DeliveryRun& later = runs_[i + prefetched_runs];
                routed_.prefetch(later.first_route, later.count);
            }
            addRun(runs_[i]);
        }
    }

    /// Begins a window and adds all of its events.
    /// Throws WindowEngineError for more events than a window can hold.
    void addAll(std::span<const Event> events) {
        runs_.clear();
        beginKeys(chunksOf(events.size()), events.size());
        for (std::size_t i = 0; i < events.size(); i += chunk_places) {
            addChunk(events.subspan(i, std::min(chunk_places, events.size() - i)));
        }
    }

    /// Whether the target of some event is outside the network. Such a window cannot be sorted.
    bool reachesOutside() const { return outside_; }

    /// Puts the events in the order of their targets.
    void sortByTarget() {
        if (is_placed_) return placed_.place(routed_);
        // Clearing and summing the digit counts costs as much as sorting this many keys otherwise.
        if (size_ < min_digit_sorted || target_bits_ > 4 * max_digit_bits) {
            std::sort(keys_.begin(), keys_.begin() + static_cast<std::ptrdiff_t>(size_));
        } else if (target_bits_ <= max_digit_bits) {
            sortByDigits<1>();
        } else if (target_bits_ <= 2 * max_digit_bits) {
            sortByDigits<2>();
        } else {
            sortByDigits<4>();
        }
    }

    std::size_t size() const { return is_placed_ ? placed_.size() : size_; }

    /// Copies the deliveries that are still to be read from the graph, so that the graph may
    /// change. May throw std::bad_alloc.
    void copyRuns() {
        if (is_placed_) return;
        std::size_t deliveries = 0;
        for (const DeliveryRun& run : runs_) deliveries += run.count;
        if (deliveries == 0) return;
        copies_.clear();
        copies_.reserve(deliveries);
        for (Chunk& chunk : chunks_) {
            if (chunk.kind != Kind::run) continue;
            const std::size_t first = copies_.size();
            for (std::uint64_t i = 0; i < chunk.count; ++i) {
                PackedDelivery& copy = copies_.emplace_back();
                copy.time = chunk.time;
                copy.id = chunk.id + i;
                copy.value = routed_[chunk.first_route + i].value();
            }
            chunk = Chunk(Kind::deliveries, copies_.data() + first);
        }
    }

    /// The events of a dense window, which has no walk. Null for any other window.
    const PlacedEvents* placed() const { return is_placed_ ? &placed_ : nullptr; }

private:
    struct Chunk;

public:
    /// A walk over the sorted events, target by target. It copies the pointers of the window, so
    /// that a loop keeps them in registers. Valid until the next window begins.
    class Walk {
    public:
        std::size_t size() const { return size_; }
        NodeId targetAt(std::size_t i) const { return keys_[i] >> place_bits_; }
        Input inputAt(std::size_t i) const { return inputOf(keys_[i]); }
        void prefetch(std::size_t i) const {
            const std::uint64_t place = keys_[i] & place_mask_;
            const Chunk& chunk = chunks_[place / chunk_places];
            switch (chunk.kind) {
                case Kind::run:
                    return prefetchLine(&routed_[chunk.first_route + place % chunk_places]);
                case Kind::deliveries:
                    return prefetchLine(chunk.deliveries + place % chunk_places);
                case Kind::events:
                    return prefetchLine(chunk.events + place % chunk_places);
                case Kind::candidates:
                    return;
            }
        }
        /// Puts the events that have the target of event `first` in the order of EventLess, and
        /// returns their end.
        std::size_t orderTarget(std::size_t first) {
            const NodeId target = targetAt(first);
            std::size_t end = first + 1;
            while (end < size_ && targetAt(end) == target) ++end;
            if (end - first > 1) orderByTime(first, end);
            return end;
        }

    private:
        friend class WindowEvents;

        Input inputOf(std::uint64_t key) const {
            const std::uint64_t place = key & place_mask_;
            const Chunk& chunk = chunks_[place / chunk_places];
            const std::size_t i = place % chunk_places;
            switch (chunk.kind) {
                case Kind::run:
                    return {chunk.time, chunk.id + i,
                            static_cast<double>(routed_[chunk.first_route + i].value()), false};
                case Kind::deliveries: {
                    const PackedDelivery& delivery = chunk.deliveries[i];
                    return {delivery.time, delivery.id, static_cast<double>(delivery.value), false};
                }
                case Kind::candidates: {
                    const CandidateSlot& slot = chunk.slots[key >> place_bits_];
                    return {slot.time, slot.event_id, slot.rate, true};
                }
                case Kind::events:
                    break;
            }
            const Event& event = chunk.events[i];
            return {event.time, event.id, event.value, event.kind == EventKind::candidate};
        }
        /// By insertion, because most targets have few events.
        void orderByTime(std::size_t first, std::size_t end) {
            const auto earlier = [this](std::uint64_t a, std::uint64_t b) {
                const Input x = inputOf(a);
                const Input y = inputOf(b);
                if (x.time != y.time) return x.time < y.time;
                // Equal ids only come from a store that was given; its own order then decides.
                return x.id != y.id ? x.id < y.id : a < b;
            };
            if (end - first > max_inserted) {
                std::sort(keys_ + first, keys_ + end, earlier);
                return;
            }
            for (std::size_t i = first + 1; i < end; ++i) {
                const std::uint64_t key = keys_[i];
                std::size_t place = i;
                for (; place > first && earlier(key, keys_[place - 1]); --place) {
                    keys_[place] = keys_[place - 1];
                }
                keys_[place] = key;
            }
        }

        std::uint64_t* keys_ = nullptr;
        std::size_t size_ = 0;
        const Chunk* chunks_ = nullptr;
        SynapseGraph::RoutedTransmissions routed_;
        std::uint64_t place_mask_ = 0;
        int place_bits_ = 0;
    };

    Walk walk() {
        Walk walk;
        walk.keys_ = keys_.data();
        walk.size_ = size_;
        walk.chunks_ = chunks_.data();
        walk.routed_ = routed_;
        walk.place_mask_ = (std::uint64_t{1} << place_bits_) - 1;
        walk.place_bits_ = place_bits_;
        return walk;
    }

private:
    static constexpr std::uint64_t deliveries_per_neuron = 4;
    static constexpr std::uint64_t deliveries_per_single = 2;
    /// How many runs ahead the synapses of a run are prefetched.
    static constexpr std::size_t prefetched_runs = 4;
    static constexpr std::size_t min_digit_sorted = 256;
    static constexpr std::size_t max_inserted = 16;
    static constexpr int max_digit_bits = 10;

    /// Bits of an integer below `count`.
    static int widthOf(std::uint64_t count) {
        return static_cast<int>(std::bit_width(count == 0 ? 0 : count - 1));
    }

    enum class Kind : std::uint32_t { events, deliveries, candidates, run };

    /// Where the records of a chunk lie.
    struct Chunk {
        Chunk(Kind k, const Event* records) : kind(k), events(records) {}
        Chunk(Kind k, const PackedDelivery* records) : kind(k), deliveries(records) {}
        Chunk(Kind k, const CandidateSlot* all) : kind(k), slots(all) {}
        Chunk(const DeliveryRun& run, std::uint64_t first, std::uint64_t last)
            : kind(Kind::run),
              count(static_cast<std::uint32_t>(last - first)),
              first_route(run.first_route + first),
              time(run.time),
              id(run.id + first) {}

        Kind kind;
        std::uint32_t count = 0;  ///< deliveries of a part of a run
        union {
            const Event* events;
            const PackedDelivery* deliveries;
            const CandidateSlot* slots;  ///< shape (neurons of the network)
            std::uint64_t first_route;   ///< of a part of a run
        };
        // Of a part of a run.
        ModelTime time = 0;
        std::uint64_t id = 0;
    };

    /// Whether placing the events costs less than sorting keys of them. Placing takes a pass over
    /// all neurons and writes at scattered places; it also sorts the single events in time.
    bool isDense(std::uint64_t run_deliveries, std::size_t singles) const {
        return run_deliveries / deliveries_per_neuron >= node_count_ &&
               run_deliveries >= deliveries_per_single * singles &&
               run_deliveries + singles <= std::numeric_limits<std::uint32_t>::max();
    }

    void beginKeys(std::size_t chunk_count, std::size_t event_count) {
        is_placed_ = false;
        const std::size_t places = chunk_count * chunk_places;
        target_bits_ = widthOf(node_count_);
        place_bits_ = widthOf(places);
        if (places > std::numeric_limits<std::uint32_t>::max() || target_bits_ + place_bits_ > 64) {
            throw WindowEngineError(WindowEngineError::window_too_large);
        }
        // Longer than needed, so that no window but the largest clears memory.
        if (keys_.size() < event_count) keys_.resize(std::max(event_count, 2 * keys_.size()));
        size_ = 0;
        chunks_.clear();
        chunks_.reserve(chunk_count);
        outside_ = false;
    }
    void addChunk(std::span<const Event> events) {
        addRecords(events, Chunk(Kind::events, events.data()));
    }
    void addChunk(std::span<const PackedDelivery> deliveries) {
        addRecords(deliveries, Chunk(Kind::deliveries, deliveries.data()));
    }
    void addCandidates(std::span<const NodeId> neurons, std::span<const CandidateSlot> slots) {
        for (std::size_t i = 0; i < neurons.size(); ++i) {
            if (i % chunk_places == 0) chunks_.emplace_back(Kind::candidates, slots.data());
            keys_[size_++] = neurons[i] << place_bits_ |
                             ((chunks_.size() - 1) * chunk_places + i % chunk_places);
        }
    }
    void addRun(const DeliveryRun& run) {
        for (std::uint64_t first = 0; first < run.count; first += chunk_places) {
            const std::uint64_t last = std::min(first + chunk_places, run.count);
            std::uint64_t place = chunks_.size() * chunk_places;
            chunks_.emplace_back(run, first, last);
            for (std::uint64_t i = first; i < last; ++i) {
                const SynapseTable::Transmission& synapse = routed_[run.first_route + i];
                keys_[size_++] = NodeId{synapse.target} << place_bits_ | place++;
            }
        }
    }

    template <class Record>
    void addRecords(std::span<const Record> records, const Chunk& chunk) {
        std::uint64_t place = chunks_.size() * chunk_places;
        chunks_.push_back(chunk);
        std::uint64_t* key = keys_.data() + size_;
        bool outside = false;
        for (const Record& record : records) {
            outside |= record.target >= node_count_;
            *key++ = NodeId{record.target} << place_bits_ | place++;
        }
        size_ += records.size();
        outside_ |= outside;
    }

    using Starts = std::array<std::uint32_t, std::size_t{1} << max_digit_bits>;

    /// Turns the number of keys of each digit into the place of the first one.
    static void sumUp(Starts& counts, std::uint64_t digits) {
        std::uint32_t sum = 0;
        for (std::uint64_t digit = 0; digit < digits; ++digit) {
            sum += std::exchange(counts[digit], sum);
        }
    }

    template <int passes>
    void sortByDigits() {
        const int digit_bits = (target_bits_ + passes - 1) / passes;
        const std::uint64_t digits = std::uint64_t{1} << digit_bits;
        const std::uint64_t mask = digits - 1;
        // One count serves all passes: the digits of a key do not depend on its place.
        std::array<Starts, passes> starts;
        for (Starts& counts : starts) std::fill_n(counts.begin(), digits, 0);
        const int place_bits = place_bits_;
        for (const std::uint64_t key : std::span(keys_.data(), size_)) {
            std::uint64_t rest = key >> place_bits;
            for (Starts& counts : starts) {
                ++counts[rest & mask];
                rest >>= digit_bits;
            }
        }
        other_.resize(keys_.size());
        int shift = place_bits;
        for (Starts& places : starts) {
            sumUp(places, digits);
            std::uint64_t* const sorted = other_.data();
            for (const std::uint64_t key : std::span(keys_.data(), size_)) {
                sorted[places[key >> shift & mask]++] = key;
            }
            keys_.swap(other_);
            shift += digit_bits;
        }
    }

    std::uint64_t node_count_;
    int target_bits_ = 0;
    int place_bits_ = 0;
    bool outside_ = false;
    std::vector<Chunk> chunks_;  ///< place p is record p % chunk_places of chunk p / chunk_places
    std::size_t size_ = 0;
    LargeArray<std::uint64_t> keys_;  ///< size_ are in use
    LargeArray<std::uint64_t> other_;
    std::vector<DeliveryRun> runs_;
    SynapseGraph::RoutedTransmissions routed_;
    std::vector<PackedDelivery> copies_;  ///< of deliveries in runs
    PlacedEvents placed_;
    bool is_placed_ = false;
};

}  // namespace Lumenar::Core::Kelm
