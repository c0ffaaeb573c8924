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
#include "kelm/core/Prefetch.h"
#include "kelm/events/BucketEventStore.h"

namespace Lumenar::Core::Kelm {

/// The events of one window where they lie in their store, in the order of their targets.
///
/// Each is known by a key of one word: its target above its place. Keys come in ascending by place
/// and their targets are small integers, so a large window is sorted digit by digit (D. E. Knuth,
/// "The Art of Computer Programming", volume 3, 1998, section 5.2.5). Keeps its storage from window
/// to window; the events are the store's.
class WindowEvents {
public:
    /// What a neuron's work has to know of an event.
    struct Input {
        ModelTime time;
        std::uint64_t id;
        double value;
        bool wake_only;
    };

    explicit WindowEvents(std::uint64_t node_count) : node_count_(node_count) {}

    /// Begins a window of at most `places` events.
    /// Throws WindowEngineError for more than a window can hold.
    void begin(std::size_t places) {
        target_bits_ = widthOf(node_count_);
        place_bits_ = widthOf(places);
        if (places > std::numeric_limits<std::uint32_t>::max() || target_bits_ + place_bits_ > 64) {
            throw WindowEngineError(WindowEngineError::window_too_large);
        }
        keys_.clear();
        keys_.reserve(places);
        chunks_.clear();
        chunks_.reserve(places / chunk_places + 1);
        outside_ = false;
    }
    /// The events added next lie in this chunk.
    void addChunk(std::span<const Event> events) { chunks_.push_back({events.data(), nullptr}); }
    void addChunk(std::span<const PackedDelivery> deliveries) {
        chunks_.push_back({nullptr, deliveries.data()});
    }
    void add(const Event& event) { addKey(event.target, &event - chunks_.back().events); }
    void add(const PackedDelivery& delivery) {
        addKey(delivery.target, &delivery - chunks_.back().deliveries);
    }
    /// The same for a window that was copied out of its store.
    void addAll(std::span<const Event> events) {
        begin(events.size());
        for (std::size_t i = 0; i < events.size(); ++i) {
            if (i % chunk_places == 0) addChunk(events.subspan(i));
            add(events[i]);
        }
    }

    /// Whether some event's target is not in the network; there is no order then.
    bool reachesOutside() const { return outside_; }

    /// Puts the events in the order of their targets.
    void sortByTarget() {
        // Clearing and summing the digit counts costs as much as sorting this many keys otherwise.
        if (keys_.size() < min_digit_sorted || target_bits_ > max_passes * max_digit_bits) {
            std::sort(keys_.begin(), keys_.end());
            return;
        }
        const int passes = std::max(1, (target_bits_ + max_digit_bits - 1) / max_digit_bits);
        sortByDigits(passes, (target_bits_ + passes - 1) / passes);
    }

    std::size_t size() const { return keys_.size(); }
    NodeId targetAt(std::size_t i) const { return keys_[i] >> place_bits_; }
    Input inputAt(std::size_t i) const { return inputOf(keys_[i]); }
    void prefetch(std::size_t i) const {
        const std::uint64_t place = placeOf(keys_[i]);
        const Chunk& chunk = chunks_[place / chunk_places];
        if (chunk.deliveries != nullptr) {
            prefetchLine(chunk.deliveries + place % chunk_places);
        } else {
            prefetchLine(chunk.events + place % chunk_places);
        }
    }

    /// The end of the events that have the target of event `first`, which are put in the order of
    /// EventLess.
    std::size_t orderTarget(std::size_t first) {
        std::size_t end = first + 1;
        while (end < size() && targetAt(end) == targetAt(first)) ++end;
        if (end - first > 1) orderByTime(first, end);
        return end;
    }

private:
    static constexpr std::size_t chunk_places = BucketEventStore::chunk_places;
    static constexpr std::size_t min_digit_sorted = 256;
    static constexpr std::size_t max_inserted = 16;
    static constexpr int max_digit_bits = 10;
    static constexpr int max_passes = 4;

