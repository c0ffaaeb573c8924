#pragma once

#include <cstddef>
#include <limits>
#include <memory>
#include <new>
#include <vector>

namespace Lumenar::Core::Kelm {

/// Asks the system to back `bytes` bytes at `address` with large pages. A hint: where it is not
/// followed, or not understood, nothing else changes.
void adviseLargePages(void* address, std::size_t bytes) noexcept;

/// Storage for large arrays of which a window reads a little here and there: with pages of 4 KiB
/// nearly every read of one would also miss the table of pages. Small arrays come from the ordinary
/// allocator, and large ones take whole pages, the last of which may be in use only in part.
template <class T>
struct LargePageAllocator {
    using value_type = T;

    LargePageAllocator() = default;
    template <class U>
    LargePageAllocator(const LargePageAllocator<U>&) noexcept {}

    T* allocate(std::size_t count) {
        if (count > std::numeric_limits<std::size_t>::max() / 2 / sizeof(T)) {
            throw std::bad_array_new_length();
        }
        if (count * sizeof(T) < min_bytes) return std::allocator<T>().allocate(count);
        // An object's largest size lies far enough below the range for the rounding.
        const std::size_t bytes = (count * sizeof(T) + page_bytes - 1) / page_bytes * page_bytes;
        void* address = ::operator new(bytes, std::align_val_t(page_bytes));
        adviseLargePages(address, bytes);
        return static_cast<T*>(address);
    }
    void deallocate(T* address, std::size_t count) noexcept {
        if (count * sizeof(T) < min_bytes) {
            std::allocator<T>().deallocate(address, count);
        } else {
            ::operator delete(address, std::align_val_t(page_bytes));
        }
    }

    friend bool operator==(const LargePageAllocator&, const LargePageAllocator&) { return true; }

    /// As many as fill a large page.
    static constexpr std::size_t page_count = (std::size_t{2} << 20) / sizeof(T);

private:
    static constexpr std::size_t page_bytes = std::size_t{2} << 20;
    static constexpr std::size_t min_bytes = page_bytes - page_bytes / 8;
};

template <class T>
using LargeArray = std::vector<T, LargePageAllocator<T>>;

}  // namespace Lumenar::Core::Kelm
