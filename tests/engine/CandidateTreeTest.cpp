// An engine gives its candidates to the calendar store as what they are, one per neuron; through
// the plain interface of a store they are events that are cancelled and posted. Nothing may tell
// the two apart: the snapshots of both are compared after every window.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/events/CandidateTree.h"
#include "tests/support/Draws.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/PlainStore.h"
#include "tests/support/RunImage.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

TEST(CandidateTree, LeavesTheBytesOfCandidatesThatAreEvents) {
    CpuWindowBackend cpu;
    std::uint64_t far_candidates = 0;
    int restores = 0;
    for (std::uint64_t seed = 1; seed <= 250; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Draws draws(seed);
        const GeneratedModel model = generateModel(seed);
        // Rings that most candidates lie beyond, and one that holds the run.
        const std::uint64_t buckets = draws.oneIn(4) ? 4096 : 4 + draws.below(12);
        auto store = std::make_unique<BucketEventStore>(model.d_min, buckets);
        const BucketEventStore& calendar = *store;
        WindowEngine engine = makeEngine(model, std::move(store));
        WindowEngine plain = makeEngine(model, std::make_unique<PlainStore>(model.d_min, buckets));
        postInputs(model, engine);
        postInputs(model, plain);
        for (std::uint64_t reseeds = draws.below(3); reseeds != 0; --reseeds) {
            const std::vector<double> bounds(model.node_count, 0.1 * static_cast<double>(reseeds));
            engine.reseedInitialCandidates(bounds);
            plain.reseedInitialCandidates(bounds);
        }
        for (ModelTime until = 0; until < model.horizon + model.d_min; until += model.d_min) {
            const std::string fault = failureOf(engine, cpu, until);
            ASSERT_EQ(fault, failureOf(plain, cpu, until));
            if (!fault.empty()) break;
            const Blob bytes = plain.snapshot();
            ASSERT_EQ(engine.snapshot(), bytes) << "until " << until << " ns";
            if (!draws.oneIn(8)) continue;
            // The candidates come out of a blob.
            ASSERT_TRUE(engine.restore(bytes));
            ASSERT_EQ(engine.snapshot(), bytes);
            ++restores;
        }
        far_candidates += calendar.overflowPosts();
    }
    EXPECT_GT(far_candidates, 1000);
    EXPECT_GT(restores, 200);
}

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

TEST(CandidateTree, ForgetsTheCandidatesOfSlotsThatItHoldsNoMore) {
    BucketEventStore store(10, 8);
    std::vector<CandidateSlot> slots(2);
    std::vector<CandidateSlot> others(2);
    store.holdCandidates(slots);
    for (NodeId n = 0; n < 2; ++n) store.scheduleCandidate(n, n == 0 ? 15 : 1000, 1.0);
    store.holdCandidates(others);
    EXPECT_TRUE(store.isEmpty());
    store.scheduleCandidate(1, 17, 2.0);
    std::vector<Event> events;
    ModelTime start = 0;
    ModelTime end = 0;
    ASSERT_TRUE(store.take(last_model_time, events, start, end));
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].time, 17);
    EXPECT_TRUE(store.isEmpty());
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
