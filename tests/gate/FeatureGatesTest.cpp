#include "gate/FeatureGates.h"

#include <gtest/gtest.h>

#include <iterator>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "compare/BlobLayout.h"
#include "gate/ModelCatalogue.h"
#include "kelm/core/Failures.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/SameBits.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Compare;
using namespace Testing;

/// The features on catalogue models. The expected values of whole runs are the documented ones of
/// the models. They are valid on both backends, and on the device in any thread order.
class FeatureGatesTest : public EmulatedDeviceTest {
protected:
    /// Calls `check` for each backend with a function that makes runtimes on it.
    template <class Check>
    static void onEachBackend(Check check) {
        CpuWindowBackend cpu;
        CudaWindowBackend cuda;
        IWindowBackend* const backends[] = {&cpu, &cuda, &cuda};
        for (std::uint64_t i = 0; i < std::size(backends); ++i) {
            SCOPED_TRACE("backend " + std::to_string(i));
            Emulation::permuteThreads(i);
            check([&](std::uint64_t index, std::uint64_t seed, const PlasticityConfig& plasticity,
                      auto... parts) {
                GateModel model = buildModel(index);
                return makeKelmRuntime(std::move(model.graph), model.neuron, model.firing, seed,
                                       model.horizon, backends[i], nullptr, plasticity, parts...);
            });
        }
    }
};

TEST_F(FeatureGatesTest, PassInAnyThreadOrderAndPassOnWhatTheDeviceThrows) {
    for (void (*const step)() : {checkRestore, checkPlasticity, checkComposed, checkPhase}) {
        for (const std::uint64_t order : {3U, 4U}) {
            Emulation::permuteThreads(order);
            EXPECT_NO_THROW(step());
        }
        Emulation::failOperation(100, 2);
        if (step == checkPhase) break;
        EXPECT_THROW(step(), WindowEngineError);
    }
    // The text of a failed phase run ends in its cell and backend and has no "kelmgate: " in front.
    try {
        checkPhase();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::runtime_error& failure) {
        const std::string text = failure.what();
        EXPECT_TRUE(text.starts_with("CUDA ")) << text;
        EXPECT_TRUE(text.ends_with(" (phase model 0, seed 1) on CUDA")) << text;
    }
}

TEST_F(FeatureGatesTest, AKnownCheckpointInTheMiddleOfARun) {
    onEachBackend([](auto make) {
        KelmRuntime runtime = make(0, 1, {});
        runtime.run(10'000'000);
        const BlobLayout layout(runtime.checkpoint());
        EXPECT_EQ(layout.bytes().size(), 2155);
        EXPECT_EQ(layout.number("position"), 10'000'000);
        EXPECT_EQ(layout.number("commit count"), 10);
        EXPECT_EQ(layout.number("engine"), 1895);
        EXPECT_EQ(layout.number("log"), 11);
        EXPECT_EQ(runtime.profile(), (WindowProfile{10, 22, 23, 12, 11}));
    });
}

TEST_F(FeatureGatesTest, KnownPlasticRuns) {
    PlasticityConfig config;
    config.trace = {20'000'000, 20'000'000, 200'000'000, 1e-15};
    config.excitatory = {PlasticityRuleKind::pair, 0.01, 0.012, 0.01, 1.0};
    config.inhibitory = config.excitatory;
    config.enabled = true;
    onEachBackend([&](auto make) {
        for (const std::uint64_t model : {0U, 3U}) {
            SCOPED_TRACE("model " + std::to_string(model));
            KelmRuntime runtime = make(model, 1, config);
            runtime.run();
            double total_change = 0.0;
            for (const JournalEntry& entry : runtime.learningControl()->journal()) {
                total_change += entry.weight_after - entry.weight_before;
            }
            double weight_sum = 0.0;
            for (EdgeId id = 0; id < runtime.graph().edgeCount(); ++id) {
                weight_sum += static_cast<double>(runtime.graph().edge(id).weight);
            }
            EXPECT_TRUE(
                sameBits(total_change, model == 0 ? -0.023344844579696655 : -0.6088549494743347));
            EXPECT_TRUE(sameBits(weight_sum, model == 0 ? 2.0266551673412323 : 12.091145038604736));
        }
    });
}

TEST_F(FeatureGatesTest, KnownPhaseRuns) {
    struct Case {
        std::uint64_t model, seed, hash;
        WindowProfile profile;
    };
    for (const Case& c : {Case{0, 1, 0x61c1834374b393d0, {20, 121, 43, 23, 21}},
                          Case{3, 2, 0x4e0d95644998eaef, {20, 348, 234, 48, 48}}}) {
        SCOPED_TRACE("phase model " + std::to_string(c.model));
        onEachBackend([&](auto make) {
            PhaseConfig phase{{{0, static_cast<double>(c.model) + 7.0, 0.2, 1.0}}, {}, {}, 0};
            for (std::uint64_t i = 0; i < buildModel(c.model).graph.nodeCount(); ++i) {
                phase.bindings.push_back({{0, 0, static_cast<double>(i % 3) * 0.03 + 0.2, 0.1}});
            }
            KelmRuntime runtime = make(c.model, c.seed, {}, std::optional(phase));
            runtime.run();
            EXPECT_EQ(runtime.spikeLog().size(), c.profile.accepted);
            EXPECT_EQ(runtime.logHash(), c.hash);
            EXPECT_EQ(runtime.profile(), c.profile);
        });
    }
}

TEST_F(FeatureGatesTest, AKnownComposedRunAndItsCheckpoint) {
    ErrorChannel position{"visual.position", {}, 1.0, 0.6, 1.0};
    position.targets.resize(buildModel(3).graph.nodeCount());
    std::iota(position.targets.begin(), position.targets.end(), NodeId{0});
    onEachBackend([&](auto make) {
        KelmRuntime runtime = make(
            3, 7, {}, std::nullopt, RecorderConfig{true, true, 2'000'000, {SampleKind::membrane}},
            std::vector{InputChannelSpec{"vision", 0, {0, 2, 4}, 250'000, 0.8}},
            PredictionConfig{{position}, {}});
        runtime.inject("vision", 3'000'000, 0.5);
        runtime.prediction()->observeValue(0, 1.0, 0.0, 3'000'000);
        runtime.perturb({17, 5'000'000, PerturbationKind::activation, 0.4, {1}});
        runtime.run();
        EXPECT_EQ(runtime.spikeLog().size(), 57);
        EXPECT_EQ(runtime.logHash(), 0x1d0bf4ccc12d586e);
        EXPECT_EQ(runtime.profile(), (WindowProfile{20, 272, 285, 61, 57}));

        const BlobLayout layout(runtime.checkpoint());
        EXPECT_EQ(layout.bytes().size(), 8964);
        const std::pair<const char*, std::uint64_t> counts[] = {
            {"spikes", 57},  {"samples", 9},      {"causes", 9},
            {"channels", 1}, {"observations", 1}, {"commit count", 20}};
        for (const auto& [field, count] : counts) EXPECT_EQ(layout.number(field), count) << field;
        // Keys ascend from the first id of an observation. An entry without a cause has 9 bytes.
        for (std::uint64_t i = 0; i < 9; ++i) {
            EXPECT_EQ(numberAt(layout.bytes(), layout.begin("causes") + 8 + 9 * i),
                      9223372036854775807U + i);
        }
        const InputChannelStats& stats = runtime.inputChannels()->stats(0);
        EXPECT_TRUE(stats.injections == 1 && stats.events == 3 && stats.dropped == 0 &&
                    stats.last_time == 3'000'000);
    });
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
