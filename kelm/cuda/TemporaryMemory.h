#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

#include "kelm/cuda/DeviceBlock.h"

// Part of the unit LookaheadCuda: the temporary device memory of sort and scan.

namespace Lumenar::Core::Kelm {

namespace {

/// The allocator for the temporary memory of library calls. It keeps the blocks that a call gives
/// back and reuses them, so it allocates only when a call needs more than all calls before.
///
/// A library gives its memory back in destructors, which must not throw. So deallocate() makes no
/// device call: it only marks a block as free. release() gives the blocks back to the device and
/// reports a failure; the destructor does the same without a report.
class TemporaryMemory {
public:
    using value_type = char;

    TemporaryMemory() = default;
    TemporaryMemory(const TemporaryMemory&) = delete;
    TemporaryMemory& operator=(const TemporaryMemory&) = delete;
    ~TemporaryMemory() {
        for (const Block& block : blocks_) releaseQuietly(block.data);
    }

    /// At least `bytes` bytes. Throws WindowEngineError when the device has no such block.
    char* allocate(std::size_t bytes) {
        auto block = std::find_if(blocks_.begin(), blocks_.end(),
                                  [](const Block& candidate) { return !candidate.in_use; });
        if (block == blocks_.end()) block = blocks_.insert(blocks_.end(), Block());
        if (block->bytes < bytes) {
            block->bytes = 0;
            releaseChecked(block->data, "free temporary memory");
            checkCuda(Device::allocate(block->data, bytes), "alloc temporary memory");
            block->bytes = bytes;
        }
        block->in_use = true;
        return block->data;
    }

    /// Takes back what allocate() returned.
    void deallocate(char* data, std::size_t) noexcept {
        for (Block& block : blocks_) {
            if (block.data == data) block.in_use = false;
        }
    }

    /// Releases all blocks. None may be in use.
    void release() {
        while (!blocks_.empty()) {
            char* const data = blocks_.back().data;
            blocks_.pop_back();
            if (data != nullptr) {
                checkCuda(Device::releaseBlock(data), "free temporary memory");
            }
        }
    }

private:
    struct Block {
        char* data = nullptr;
        std::size_t bytes = 0;
        bool in_use = false;
    };

    std::vector<Block> blocks_;  ///< one for each allocation that a library call holds at a time
};

}  // namespace

}  // namespace Lumenar::Core::Kelm
