#include "kelm/engine/IWindowBackend.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "gate/TimedBackend.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/lanes/LaneCpuBackend.h"
#ifdef KELM_HAVE_THREADS
#include "kelm/threads/ThreadedCpuBackend.h"
#endif
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
#ifdef KELM_HAVE_THREADS
    {"CpuThreads", "cpu-threads",
     [] {
         return Backends{nullptr, std::make_unique<ThreadedCpuBackend>(2, 0)};
     }},
#endif
    {"Cuda", "cuda", plain<CudaWindowBackend>},
    {"TimedCpu", "cpu", timed<CpuWindowBackend>},
    {"TimedCuda", "cuda", timed<CudaWindowBackend>},
};

/// Hands each window to a backend together with parameters that are no item's, and compares what
/// comes back with the kernel's own results.
class Checked : public IWindowBackend {
public:
    explicit Checked(IWindowBackend& inner) : inner_(inner) {}

    const char* name() override { return "checked"; }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime window_end,
                       ModelTime horizon, const Kernel::Neuron&, const Kernel::Firing&,
                       const std::span<Kernel::WindowResult>& results) override {
        const Kernel::Neuron neuron{1, 1, 1, 99.0, 99.0, 99.0, 99.0, false, true, {}};
        const Kernel::Firing firing{1e9, 99.0, -99.0, 99.0, 99.0, 1e9, true, {}};
        // Results that are not written, or only in part, shall show.
        std::memset(static_cast<void*>(results.data()), 0x5a, results.size_bytes());
        const Kernel::WindowResult before = results[0];
        inner_.processWindow({}, events, window_end, horizon, neuron, firing, results.first(0));
        ASSERT_EQ(std::memcmp(&results[0], &before, sizeof before), 0) << "nothing to compute";
        inner_.processWindow(work, events, window_end, horizon, neuron, firing, results);
        for (std::size_t i = 0; i < work.size(); ++i) {
            const Kernel::WindowResult expected =
                Kernel::processWindow(work[i], events.data(), window_end, horizon);
            ASSERT_EQ(std::memcmp(&results[i], &expected, sizeof expected), 0)
                << "window to " << window_end << ", item " << i;
            ++items;
            faults += expected.bound_violation || expected.spike_overflow;
        }
    }
    bool tryResidentRun(WindowEngine&) override { return false; }

    std::uint64_t items = 0, faults = 0;

private:
    IWindowBackend& inner_;
};

/// Gives some of the items a drive of one to eight terms.
struct Driving : IWindowPrepare {
    void prepare(ModelTime window_start, ModelTime, std::span<WindowWork> work,
                 SynapseGraph&) override {
        for (WindowWork& item : work) {
            if (item.neuron % 3 != 0) continue;
            item.drive.term_count = static_cast<std::int32_t>(1 + item.neuron % 8);
            item.drive.origin = window_start;
            for (std::int32_t i = 0; i < item.drive.term_count; ++i) {
                item.drive.terms[i] = {0.1, 0.5 * i, 1e-6 * (i + 1)};
            }
            item.drive.bound = 0.1 * item.drive.term_count + 1e-10;
        }
    }
};

class WindowBackendContract : public testing::TestWithParam<Implementation> {};

TEST_P(WindowBackendContract, ComputesEachItemWithItsOwnParametersAndEvents) {
    const Backends backends = GetParam().make();
    EXPECT_STREQ(backends.outer->name(), GetParam().name);
    Checked checked(*backends.outer);
    Driving driving;
    for (std::uint64_t seed = 1; seed <= 40 && !HasFatalFailure(); ++seed) {
        SCOPED_TRACE("model seed " + std::to_string(seed));
        const GeneratedModel model = generateModel(seed);
        WindowEngine engine = makeEngine(model);
        // Where the first candidates know nothing of the drives, a bound will break.
        const double bound = seed % 2 == 0 ? 1.0 : 0.0;
        engine.reseedInitialCandidates(std::vector<double>(model.node_count, bound));
        postInputs(model, engine);
        engine.setHooks(&driving, nullptr, nullptr);
        failureOf(engine, checked, model.horizon);  // one that is too hot counts as well
    }
    EXPECT_GT(checked.items, 1000);
    EXPECT_GT(checked.faults, 2);
}

INSTANTIATE_TEST_SUITE_P(Implementations, WindowBackendContract, testing::ValuesIn(implementations),
                         [](const auto& test) { return test.param.label; });

}  // namespace

}  // namespace Lumenar::Core::Kelm
