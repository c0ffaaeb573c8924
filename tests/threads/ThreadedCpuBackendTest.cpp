// The threaded backend against the reference: whatever the number of threads, and however many of
// a window's items each of them gets, everything that a run leaves behind is the same to the bit.

#include "kelm/threads/ThreadedCpuBackend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cfenv>
#include <cstring>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <tbb/global_control.h>
#if defined(__SSE2__)
#include <xmmintrin.h>
#endif

#include "gate/ModelCatalogue.h"
#include "gate/ParityMatrix.h"
#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/ComposedModel.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/RunImage.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

struct Sharing {
    std::uint64_t threads;
    std::size_t threshold;
};

std::string labelOf(const Sharing& sharing) {
    return std::to_string(sharing.threads) + " threads from " + std::to_string(sharing.threshold) +
           " items on";
}

constexpr Sharing sharings[] = {
    {1, 0}, {2, 0}, {3, 1}, {8, 0}, {0, 1}, {2, ThreadedCpuBackend::default_threshold}, {100, 0},
};

/// Items that cost unequal work: idle ones, walks of many candidates, faults of the model.
struct Window {
    std::vector<WindowWork> work;
    std::vector<Kernel::WindowEvent> events;

    explicit Window(std::size_t size, std::uint64_t seed = 1) {
        Draws draws(seed);
        for (std::size_t i = 0; i < size; ++i) {
            WindowWork& item = work.emplace_back();
            item.neuron = i;
            item.rng = draws.next();
            item.first_event = static_cast<std::uint32_t>(events.size());
            item.event_count = static_cast<std::uint32_t>(draws.below(4));
            ModelTime time = 0;
            for (std::uint32_t k = 0; k < item.event_count; ++k) {
                time += draws.timeBelow(300'000);
                // Small enough that products of the traces leave the normal numbers.
                const double scale = draws.oneIn(4) ? 1e-300 : 1.0;
                events.push_back({time, scale * draws.between(-1.0, 3.0), draws.oneIn(5), {}});
            }
            item.state.membrane = draws.oneIn(3) ? 1e-307 : draws.between(-1.0, 1.0);
            item.state.adaptation = 1e-308 * draws.between(0.0, 1.0);
            item.firing.base_rate = draws.oneIn(3) ? 3000.0 : 5.0;
            item.firing.max_rate = 1e6;
            item.pending_time = draws.oneIn(2) ? draws.timeBelow(1'000'000) : no_time;
            item.pending_bound = draws.oneIn(20) ? 0.0 : 1e6;
            if (draws.oneIn(20)) {
                item.parameters.hard_refractory = false;
                item.firing.base_rate = 1e9;
                item.firing.max_rate = 1e9;
                item.firing.adaptation_weight = 0.0;
                item.pending_bound = 1e9;
            }
        }
    }

    /// Results that are not written, or only in part, shall show.
    std::vector<Kernel::WindowResult> compute(IWindowBackend& backend) const {
        std::vector<Kernel::WindowResult> results(work.size());
        if (!results.empty()) {
            std::memset(static_cast<void*>(results.data()), 0x5a,
                        results.size() * sizeof results[0]);
        }
        backend.processWindow(work, events, 1'000'000, 1'000'000'000, {}, {}, results);
        return results;
    }
};

bool equalBytes(const std::vector<Kernel::WindowResult>& a,
                const std::vector<Kernel::WindowResult>& b) {
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof a[0]) == 0);
}

class ThreadedCpuBackendTest : public testing::Test {
protected:
    CpuWindowBackend cpu_;

private:
    // More workers than processors, so that a machine with few of them mixes their work as well.
    tbb::global_control workers_{tbb::global_control::max_allowed_parallelism, 100};
};

TEST_F(ThreadedCpuBackendTest, ComputesWindowsOfAnySizeWithTheirFaults) {
    std::size_t violations = 0, overflows = 0;
    for (const std::size_t size : {0U, 1U, 2U, 3U, 7U, 8U, 63U, 257U, 511U, 512U, 5000U}) {
        const Window window(size, size + 1);
        const std::vector<Kernel::WindowResult> expected = window.compute(cpu_);
        for (const Kernel::WindowResult& result : expected) {
            violations += result.bound_violation;
            overflows += result.spike_overflow;
        }
        for (const Sharing& sharing : sharings) {
            ThreadedCpuBackend backend(sharing.threads, sharing.threshold);
            EXPECT_TRUE(equalBytes(window.compute(backend), expected))
                << size << " items, " << labelOf(sharing);
        }
    }
    EXPECT_GT(violations, 50);
    EXPECT_GT(overflows, 50);
}

