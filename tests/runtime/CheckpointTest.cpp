#include "kelm/runtime/Checkpoint.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "compare/BlobLayout.h"
#include "compare/RunImage.h"
#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/ComposedModel.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/ForgedBlobs.h"
#include "tests/support/PlainStore.h"
#include "tests/support/SameImages.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Compare;
using namespace Testing;

/// The checkpoint of a small model with every part, in the middle of its run.
class CheckpointTest : public testing::Test {
protected:
    CheckpointTest() {
        const auto writer = model.build(cpu);
        std::vector<std::string> outcomes;
        for (std::size_t step = 0; writer->position() < model.network.horizon / 2; ++step) {
            model.perform(step, step + 1, *writer, outcomes);
        }
        layout = BlobLayout(writer->checkpoint());
        extension = layout.begin("extension tag");
    }

    /// Expects a fresh runtime to refuse `forged` and to stay unchanged.
    void expectRefused(BlobView forged) {
        const auto fresh = model.build(cpu);
        const Blob before = fresh->checkpoint();
        EXPECT_FALSE(fresh->restore(forged));
        EXPECT_EQ(fresh->checkpoint(), before);
    }

    CpuWindowBackend cpu;
    const ComposedModel model = generateComposedModel(3498, {4, 14, 4});
    BlobLayout layout;
    const Blob& bytes = layout.bytes();
    std::size_t extension = 0;
};

// No part is empty and the run continues, so every forged byte can matter.
TEST_F(CheckpointTest, ComesFromARunThatFillsEveryPart) {
    for (const char* field : {"log", "moments", "moment cursor", "phase log", "spikes", "samples",
                              "causes", "channels", "observations", "intervention log"}) {
        EXPECT_NE(layout.number(field), 0) << field;
    }
    const auto twin = model.build(cpu);
    ASSERT_TRUE(twin->restore(bytes));
    EXPECT_FALSE(twin->learningControl()->journal().empty());
    const std::uint64_t spikes = twin->profile().accepted;
    twin->run();
    EXPECT_GT(twin->profile().accepted, spikes + 2);
}

TEST_F(CheckpointTest, NamesItsFormatVersionAndExtension) {
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_EQ(text.substr(0, 8), "KELMV1\r\n");
    EXPECT_EQ(layout.number("engine version"), 12);
    EXPECT_EQ(text.substr(16, 12), "2.0.0-beta.1");
    EXPECT_EQ(text.substr(36, layout.number("label")), "composed");
    EXPECT_EQ(layout.number("config id"), model.network.seed);
    EXPECT_EQ(layout.number("seed"), model.network.run_seed);
    EXPECT_EQ(text.substr(extension, 8), "ETATSCER");
}

TEST_F(CheckpointTest, IsRefusedCutShortAnywhereButBeforeItsExtension) {
    const auto fresh = model.build(cpu);
    const Blob before = fresh->checkpoint();
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        if (length == extension) continue;
        ASSERT_FALSE(fresh->restore(BlobView(bytes).first(length))) << length;
    }
    Blob longer = bytes;
    longer.push_back(0);
    EXPECT_FALSE(fresh->restore(longer));
    // An extension with another tag and without a count, and one of fewer samples.
    for (const std::uint64_t tag : {std::uint64_t{0}, numberAt(bytes, extension)}) {
        Blob other(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(extension));
        appendU64(other, tag);
        if (tag != 0) appendU64(other, 0);
        EXPECT_FALSE(fresh->restore(other)) << tag;
    }
    EXPECT_EQ(fresh->checkpoint(), before);

    // A file without an extension restores everything but the values of the extension.
    ASSERT_TRUE(fresh->restore(BlobView(bytes).first(extension)));
    EXPECT_TRUE(std::ranges::equal(BlobView(fresh->checkpoint()).first(extension),
                                   BlobView(bytes).first(extension)));
    for (const RecordedSample& sample : fresh->recorder()->samples()) {
        EXPECT_TRUE(sample.adaptation.empty() && sample.refractory_left.empty() &&
                    sample.next_candidate.empty());
    }
}

