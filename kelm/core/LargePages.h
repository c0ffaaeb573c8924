#pragma once

#include <cstddef>
#include <limits>
#include <memory>
#include <new>
#include <vector>

namespace Lumenar::Core::Kelm {

/// Advises the system to use large pages for `bytes` bytes at `address`. A hint without any other
/// effect.
void adviseLargePages(void* address, std::size_t bytes) noexcept;

/// Allocates large arrays that a window reads at scattered places: with pages of 4 KiB nearly every
/// read would also miss the translation cache. A large array takes whole large pages. A small one
/// comes from the ordinary allocator.
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
        // The check above leaves room for the rounding.
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

    /// The elements that fill a large page.
    static constexpr std::size_t page_count = (std::size_t{2} << 20) / sizeof(T);

private:
    static constexpr std::size_t page_bytes = std::size_t{2} << 20;
    static constexpr std::size_t min_bytes = page_bytes - page_bytes / 8;
};

template <class T>
using LargeArray = std::vector<T, LargePageAllocator<T>>;

}  // namespace Lumenar::Core::Kelm
