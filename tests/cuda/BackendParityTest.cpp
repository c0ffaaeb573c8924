// The device backend against the reference, on random models, window by window: whatever the order
// in which the device's threads run, and on however many host threads.

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "kelm/core/Failures.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/RunImage.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;
namespace Emulation = Device::Emulation;

class BackendParityTest : public EmulatedDeviceTest {
protected:
    ~BackendParityTest() override { Emulation::setWorkers(2); }

    /// Compares the two backends on one model and counts what was run.
    void compare(std::uint64_t seed, const ModelTraits& traits) {
        SCOPED_TRACE("model seed " + std::to_string(seed));
        const GeneratedModel model = generateModel(seed, traits);
        WindowEngine reference = makeEngine(model);
        WindowEngine engine = makeEngine(model);
        postInputs(model, reference);
        postInputs(model, engine);
        CpuWindowBackend cpu;
        CudaWindowBackend cuda;
        EXPECT_EQ(runSideBySide(reference, cpu, engine, cuda, model.d_min), "");
        windows_ += engine.profile().windows;
        spikes_ += engine.profile().accepted;
    }

    std::uint64_t windows_ = 0;
    std::uint64_t spikes_ = 0;
};

TEST_F(BackendParityTest, HoldsOnSmallModelsInAnyThreadOrder) {
    for (std::uint64_t seed = 1; seed <= 200; ++seed) {
        Emulation::permuteThreads(seed % 4 == 0 ? std::nullopt : std::optional(seed));
        compare(seed, {});
    }
    EXPECT_GT(windows_, 5000);
    EXPECT_GT(spikes_, 10'000);
}

TEST_F(BackendParityTest, HoldsForARuntimeWithEveryPartOff) {
    ModelTraits traits;
    traits.alike = true;
    traits.external_events = false;
    for (std::uint64_t seed = 500; seed < 560; ++seed) {
        SCOPED_TRACE("model seed " + std::to_string(seed));
        const GeneratedModel model = generateModel(seed, traits);
        WindowEngine engine = makeEngine(model);
        CpuWindowBackend cpu;
        CudaWindowBackend cuda;
        try {
            engine.run(cpu);
        } catch (const WindowEngineError&) {
            continue;  // a hot model
        }
        const RunImage expected = imageOf(engine);
        for (IWindowBackend* backend :
             {static_cast<IWindowBackend*>(&cpu), static_cast<IWindowBackend*>(&cuda)}) {
            SCOPED_TRACE(backend->name());
            KelmRuntime runtime = makeKelmRuntime(model.graph(), model.neurons[0], model.firings[0],
                                                  model.run_seed, model.horizon, backend);
            runtime.run(model.horizon / 2);
            runtime.run();
            EXPECT_EQ(firstDifference(expected, imageOf(runtime)), "");
            EXPECT_EQ(runtime.commitCount(), expected.profile.windows);
            EXPECT_EQ(runtime.position(), model.horizon);
        }
        spikes_ += expected.log.size();
    }
    EXPECT_GT(spikes_, 1000);
}

TEST_F(BackendParityTest, HoldsOnLargeModelsForAnyNumberOfHostThreads) {
    ModelTraits traits;
    traits.max_neurons = 6000;
    traits.max_windows = 8;
    for (const unsigned workers : {1U, 2U, 3U, 8U}) {
        SCOPED_TRACE(testing::Message() << workers << " workers");
        Emulation::setWorkers(workers);
        for (std::uint64_t seed = 1000; seed < 1004; ++seed) {
            Emulation::permuteThreads(seed % 2 == 0 ? std::nullopt : std::optional(seed));
            compare(seed, traits);
        }
    }
    EXPECT_GT(spikes_, 10'000);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
