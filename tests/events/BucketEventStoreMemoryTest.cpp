// What memory the store holds, and what is left of it when an allocation fails. The program's
// operator new counts and fails for it.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "kelm/events/BucketEventStore.h"

namespace {

std::size_t bytes_in_use = 0;
/// Which of the next allocations fails, from 1; 0 for none.
std::size_t failing_allocation = 0;

/// Before each allocation stands its length.
std::size_t headOf(std::size_t alignment) { return std::max(alignment, alignof(std::max_align_t)); }

void* allocate(std::size_t length, std::size_t alignment) {
    if (failing_allocation != 0 && --failing_allocation == 0) throw std::bad_alloc();
    const std::size_t head = headOf(alignment);
    void* memory = std::aligned_alloc(head, (length + 2 * head - 1) / head * head);
    if (memory == nullptr) throw std::bad_alloc();
    char* pointer = static_cast<char*>(memory) + head;
    std::memcpy(pointer - sizeof(length), &length, sizeof(length));
    bytes_in_use += length;
    return pointer;
}

void release(void* pointer, std::size_t alignment) noexcept {
    if (pointer == nullptr) return;
    std::size_t length = 0;
    std::memcpy(&length, static_cast<char*>(pointer) - sizeof(length), sizeof(length));
    bytes_in_use -= length;
    std::free(static_cast<char*>(pointer) - headOf(alignment));
}

}  // namespace

// Out of line, where the compiler does not hold one form of them against another.
[[gnu::noinline]] void* operator new(std::size_t length) { return allocate(length, 1); }
[[gnu::noinline]] void* operator new(std::size_t length, std::align_val_t alignment) {
    return allocate(length, static_cast<std::size_t>(alignment));
}
[[gnu::noinline]] void operator delete(void* pointer) noexcept { release(pointer, 1); }
[[gnu::noinline]] void operator delete(void* pointer, std::size_t) noexcept { release(pointer, 1); }
[[gnu::noinline]] void operator delete(void* pointer, std::align_val_t alignment) noexcept {
    release(pointer, static_cast<std::size_t>(alignment));
}
[[gnu::noinline]] void operator delete(void* pointer, std::size_t,
                                       std::align_val_t alignment) noexcept {
    release(pointer, static_cast<std::size_t>(alignment));
}

namespace Lumenar::Core::Kelm {
namespace {

TEST(BucketEventStore, KeepsNoMemoryForFarEventsThatWereCancelled) {
    BucketEventStore store(100, 64);
    std::size_t most[2] = {};
    for (int i = 0; i < 100'000; ++i) {
        store.cancel(store.post({.time = 1'000'000 + i % 5000}));
        std::size_t& peak = most[i < 10'000 ? 0 : 1];
        peak = std::max(peak, bytes_in_use);
    }
    EXPECT_LE(most[1], most[0]);
}

TEST(BucketEventStore, LosesNothingWhenMemoryRunsOut) {
    // Every call of a history is tried again when it failed; what comes out must not depend on
    // which allocation it was. The answer is that of the history in which none fails.
    const auto history = [](std::size_t failing, bool& failed) {
        failed = false;
        std::vector<std::uint64_t> seen;
        const auto again = [&](auto&& action) {
            failing_allocation = failing;
            try {
                const auto result = action();
                failing = failing_allocation;
                failing_allocation = 0;
                return result;
            } catch (const std::bad_alloc&) {
                failing = 0;
                failing_allocation = 0;
                failed = true;
                return action();
            }
        };
        BucketEventStore store(10, 32);
        const auto takeAll = [&](ModelTime until) {
            bool given = true;
            while (given) {
                std::vector<Event> events;
                ModelTime start = 0;
                ModelTime end = 0;
                given = again([&] { return store.take(until, events, start, end); });
                seen.push_back(static_cast<std::uint64_t>(start));
                for (const Event& event : events) seen.push_back(event.id);
            }
        };
        // Far events lie close together while they wait and need more room when they come near.
        again([&] { return store.post({.time = 0}); });
        for (const ModelTime era : {3, 4, 9}) {
            for (int i = 0; i < 30; ++i) {
                again([&] { return store.post({.time = era * 320 + i * 70 % 320}); });
            }
        }
        takeAll(5 * 320);
        for (int i = 0; i < 1400; ++i) {
            // Ids spread over pages, times over the ring and beyond; the dead are swept once.
            const ModelTime time = 5 * 320 + i * 37 % 2000;
            const std::uint64_t id = again([&] { return store.post({.time = time}); });
            seen.push_back(id);
            if (i % 10 != 0) again([&] { return store.cancel(id); });
        }
        takeAll(1800);
        const Blob blob = again([&] { return store.snapshot(); });
        takeAll(2000);
        const Blob before = store.snapshot();
        const auto restoreOrStay = [&] {
            try {
                return store.restore(blob);
            } catch (const std::bad_alloc&) {
                EXPECT_EQ(store.snapshot(), before);
                throw;
            }
        };
        EXPECT_TRUE(again(restoreOrStay));
        EXPECT_EQ(store.snapshot(), blob);
        takeAll(last_model_time);
        seen.push_back(store.overflowPosts());
        return seen;
    };
    bool failed = false;
    const std::vector<std::uint64_t> expected = history(0, failed);
    ASSERT_FALSE(failed);
    std::size_t failing = 0;
    do {
        ASSERT_EQ(history(++failing, failed), expected) << "allocation " << failing;
    } while (failed);
    EXPECT_GT(failing, 50U) << "too few allocations to have met every kind";
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
