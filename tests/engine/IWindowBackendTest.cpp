#include "kelm/engine/IWindowBackend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "gate/TimedBackend.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/lanes/LaneCpuBackend.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/RunImage.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

/// A backend, and the one inside it if it wraps one.
struct Backends {
    std::unique_ptr<IWindowBackend> inner;
    std::unique_ptr<IWindowBackend> outer;
};

struct Implementation {
    const char* label;
    const char* name;
    Backends (*make)();
};

template <class Backend>
Backends plain() {
    return {nullptr, std::make_unique<Backend>()};
}

template <class Backend>
Backends timed() {
    auto inner = std::make_unique<Backend>();
    auto outer = std::make_unique<Gate::TimedBackend>(*inner);
    return {std::move(inner), std::move(outer)};
}

constexpr Implementation implementations[] = {
    {"Cpu", "cpu", plain<CpuWindowBackend>},
    {"CpuLanes", "cpu-lanes", plain<LaneCpuBackend>},
    {"Cuda", "cuda", plain<CudaWindowBackend>},
    {"TimedCpu", "cpu", timed<CpuWindowBackend>},
    {"TimedCuda", "cuda", timed<CudaWindowBackend>},
};

/// One window's worth of work, as an engine would hand it over.
struct Window {
    std::vector<WindowWork> work;
    std::vector<Kernel::WindowEvent> events;
    ModelTime end = 0;
    ModelTime horizon = 0;
};

/// Collects the windows of a run, which the CPU backend computes.
class CapturingBackend : public IWindowBackend {
public:
    const char* name() override { return "capturing"; }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron& neuron,
                       const Kernel::Firing& firing,
                       const std::span<Kernel::WindowResult>& results) override {
        windows.push_back(
            {{work.begin(), work.end()}, {events.begin(), events.end()}, window_end, horizon});
        cpu_.processWindow(work, events, window_end, horizon, neuron, firing, results);
    }
    bool tryResidentRun(WindowEngine&) override { return false; }

    std::vector<Window> windows;

private:
    CpuWindowBackend cpu_;
};

/// The windows of a generated model, with drives of one to eight terms in some of the items.
std::vector<Window> generateWindows(std::uint64_t seed) {
    const GeneratedModel model = generateModel(seed);
    WindowEngine engine = makeEngine(model);
    postInputs(model, engine);
    CapturingBackend capture;
    try {
        engine.run(capture);
    } catch (const std::exception&) {
        // The windows of a model that is too hot count as well.
    }
    for (Window& window : capture.windows) {
        for (WindowWork& item : window.work) {
            if (item.neuron % 3 != 0) continue;
            item.drive.term_count = static_cast<std::int32_t>(1 + item.neuron % 8);
            item.drive.origin = window.end / 2;
            for (std::int32_t i = 0; i < item.drive.term_count; ++i) {
                item.drive.terms[i] = {0.1, 0.5 * i, 1e-6 * (i + 1)};
            }
            item.drive.bound = 0.1 * item.drive.term_count + 1e-10;
        }
    }
    return std::move(capture.windows);
}

class WindowBackendContract : public testing::TestWithParam<Implementation> {
protected:
    std::vector<Kernel::WindowResult> process(const Window& window) {
        std::vector<Kernel::WindowResult> results(window.work.size());
        // Results that are not written, or only in part, shall show.
        std::memset(static_cast<void*>(results.data()), 0x5a,
                    results.size() * sizeof(Kernel::WindowResult));
        backend().processWindow(window.work, window.events, window.end, window.horizon, foreign,
                                foreign_firing, results);
        return results;
    }
    IWindowBackend& backend() { return *backends_.outer; }

    /// Unlike those of any item.
    Kernel::Neuron foreign{1, 1, 1, 99.0, 99.0, 99.0, 99.0, false, true, {}};
    Kernel::Firing foreign_firing{1e9, 99.0, -99.0, 99.0, 99.0, 1e9, true, {}};

private:
    Backends backends_ = GetParam().make();
};

TEST_P(WindowBackendContract, NamesItself) { EXPECT_STREQ(backend().name(), GetParam().name); }

