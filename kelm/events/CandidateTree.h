#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <vector>

#include "kelm/core/LargePages.h"
#include "kelm/core/ModelTime.h"
#include "kelm/core/Prefetch.h"

namespace Lumenar::Core::Kelm {

/// The times of the neurons' scheduled candidates: a tournament tree (D. E. Knuth, "The Art of
/// Computer Programming", volume 3, 1998, section 5.4.1) whose bounds are raised on demand.
///
/// A candidate is replaced whenever its neuron takes part in a window, mostly long before it falls
/// due, so scheduling must cost next to nothing. Blocks hold the times of 16 neurons, and blocks of
/// the next level a lower bound for each of 16 blocks, up to one root. An earlier time lowers the
/// bounds above it. A later time leaves them too low, until a search for due candidates raises
/// them.
class CandidateTree {
public:
    /// Makes a tree for `neurons` neurons from `first` on, with nothing pending. May throw
    /// std::bad_alloc, with nothing changed.
    void reset(std::uint64_t neurons, NodeId first = 0);

    bool isPending(NodeId neuron) const { return entryOf(neuron) != none; }
    std::uint64_t pendingCount() const { return pending_count_; }

    /// Prefetches what schedule for `neuron` writes.
    void prefetch(NodeId neuron) const { prefetchLine(&entryOf(neuron)); }

    /// Removes a neuron's candidate, if one is pending.
    void cancel(NodeId neuron) noexcept {
        pending_count_ -= isPending(neuron) ? 1 : 0;
        entryOf(neuron) = none;
    }
    /// Schedules a neuron's candidate for `time` ns, at least 0, in place of a pending one.
    void schedule(NodeId neuron, ModelTime time) noexcept {
        Entry& entry = entryOf(neuron);
        pending_count_ += entry == none ? 1 : 0;
        entry = static_cast<Entry>(time);
        lowerBounds(neuron, entry);
    }

    /// The time of the earliest pending candidate in ns, or last_model_time if none is pending.
    ModelTime firstTime() noexcept {
        if (pending_count_ == 0) return last_model_time;
        return static_cast<ModelTime>(earliestOf(levels_.size() - 1, 0));
    }

    /// Finds the candidates before `end` ns, calls room(count) with their number, and removes them.
    /// Returns their neurons, ascending, valid until the next call. May throw std::bad_alloc, and
    /// what room throws; all candidates are then still pending.
    template <class Room>
    std::span<const NodeId> take(ModelTime end, Room room);

private:
    using Entry = std::uint64_t;  ///< a time in ns, or none
    static constexpr Entry none = std::numeric_limits<Entry>::max();
    static constexpr std::size_t block_size = 16;

    /// Times of candidates, or lower bounds of the blocks of the level below. Two cache lines.
    struct alignas(64) Block {
        Entry entries[block_size];
    };

    const Entry& entryOf(NodeId neuron) const {
        const std::size_t index = neuron - first_;
        return blocks_[index / block_size].entries[index % block_size];
    }
    Entry& entryOf(NodeId neuron) {
        const std::size_t index = neuron - first_;
        return blocks_[index / block_size].entries[index % block_size];
    }
    Block& blockOf(std::size_t level, std::size_t index) { return blocks_[levels_[level] + index]; }
    /// Stops at the first bound that is low enough: those above it are no higher.
    void lowerBounds(NodeId neuron, Entry time) noexcept {
        std::size_t index = neuron - first_;
        for (std::size_t level = 1; level < levels_.size(); ++level) {
            index /= block_size;
            Entry& bound = blockOf(level, index / block_size).entries[index % block_size];
            if (bound <= time) return;
            bound = time;
        }
    }
    static Entry leastOf(const Block& block) {
        return *std::min_element(block.entries, block.entries + block_size);
    }
    Entry earliestOf(std::size_t level, std::size_t index) noexcept;
    Entry findDue(std::size_t level, std::size_t index, Entry end);

    LargeArray<Block> blocks_;         ///< level by level; level 0 has the times, shape (neurons)
    std::vector<std::size_t> levels_;  ///< where each begins in blocks_; the last one has one block
    std::vector<NodeId> due_;          ///< the neurons of the last take
    std::uint64_t pending_count_ = 0;
    NodeId first_ = 0;
};

template <class Room>
std::span<const NodeId> CandidateTree::take(ModelTime end, Room room) {
    due_.clear();
    try {
        if (pending_count_ != 0) findDue(levels_.size() - 1, 0, static_cast<Entry>(end));
        room(due_.size());
    } catch (...) {
        for (const NodeId neuron : due_) lowerBounds(neuron, entryOf(neuron));
        throw;
    }
    for (const NodeId neuron : due_) entryOf(neuron) = none;
    pending_count_ -= due_.size();
    return due_;
}

}  // namespace Lumenar::Core::Kelm
