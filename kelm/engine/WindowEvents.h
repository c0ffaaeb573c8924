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
/// A dense window has several deliveries of runs per neuron. Its events are placed: written in the
/// order of their targets, in the form that the backend reads (PlacedEvents).
///
/// In any other window, each event has a key of one word: target in the high bits, address in the
/// low bits. The event stays where it is in the calendar; of a delivery of a run, the value is
/// copied out of the graph. Address a is record a % chunk_records of chunk a / chunk_records, where
/// a part of a run and a part of the due candidates are chunks too. Keys are added in the order of
/// their addresses and targets are small integers, so a large window is sorted digit by digit (D.
/// E. Knuth, "The Art of Computer Programming", volume 3, 1998, section 5.2.5).
///
/// Storage is kept from window to window.
class WindowEvents {
public:
    /// The part of an event that its neuron's work item holds, and its id.
    struct Input {
        ModelTime time;
        std::uint64_t id;
        double value;
        bool wake_only;
    };

    /// For `node_count` neurons from `first` on.
    explicit WindowEvents(std::uint64_t node_count, NodeId first = 0)
        : first_(first), node_count_(node_count) {}

    /// Where the entries of runs lie: in the graph, or in its section for a shard.
    struct RunEntries {
        SynapseGraph::RoutedTransmissions routed;
        SynapseGraph::SectionEntries section;
        bool of_section = false;

        /// Calls use(entries) with the entries that hold.
        template <class Use>
        void with(Use use) const {
            if (of_section) {
                use(section);
            } else {
                use(routed);
            }
        }
    };

