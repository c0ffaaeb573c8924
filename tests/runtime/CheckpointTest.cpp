#include "kelm/runtime/Checkpoint.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <exception>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/KelmRuntime.h"
#include "tests/support/BlobLayout.h"
#include "tests/support/ComposedModel.h"
#include "tests/support/Draws.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

/// A small model with every part on, and its checkpoint in the middle of the run.
struct Subject {
    ComposedModel model;
    BlobLayout layout;

    /// Whether every field holds something, and something is still to happen, in so few bytes that
    /// each of them can be tried.
    bool isFull() const {
        CpuWindowBackend cpu;
        const auto twin = model.build(cpu);
        if (layout.bytes().size() > 10'000 || !twin->restore(layout.bytes())) return false;
        const std::uint64_t spikes = twin->profile().accepted;
        const std::size_t samples = twin->recorder()->samples().size();
        const bool learned =
            std::ranges::any_of(twin->learningControl()->journal(), [](const auto& entry) {
                return entry.kind == JournalKind::update && entry.delta != 0.0;
            });
        const bool in_phase = std::ranges::any_of(
            twin->phaseLog(), [](const auto& entry) { return !entry.phases.empty(); });
        twin->run();
        const char* const sequences[] = {"phase log", "spikes",       "samples",         "causes",
                                         "channels",  "observations", "intervention log"};
        return learned && in_phase && spikes > 5 && twin->profile().accepted > spikes + 2 &&
               twin->recorder()->samples().size() > samples &&
               std::ranges::all_of(sequences,
                                   [&](const char* field) { return layout.number(field) != 0; });
    }
};

/// The first small model whose checkpoint is full.
const Subject& fullSubject() {
    static const Subject subject = [] {
        for (std::uint64_t seed = 1; seed < 10'000; ++seed) {
            Subject candidate{generateComposedModel(seed, {4, 14, 4}), {}};
            CpuWindowBackend cpu;
            const auto writer = candidate.model.build(cpu);
            std::vector<std::string> outcomes;
            const ModelTime middle = candidate.model.network.horizon / 2;
            for (std::size_t step = 0; writer->position() < middle; ++step) {
                if (!candidate.model.perform(step, step + 1, *writer, outcomes)) break;
            }
            candidate.layout = BlobLayout(writer->checkpoint(), BlobLayout::Format::checkpoint);
            if (candidate.isFull()) return candidate;
        }
        throw std::runtime_error("no small model has a full checkpoint");
    }();
    return subject;
}

class CheckpointTest : public testing::Test {
protected:
    /// Expects a fresh runtime to refuse `forged` and to stay as it was.
    void expectRefused(BlobView forged) {
        const auto fresh = model.build(cpu);
        const Blob before = fresh->checkpoint();
        EXPECT_FALSE(fresh->restore(forged));
        EXPECT_EQ(fresh->checkpoint(), before);
    }

    CpuWindowBackend cpu;
    const ComposedModel& model = fullSubject().model;
    const BlobLayout& layout = fullSubject().layout;
    const Blob& bytes = layout.bytes();
    const std::size_t extension = layout.begin("extension tag");
};

TEST_F(CheckpointTest, NamesItsFormatVersionAndExtension) {
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_EQ(text.substr(0, 8), "KELMV1\r\n");
    EXPECT_EQ(layout.number("engine version"), 12);
    EXPECT_EQ(text.substr(16, 12), "2.0.0-beta.1");
    EXPECT_EQ(text.substr(36, layout.number("label")), model.label);
    EXPECT_EQ(layout.number("config id"), model.config_id);
    EXPECT_EQ(layout.number("seed"), model.network.run_seed);
    EXPECT_EQ(text.substr(extension, 8), "ETATSCER");
}

TEST_F(CheckpointTest, IsRefusedCutShortAnywhereButInFrontOfItsExtension) {
    const auto fresh = model.build(cpu);
    const Blob before = fresh->checkpoint();
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        if (length == extension) continue;
        ASSERT_FALSE(fresh->restore(BlobView(bytes).first(length))) << layout.place(length);
    }
    Blob longer = bytes;
    longer.push_back(0);
    EXPECT_FALSE(fresh->restore(longer));
    EXPECT_EQ(fresh->checkpoint(), before);

    // Older files have none. All else is in force: the samples' values are missing from now on.
    ASSERT_TRUE(fresh->restore(BlobView(bytes).first(extension)));
    const Blob again = fresh->checkpoint();
    ASSERT_GT(again.size(), extension);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(extension),
                           again.begin()));
    for (const RecordedSample& sample : fresh->recorder()->samples()) {
        EXPECT_TRUE(sample.adaptation.empty());
        EXPECT_TRUE(sample.refractory_left.empty());
        EXPECT_TRUE(sample.next_candidate.empty());
    }
}

