// An engine gives its candidates to the calendar store as what they are, one per neuron; through
// the plain interface of a store they are events that are cancelled and posted. Nothing may tell
// the two apart: the snapshots of both are compared after every window.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "kelm/engine/CpuWindowBackend.h"
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

}  // namespace

}  // namespace Lumenar::Core::Kelm
