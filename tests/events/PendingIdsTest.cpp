#include "kelm/events/PendingIds.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>

#include "tests/support/Draws.h"

namespace Lumenar::Core::Kelm {
namespace {

void add(PendingIds& ids, std::uint64_t id) {
    ids.reserve(id);
    ids.insert(id);
}

TEST(PendingIds, AgreeWithASetOverRandomIds) {
    for (std::uint64_t seed = 0; seed < 40; ++seed) {
        Testing::Draws draws(seed);
        PendingIds ids;
        std::set<std::uint64_t> expected;
        for (int step = 0; step < 4000; ++step) {
            // From dense ids to ids on separate pages, which wrap around in the table.
            const std::uint64_t id = draws.below(1500) << (seed % 14);
            // Grows and shrinks alternately, down to the empty set.
            const bool grows = draws.chance(step / 500 % 2 == 0 ? 70 : 10);
            if (grows && expected.insert(id).second) add(ids, id);
            const bool gone = !grows && expected.erase(id) == 1;
            ASSERT_TRUE(grows || ids.erase(id) == gone) << "seed " << seed << " id " << id;
            ASSERT_EQ(ids.contains(id), expected.contains(id)) << "seed " << seed << " id " << id;
        }
    }
}

}  // namespace
}  // namespace Lumenar::Core::Kelm
