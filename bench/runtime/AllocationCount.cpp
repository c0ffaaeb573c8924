#include "bench/runtime/AllocationCount.h"

#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::uint64_t count = 0;  // not atomic: runs have one thread

}  // namespace

// The library's other forms call these.
void* operator new(std::size_t size) {
    ++count;
    if (void* memory = std::malloc(size != 0 ? size : 1)) return memory;
    throw std::bad_alloc();
}

void* operator new(std::size_t size, std::align_val_t alignment) {
    ++count;
    const auto unit = static_cast<std::size_t>(alignment);
    if (void* memory = std::aligned_alloc(unit, (size / unit + 1) * unit)) return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }

void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace Lumenar::Core::Kelm {

std::uint64_t allocationCount() { return count; }

}  // namespace Lumenar::Core::Kelm