TEST_F(CheckpointTest, HoldsASnapshotForAnEngineOfTheNetwork) {
    const std::size_t begin = layout.begin("engine") + 8;
    const BlobView snapshot = BlobView(bytes).subspan(begin, layout.number("engine") + 1);
    WindowEngine engine = makeEngine(model.network);
    EXPECT_FALSE(engine.restore(snapshot)) << "one byte too many";
    // A restore removes posted events, but not the fact that an event was posted.
    engine.post({});
    ASSERT_TRUE(engine.restore(snapshot.first(snapshot.size() - 1)));
    EXPECT_TRUE(engine.hasExternalEvents());
    EXPECT_TRUE(std::ranges::equal(engine.snapshot(), snapshot.first(snapshot.size() - 1)));
    RunImage image = imageOf(engine);
    image.candidates.clear();
    const auto runtime = model.build(cpu);
    ASSERT_TRUE(runtime->restore(bytes));
    EXPECT_EQ(firstDifference(image, imageOf(*runtime)), "");
    EXPECT_EQ(numberAt(snapshot, 0), 0x334e45574d4c454b);  // KELMWEN3
    EXPECT_FALSE(engine.isPristine());
    // If the store refuses, the engine stays unchanged.
    struct RefusingStore final : PlainStore {
        using PlainStore::PlainStore;
        bool restore(BlobView) override { return false; }
    };
    WindowEngine foreign =
        makeEngine(model.network, std::make_unique<RefusingStore>(model.network.d_min, 16));
    const RunImage before = imageOf(foreign);
    EXPECT_FALSE(foreign.restore(snapshot.first(snapshot.size() - 1)));
    EXPECT_EQ(firstDifference(imageOf(foreign), before), "");
}

TEST_F(CheckpointTest, OfAnotherVersionThrows) {
    const auto fresh = model.build(cpu);
    const Blob before = fresh->checkpoint();
    Blob forged = bytes;
    forged[27] = '2';
    const auto restore = [&] { EXPECT_FALSE(fresh->restore(forged)); };
    expectThrows<IncompatibleCheckpoint>(
        restore, "checkpoint engine_version '2.0.0-beta.2' is incompatible with '2.0.0-beta.1'");
    forged = withValueAt(bytes, 8, 0UL);
    expectThrows<IncompatibleCheckpoint>(
        restore, "checkpoint engine_version '' is incompatible with '2.0.0-beta.1'");
    EXPECT_EQ(fresh->checkpoint(), before);
}

TEST_F(CheckpointTest, IsRefusedUnderAnotherIdentityAndWithCountsThatItsBytesCannotHold) {
    for (const char* field : {"magic", "label", "config id", "seed", "tag", "extension tag"}) {
        SCOPED_TRACE(field);
        Blob forged = bytes;
        forged[layout.begin(field) + 7] ^= 1;
        expectRefused(forged);
    }
    for (const char* field :
         {"label",       "engine",     "states",       "random",           "log",
          "graph",       "moments",    "store",        "plasticity",       "learning",
          "oscillators", "phase log",  "spikes",       "samples",          "causes",
          "channels",    "precisions", "observations", "intervention log", "extension"}) {
        SCOPED_TRACE(field);
        const std::uint64_t count = layout.number(field);
        for (const std::uint64_t forged :
             {count + 1, count - 1, std::uint64_t{1} << 40, std::uint64_t{1} << 60,
              (std::uint64_t{1} << 63) + count, ~std::uint64_t{0}}) {
            expectRefused(withValueAt(bytes, layout.begin(field), forged));
        }
    }
    expectRefused(withValueAt(bytes, layout.begin("moment cursor"), layout.number("moments") + 1));
    // The seed of the nested streams, after their length and tag.
    expectRefused(withValueAt(bytes, layout.begin("random") + 16, model.network.run_seed + 1));
}

TEST_F(CheckpointTest, IsRefusedWithInvalidChannels) {
    for (const Blob& forged :
         {withValueAt(bytes, layout.begin("channels") + 8, ~0ULL),         // NaN
          withValueAt(bytes, layout.begin("precisions") + 8, 9ULL << 60),  // < 0
          withValueAt(bytes, layout.begin("observations") + 8, 1000UL)}) {
        expectRefused(forged);
    }
    // The last nested blob, after all others were accepted: the steps of the coupling.
    expectRefused(withValueAt(bytes, layout.begin("oscillators") + 32, ~std::uint64_t{0}));
}

