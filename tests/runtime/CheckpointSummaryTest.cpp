#include "kelm/runtime/CheckpointSummary.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "compare/BlobLayout.h"
#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/Fingerprint.h"
#include "tests/support/ComposedModel.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Compare;
using namespace Testing;
using Fault = CheckpointSummary::Fault;

/// A checkpoint with every part, in the middle of a run.
class CheckpointSummaryTest : public testing::Test {
protected:
    CheckpointSummaryTest() {
        std::vector<std::string> outcomes;
        for (std::size_t step = 0; writer->position() < model.network.horizon / 2; ++step) {
            model.perform(step, step + 1, *writer, outcomes);
        }
        layout = BlobLayout(writer->checkpoint());
    }

    Blob with(std::size_t offset, std::uint8_t byte) const {
        Blob changed = bytes;
        changed.at(offset) = byte;
        return changed;
    }

    CpuWindowBackend cpu;
    const ComposedModel model = generateComposedModel(3498, {4, 14, 4});
    const std::unique_ptr<KelmRuntime> writer = model.build(cpu);
    BlobLayout layout;
    const Blob& bytes = layout.bytes();
};

TEST_F(CheckpointSummaryTest, HoldsWhatTheRuntimeHolds) {
    const CheckpointSummary summary = examineCheckpoint(bytes);
    EXPECT_EQ(summary.fault, Fault::none);
    EXPECT_EQ(summary.faultText(), "");
    EXPECT_EQ(summary.engine_version, "2.0.0-beta.1");
    EXPECT_EQ(summary.label, "composed");
    EXPECT_EQ(summary.config_id, model.network.seed);
    EXPECT_EQ(summary.seed, model.network.run_seed);
    EXPECT_EQ(summary.position, writer->position());
    EXPECT_EQ(summary.neurons, writer->graph().nodeCount());
    EXPECT_EQ(summary.synapses, writer->graph().edgeCount());
    EXPECT_EQ(summary.spikes, writer->spikeLog().size());
    EXPECT_TRUE(summary.has_plasticity && summary.has_oscillators);
    EXPECT_EQ(summary.recorded_spikes, writer->recorder()->spikes().size());
    EXPECT_EQ(summary.samples, writer->recorder()->samples().size());
    EXPECT_EQ(summary.causes, writer->recorder()->causes().size());
    EXPECT_EQ(summary.input_channels, writer->inputChannels()->size());
    EXPECT_EQ(summary.error_channels, writer->prediction()->channels().size());
    EXPECT_EQ(summary.commit_count, writer->commitCount());

    std::uint64_t end = 0;
    for (const CheckpointSummary::Part& part : summary.parts) {
        EXPECT_EQ(part.offset, end) << part.name;
        end += part.bytes;
    }
    EXPECT_EQ(end, bytes.size());
    for (const char* part : {"engine", "plasticity", "learning", "oscillators", "phase log",
                             "spikes", "samples", "causes", "channels"}) {
        const auto found = std::find_if(summary.parts.begin(), summary.parts.end(),
                                        [&](const auto& each) { return each.name == part; });
        ASSERT_NE(found, summary.parts.end()) << part;
        EXPECT_EQ(found->offset, layout.begin(part)) << part;
    }
}

TEST_F(CheckpointSummaryTest, TellsWhereEveryTruncationEnds) {
    const std::size_t optional_extension = layout.begin("extension tag");
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        const CheckpointSummary summary = examineCheckpoint(BlobView(bytes).first(length));
        if (length == optional_extension) {
            EXPECT_EQ(summary.fault, Fault::none);
            continue;
        }
        ASSERT_EQ(summary.fault, Fault::cut_short) << length;
        ASSERT_EQ(summary.fault_offset, length);
        ASSERT_FALSE(summary.fault_part.empty()) << length;
    }
    EXPECT_EQ(examineCheckpoint(BlobView(bytes).first(70)).faultText(),
              "the checkpoint is cut short at byte 70, in part 'engine'");
}

