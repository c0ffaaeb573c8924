// Whole composed runs of random models, in two ways that must agree to the bit: on either backend,
// at once and cut into pieces that fresh objects carry on, watched and unwatched.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
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
namespace Emulation = Device::Emulation;

constexpr const char* bound_violation = "KELM hazard upper bound underestimated lambda";

class ComposedParityTest : public EmulatedDeviceTest {
protected:
    /// What has happened over all seeds, to show that the models do not idle.
    struct Totals {
        std::uint64_t finished = 0;
        std::uint64_t spikes = 0;
        std::uint64_t journal_entries = 0;
        std::uint64_t samples = 0;
        std::uint64_t gate_changes = 0;
        std::uint64_t coupling_steps = 0;
        std::uint64_t refusals = 0;
    };

    /// The outcomes of all steps, one runtime from start to end.
    static std::vector<std::string> runWhole(const ComposedModel& model, KelmRuntime& runtime) {
        std::vector<std::string> outcomes;
        model.performAll(0, model.stepCount(), runtime, outcomes);
        return outcomes;
    }

    static bool isFinished(const ComposedModel& model, const std::vector<std::string>& outcomes) {
        return outcomes.back() == "ran to " + std::to_string(model.network().horizon);
    }

    /// Compares two runs that came to the outcomes `left` and `right`. False, with a failure, where
    /// they differ.
    bool agree(const ComposedModel& model, KelmRuntime& a, const std::vector<std::string>& left,
               KelmRuntime& b, const std::vector<std::string>& right) {
        EXPECT_EQ(left, right);
        EXPECT_NE(left.back(), bound_violation);
        // A run that has thrown has no checkpoint.
        const std::string difference = isFinished(model, left)
                                           ? firstDifference(a, b)
                                           : firstDifference(imageOf(a), imageOf(b));
        EXPECT_EQ(difference, "");
        EXPECT_EQ(a.logHash(), b.logHash());
        return !HasFailure();
    }

    void count(const ComposedModel& model, const KelmRuntime& runtime,
               const std::vector<std::string>& outcomes) {
        totals_.finished += isFinished(model, outcomes);
        totals_.spikes += runtime.profile().accepted;
        totals_.journal_entries += runtime.learningControl()->journal().size();
        totals_.samples += runtime.recorder()->samples().size();
        totals_.gate_changes += runtime.learningControl()->modulatorHistory().size();
        totals_.coupling_steps += runtime.oscillators()->couplingSteps();
        totals_.refusals += static_cast<std::uint64_t>(std::count_if(
            outcomes.begin(), outcomes.end(),
            [](const std::string& outcome) { return outcome.starts_with("KELM event inserted"); }));
    }

    void expectLively(std::uint64_t seeds) const {
        EXPECT_GT(10 * totals_.finished, 9 * seeds);
        EXPECT_GT(totals_.spikes, 20 * seeds);
        EXPECT_GT(totals_.journal_entries, 20 * seeds);
        EXPECT_GT(totals_.samples, 5 * seeds);
        EXPECT_GT(totals_.gate_changes, seeds);
        EXPECT_GT(totals_.coupling_steps, 5 * seeds);
        EXPECT_GT(totals_.refusals, seeds / 10);
    }

    CpuWindowBackend cpu_;
    CudaWindowBackend cuda_;
    Totals totals_;
};

TEST_F(ComposedParityTest, HoldsBetweenTheBackendsInAnyThreadOrder) {
    constexpr std::uint64_t seeds = 150;
    for (std::uint64_t seed = 1; seed <= seeds; ++seed) {
        SCOPED_TRACE("composed model seed " + std::to_string(seed));
        Emulation::permuteThreads(seed % 4 == 0 ? std::nullopt : std::optional(seed));
        const ComposedModel model(seed);
        const auto reference = model.build(cpu_);
        const auto device = model.build(cuda_);
        const std::vector<std::string> outcomes = runWhole(model, *reference);
        if (!agree(model, *reference, outcomes, *device, runWhole(model, *device))) break;
        count(model, *reference, outcomes);
    }
    expectLively(seeds);
}

