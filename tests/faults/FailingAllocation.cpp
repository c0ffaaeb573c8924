#include "tests/faults/FailingAllocation.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#include <malloc.h>

namespace {

// Allocations before the one that fails; negative after it, or if none is to fail.
std::atomic<std::int64_t> allocations_left = -1;
std::atomic<bool> armed = false;
thread_local int safe_scopes = 0;  // of SafeAllocations
std::atomic<std::uint64_t> allocation_count = 0;
std::atomic<std::int64_t> live_blocks = 0;
std::atomic<std::int64_t> live_bytes = 0;
std::atomic<std::int64_t> peak_bytes = 0;

// Null for the allocation that is to fail, and if there is no memory.
void* allocate(std::size_t bytes, std::size_t alignment) noexcept {
    if (armed && safe_scopes == 0 && allocations_left-- == 0) return nullptr;
    void* block =
        alignment <= alignof(std::max_align_t)
            ? std::malloc(std::max<std::size_t>(bytes, 1))
            : std::aligned_alloc(alignment, (bytes + alignment - 1) / alignment * alignment);
    if (block == nullptr) return nullptr;
    ++allocation_count;
    ++live_blocks;
    live_bytes += static_cast<std::int64_t>(malloc_usable_size(block));
    if (live_bytes > peak_bytes) peak_bytes = live_bytes.load();
    return block;
}

void* allocateOrThrow(std::size_t bytes, std::size_t alignment) {
    if (void* block = allocate(bytes, alignment)) return block;
    throw std::bad_alloc();
}

void release(void* block) noexcept {
    if (block == nullptr) return;
    --live_blocks;
    live_bytes -= static_cast<std::int64_t>(malloc_usable_size(block));
    std::free(block);
}

std::size_t unit(std::align_val_t alignment) { return static_cast<std::size_t>(alignment); }

}  // namespace

// Not inlined: the compiler would warn about mismatched forms of new and delete.
#define KELM_REPLACED [[gnu::noinline]]

KELM_REPLACED void* operator new(std::size_t n) { return allocateOrThrow(n, 1); }
KELM_REPLACED void* operator new[](std::size_t n) { return allocateOrThrow(n, 1); }
KELM_REPLACED void* operator new(std::size_t n, std::align_val_t a) {
    return allocateOrThrow(n, unit(a));
}
KELM_REPLACED void* operator new[](std::size_t n, std::align_val_t a) {
    return allocateOrThrow(n, unit(a));
}
KELM_REPLACED void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
    return allocate(n, 1);
}
KELM_REPLACED void* operator new[](std::size_t n, const std::nothrow_t&) noexcept {
    return allocate(n, 1);
}
KELM_REPLACED void* operator new(std::size_t n, std::align_val_t a,
                                 const std::nothrow_t&) noexcept {
    return allocate(n, unit(a));
}
KELM_REPLACED void* operator new[](std::size_t n, std::align_val_t a,
                                   const std::nothrow_t&) noexcept {
    return allocate(n, unit(a));
}

KELM_REPLACED void operator delete(void* b) noexcept { release(b); }
KELM_REPLACED void operator delete[](void* b) noexcept { release(b); }
KELM_REPLACED void operator delete(void* b, std::size_t) noexcept { release(b); }
KELM_REPLACED void operator delete[](void* b, std::size_t) noexcept { release(b); }
KELM_REPLACED void operator delete(void* b, std::align_val_t) noexcept { release(b); }
KELM_REPLACED void operator delete[](void* b, std::align_val_t) noexcept { release(b); }
KELM_REPLACED void operator delete(void* b, std::size_t, std::align_val_t) noexcept { release(b); }
KELM_REPLACED void operator delete[](void* b, std::size_t, std::align_val_t) noexcept {
    release(b);
}
KELM_REPLACED void operator delete(void* b, const std::nothrow_t&) noexcept { release(b); }
KELM_REPLACED void operator delete[](void* b, const std::nothrow_t&) noexcept { release(b); }
KELM_REPLACED void operator delete(void* b, std::align_val_t, const std::nothrow_t&) noexcept {
    release(b);
}
KELM_REPLACED void operator delete[](void* b, std::align_val_t, const std::nothrow_t&) noexcept {
    release(b);
}

#undef KELM_REPLACED

namespace Lumenar::Core::Kelm::Testing {

void failAllocation(std::uint64_t n) {
    allocations_left = static_cast<std::int64_t>(n);
    armed = true;
}

bool failNoAllocation() {
    armed = false;
    return allocations_left < 0;
}

SafeAllocations::SafeAllocations() { ++safe_scopes; }
SafeAllocations::~SafeAllocations() { --safe_scopes; }

std::uint64_t allocationCount() { return allocation_count; }

std::int64_t liveBlocks() { return live_blocks; }

std::int64_t liveBytes() { return live_bytes; }

std::int64_t peakBytes() { return peak_bytes; }

void restartPeak() { peak_bytes = live_bytes.load(); }

}  // namespace Lumenar::Core::Kelm::Testing