    /// Begins a window of `candidate_count` candidates and the events of `list`, whose runs go
    /// through `entries`.
    /// Throws WindowEngineError for more events than a window can hold.
    void begin(std::size_t candidate_count, const EventList& list, const RunEntries& entries) {
        entries_ = entries;
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
            placed_.begin(first_, node_count_, singles + runs_.size(), event_count);
            is_dense_ = true;
            outside_ = false;
        } else {
            beginKeys(chunksOf(candidate_count) + list.events.chunk_count +
                          list.deliveries.chunk_count + run_chunks,
                      event_count);
            if (values_.size() < list.run_deliveries) values_.resize(2 * list.run_deliveries);
            value_count_ = 0;
        }
    }
    /// Adds what begin has made room for: the candidates of `neurons`, each named once, in `slots`,
    /// shape (node_count) from the first neuron on, and the events of `list`.
    void add(std::span<const NodeId> neurons, std::span<const CandidateSlot> slots,
             const EventList& list) {
        if (is_dense_) {
            for (const NodeId neuron : neurons) placed_.add(neuron, slots[neuron - first_]);
            list.forEachSingle([&](const auto& record) {
                outside_ |= isOutside(record.target);
                placed_.add(record);
            });
            for (const DeliveryRun& run : runs_) placed_.add(run);
            return;
        }
        addCandidates(neurons, slots);
        list.events.forEachChunk([&](auto records) { addChunk(records); });
        list.deliveries.forEachChunk([&](auto records) { addChunk(records); });
        entries_.with([&](const auto& entries) { addRuns(entries); });
    }

    /// Begins a window and adds all of its events.
    /// Throws WindowEngineError for more events than a window can hold.
    void addAll(std::span<const Event> events) {
        runs_.clear();
        beginKeys(chunksOf(events.size()), events.size());
        for (std::size_t i = 0; i < events.size(); i += chunk_records) {
            addChunk(events.subspan(i, std::min(chunk_records, events.size() - i)));
        }
    }

    /// Whether the target of some event is not one of the neurons. Such a window cannot be sorted.
    bool reachesOutside() const { return outside_; }

    /// Puts the events in the order of their targets.
    void sortByTarget() {
        if (is_dense_) return entries_.with([&](const auto& entries) { placed_.place(entries); });
        // For fewer keys, clearing and summing the digit tables costs more than another sort.
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

    std::size_t size() const { return is_dense_ ? placed_.size() : size_; }

    /// The events of a dense window, which has no walk. Null for any other window.
    const PlacedEvents* placedEvents() const { return is_dense_ ? &placed_ : nullptr; }

private:
    struct Chunk;

public:
    /// A walk over the sorted events, target by target. It copies the pointers of the window, so
    /// that a loop keeps them in registers. Valid until the next window begins.
    class Walk {
    public:
        std::size_t size() const { return size_; }
        NodeId targetAt(std::size_t i) const { return first_ + (keys_[i] >> address_bits_); }
        Input inputAt(std::size_t i) const { return inputOf(keys_[i]); }
        void prefetch(std::size_t i) const {
            const std::uint64_t address = keys_[i] & address_mask_;
            const Chunk& chunk = chunks_[address / chunk_records];
            switch (chunk.kind) {
                case Kind::run:
                    return prefetchLine(chunk.values + address % chunk_records);
                case Kind::deliveries:
                    return prefetchLine(chunk.deliveries + address % chunk_records);
                case Kind::events:
                    return prefetchLine(chunk.events + address % chunk_records);
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
            const std::uint64_t address = key & address_mask_;
            const Chunk& chunk = chunks_[address / chunk_records];
            const std::size_t i = address % chunk_records;
            switch (chunk.kind) {
                case Kind::run:
                    return {chunk.time, chunk.id + i, static_cast<double>(chunk.values[i]), false};
                case Kind::deliveries: {
                    const PackedDelivery& delivery = chunk.deliveries[i];
                    return {delivery.time, delivery.id, static_cast<double>(delivery.value), false};
                }
                case Kind::candidates: {
                    const CandidateSlot& slot = chunk.slots[key >> address_bits_];
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
        std::uint64_t address_mask_ = 0;
        int address_bits_ = 0;
        NodeId first_ = 0;
    };

    Walk walk() {
        Walk walk;
        walk.keys_ = keys_.data();
        walk.size_ = size_;
        walk.chunks_ = chunks_.data();
        walk.address_mask_ = (std::uint64_t{1} << address_bits_) - 1;
        walk.address_bits_ = address_bits_;
        walk.first_ = first_;
        return walk;
    }

private:
    static constexpr std::size_t chunk_records = ChunkList<Event>::chunk_records;
    static_assert(chunk_records == ChunkList<PackedDelivery>::chunk_records);
    // A dense window has at least this many deliveries of runs.
    static constexpr std::uint64_t deliveries_per_neuron = 4;
    static constexpr std::uint64_t deliveries_per_single = 2;
    /// How many runs ahead the synapses of a run are prefetched.
    static constexpr std::size_t prefetched_runs = 4;
    static constexpr std::size_t min_digit_sorted = 256;
    static constexpr std::size_t max_inserted = 16;
    static constexpr int max_digit_bits = 10;

    /// How many chunks hold `count` candidates, events of a store or deliveries of one run.
    static std::size_t chunksOf(std::size_t count) {
        return (count + chunk_records - 1) / chunk_records;
    }
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
        Chunk(const DeliveryRun& run, std::uint64_t first, const float* run_values)
            : kind(Kind::run), values(run_values), time(run.time), id(run.id + first) {}

        Kind kind;
        union {
            const Event* events;
            const PackedDelivery* deliveries;
            const CandidateSlot* slots;  ///< shape (neurons)
            const float* values;         ///< of a part of a run
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

    bool isOutside(NodeId target) const { return target - first_ >= node_count_; }

    void beginKeys(std::size_t chunk_count, std::size_t event_count) {
        is_dense_ = false;
        const std::size_t address_count = chunk_count * chunk_records;
        target_bits_ = widthOf(node_count_);
        address_bits_ = widthOf(address_count);
        if (address_count > std::numeric_limits<std::uint32_t>::max() ||
            target_bits_ + address_bits_ > 64) {
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
            if (i % chunk_records == 0) {
                chunks_.emplace_back(Kind::candidates, slots.data());
            }
            keys_[size_++] = (neurons[i] - first_) << address_bits_ |
                             ((chunks_.size() - 1) * chunk_records + i % chunk_records);
        }
    }
    template <class Entries>
    void addRuns(const Entries& entries) {
        for (std::size_t i = 0; i < runs_.size(); ++i) {
            if (i + prefetched_runs < runs_.size()) {
                const DeliveryRun& later = runs_[i + prefetched_runs];
                entries.prefetch(later.first_route, later.count);
            }
            addRun(runs_[i], entries);
        }
    }
    template <class Entries>
    void addRun(const DeliveryRun& run, const Entries& entries) {
        for (std::uint64_t first = 0; first < run.count; first += chunk_records) {
            const std::uint64_t last = std::min(first + chunk_records, run.count);
            std::uint64_t address = chunks_.size() * chunk_records;
            float* value = values_.data() + value_count_;
            chunks_.emplace_back(run, first, value);
            for (std::uint64_t i = first; i < last; ++i) {
                const auto& synapse = entries[run.first_route + i];
                keys_[size_++] = (synapse.target - first_) << address_bits_ | address++;
                *value++ = synapse.value();
            }
            value_count_ += last - first;
        }
    }

    template <class Record>
    void addRecords(std::span<const Record> records, const Chunk& chunk) {
        std::uint64_t address = chunks_.size() * chunk_records;
        chunks_.push_back(chunk);
        std::uint64_t* key = keys_.data() + size_;
        bool outside = false;
        for (const Record& record : records) {
            outside |= isOutside(record.target);
            *key++ = (record.target - first_) << address_bits_ | address++;
        }
        size_ += records.size();
        outside_ |= outside;
    }

    /// For each value of a digit: the number of its keys, and later the place of the next of them.
    using DigitTable = std::array<std::uint32_t, std::size_t{1} << max_digit_bits>;

    /// Turns the numbers of keys into the places of the first ones.
    static void sumUp(DigitTable& table, std::uint64_t digit_values) {
        std::uint32_t sum = 0;
        for (std::uint64_t digit = 0; digit < digit_values; ++digit) {
            sum += std::exchange(table[digit], sum);
        }
    }

    template <int passes>
    void sortByDigits() {
        const int digit_bits = (target_bits_ + passes - 1) / passes;
        const std::uint64_t digit_values = std::uint64_t{1} << digit_bits;
        const std::uint64_t mask = digit_values - 1;
        // One walk over the keys counts for all passes: a pass moves keys and changes none.
        std::array<DigitTable, passes> tables;
        for (DigitTable& table : tables) std::fill_n(table.begin(), digit_values, 0);
        const int address_bits = address_bits_;
        for (const std::uint64_t key : std::span(keys_.data(), size_)) {
            std::uint64_t rest = key >> address_bits;
            for (DigitTable& table : tables) {
                ++table[rest & mask];
                rest >>= digit_bits;
            }
        }
        sorted_.resize(keys_.size());
        int shift = address_bits;
        for (DigitTable& table : tables) {
            sumUp(table, digit_values);
            std::uint64_t* const sorted = sorted_.data();
            for (const std::uint64_t key : std::span(keys_.data(), size_)) {
                sorted[table[key >> shift & mask]++] = key;
            }
            keys_.swap(sorted_);
            shift += digit_bits;
        }
    }

    NodeId first_;
    std::uint64_t node_count_;
    int target_bits_ = 0;
    int address_bits_ = 0;
    bool outside_ = false;
    std::vector<Chunk> chunks_;
    std::size_t size_ = 0;
    LargeArray<std::uint64_t> keys_;    ///< size_ are in use
    LargeArray<std::uint64_t> sorted_;  ///< of one pass
    std::vector<DeliveryRun> runs_;
    RunEntries entries_;
    std::vector<float> values_;  ///< of the deliveries of runs; value_count_ are in use
    std::size_t value_count_ = 0;
    PlacedEvents placed_;
    bool is_dense_ = false;
};

}  // namespace Lumenar::Core::Kelm
