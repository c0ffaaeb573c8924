#include "gate/FeatureGates.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "gate/GateRun.h"
#include "gate/ModelCatalogue.h"
#include "kelm/core/Failures.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/BlobLayout.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/SameBits.h"

namespace Lumenar::Core::Kelm::Gate {

namespace {

using namespace Testing;
namespace Emulation = Device::Emulation;

/// The features on catalogue models. The values of whole runs are those that are documented for
/// the models; they hold on either backend.
class FeatureGatesTest : public EmulatedDeviceTest {
protected:
    /// Calls check(backend) for the reference, and for the device in two thread orders.
    template <class Check>
    static void onEachBackend(Check check) {
        CpuWindowBackend cpu;
        {
            SCOPED_TRACE("CPU");
            check(cpu);
        }
        for (const std::uint64_t order : {1U, 2U}) {
            SCOPED_TRACE("device, thread order " + std::to_string(order));
            Emulation::permuteThreads(order);
            CudaWindowBackend cuda;
            check(cuda);
        }
        Emulation::permuteThreads(std::nullopt);
    }
};

TEST_F(FeatureGatesTest, PassInAnyThreadOrder) {
    for (const std::uint64_t order : {3U, 4U}) {
        Emulation::permuteThreads(order);
        EXPECT_NO_THROW(checkRestore());
        EXPECT_NO_THROW(checkPlasticity());
        EXPECT_NO_THROW(checkPhase());
        EXPECT_NO_THROW(checkComposed());
    }
}

TEST_F(FeatureGatesTest, PassOnWhatTheDeviceThrows) {
    for (void (*const step)() : {checkRestore, checkPlasticity, checkComposed}) {
        Emulation::setPresent(false);
        EXPECT_THROW(step(), WindowEngineError);
        Emulation::setPresent(true);
        Emulation::failOperation(100, 2);
        EXPECT_THROW(step(), WindowEngineError);
    }
    // A phase run that fails tells its cell and its backend, without the gate's name before it.
    Emulation::failOperation(100, 2);
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
    onEachBackend([](IWindowBackend& backend) {
        GateModel model = buildModel(0);
        KelmRuntime runtime = makeKelmRuntime(std::move(model.graph), model.neuron, model.firing, 1,
                                              model.horizon, &backend);
        runtime.run(10'000'000);
        const Blob bytes = runtime.checkpoint();
        ASSERT_EQ(bytes.size(), 2155);
        const BlobLayout layout = BlobLayout::ofCheckpoint(bytes, false);
        EXPECT_EQ(layout.number(bytes, "position"), 10'000'000);
        EXPECT_EQ(layout.number(bytes, "commit count"), 10);
        const BlobView engine = layout.nested(bytes, "engine");
        ASSERT_EQ(engine.size(), 1895);
        const BlobLayout fields = BlobLayout::ofEngine(engine);
        EXPECT_EQ(fields.number(engine, "log"), 11);
        const std::uint64_t profile[] = {10, 22, 23, 12, 11};
        for (std::size_t i = 0; i < 5; ++i) {
            EXPECT_EQ(numberAt(engine, fields.field("profile").begin + 8 * i), profile[i]);
        }
    });
}

PlasticityConfig pairPlasticity() {
    PlasticityConfig config;
    config.trace = {20'000'000, 20'000'000, 200'000'000, 1e-15};
    config.excitatory = {PlasticityRuleKind::pair, 0.01, 0.012, 0.01, 1.0};
    config.inhibitory = config.excitatory;
    config.enabled = true;
    return config;
}

TEST_F(FeatureGatesTest, KnownPlasticRuns) {
    struct Case {
        std::uint64_t model;
        double total_change;
        double weight_sum;
    };
    for (const Case& c : {Case{0, -0.023344844579696655, 2.0266551673412323},
                          Case{3, -0.6088549494743347, 12.091145038604736}}) {
        SCOPED_TRACE("model " + std::to_string(c.model));
        onEachBackend([&](IWindowBackend& backend) {
            GateModel model = buildModel(c.model);
            KelmRuntime runtime =
                makeKelmRuntime(std::move(model.graph), model.neuron, model.firing, 1,
                                model.horizon, &backend, nullptr, pairPlasticity());
            runtime.run();
            double total_change = 0.0;
            for (const JournalEntry& entry : runtime.learningControl()->journal()) {
                total_change += entry.weight_after - entry.weight_before;
            }
            double weight_sum = 0.0;
            for (EdgeId id = 0; id < runtime.graph().edgeCount(); ++id) {
                weight_sum += static_cast<double>(runtime.graph().edge(id).weight);
            }
            EXPECT_TRUE(sameBits(total_change, c.total_change));
            EXPECT_TRUE(sameBits(weight_sum, c.weight_sum));
        });
    }
}

/// One oscillator of frequency 7 plus the model's index, and one binding per neuron.
PhaseConfig phaseOf(std::uint64_t index, std::uint64_t node_count) {
    PhaseConfig phase;
    phase.oscillators = {{0, static_cast<double>(index) + 7.0, 0.2, 1.0}};
    for (std::uint64_t i = 0; i < node_count; ++i) {
        phase.bindings.push_back({{0, 0, static_cast<double>(i % 3) * 0.03 + 0.2, 0.1}});
    }
    return phase;
}

TEST_F(FeatureGatesTest, KnownPhaseRuns) {
    struct Case {
        std::uint64_t model;
        std::uint64_t seed;
        std::size_t spikes;
        std::uint64_t hash;
        WindowProfile profile;
    };
    for (const Case& c : {Case{0, 1, 21, 0x61c1834374b393d0, {20, 121, 43, 23, 21}},
                          Case{3, 2, 48, 0x4e0d95644998eaef, {20, 348, 234, 48, 48}}}) {
        SCOPED_TRACE("phase model " + std::to_string(c.model));
        onEachBackend([&](IWindowBackend& backend) {
            GateModel model = buildModel(c.model);
            PhaseConfig phase = phaseOf(c.model, model.graph.nodeCount());
            KelmRuntime runtime =
                makeKelmRuntime(std::move(model.graph), model.neuron, model.firing, c.seed,
                                model.horizon, &backend, nullptr, {}, std::move(phase));
            runtime.run();
            EXPECT_EQ(runtime.spikeLog().size(), c.spikes);
            EXPECT_EQ(runtime.logHash(), c.hash);
            EXPECT_EQ(runtime.profile(), c.profile);
            EXPECT_EQ(runtime.phaseLog().size(), c.spikes);
        });
    }
}

/// A channel, an error channel on all neurons and a recorder on model 3.
KelmRuntime makeComposed(IWindowBackend& backend) {
    GateModel model = buildModel(3);
    RecorderConfig recorder;
    recorder.causal = true;
    recorder.sample_interval = 2'000'000;
    recorder.sample_kinds = {SampleKind::membrane};
    ErrorChannel position;
    position.name = "visual.position";
    position.targets.resize(model.graph.nodeCount());
    std::iota(position.targets.begin(), position.targets.end(), NodeId{0});
    position.strength = 0.6;
    PredictionConfig prediction;
    prediction.channels.push_back(std::move(position));
    return makeKelmRuntime(std::move(model.graph), model.neuron, model.firing, 7, model.horizon,
                           &backend, nullptr, {}, std::nullopt, recorder,
                           {{"vision", 0, {0, 2, 4}, 250'000, 0.8}}, std::move(prediction));
}

TEST_F(FeatureGatesTest, AKnownComposedRunAndItsCheckpoint) {
    onEachBackend([](IWindowBackend& backend) {
        KelmRuntime runtime = makeComposed(backend);
        runtime.inject("vision", 3'000'000, 0.5);
        runtime.prediction()->observeValue(0, 1.0, 0.0, 3'000'000);
        runtime.perturb({17, 5'000'000, PerturbationKind::activation, 0.4, {1}});
        runtime.run();
        EXPECT_EQ(runtime.spikeLog().size(), 57);
        EXPECT_EQ(runtime.logHash(), 0x1d0bf4ccc12d586e);
        EXPECT_EQ(runtime.profile(), (WindowProfile{20, 272, 285, 61, 57}));

        const Blob bytes = runtime.checkpoint();
        ASSERT_EQ(bytes.size(), 8964);
        const BlobLayout layout = BlobLayout::ofCheckpoint(bytes, true);
        EXPECT_EQ(layout.number(bytes, "spikes"), 57);
        EXPECT_EQ(layout.number(bytes, "samples"), 9);
        EXPECT_EQ(layout.number(bytes, "causes"), 9);
        EXPECT_EQ(layout.number(bytes, "observations"), 1);
        EXPECT_EQ(layout.number(bytes, "commit count"), 20);
        // Keys ascend from the first id of an observation; an entry without a cause has 9 bytes.
        for (std::uint64_t i = 0; i < 9; ++i) {
            EXPECT_EQ(numberAt(bytes, layout.field("causes").begin + 8 + 9 * i),
                      9223372036854775807U + i);
        }
        // Behind the count: gain, the connected byte, then injections, events, dropped, last time.
        EXPECT_EQ(layout.number(bytes, "channels"), 1);
        const std::size_t channel = layout.field("channels").begin + 8;
        EXPECT_EQ(bytes[channel + 8], 1);
        const std::uint64_t stats[] = {1, 3, 0, 3'000'000};
        for (std::size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(numberAt(bytes, channel + 9 + 8 * i), stats[i]);
        }
    });
}

}  // namespace

}  // namespace Lumenar::Core::Kelm::Gate
