#include "kelm/events/CandidateTree.h"

namespace Lumenar::Core::Kelm {

void CandidateTree::reset(std::uint64_t neurons, NodeId first) {
    Block empty;
    std::fill_n(empty.entries, block_size, none);
    std::vector<std::size_t> levels;
    std::size_t block_count = 0;
    std::size_t entries = neurons;
    do {
        levels.push_back(block_count);
        entries = (entries + block_size - 1) / block_size;
        block_count += entries;
    } while (entries > 1);
    LargeArray<Block> blocks(block_count, empty);
    blocks_.swap(blocks);
    levels_.swap(levels);
    pending_count_ = 0;
    first_ = first;
}

/// The earliest time under a block, exactly. The child with the lowest bound either holds it or has
/// its bound raised, and the search goes on.
CandidateTree::Entry CandidateTree::earliestOf(std::size_t level, std::size_t index) noexcept {
    Block& block = blockOf(level, index);
    if (level == 0) return leastOf(block);
    while (true) {
        Entry* lowest = std::min_element(block.entries, block.entries + block_size);
        const Entry bound = *lowest;
        if (bound == none) return none;
        const auto child = static_cast<std::size_t>(lowest - block.entries);
        *lowest = earliestOf(level - 1, index * block_size + child);
        if (*lowest == bound) return bound;
    }
}

/// Adds the neurons under a block whose candidates lie before `end` to due_, ascending. Sets the
/// bounds to what remains without them, and returns that of the block. If memory runs out, the
/// candidates that are not in due_ are still covered by their bounds.
CandidateTree::Entry CandidateTree::findDue(std::size_t level, std::size_t index, Entry end) {
    Block& block = blockOf(level, index);
    if (level == 0) {
        if (due_.capacity() < due_.size() + block_size) due_.reserve(2 * due_.size() + block_size);
        Entry left = none;
        for (std::size_t i = 0; i < block_size; ++i) {
            const Entry time = block.entries[i];
            if (time < end) {
                due_.push_back(first_ + index * block_size + i);
            } else {
                left = std::min(left, time);
            }
        }
        return left;
    }
    for (std::size_t i = 0; i < block_size; ++i) {
        if (block.entries[i] >= end) continue;
        const Block& child = blockOf(level - 1, index * block_size + i);
        prefetchLine(child.entries);
        prefetchLine(child.entries + block_size / 2);
    }
    for (std::size_t i = 0; i < block_size; ++i) {
        if (block.entries[i] >= end) continue;
        block.entries[i] = findDue(level - 1, index * block_size + i, end);
    }
    return leastOf(block);
}

}  // namespace Lumenar::Core::Kelm