TEST_F(CheckpointSummaryTest, NamesTheFirstWrongByte) {
    struct Case {
        const char* fact;
        Blob bytes;
        Fault fault;
        std::string text;
    };
    const auto at = [](std::size_t byte) { return std::to_string(byte); };
    const std::size_t extension = layout.begin("extension tag");
    Blob longer = bytes;
    longer.push_back(0);
    for (const Case& c :
         {Case{"another file", Blob{'P', 'K', 3, 4}, Fault::no_checkpoint,
               "this is no checkpoint: it begins with other bytes than a checkpoint"},
          {"another version", with(16, '3'), Fault::other_version,
           "checkpoint engine_version '3.0.0-beta.1' is incompatible with '2.0.0-beta.1'"},
          {"engine's tag", with(layout.begin("engine") + 8, 'X'), Fault::damaged,
           "the checkpoint is damaged at byte " + at(layout.begin("engine") + 8) +
               ", in part 'engine'"},
          {"oscillators' tag", with(layout.begin("oscillators") + 8, 'X'), Fault::damaged,
           "the checkpoint is damaged at byte " + at(layout.begin("oscillators") + 8) +
               ", in part 'oscillators'"},
          {"flag of a cause", with(layout.begin("causes") + 16, 2), Fault::damaged,
           "the checkpoint is damaged at byte " + at(layout.begin("causes") + 16) +
               ", in part 'causes'"},
          {"extension's tag", with(extension, 'X'), Fault::damaged,
           "the checkpoint is damaged at byte " + at(extension) + ", in part 'extension'"},
          {"extension's count", with(extension + 8, 0), Fault::damaged,
           "the checkpoint is damaged at byte " + at(extension + 8) + ", in part 'extension'"},
          {"more bytes", longer, Fault::damaged,
           "the checkpoint is damaged at byte " + at(bytes.size()) + ", in part 'extension'"}}) {
        SCOPED_TRACE(c.fact);
        const CheckpointSummary summary = examineCheckpoint(c.bytes);
        EXPECT_EQ(summary.fault, c.fault);
        EXPECT_EQ(summary.faultText(), c.text);
        if (c.fault != Fault::other_version) {
            const auto fresh = model.build(cpu);
            expectThrows<RefusedCheckpoint>([&] { restoreCheckpoint(*fresh, c.bytes); }, c.text);
        }
    }
}

/// A ring without parts. Every field may differ from the other runtime's.
struct Ring {
    NodeId neurons = 3;
    std::size_t synapses = 3;
    Kernel::Neuron neuron = {};
    Kernel::Firing firing = {.base_rate = 150.0};
    std::uint64_t seed = 1;
    std::string label = "ring";
    bool fingerprinted = false;
    PlasticityConfig plasticity = {};
    std::optional<PhaseConfig> phase = {};
    std::optional<RecorderConfig> recorder = {};
    std::vector<InputChannelSpec> channels = {};
    std::optional<PredictionConfig> prediction = {};

    KelmRuntime build(IWindowBackend& backend) const {
        std::vector<Synapse> edges(synapses);
        for (NodeId n = 0; n < synapses; ++n) {
            edges[n] = {
                .source = n, .target = (n + 1) % neurons, .weight = 0.5F, .delay = 1'000'000};
        }
        constexpr ModelTime horizon = 20'000'000;
        SynapseGraph graph(neurons, 1'000'000, edges);
        const std::uint64_t config_id =
            fingerprinted ? fingerprint(graph, neuron, firing, horizon, plasticity, phase, recorder,
                                        channels, prediction)
                          : 0;
        return makeKelmRuntime(std::move(graph), neuron, firing, seed, horizon, &backend, nullptr,
                               plasticity, phase, recorder, channels, prediction, config_id, label);
    }
};