TEST_F(ThreadedCpuBackendTest, CarriesRunsAsTheReferenceDoes) {
    ModelTraits large;
    large.max_neurons = 6000;
    large.max_windows = 6;
    std::uint64_t spikes = 0;
    for (const Sharing& sharing : sharings) {
        SCOPED_TRACE(labelOf(sharing));
        ThreadedCpuBackend backend(sharing.threads, sharing.threshold);
        for (std::uint64_t seed = 1; seed <= 63; ++seed) {
            SCOPED_TRACE("model seed " + std::to_string(seed));
            const GeneratedModel model =
                seed <= 60 ? generateModel(seed) : generateModel(seed, large);
            WindowEngine reference = makeEngine(model);
            WindowEngine engine = makeEngine(model);
            postInputs(model, reference);
            postInputs(model, engine);
            ASSERT_EQ(runSideBySide(reference, cpu_, engine, backend, model.d_min), "");
            ASSERT_EQ(reference.logHash(), engine.logHash());
            ASSERT_EQ(reference.snapshot(), engine.snapshot());
            spikes += engine.profile().accepted;
        }
    }
    EXPECT_GT(spikes, 30'000);
}

TEST_F(ThreadedCpuBackendTest, CarriesComposedRunsAndTakesThemOverFromTheReferenceAndBack) {
    std::uint64_t spikes = 0, restores = 0;
    for (std::uint64_t seed = 1; seed <= 24; ++seed) {
        SCOPED_TRACE("composed model seed " + std::to_string(seed));
        const Sharing& sharing = sharings[seed % std::size(sharings)];
        SCOPED_TRACE(labelOf(sharing));
        ThreadedCpuBackend threaded(sharing.threads, sharing.threshold);
        const ComposedModel model = generateComposedModel(seed);
        const auto reference = model.build(cpu_);
        auto pieces = model.build(threaded);
        std::vector<std::string> expected, outcomes;
        for (std::size_t step = 0; step < model.steps.size(); ++step) {
            const bool goes_on = model.perform(step, step + 1, *reference, expected);
            ASSERT_EQ(model.perform(step, step + 1, *pieces, outcomes), goes_on);
            ASSERT_EQ(outcomes, expected);
            if (!goes_on) break;
            ASSERT_EQ(firstDifference(*reference, *pieces), "") << "step " << step;
            if (step % 3 != 2) continue;
            auto next = step % 2 == 0 ? model.build(cpu_) : model.build(threaded);
            ASSERT_TRUE(next->restore(pieces->checkpoint()));
            pieces = std::move(next);
            ++restores;
        }
        EXPECT_EQ(firstDifference(imageOf(*reference), imageOf(*pieces)), "");
        spikes += reference->profile().accepted;
    }
    EXPECT_GT(spikes, 500);
    EXPECT_GT(restores, 50);
}

TEST_F(ThreadedCpuBackendTest, AgreesOnTheCatalogueOfTheGate) {
    ThreadedCpuBackend backend(3, 0);
    Gate::GateTotals totals;
    for (std::uint64_t model = 0; model < Gate::catalogue_size; ++model) {
        for (std::uint64_t seed = 1; seed <= 5; ++seed) {
            const Gate::GateRun expected = Gate::runModel(model, seed, cpu_);
            Gate::compareRuns(expected, Gate::runModel(model, seed, backend),
                              " in model " + std::to_string(model));
            totals.spikes += expected.log.size();
            totals.windows += expected.profile.windows;
            ++totals.runs;
        }
    }
    Gate::requireExercised(totals);
}

TEST_F(ThreadedCpuBackendTest, ServesEnginesOfSeveralThreadsAtOnce) {
    ThreadedCpuBackend backend(2, 0);
    const Window windows[] = {Window(400, 1), Window(401, 2), Window(402, 3)};
    std::vector<Kernel::WindowResult> expected[3];
    for (int i = 0; i < 3; ++i) expected[i] = windows[i].compute(cpu_);
    std::vector<std::thread> callers;
    for (int i = 0; i < 3; ++i) {
        callers.emplace_back([&, i] {
            for (int turn = 0; turn < 50; ++turn) {
                EXPECT_TRUE(equalBytes(windows[i].compute(backend), expected[i])) << i;
            }
        });
    }
    for (std::thread& caller : callers) caller.join();
}

/// Changes the calling thread's floating-point environment and puts it back.
class ChangedEnvironment {
public:
    template <class Change>
    explicit ChangedEnvironment(const Change& change) {
        std::fegetenv(&saved_);
        change();
    }
    ~ChangedEnvironment() { std::fesetenv(&saved_); }
    ChangedEnvironment(const ChangedEnvironment&) = delete;
    ChangedEnvironment& operator=(const ChangedEnvironment&) = delete;

private:
    std::fenv_t saved_;
};

// A worker that was born in a strange environment, or left in one by other work, must not compute
// a window in it.
TEST_F(ThreadedCpuBackendTest, ComputesInTheFloatingPointEnvironmentOfTheCall) {
    const auto upward = [] { std::fesetround(FE_UPWARD); };
    const auto flushing = [] {
#if defined(__SSE2__)
        _mm_setcsr(_mm_getcsr() | 0x8040);
#endif
    };
    const Window window(3000);
    const std::vector<Kernel::WindowResult> exact = window.compute(cpu_);
    const auto in = [&](auto change, IWindowBackend& backend) {
        const ChangedEnvironment changed(change);
        return window.compute(backend);
    };
    const std::vector<Kernel::WindowResult> rounded_up = in(upward, cpu_);
    const std::vector<Kernel::WindowResult> flushed = in(flushing, cpu_);
    ASSERT_FALSE(equalBytes(rounded_up, exact));
#if defined(__SSE2__)
    ASSERT_FALSE(equalBytes(flushed, exact));
#endif
    const auto born = [](auto change) {
        const ChangedEnvironment changed(change);
        return ThreadedCpuBackend(8, 0);
    };
    for (int turn = 0; turn < 20; ++turn) {
        ThreadedCpuBackend up = born(upward);
        ThreadedCpuBackend flush = born(flushing);
        for (ThreadedCpuBackend* backend : {&up, &flush}) {
            ASSERT_TRUE(equalBytes(window.compute(*backend), exact)) << "turn " << turn;
            ASSERT_TRUE(equalBytes(in(upward, *backend), rounded_up)) << "turn " << turn;
            ASSERT_TRUE(equalBytes(in(flushing, *backend), flushed)) << "turn " << turn;
        }
    }
}

TEST_F(ThreadedCpuBackendTest, NamesItselfAndDeclinesWholeRuns) {
    ThreadedCpuBackend backend(2);
    EXPECT_STREQ(backend.name(), "cpu-threads");
    WindowEngine engine = makeEngine(generateModel(7));
    const RunImage before = imageOf(engine);
    EXPECT_FALSE(backend.tryResidentRun(engine));
    EXPECT_EQ(firstDifference(before, imageOf(engine)), "");
}

TEST_F(ThreadedCpuBackendTest, TakesWhatThereMayBeForNoneOrMoreAndRefusesTooMany) {
    EXPECT_EQ(ThreadedCpuBackend(5).threads(), 5);
    {
        const tbb::global_control three(tbb::global_control::max_allowed_parallelism, 3);
        EXPECT_EQ(ThreadedCpuBackend().threads(), 3);
        EXPECT_EQ(ThreadedCpuBackend(2).threads(), 2);
        EXPECT_EQ(ThreadedCpuBackend(1024).threads(), 3);
    }
    expectThrows<InvalidThreadCount>([] { ThreadedCpuBackend backend(1025); },
                                     "a backend takes at most 1024 threads, not 1025");
    expectThrows<InvalidThreadCount>(
        [] { ThreadedCpuBackend backend(std::numeric_limits<std::uint64_t>::max()); },
        "a backend takes at most 1024 threads, not 18446744073709551615");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
