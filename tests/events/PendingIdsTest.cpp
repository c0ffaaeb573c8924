#include "kelm/events/PendingIds.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>

namespace Lumenar::Core::Kelm {
namespace {

void add(PendingIds& ids, std::uint64_t id) {
    ids.reserve(id);
    ids.insert(id);
}

TEST(PendingIds, HoldMemoryForWhatIsPendingAndNotForWhatWasIssued) {
    PendingIds ids;
    std::deque<std::uint64_t> pending;
    std::uint64_t next = 0;
    std::size_t settled = 0;
    add(ids, next++);  // one that waits through it all
    for (int round = 0; round < 20000; ++round) {
        // Up to 3001 in the air, finishing in the order of posting, to the last one.
        while (pending.size() < 3001) {
            add(ids, next);
            pending.push_back(next++);
        }
        const std::size_t kept = round % 5 == 0 ? 0 : 2900;
        while (pending.size() > kept) {
            ASSERT_TRUE(ids.erase(pending.front()));
            pending.pop_front();
        }
        if (round == 10) settled = ids.storageBytes();
    }
    EXPECT_GT(next, 10'000'000U);
    EXPECT_EQ(ids.storageBytes(), settled);
    EXPECT_LT(settled, 4096U);
    EXPECT_TRUE(ids.erase(0));
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
