#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "kelm/core/Failures.h"
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
    /// The events added next lie in `events`; all chunks but the last of a list are full.
    void addChunk(std::span<const Event> events) { chunks_.push_back(events.data()); }
    void add(const Event& event) {
        outside_ = outside_ || event.target >= node_count_;
        const std::size_t chunk = chunks_.size() - 1;
        const auto place = chunk * chunk_places + static_cast<std::size_t>(&event - chunks_[chunk]);
        keys_.push_back(event.target << place_bits_ | place);
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
        if (keys_.size() < min_digit_sorted || target_bits_ > 4 * max_digit_bits) {
            std::sort(keys_.begin(), keys_.end());
            return;
        }
        const int passes = std::max(1, (target_bits_ + max_digit_bits - 1) / max_digit_bits);
        const int digit_bits = (target_bits_ + passes - 1) / passes;
        other_.resize(keys_.size());
        for (int pass = 0; pass < passes; ++pass) {
            sortByDigit(place_bits_ + pass * digit_bits, digit_bits);
        }
    }

    std::size_t size() const { return keys_.size(); }
    NodeId targetAt(std::size_t i) const { return keys_[i] >> place_bits_; }
    const Event& eventAt(std::size_t i) const { return eventOf(keys_[i]); }

    /// The end of the events that have the target of event `first`, which are put in the order of
    /// EventLess.
    std::size_t orderTarget(std::size_t first) {
        std::size_t end = first + 1;
        while (end < size() && targetAt(end) == targetAt(first)) ++end;
        if (end - first > 1) {
            const auto begin = keys_.begin();
            std::sort(begin + static_cast<std::ptrdiff_t>(first),
                      begin + static_cast<std::ptrdiff_t>(end),
                      [this](std::uint64_t a, std::uint64_t b) {
                          return EventLess()(eventOf(a), eventOf(b));
                      });
        }
        return end;
    }

private:
    static constexpr std::size_t chunk_places = BucketEventStore::chunk_places;
    static constexpr std::size_t min_digit_sorted = 256;
    static constexpr int max_digit_bits = 11;

    /// Bits of an integer below `count`.
    static int widthOf(std::uint64_t count) {
        return static_cast<int>(std::bit_width(count == 0 ? 0 : count - 1));
    }

    const Event& eventOf(std::uint64_t key) const {
        const std::uint64_t place = key & ((std::uint64_t{1} << place_bits_) - 1);
        return chunks_[place / chunk_places][place % chunk_places];
    }

    void sortByDigit(int shift, int bits) {
        const std::uint64_t mask = (std::uint64_t{1} << bits) - 1;
        std::array<std::uint32_t, std::size_t{1} << max_digit_bits> starts;
        std::fill_n(starts.begin(), mask + 1, 0);
        for (const std::uint64_t key : keys_) ++starts[key >> shift & mask];
        std::uint32_t sum = 0;
        for (std::size_t digit = 0; digit <= mask; ++digit) {
            const std::uint32_t count = starts[digit];
            starts[digit] = sum;
            sum += count;
        }
        for (const std::uint64_t key : keys_) other_[starts[key >> shift & mask]++] = key;
        keys_.swap(other_);
    }

    std::uint64_t node_count_;
    int target_bits_ = 0;
    int place_bits_ = 0;
    bool outside_ = false;
    std::vector<const Event*> chunks_;  ///< place p is entry p % chunk_places of p / chunk_places
    std::vector<std::uint64_t> keys_;
    std::vector<std::uint64_t> other_;
};

}  // namespace Lumenar::Core::Kelm
