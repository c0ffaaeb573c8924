#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "kelm/engine/CpuWindowBackend.h"
#include "tests/support/BlobLayout.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/KeepingObserver.h"
#include "tests/support/NaiveEventStore.h"
#include "tests/support/RunImage.h"

// Whole runs that are cut and carried on, and forged counts and bytes, are tried on the checkpoints
// that hold these snapshots.

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

/// The snapshot of an engine that has run to its half and seen one of two observations.
class EngineSnapshotTest : public testing::Test {
protected:
    EngineSnapshotTest() {
        engine.setHooks(nullptr, nullptr, &observer);
        engine.declareObserverEvent(observationAt(model.horizon / 4));
        engine.declareObserverEvent(observationAt(model.horizon - 1));
        engine.run(cpu, model.horizon / 2);
        layout = BlobLayout(engine.snapshot(), BlobLayout::Format::engine);
    }

    const GeneratedModel model = generateModel(8, {6, 30, false, false});
    KeepingObserver observer;
    CpuWindowBackend cpu;
    WindowEngine engine = makeEngine(model);
    BlobLayout layout;
    const Blob& bytes = layout.bytes();
};

TEST_F(EngineSnapshotTest, HoldsTheRunFieldByField) {
    const auto expectAt = [&](std::size_t offset, const auto& records) {
        const auto held = std::as_bytes(std::span(bytes)).subspan(offset);
        const auto expected = std::as_bytes(std::span(records));
        EXPECT_TRUE(std::ranges::equal(held.first(expected.size()), expected))
            << layout.place(offset);
    };
    EXPECT_GT(layout.number("log"), 5);
    expectAt(0, std::string("KELMWEN3"));
    expectAt(layout.begin("states") + 8, engine.states());
    expectAt(layout.begin("candidates"), engine.candidates());
    expectAt(layout.begin("log") + 8, engine.spikeLog());
    expectAt(layout.begin("profile"), std::vector{engine.profile()});
    expectAt(layout.begin("moments") + 8, std::vector{observer.sights.at(0).event});
    EXPECT_EQ(layout.number("moment cursor"), 1);
}

TEST_F(EngineSnapshotTest, IsRefusedCutShortAnywhereOrWithAByteBehindIt) {
    WindowEngine fresh = makeEngine(model);
    const Blob before = fresh.snapshot();
    Blob longer = bytes;
    longer.push_back(0);
    for (std::size_t length = 0; length <= longer.size(); ++length) {
        if (length == bytes.size()) continue;
        ASSERT_FALSE(fresh.restore(BlobView(longer).first(length))) << layout.place(length);
    }
    EXPECT_EQ(fresh.snapshot(), before);
}

TEST_F(EngineSnapshotTest, ReplacesWhateverTheReaderHasDone) {
    WindowEngine fresh = makeEngine(model);
    const Blob start = fresh.snapshot();
    ASSERT_TRUE(fresh.restore(start));
    EXPECT_FALSE(fresh.isPristine());
    ASSERT_TRUE(engine.restore(start));
    EXPECT_EQ(engine.snapshot(), start);
    engine.setHooks(nullptr, nullptr, nullptr);
    EXPECT_EQ(runSideBySide(engine, cpu, fresh, cpu, model.d_min), "");
    // What was posted is gone; that something was is not.
    WindowEngine posted = makeEngine(model);
    posted.post({});
    ASSERT_TRUE(posted.restore(bytes));
    EXPECT_EQ(posted.snapshot(), bytes);
    EXPECT_TRUE(posted.hasExternalEvents());
}

TEST_F(EngineSnapshotTest, LeavesTheEngineAloneWhereAForeignStoreRefuses) {
    WindowEngine foreign = makeEngine(model, std::make_unique<NaiveEventStore>(model.d_min));
    const RunImage before = imageOf(foreign);
    EXPECT_FALSE(foreign.restore(bytes));
    EXPECT_EQ(firstDifference(imageOf(foreign), before), "");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
