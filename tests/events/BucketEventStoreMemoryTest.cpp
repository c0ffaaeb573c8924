// What the store allocates and when, and what is left of it when an allocation fails. The program's
// operator new counts for it.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <vector>

#include "kelm/events/BucketEventStore.h"

namespace {

std::size_t bytes_in_use = 0;
std::size_t allocations = 0;
/// Which of the next allocations fails, from 1; 0 for none.
std::size_t failing_allocation = 0;

/// Before each allocation stands its length.
constexpr std::size_t head_bytes = alignof(std::max_align_t);

}  // namespace

void* operator new(std::size_t length) {
    ++allocations;
    if (failing_allocation != 0 && --failing_allocation == 0) throw std::bad_alloc();
    void* memory = std::malloc(length + head_bytes);
    if (memory == nullptr) throw std::bad_alloc();
    *static_cast<std::size_t*>(memory) = length;
    bytes_in_use += length;
    return static_cast<char*>(memory) + head_bytes;
}

void operator delete(void* pointer) noexcept {
    if (pointer == nullptr) return;
    void* memory = static_cast<char*>(pointer) - head_bytes;
    bytes_in_use -= *static_cast<std::size_t*>(memory);
    std::free(memory);
}

void operator delete(void* pointer, std::size_t) noexcept { operator delete(pointer); }

namespace Lumenar::Core::Kelm {
namespace {

// A run at constant activity, by its shape: every window's events post deliveries for the next
// windows, and each of the neurons replaces a candidate, within the ring at first and then far
// beyond it.
TEST(BucketEventStore, AllocatesNothingWithinTheRingAndKeepsItsMemoryBeyondIt) {
    BucketEventStore store(100, 64);
    std::vector<Event> events;
    std::vector<std::uint64_t> candidates(1000, ~std::uint64_t{0});
    ModelTime start = 0;
    ModelTime now = 0;
    std::size_t warm = 0;
    std::size_t most[3] = {};
    for (std::size_t window = 0; window < 50'000; ++window) {
        if (window == 2'000) warm = allocations;
        if (window == 20'000) {
            EXPECT_EQ(allocations, warm);
        }
        for (ModelTime i = 0; i < 200; ++i) store.post({.time = now + 100 + i * 7});
        for (std::size_t i = 0; i < 50; ++i) {
            std::uint64_t& candidate = candidates[window % 20 * 50 + i];
            store.cancel(candidate);
            const std::size_t apart = i * (window < 20'000 ? 10 : 100'000);
            candidate = store.post({.time = now + 3000 + static_cast<ModelTime>(apart)});
        }
        ASSERT_TRUE(store.take(last_model_time, events, start, now));
        std::size_t& peak = most[window < 20'000 ? 0 : window < 25'000 ? 1 : 2];
        peak = std::max(peak, bytes_in_use);
    }
    EXPECT_LE(most[2], most[1]);
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