/// Carries a model's run through in pieces: at random steps, and in the middle of runs, a fresh
/// runtime on either backend takes over from the checkpoint of the one before.
class CutRun {
public:
    CutRun(const ComposedModel& model, IWindowBackend& cpu, IWindowBackend& cuda)
        : model_(model), cpu_(cpu), cuda_(cuda), draws_(model.seed() ^ 0x5eed), runtime_(fresh()) {}

    void run() {
        ModelTime start = 0;
        for (std::size_t step = 0; step < model_.stepCount(); ++step) {
            if (draws_.oneIn(6)) cut();
            if (const auto end = model_.endOf(step)) {
                if (*end > start && draws_.oneIn(2)) {
                    const ModelTime middle =
                        start + draws_.timeBelow(static_cast<std::uint64_t>(*end - start));
                    try {
                        runtime_->run(middle);
                    } catch (const std::exception& failure) {
                        outcomes.emplace_back(failure.what());
                        return;
                    }
                    cut();
                }
                start = *end;
            }
            if (!model_.performAll(step, step + 1, *runtime_, outcomes)) return;
        }
    }

    KelmRuntime& runtime() { return *runtime_; }

    std::vector<std::string> outcomes;
    std::uint64_t cuts = 0;

private:
    std::unique_ptr<KelmRuntime> fresh() { return model_.build(draws_.oneIn(2) ? cpu_ : cuda_); }

    void cut() {
        const Blob bytes = runtime_->checkpoint();
        ASSERT_EQ(runtime_->checkpoint(), bytes) << "writing one changed what was written";
        auto next = fresh();
        ASSERT_TRUE(next->restore(bytes));
        ASSERT_EQ(firstDifference(*runtime_, *next), "");
        runtime_ = std::move(next);
        ++cuts;
    }

    const ComposedModel& model_;
    IWindowBackend& cpu_;
    IWindowBackend& cuda_;
    Draws draws_;
    std::unique_ptr<KelmRuntime> runtime_;
};

TEST_F(ComposedParityTest, HoldsBetweenARunAtOnceAndOneThatFreshObjectsCarryOn) {
    constexpr std::uint64_t seeds = 150;
    std::uint64_t cuts = 0;
    for (std::uint64_t seed = 1001; seed <= 1000 + seeds; ++seed) {
        SCOPED_TRACE("composed model seed " + std::to_string(seed));
        Emulation::permuteThreads(seed);
        const ComposedModel model(seed);
        const auto whole = model.build(cpu_);
        const std::vector<std::string> outcomes = runWhole(model, *whole);
        CutRun pieces(model, cpu_, cuda_);
        pieces.run();
        if (!agree(model, *whole, outcomes, pieces.runtime(), pieces.outcomes)) break;
        count(model, *whole, outcomes);
        cuts += pieces.cuts;
    }
    expectLively(seeds);
    EXPECT_GT(cuts, 3 * seeds);
}

TEST_F(ComposedParityTest, HoldsBetweenARunThatIsWatchedAndOneThatIsNot) {
    constexpr std::uint64_t seeds = 100;
    for (std::uint64_t seed = 2001; seed <= 2000 + seeds; ++seed) {
        SCOPED_TRACE("composed model seed " + std::to_string(seed));
        const ComposedModel model(seed);
        const auto watched = model.build(cpu_);
        const auto unwatched = model.build(cpu_, false);
        const std::vector<std::string> outcomes = runWhole(model, *watched);
        EXPECT_EQ(outcomes, runWhole(model, *unwatched));
        ASSERT_EQ(firstDifference(imageOf(*watched), imageOf(*unwatched)), "");
        EXPECT_EQ(watched->logHash(), unwatched->logHash());
        if (!isFinished(model, outcomes)) continue;
        EXPECT_EQ(watched->plasticity()->snapshot(), unwatched->plasticity()->snapshot());
        EXPECT_EQ(watched->learningControl()->snapshot(), unwatched->learningControl()->snapshot());
        EXPECT_EQ(watched->oscillators()->snapshot(), unwatched->oscillators()->snapshot());
        EXPECT_EQ(watched->graph().snapshot(), unwatched->graph().snapshot());
        count(model, *watched, outcomes);
    }
    expectLively(seeds);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
