#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kelm/core/ModelTime.h"

namespace Lumenar::Core::Kelm {

/// An event's target and its place in the window that was taken.
struct TargetKey {
    NodeId target;
    std::uint32_t index;

    friend bool operator<(const TargetKey& a, const TargetKey& b) {
        return a.target != b.target ? a.target < b.target : a.index < b.index;
    }
};

/// Sorts a window's events by target, those of one target by place. Keys come in ascending by place
/// and are small integers, so a large window is sorted digit by digit (D. E. Knuth, "The Art of
/// Computer Programming", volume 3, 1998, section 5.2.5). Keeps its storage from window to window.
class TargetOrder {
public:
    std::vector<TargetKey>& keys() { return keys_; }
    const std::vector<TargetKey>& keys() const { return keys_; }

    /// Sorts keys() whose targets are below `target_count`.
    void sort(std::uint64_t target_count) {
        const auto bits =
            static_cast<int>(std::bit_width(target_count == 0 ? 0 : target_count - 1));
        // Clearing and summing the digit counts costs as much as sorting this many keys otherwise.
        if (keys_.size() < min_digit_sorted || bits > 4 * max_digit_bits) {
            std::sort(keys_.begin(), keys_.end());
            return;
        }
        const int passes = std::max(1, (bits + max_digit_bits - 1) / max_digit_bits);
        const int digit_bits = (bits + passes - 1) / passes;
        other_.resize(keys_.size());
        for (int pass = 0; pass < passes; ++pass) sortByDigit(pass * digit_bits, digit_bits);
    }

private:
    static constexpr std::size_t min_digit_sorted = 256;
    static constexpr int max_digit_bits = 10;

    void sortByDigit(int shift, int bits) {
        const std::uint64_t mask = (std::uint64_t{1} << bits) - 1;
        std::array<std::uint32_t, std::size_t{1} << max_digit_bits> places;
        std::fill_n(places.begin(), mask + 1, 0);
        for (const TargetKey& key : keys_) ++places[key.target >> shift & mask];
        std::uint32_t sum = 0;
        for (std::size_t digit = 0; digit <= mask; ++digit) {
            const std::uint32_t count = places[digit];
            places[digit] = sum;
            sum += count;
        }
        for (const TargetKey& key : keys_) other_[places[key.target >> shift & mask]++] = key;
        keys_.swap(other_);
    }

    std::vector<TargetKey> keys_;
    std::vector<TargetKey> other_;
};

}  // namespace Lumenar::Core::Kelm
