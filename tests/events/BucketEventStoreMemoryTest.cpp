// What is left of the store when an allocation fails. The program's operator new fails for it.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <vector>

#include "kelm/events/BucketEventStore.h"

namespace {

/// Which of the next allocations fails, from 1; 0 for none.
std::size_t failing_allocation = 0;

}  // namespace

void* operator new(std::size_t length) {
    if (failing_allocation != 0 && --failing_allocation == 0) throw std::bad_alloc();
    void* memory = std::malloc(length == 0 ? 1 : length);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}
void operator delete(void* pointer) noexcept { std::free(pointer); }
void operator delete(void* pointer, std::size_t) noexcept { std::free(pointer); }

namespace Lumenar::Core::Kelm {
namespace {

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
