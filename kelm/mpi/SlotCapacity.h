#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace Lumenar::Core::Kelm {

/// The number of bytes that each rank contributes to the first collective of MpiRankGroup::share.
///
/// A slot that is too small costs a second collective. One that is too large costs transfer time in
/// each call. The slot grows at once. After `period` calls it shrinks to what they have needed. It
/// depends only on the lengths that all ranks have received, so it is the same on all ranks.
class SlotCapacity {
public:
    /// A slot begins with the length of the contribution.
    static constexpr std::size_t header = 8;
    static constexpr int period = 64;

    /// All slots together take at most 256 KiB, or 64 bytes a rank if this is more. A second
    /// collective adds little to the time of contributions that are longer.
    explicit SlotCapacity(std::size_t ranks)
        : limit_(std::max(least, std::bit_floor(all_slots / ranks))) {}

    /// Bytes of a contribution that fit into a slot.
    std::size_t bytes() const { return slot_ - header; }
    /// The slot itself.
    std::size_t slotBytes() const { return slot_; }

    /// After a call whose longest contribution had `longest` bytes.
    void adapt(std::uint64_t longest) {
        // A contribution beyond the limit takes the second collective with any slot.
        const bool fits = longest <= limit_ - header;
        const std::size_t needed =
            fits ? std::max(least, std::bit_ceil(static_cast<std::size_t>(longest) + header))
                 : least;
        most_needed_ = std::max(most_needed_, needed);
        if (most_needed_ <= slot_ && ++calls_ < period) return;
        slot_ = most_needed_;
        most_needed_ = least;
        calls_ = 0;
    }

private:
    static constexpr std::size_t least = 64;
    static constexpr std::size_t all_slots = 256 * 1024;

    std::size_t limit_;  ///< of the slot
    std::size_t slot_ = least;
    std::size_t most_needed_ = least;  ///< slot of the longest contribution in this period
    int calls_ = 0;                    ///< in this period
};

}  // namespace Lumenar::Core::Kelm
