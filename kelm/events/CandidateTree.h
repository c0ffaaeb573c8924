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

/// The one scheduled candidate of each neuron, by time: a tournament (D. E. Knuth, "The Art of
/// Computer Programming", volume 3, 1998, section 5.4.1) that is only played where somebody looks.
///
/// A candidate is drawn anew whenever its neuron is touched, mostly long before it falls due, so
/// scheduling must cost next to nothing. The times lie in blocks, the blocks' lower bounds in
/// blocks of blocks, and so on up to one. A time that is put forward moves the bounds above it, as
/// far as it lies below them; one that is put off leaves them where they are, too low, until a
/// search for what is due comes by and sets them right.
///
/// Knows of a candidate no more than its time.
class CandidateTree {
public:
    /// Begins anew for as many neurons, with nothing pending. May throw std::bad_alloc, with
    /// nothing changed.
    void reset(std::uint64_t neurons);

    bool isPending(NodeId neuron) const { return timeOf(neuron) != never; }
    std::uint64_t pendingCount() const { return pending_count_; }

    /// Hints that a neuron's candidate is scheduled soon.
    void prefetch(NodeId neuron) const { prefetchLine(&timeOf(neuron)); }

    /// Takes a neuron's candidate back, if it is pending.
    void cancel(NodeId neuron) noexcept {
        pending_count_ -= isPending(neuron) ? 1 : 0;
        timeOf(neuron) = never;
    }
    /// Schedules a neuron's candidate for `time` ns, before last_model_time, in the place of the
    /// one that may be pending.
    void schedule(NodeId neuron, ModelTime time) noexcept {
        ModelTime& entry = timeOf(neuron);
        pending_count_ += entry == never ? 1 : 0;
        entry = time;
        lowerBounds(neuron, time);
    }

    /// The time of the earliest pending candidate in ns, or last_model_time where none is pending.
    ModelTime firstTime() noexcept {
        return pending_count_ == 0 ? never : firstOf(levels_.size() - 1, 0);
    }

    /// Finds the candidates that are pending before `end` ns and calls room(count) with their
    /// number; after that they are not pending any longer. Returns their neurons, ascending, until
    /// the next call. May throw std::bad_alloc, and what room throws; all candidates are then still
    /// pending.
    template <class Room>
    std::span<const NodeId> take(ModelTime end, Room room);

private:
    static constexpr std::size_t block_size = 16;
    static constexpr ModelTime never = last_model_time;

    /// Times of candidates, or lower bounds of the blocks of the level below. Two cache lines.
    struct alignas(64) Block {
        ModelTime entries[block_size];
    };

    const ModelTime& timeOf(NodeId neuron) const {
        return blocks_[neuron / block_size].entries[neuron % block_size];
    }
    ModelTime& timeOf(NodeId neuron) {
        return blocks_[neuron / block_size].entries[neuron % block_size];
    }
    Block& blockOf(std::size_t level, std::size_t index) { return blocks_[levels_[level] + index]; }
    /// No bound above a bound that is low enough is too high.
    void lowerBounds(NodeId neuron, ModelTime time) noexcept {
        std::size_t index = neuron;
        for (std::size_t level = 1; level < levels_.size(); ++level) {
            index /= block_size;
            ModelTime& bound = blockOf(level, index / block_size).entries[index % block_size];
            if (bound <= time) return;
            bound = time;
        }
    }
    static ModelTime leastOf(const Block& block) {
        return *std::min_element(block.entries, block.entries + block_size);
    }
    ModelTime firstOf(std::size_t level, std::size_t index) noexcept;
    ModelTime findDue(std::size_t level, std::size_t index, ModelTime end);

    LargeArray<Block> blocks_;         ///< level by level; of level 0, shape (neurons), times
    std::vector<std::size_t> levels_;  ///< where each begins in blocks_; the last one has one block
    std::vector<NodeId> due_;          ///< what take has found last
    std::uint64_t pending_count_ = 0;
};

template <class Room>
std::span<const NodeId> CandidateTree::take(ModelTime end, Room room) {
    due_.clear();
    try {
        if (pending_count_ != 0) findDue(levels_.size() - 1, 0, end);
        room(due_.size());
    } catch (...) {
        for (const NodeId neuron : due_) lowerBounds(neuron, timeOf(neuron));
        throw;
    }
    for (const NodeId neuron : due_) timeOf(neuron) = never;
    pending_count_ -= due_.size();
    return due_;
}

}  // namespace Lumenar::Core::Kelm