TEST_F(CheckpointTest, OfAnotherVersionIsThrownOut) {
    const auto fresh = model.build(cpu);
    const Blob before = fresh->checkpoint();
    for (const std::string version : {"2.0.0-beta.2", "2.0.0-beta.10", "2.0.0-beta.", ""}) {
        Blob forged(bytes.begin(), bytes.begin() + 8);
        appendU64(forged, version.size());
        appendBytes(forged, version.data(), version.size());
        forged.insert(forged.end(), bytes.begin() + 28, bytes.end());
        expectThrows<IncompatibleCheckpoint>(
            [&] { EXPECT_FALSE(fresh->restore(forged)); },
            "checkpoint engine_version '" + version + "' is incompatible with '2.0.0-beta.1'");
    }
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
        for (const Blob& forged : layout.withForgedCounts(field)) expectRefused(forged);
    }
    expectRefused(withNumberAt(bytes, layout.begin("moment cursor"), layout.number("moments") + 1));
    // The seed of the nested streams, behind their length and tag.
    expectRefused(withNumberAt(bytes, layout.begin("random") + 16, model.network.run_seed + 1));
}

TEST_F(CheckpointTest, WithAChannelThatCannotBeIsRefused) {
    const auto nan = std::bit_cast<std::uint64_t>(std::numeric_limits<double>::quiet_NaN());
    const auto negative = std::bit_cast<std::uint64_t>(-1.0);
    for (const Blob& forged : {withNumberAt(bytes, layout.begin("channels") + 8, nan),
                               withNumberAt(bytes, layout.begin("precisions") + 8, negative),
                               withNumberAt(bytes, layout.begin("observations") + 8, 1000)}) {
        EXPECT_FALSE(model.build(cpu)->restore(forged));
    }
}

TEST_F(CheckpointTest, GapsAndFlagsComeBackAsZeroAndOne) {
    Blob dirty = bytes;
    // The first entry with a phase: time, neuron, count, then images with a gap at 4.
    std::size_t entry = layout.begin("phase log") + 8;
    while (numberAt(bytes, entry + 16) == 0) entry += 24;
    dirty[entry + 24 + 4] = 0xff;
    dirty[layout.begin("moments") + 8 + 17] = 0xff;
    // The second channel's: count, an item of 41 bytes, gain.
    std::vector<std::size_t> flags = {layout.begin("channels") + 8 + 41 + 8};
    for (std::size_t i = 0; i < 9; ++i) flags.push_back(layout.begin("switches") + i);
    for (const std::size_t flag : flags) dirty[flag] = bytes[flag] == 1 ? 0x40 : 0;
    const auto fresh = model.build(cpu);
    ASSERT_TRUE(fresh->restore(dirty));
    EXPECT_EQ(firstCheckpointDifference(bytes, fresh->checkpoint()), "");
}

TEST_F(CheckpointTest, WithAnyByteChangedIsRefusedOrRuns) {
    Draws draws(3);
    std::uint64_t refused = 0;
    std::uint64_t ended = 0;
    std::set<std::string> accepted_in;
    for (std::size_t offset = 0; offset < 3 * bytes.size(); ++offset) {
        const std::uint8_t masks[] = {0x01, 0x80, static_cast<std::uint8_t>(draws.next() | 2)};
        const std::uint8_t mask = masks[offset % 3];
        const std::string place = layout.place(offset / 3);
        SCOPED_TRACE(place + ", mask " + std::to_string(mask));
        Blob changed = bytes;
        changed[offset / 3] ^= mask;
        const auto twin = model.build(cpu);
        try {
            if (!twin->restore(changed)) {
                ++refused;
                continue;
            }
            accepted_in.insert(place.substr(0, place.find(',')));
            twin->run();
            ASSERT_TRUE(model.build(cpu)->restore(twin->checkpoint()))
                << "a run from it ends in what nobody reads";
        } catch (const std::exception& failure) {
            ++ended;
            // One of ours, or of a stream: no allocation failed, no index went astray.
            const std::string text = failure.what();
            ASSERT_TRUE(std::string(typeid(failure).name()).find("Kelm") != std::string::npos ||
                        text.starts_with("RandomContext "))
                << text;
        }
    }
    EXPECT_GT(refused, 300);
    EXPECT_GT(ended, 10);
    EXPECT_GT(accepted_in.size(), 15);
}

TEST_F(CheckpointTest, BelongsToARuntimeOfTheSameParts) {
    constexpr int bare = 5;
    const auto runtimeWith = [&](int part) {
        const ComposedModel& m = model;
        return makeKelmRuntime(m.network.graph(), m.network.neurons[0], m.network.firings[0],
                               m.network.run_seed, m.network.horizon, &cpu, nullptr,
                               part == 0 ? m.plasticity : PlasticityConfig(),
                               part == 1 ? std::optional(m.phase) : std::nullopt,
                               part == 2 ? std::optional(m.recorder) : std::nullopt,
                               part == 3 ? m.channels : std::vector<InputChannelSpec>(),
                               part == 4 ? std::optional(m.prediction) : std::nullopt);
    };
    for (int reads = 0; reads <= bare; ++reads) {
        for (int wrote = 0; wrote <= bare; ++wrote) {
            SCOPED_TRACE("part " + std::to_string(wrote) + " read as " + std::to_string(reads));
            KelmRuntime writer = runtimeWith(wrote);
            writer.run(model.network.horizon / 2);
            KelmRuntime reader = runtimeWith(reads);
            const Blob fresh = reader.checkpoint();
            // A file does not tell an empty recorder from none.
            const bool fits = reads == wrote || (reads == 2 && wrote == bare);
            EXPECT_EQ(reader.restore(writer.checkpoint()), fits);
            EXPECT_EQ(reader.checkpoint(), fits ? writer.checkpoint() : fresh);
        }
    }
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
