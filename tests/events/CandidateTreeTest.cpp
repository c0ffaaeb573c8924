// An engine gives its candidates to the calendar store as what they are, one per neuron. That
// nothing tells them from events that are cancelled and posted is shown by whole runs over a store
// that takes no others.

#include "kelm/events/CandidateTree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <new>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/events/BucketEventStore.h"
#include "tests/support/Draws.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

TEST(CandidateTree, HoldsItsBoundsAtTheBordersOfItsLevelsAndWhereTakingFails) {
    for (const std::uint64_t neurons : {0U, 1U, 16U, 17U, 256U, 257U, 4097U}) {
        SCOPED_TRACE(neurons);
        Draws draws(neurons);
        CandidateTree tree;
        tree.reset(neurons);
        std::map<NodeId, ModelTime> expected;
        for (ModelTime now = 0; now < 3000; now += 10) {
            for (std::uint64_t i = 0; neurons != 0 && i < neurons / 20 + 1; ++i) {
                // The borders of blocks as often as all others.
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

class CandidatesInSlots : public testing::Test {
protected:
    CandidatesInSlots() { store.holdCandidates(slots); }

    /// The start of the next window, or no_time.
    ModelTime take() {
        ModelTime start = no_time;
        ModelTime end = 0;
        return store.take(last_model_time, events, start, end) ? start : no_time;
    }

    BucketEventStore store{10, 8};
    std::vector<CandidateSlot> slots = std::vector<CandidateSlot>(2);
    std::vector<Event> events;
};

TEST_F(CandidatesInSlots, AreReplacedWhereverTheyLie) {
    // No window holds the end of time, so what is scheduled there is an event, also out of a blob.
    store.scheduleCandidate(0, last_model_time, 1.0);
    const std::vector<CandidateSlot> stored = slots;
    const Blob blob = store.snapshot();
    store.scheduleCandidate(0, 5, 1.0);
    EXPECT_EQ(take(), 0);
    EXPECT_TRUE(store.isEmpty());
    slots = stored;
    ASSERT_TRUE(store.restore(blob, slots));
    store.scheduleCandidate(0, 25, 1.0);
    store.scheduleCandidate(1, 81, 1.0);
    EXPECT_EQ(store.overflowPosts(), 2U) << "the ring ends at 80";
    EXPECT_EQ(take(), 20);
    EXPECT_EQ(take(), 80);
    EXPECT_TRUE(store.isEmpty());
    // A time that is gone costs a neuron its candidate.
    store.scheduleCandidate(0, 95, 1.0);
    EXPECT_THROW(store.scheduleCandidate(0, 89, 1.0), LookaheadViolation);
    EXPECT_TRUE(store.isEmpty());
    EXPECT_EQ(slots[0].event_id, no_event);
}

TEST_F(CandidatesInSlots, AreThoseOfABlobThatTheirSlotsTellOf) {
    for (const NodeId n : {0U, 1U}) store.scheduleCandidate(n, 85, 1.0);
    const Blob blob = store.snapshot();
    slots[1].rate = 2.0;
    ASSERT_TRUE(store.restore(blob, slots));
    EXPECT_EQ(store.overflowPosts(), 2U);
    slots[0].rate = slots[1].rate = 3.0;  // seen where a slot is what is handed out
    EXPECT_EQ(take(), 80);
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].value, 3.0);
    EXPECT_EQ(events[1].value, 1.0);
}

TEST_F(CandidatesInSlots, AreForgottenWithTheirSlots) {
    std::vector<CandidateSlot> others(2);
    for (const NodeId n : {0U, 1U}) store.scheduleCandidate(n, n == 0 ? 15 : 1000, 1.0);
    store.holdCandidates(others);
    EXPECT_TRUE(store.isEmpty());
    store.scheduleCandidate(1, 17, 2.0);
    EXPECT_EQ(take(), 10);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].time, 17);
    EXPECT_TRUE(store.isEmpty());
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
