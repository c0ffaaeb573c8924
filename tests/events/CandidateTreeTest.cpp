#include "kelm/events/CandidateTree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <new>
#include <vector>

#include "tests/support/Draws.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

TEST(CandidateTree, KeepsItsBoundsAtTheBordersOfItsLevelsAndAfterAFailedTake) {
    for (const std::uint64_t neurons : {0U, 1U, 16U, 17U, 256U, 257U, 4097U}) {
        SCOPED_TRACE(neurons);
        Draws draws(neurons);
        CandidateTree tree;
        tree.reset(neurons);
        std::map<NodeId, ModelTime> expected;
        for (ModelTime now = 0; now < 3000; now += 10) {
            for (std::uint64_t i = 0; neurons != 0 && i < neurons / 20 + 1; ++i) {
                // Half of the draws are borders of blocks.
                const NodeId n = draws.oneIn(2) ? draws.below(neurons)
                                                : draws.below(neurons / 16 + 1) * 16 % neurons;
                if (draws.oneIn(5)) {
                    tree.cancel(n);
                    expected.erase(n);
                } else {
                    expected[n] = now + draws.timeBelow(draws.oneIn(2) ? 60 : 2000);
                    tree.schedule(n, expected[n]);
                }
            }
            ModelTime first = last_model_time;
            std::vector<NodeId> due;
            for (const auto& [n, time] : expected) {
                first = std::min(first, time);
                if (time < now + 10) due.push_back(n);
            }
            ASSERT_EQ(tree.firstTime(), first);
            ASSERT_EQ(tree.pendingCount(), expected.size());
            if (draws.oneIn(3)) {
                const auto refuse = [](std::size_t) { throw std::bad_alloc(); };
                ASSERT_THROW(tree.take(now + 10, refuse), std::bad_alloc);
                ASSERT_EQ(tree.firstTime(), first);
            }
            std::size_t announced = 0;
            const auto taken = tree.take(now + 10, [&](std::size_t count) { announced = count; });
            ASSERT_EQ(std::vector<NodeId>(taken.begin(), taken.end()), due);
            ASSERT_EQ(announced, due.size());
            for (const NodeId n : due) expected.erase(n);
        }
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