TEST_P(WindowBackendContract, DoesNothingForAnEmptyBatch) {
    Kernel::WindowResult untouched;
    untouched.rng = 0x1234;
    untouched.spike_count = 3;
    const Kernel::WindowResult before = untouched;
    const std::vector<Kernel::WindowEvent> events(2);
    backend().processWindow({}, events, 10, 100, foreign, foreign_firing, std::span(&untouched, 0));
    backend().processWindow({}, {}, 10, 100, foreign, foreign_firing, std::span(&untouched, 0));
    EXPECT_EQ(std::memcmp(&untouched, &before, sizeof before), 0);
}

TEST_P(WindowBackendContract, ComputesEachItemWithItsOwnParametersAndEvents) {
    std::size_t items = 0;
    for (std::uint64_t seed = 1; seed <= 25; ++seed) {
        SCOPED_TRACE("model seed " + std::to_string(seed));
        for (const Window& window : generateWindows(seed)) {
            const std::vector<Kernel::WindowResult> results = process(window);
            for (std::size_t i = 0; i < results.size(); ++i) {
                const Kernel::WindowResult expected = Kernel::processWindow(
                    window.work[i], window.events.data(), window.end, window.horizon);
                ASSERT_EQ(std::memcmp(&results[i], &expected, sizeof expected), 0)
                    << "window to " << window.end << ", item " << i;
                ++items;
            }
        }
    }
    EXPECT_GT(items, 1000);
}

TEST_P(WindowBackendContract, PutsResultsWhereTheItemsStand) {
    for (const Window& window : generateWindows(4)) {
        const std::vector<Kernel::WindowResult> results = process(window);
        Window turned = window;
        std::reverse(turned.work.begin(), turned.work.end());
        std::vector<Kernel::WindowResult> turned_results = process(turned);
        std::reverse(turned_results.begin(), turned_results.end());
        ASSERT_EQ(std::memcmp(results.data(), turned_results.data(),
                              results.size() * sizeof(Kernel::WindowResult)),
                  0);
    }
}

TEST_P(WindowBackendContract, ReportsFaultsOfTheModelByFlags) {
    Window window;
    window.end = 10;
    window.horizon = 100;
    window.work.resize(3);
    // A candidate drawn under a bound of 0 may not have a hazard.
    window.work[0].pending_time = 5;
    // Far more than eight spikes.
    window.work[2].pending_time = 0;
    window.work[2].parameters.hard_refractory = false;
    window.work[2].firing.base_rate = 1e12;
    window.work[2].firing.max_rate = 1e12;
    window.work[2].firing.adaptation_weight = 0.0;
    window.work[2].pending_bound = 2e12;
    window.work[1].pending_time = -1;
    const std::vector<Kernel::WindowResult> results = process(window);
    EXPECT_TRUE(results[0].bound_violation);
    EXPECT_FALSE(results[0].spike_overflow);
    EXPECT_FALSE(results[1].bound_violation || results[1].spike_overflow);
    EXPECT_TRUE(results[2].spike_overflow);
    EXPECT_EQ(results[2].spike_count, 8);
    EXPECT_EQ(results[2].accepted, 9);
}

TEST_P(WindowBackendContract, CarriesARunAsTheReferenceDoes) {
    for (std::uint64_t seed = 100; seed < 110; ++seed) {
        SCOPED_TRACE("model seed " + std::to_string(seed));
        const GeneratedModel model = generateModel(seed);
        WindowEngine reference = makeEngine(model);
        WindowEngine engine = makeEngine(model);
        postInputs(model, reference);
        postInputs(model, engine);
        CpuWindowBackend cpu;
        EXPECT_EQ(runSideBySide(reference, cpu, engine, backend(), model.d_min), "");
    }
}

INSTANTIATE_TEST_SUITE_P(Implementations, WindowBackendContract, testing::ValuesIn(implementations),
                         [](const auto& test) { return test.param.label; });

TEST(CpuWindowBackend, DeclinesWholeRunsAndLeavesTheEngineAlone) {
    const GeneratedModel model = generateModel(7);
    WindowEngine engine = makeEngine(model);
    const RunImage before = imageOf(engine);
    CpuWindowBackend cpu;
    EXPECT_FALSE(cpu.tryResidentRun(engine));
    EXPECT_EQ(firstDifference(before, imageOf(engine)), "");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