    /// Bits of an integer below `count`.
    static int widthOf(std::uint64_t count) {
        return static_cast<int>(std::bit_width(count == 0 ? 0 : count - 1));
    }

    struct Chunk {
        const Event* events;  ///< or null
        const PackedDelivery* deliveries;
    };

    void addKey(NodeId target, std::ptrdiff_t place_in_chunk) {
        outside_ = outside_ || target >= node_count_;
        const std::uint64_t place =
            (chunks_.size() - 1) * chunk_places + static_cast<std::uint64_t>(place_in_chunk);
        keys_.push_back(target << place_bits_ | place);
    }
    /// Few events mostly: put in one by one, in order.
    void orderByTime(std::size_t first, std::size_t end) {
        const auto earlier = [this](std::uint64_t a, std::uint64_t b) {
            const Input x = inputOf(a);
            const Input y = inputOf(b);
            if (x.time != y.time) return x.time < y.time;
            // Equal ids can only come from a store that was handed in: by place, its own order.
            return x.id != y.id ? x.id < y.id : a < b;
        };
        const auto begin = keys_.begin();
        if (end - first > max_inserted) {
            std::sort(begin + static_cast<std::ptrdiff_t>(first),
                      begin + static_cast<std::ptrdiff_t>(end), earlier);
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
    std::uint64_t placeOf(std::uint64_t key) const {
        return key & ((std::uint64_t{1} << place_bits_) - 1);
    }
    Input inputOf(std::uint64_t key) const {
        const std::uint64_t place = placeOf(key);
        const Chunk& chunk = chunks_[place / chunk_places];
        if (chunk.deliveries != nullptr) {
            const PackedDelivery& delivery = chunk.deliveries[place % chunk_places];
            return {delivery.time, delivery.id, static_cast<double>(delivery.value), false};
        }
        const Event& event = chunk.events[place % chunk_places];
        return {event.time, event.id, event.value, event.kind == EventKind::candidate};
    }

    using Starts = std::array<std::uint32_t, std::size_t{1} << max_digit_bits>;

    /// Where the keys of each digit start, from how many there are of each.
    static void sumUp(Starts& counts, std::uint64_t digits) {
        std::uint32_t sum = 0;
        for (std::uint64_t digit = 0; digit < digits; ++digit) {
            sum += std::exchange(counts[digit], sum);
        }
    }

    void sortByDigits(int passes, int digit_bits) {
        const std::uint64_t digits = std::uint64_t{1} << digit_bits;
        const std::uint64_t mask = digits - 1;
        // All passes count at once: the digits of a key do not depend on where it is.
        std::array<Starts, max_passes> starts;
        for (int pass = 0; pass < passes; ++pass) {
            std::fill_n(starts[static_cast<std::size_t>(pass)].begin(), digits, 0);
        }
        for (const std::uint64_t key : keys_) {
            std::uint64_t rest = key >> place_bits_;
            for (int pass = 0; pass < passes; ++pass, rest >>= digit_bits) {
                ++starts[static_cast<std::size_t>(pass)][rest & mask];
            }
        }
        other_.resize(keys_.size());
        for (int pass = 0; pass < passes; ++pass) {
            Starts& places = starts[static_cast<std::size_t>(pass)];
            sumUp(places, digits);
            const int shift = place_bits_ + pass * digit_bits;
            for (const std::uint64_t key : keys_) other_[places[key >> shift & mask]++] = key;
            keys_.swap(other_);
        }
    }

    std::uint64_t node_count_;
    int target_bits_ = 0;
    int place_bits_ = 0;
    bool outside_ = false;
    std::vector<Chunk> chunks_;  ///< place p is entry p % chunk_places of p / chunk_places
    std::vector<std::uint64_t> keys_;
    std::vector<std::uint64_t> other_;
};

}  // namespace Lumenar::Core::Kelm
