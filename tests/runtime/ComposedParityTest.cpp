// Whole composed runs of random models, in two ways that must agree to the bit: on either backend,
// at once and cut into pieces that fresh objects carry on, watched and unwatched.

#include <gtest/gtest.h>

#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/ComposedModel.h"
#include "tests/support/Draws.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/RunImage.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

class ComposedParityTest : public EmulatedDeviceTest {
protected:
    /// The outcomes of all steps, one runtime from start to end.
    static std::vector<std::string> runWhole(const ComposedModel& model, KelmRuntime& runtime) {
        std::vector<std::string> outcomes;
        model.perform(0, model.steps.size(), runtime, outcomes);
        return outcomes;
    }

    /// Compares two runs that came to the outcomes `left` and `right`. False, with a failure, where
    /// they differ.
    bool agree(KelmRuntime& a, const std::vector<std::string>& left, KelmRuntime& b,
               const std::vector<std::string>& right) {
        EXPECT_EQ(left, right);
        EXPECT_NE(left.back(), "KELM hazard upper bound underestimated lambda");
        EXPECT_EQ(firstDifference(imageOf(a), imageOf(b)), "");
        // A run that has thrown has no checkpoint, and one that nobody watches has another.
        if (left.back().starts_with("ran to ")) {
            ++finished_;
            EXPECT_EQ(a.plasticity()->snapshot(), b.plasticity()->snapshot());
            EXPECT_EQ(a.learningControl()->snapshot(), b.learningControl()->snapshot());
            EXPECT_EQ(a.oscillators()->snapshot(), b.oscillators()->snapshot());
            EXPECT_EQ(b.recorder() != nullptr ? firstDifference(a, b) : "", "");
        }
        for (const std::string& text : left) refusals_ += text.starts_with("KELM event inserted");
        happenings_[0] += a.profile().accepted;
        happenings_[1] += a.learningControl()->journal().size();
        happenings_[2] += a.recorder()->samples().size();
        happenings_[3] += a.learningControl()->modulatorHistory().size();
        happenings_[4] += a.oscillators()->couplingSteps();
        return !HasFailure();
    }

    /// The models must not idle.
    void expectLively() const {
        EXPECT_GT(10 * finished_, 9 * seeds);
        EXPECT_GT(10 * refusals_, seeds);
        for (const std::uint64_t count : happenings_) EXPECT_GT(count, 5 * seeds);
    }

    static constexpr std::uint64_t seeds = 150;
    CpuWindowBackend cpu_;
    CudaWindowBackend cuda_;
    std::uint64_t finished_ = 0, refusals_ = 0;
    std::uint64_t happenings_[5] = {};
};

TEST_F(ComposedParityTest, HoldsBetweenTheBackendsInAnyThreadOrderAndWithoutAWatcher) {
    for (std::uint64_t seed = 1; seed <= seeds; ++seed) {
        SCOPED_TRACE("composed model seed " + std::to_string(seed));
        Emulation::permuteThreads(seed % 4 == 0 ? std::nullopt : std::optional(seed));
        const ComposedModel model = generateComposedModel(seed);
        const auto reference = model.build(cpu_);
        const auto device = model.build(cuda_);
        const auto unwatched = model.build(cpu_, false);
        const std::vector<std::string> outcomes = runWhole(model, *reference);
        if (!agree(*reference, outcomes, *device, runWhole(model, *device))) break;
        if (!agree(*reference, outcomes, *unwatched, runWhole(model, *unwatched))) break;
    }
    expectLively();
}

// At random steps, and in the middle of runs, a fresh runtime on either backend takes over from the
// checkpoint of the one before.
TEST_F(ComposedParityTest, HoldsBetweenARunAtOnceAndOneThatFreshObjectsCarryOn) {
    std::uint64_t cuts = 0;
    for (std::uint64_t seed = 1001; seed <= 1000 + seeds; ++seed) {
        SCOPED_TRACE("composed model seed " + std::to_string(seed));
        Emulation::permuteThreads(seed);
        const ComposedModel model = generateComposedModel(seed);
        const auto whole = model.build(cpu_);
        const std::vector<std::string> outcomes = runWhole(model, *whole);

        Draws draws(seed ^ 0x5eed);
        const auto fresh = [&]() -> std::unique_ptr<KelmRuntime> {
            if (draws.oneIn(2)) return model.build(cpu_);
            return model.build(cuda_);
        };
        auto pieces = fresh();
        const auto cut = [&] {
            const Blob bytes = pieces->checkpoint();
            ASSERT_EQ(pieces->checkpoint(), bytes) << "writing one changed what was written";
            auto next = fresh();
            ASSERT_TRUE(next->restore(bytes));
            ASSERT_EQ(firstDifference(*pieces, *next), "");
            pieces = std::move(next);
            ++cuts;
        };
        std::vector<std::string> pieced;
        ModelTime start = 0;
        for (std::size_t step = 0; step < model.steps.size(); ++step) {
            if (draws.oneIn(6)) cut();
            if (const auto end = model.steps[step].until) {
                if (*end > start && draws.oneIn(2)) {
                    const auto way = static_cast<std::uint64_t>(*end - start);
                    try {
                        pieces->run(start + draws.timeBelow(way));
                    } catch (const std::exception& failure) {
                        pieced.emplace_back(failure.what());
                        break;
                    }
                    cut();
                }
                start = *end;
            }
            if (!model.perform(step, step + 1, *pieces, pieced)) break;
        }
        if (!agree(*whole, outcomes, *pieces, pieced)) break;
    }
    expectLively();
    EXPECT_GT(cuts, 3 * seeds);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
