#include "kelm/events/PendingIds.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <random>
#include <set>

namespace Lumenar::Core::Kelm {
namespace {

void add(PendingIds& ids, std::uint64_t id) {
    ids.reserve(id);
    ids.insert(id);
}

TEST(PendingIds, AgreeWithASetOverRandomIds) {
    for (std::uint64_t seed = 0; seed < 40; ++seed) {
        std::mt19937_64 random(seed);
        PendingIds ids;
        std::set<std::uint64_t> expected;
        EXPECT_FALSE(ids.erase(~std::uint64_t{0})) << "never issued";
        // From dense neighbours to ids that all lie on pages of their own and wrap in the table.
        const std::uint64_t stride = std::uint64_t{1} << (seed % 14);
        for (int step = 0; step < 4000; ++step) {
            const std::uint64_t id = random() % 1500 * stride;
            ASSERT_EQ(ids.contains(id), expected.contains(id)) << "seed " << seed << " id " << id;
            // Growing and shrinking by turns, down to nothing.
            if (random() % 100 < (step / 500 % 2 == 0 ? 70U : 10U)) {
                if (expected.insert(id).second) add(ids, id);
            } else {
                ASSERT_EQ(ids.erase(id), expected.erase(id) == 1)
                    << "seed " << seed << " step " << step << " id " << id;
            }
        }
    }
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
