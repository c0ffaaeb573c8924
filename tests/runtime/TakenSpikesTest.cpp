#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "compare/BlobLayout.h"
#include "compare/RunImage.h"
#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/CheckpointSummary.h"
#include "tests/support/ComposedModel.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/ForgedBlobs.h"
#include "tests/support/PlainStore.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Compare;
using namespace Testing;

void append(std::vector<SpikeRecord>& log, const std::vector<SpikeRecord>& piece) {
    log.insert(log.end(), piece.begin(), piece.end());
}

// A model's steps end at any time, also inside a window.
TEST(TakenSpikes, MakeUpTheLogAndItsDigestAcrossSlicesAndRestores) {
    CpuWindowBackend cpu;
    std::uint64_t pieces = 0;
    for (std::uint64_t seed = 1; seed <= 24; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        const ComposedModel model = generateComposedModel(seed);
        const auto build = [&] {
            return model.build(
                cpu, true,
                seed % 2 == 0 ? std::make_unique<PlainStore>(model.network.d_min, 4096) : nullptr);
        };
        const auto straight = build();
        auto taking = build();
        std::vector<SpikeRecord> taken;
        std::vector<std::string> outcomes, expected;
        bool alive = true;
        for (std::size_t step = 0; alive && step < model.steps.size(); ++step) {
            alive = model.perform(step, step + 1, *straight, expected);
            ASSERT_EQ(model.perform(step, step + 1, *taking, outcomes), alive);
            ASSERT_EQ(outcomes, expected);
            if (!alive || !model.steps[step].until) continue;
            if (step % 4 != 0) {
                append(taken, taking->takeSpikes());
                EXPECT_TRUE(taking->spikeLog().empty());
                pieces += taken.empty() ? 0 : 1;
            }
            EXPECT_EQ(taking->takenSpikes(), taken.size());
            EXPECT_EQ(taking->logHash(), straight->logHash());
            const Blob bytes = taking->checkpoint();
            auto next = build();
            ASSERT_TRUE(next->restore(bytes));
            EXPECT_EQ(next->checkpoint(), bytes);
            taking = std::move(next);
        }
        if (!alive) continue;
        append(taken, taking->takeSpikes());
        RunImage image = imageOf(*taking);
        image.log = taken;
        EXPECT_EQ(firstDifference(image, imageOf(*straight)), "");
        // A checkpoint in which nothing was taken begins a new count.
        ASSERT_TRUE(taking->restore(straight->checkpoint()));
        EXPECT_EQ(taking->takenSpikes(), 0U);
        EXPECT_EQ(taking->checkpoint(), straight->checkpoint());
        EXPECT_EQ(taking->logHash(), straight->logHash());
    }
    EXPECT_GT(pieces, 40U);
}

TEST(TakenSpikes, AreTheLastPartOfACheckpointIfThereAreSome) {
    CpuWindowBackend cpu;
    const ComposedModel model = generateComposedModel(3498, {4, 14, 4});
    const auto writer = model.build(cpu);
    writer->run(model.network.horizon / 2);
    const std::size_t without = BlobLayout(writer->checkpoint()).bytes().size();
    const std::size_t log_bytes = writer->spikeLog().size_bytes();
    const std::vector<SpikeRecord> piece = writer->takeSpikes();
    ASSERT_GE(piece.size(), 2U);
    const BlobLayout layout(writer->checkpoint());
    const Blob& bytes = layout.bytes();
    const std::size_t extension = layout.begin("taken tag");
    ASSERT_EQ(bytes.size(), extension + 32);
    EXPECT_EQ(bytes.size(), without - log_bytes + 32);
    EXPECT_EQ(std::string(bytes.begin() + static_cast<std::ptrdiff_t>(extension),
                          bytes.begin() + static_cast<std::ptrdiff_t>(extension) + 8),
              "TAKENSPK");
    EXPECT_EQ(layout.number("taken spikes"), piece.size());
    EXPECT_EQ(layout.number("taken digest"), writer->logHash());
    const CheckpointSummary summary = examineCheckpoint(bytes);
    EXPECT_EQ(summary.fault, CheckpointSummary::Fault::none);
    EXPECT_EQ(summary.spikes, 0U);
    EXPECT_EQ(summary.taken_spikes, piece.size());
    EXPECT_EQ(summary.parts.back().offset, extension);
    EXPECT_EQ(summary.parts.back().bytes, 32U);

    const auto reader = model.build(cpu);
    const Blob before = reader->checkpoint();
    const auto expectRefused = [&](BlobView forged, const std::string& text) {
        EXPECT_FALSE(reader->restore(forged)) << text;
        EXPECT_EQ(reader->checkpoint(), before);
        expectThrows<RefusedCheckpoint>([&] { restoreCheckpoint(*reader, forged); }, text);
    };
    const auto at = [](std::size_t byte) {
        return " at byte " + std::to_string(byte) + ", in part 'taken spikes'";
    };
    for (std::size_t length = extension + 1; length < bytes.size(); ++length) {
        expectRefused(BlobView(bytes).first(length), "the checkpoint is cut short" + at(length));
    }
    expectRefused(
        withValueAt(bytes, extension, 'X'),
        "the checkpoint is damaged at byte " + std::to_string(extension) + ", in part 'extension'");
    expectRefused(withValueAt(bytes, extension + 8, 0UL),
                  "the checkpoint is damaged" + at(extension + 8));
    Blob longer = bytes;
    longer.push_back(0);
    expectRefused(longer, "the checkpoint is damaged" + at(bytes.size()));
    ASSERT_TRUE(reader->restore(bytes));
    EXPECT_EQ(reader->logHash(), writer->logHash());
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