TEST_F(CheckpointTest, GapsAndFlagsComeBackAsZeroAndOne) {
    Blob dirty = bytes;
    // The first entry with a phase: time, neuron, count, then images with a gap at 4.
    std::size_t entry = layout.begin("phase log") + 8;
    while (numberAt(bytes, entry + 16) == 0) entry += 24;
    dirty[entry + 24 + 4] = 0xff;
    dirty[layout.begin("moments") + 8 + 17] = 0xff;
    // The flag of the second channel: after the count, an item of 41 bytes and a gain.
    const std::size_t connected = layout.begin("channels") + 8 + 41 + 8;
    dirty[connected] = bytes[connected] == 1 ? 0x40 : 0;
    const auto fresh = model.build(cpu);
    ASSERT_TRUE(fresh->restore(dirty));
    EXPECT_TRUE(sameImages<std::uint8_t>(fresh->checkpoint(), bytes));

    const std::size_t switches = layout.begin("switches");
    for (std::size_t i = 0; i < 9; ++i) dirty[switches + i] = i % 2 == 0 ? 2 : 0;
    ASSERT_TRUE(fresh->restore(dirty));
    for (std::size_t i = 0; i < 9; ++i) {
        EXPECT_EQ(fresh->interventions().mechanism_off[i], i % 2 == 0) << i;
        EXPECT_EQ(fresh->checkpoint()[switches + i], i % 2 == 0 ? 1 : 0) << i;
    }
}

TEST_F(CheckpointTest, MayHoldAnyNumberOfEmptySamples) {
    // More samples than all other bytes, at their smallest size of 32 bytes each.
    const std::size_t samples = layout.begin("samples"), behind = layout.begin("causes");
    Blob many(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(samples));
    const std::uint64_t count = bytes.size();
    appendU64(many, count);
    many.resize(many.size() + 32 * count);
    appendBytes(many, bytes.data() + behind, extension - behind);
    const auto fresh = model.build(cpu);
    ASSERT_TRUE(fresh->restore(many));
    EXPECT_EQ(fresh->recorder()->samples().size(), count);
}

TEST_F(CheckpointTest, OfALogOutOfOrderComesBackInOrder) {
    ASSERT_GE(layout.number("log"), 2);
    Blob forged = bytes;
    const auto first = forged.begin() + static_cast<std::ptrdiff_t>(layout.begin("log")) + 8;
    std::swap_ranges(first, first + 16, first + 16);
    const auto fresh = model.build(cpu);
    ASSERT_TRUE(fresh->restore(forged));
    EXPECT_TRUE(sameImages<std::uint8_t>(fresh->checkpoint(), bytes));
}

TEST_F(CheckpointTest, BelongsToARuntimeOfTheSameParts) {
    const auto runtimeWith = [&](char part) {
        const GeneratedModel& n = model.network;
        return makeKelmRuntime(n.graph(), n.neurons[0], n.firings[0], n.run_seed, n.horizon, &cpu,
                               nullptr, part == 'l' ? model.plasticity : PlasticityConfig(),
                               part == 'p' ? std::optional(model.phase) : std::nullopt,
                               part == 'r' ? std::optional(model.recorder) : std::nullopt,
                               part == 'c' ? model.channels : std::vector<InputChannelSpec>(),
                               part == 'e' ? std::optional(model.prediction) : std::nullopt);
    };
    for (const char reads : "lprce") {
        for (const char wrote : "lprce") {  // and the terminating 0: no part
            SCOPED_TRACE(std::string("part ") + wrote + " read as " + reads);
            KelmRuntime writer = runtimeWith(wrote);
            writer.run(model.network.horizon / 2);
            if (wrote == 'l') writer.plasticity()->recordSpike(1, model.network.horizon);
            KelmRuntime reader = runtimeWith(reads);
            const Blob fresh = reader.checkpoint();
            // A file does not distinguish an empty recorder from none.
            const bool fits = reads == wrote || (reads == 'r' && wrote == '\0');
            EXPECT_EQ(reader.restore(writer.checkpoint()), fits);
            EXPECT_EQ(reader.checkpoint(), fits ? writer.checkpoint() : fresh);
        }
    }
    KelmRuntime bare = runtimeWith('\0');
    const BlobLayout unread(bare.checkpoint());
    EXPECT_FALSE(bare.restore(withValueAt(unread.bytes(), unread.begin("precisions"), 1UL)));
    Blob caused = withValueAt(unread.bytes(), unread.begin("causes"), 1UL);
    caused.insert(caused.begin() + static_cast<std::ptrdiff_t>(unread.begin("channels")), 9, 0);
    EXPECT_FALSE(bare.restore(caused)) << "a cause without a recorder";
    // Before its first sample a recorder is empty. The runtime without one ignores its sample
    // events.
    ASSERT_TRUE(bare.restore(runtimeWith('r').checkpoint()));
    bare.run();
    EXPECT_GT(bare.commitCount(), 0U);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