TEST(CheckpointRefusal, NamesEachDifference) {
    CpuWindowBackend cpu;
    const auto refusal = [&](const Ring& written, const Ring& read) {
        KelmRuntime writer = written.build(cpu);
        writer.run(10'000'000);
        KelmRuntime reader = read.build(cpu);
        try {
            restoreCheckpoint(reader, writer.checkpoint());
        } catch (const RefusedCheckpoint& failure) {
            return std::string(failure.what());
        }
        return std::string();
    };
    const Ring ring;
    const Ring learning{.plasticity = {.enabled = true}};
    const Ring recorded{.recorder = RecorderConfig()};
    const Ring rhythmic{.phase = PhaseConfig{{{1, 40.0, 0.0, 1.0}}, {{}, {}, {}}, {}, 0}};
    const Ring faster{.phase = PhaseConfig{{{1, 41.0, 0.0, 1.0}}, {{}, {}, {}}, {}, 0}};
    const Ring driven{.channels = {{"left", 0, {0}, 0, 1.0}}};
    const Ring predicting{.prediction = PredictionConfig{{{.name = "height", .targets = {1}}}, {}}};
    const Ring bare_prediction{.prediction = PredictionConfig()};

    EXPECT_EQ(refusal(ring, ring), "");
    EXPECT_EQ(refusal(bare_prediction, bare_prediction), "");
    EXPECT_EQ(refusal(ring, {.seed = 2}), "the checkpoint has seed 1, and this runtime has 2");
    EXPECT_EQ(refusal(ring, {.label = "lattice"}),
              "the checkpoint has label 'ring', and this runtime has 'lattice'");
    EXPECT_EQ(refusal(ring, learning),
              "the checkpoint has no plasticity, and this runtime has some");
    EXPECT_EQ(refusal(learning, ring), "the checkpoint has plasticity, and this runtime has none");
    EXPECT_EQ(refusal(ring, rhythmic),
              "the checkpoint has no oscillators, and this runtime has some");
    EXPECT_EQ(refusal(recorded, ring), "the checkpoint has records, and this runtime has none");
    EXPECT_EQ(refusal(driven, ring), "the checkpoint has 1 input channels, and this runtime has 0");
    EXPECT_EQ(refusal(ring, predicting),
              "the checkpoint has 0 error channels, and this runtime has 1");
    EXPECT_EQ(refusal(ring, {.neurons = 4, .seed = 2}),
              "the checkpoint has 3 neurons, and this runtime has 4; the checkpoint has seed 1, "
              "and this runtime has 2");
    EXPECT_EQ(refusal(rhythmic, faster),
              "the checkpoint's state of oscillators does not fit this runtime");
    // Without a fingerprint, other settings pass as before.
    EXPECT_EQ(refusal(ring, {.neuron = {.tau_membrane = 12'000'000}}), "");
}

TEST(CheckpointRefusal, OfAForeignModelFollowsFromTheFingerprint) {
    CpuWindowBackend cpu;
    const Ring ring{.fingerprinted = true};
    KelmRuntime writer = ring.build(cpu);
    writer.run(10'000'000);
    const Blob checkpoint = writer.checkpoint();
    KelmRuntime same = ring.build(cpu);
    EXPECT_NO_THROW(restoreCheckpoint(same, checkpoint));
    for (const Ring& other : {Ring{.neuron = {.tau_membrane = 12'000'000}, .fingerprinted = true},
                              Ring{.firing = {.base_rate = 140.0}, .fingerprinted = true}}) {
        KelmRuntime foreign = other.build(cpu);
        expectThrows<RefusedCheckpoint>(
            [&] { restoreCheckpoint(foreign, checkpoint); },
            "the checkpoint is of another network or of other settings: it has config id " +
                std::to_string(writer.configId()) + ", and this runtime has " +
                std::to_string(foreign.configId()));
        EXPECT_EQ(foreign.position(), 0);
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
