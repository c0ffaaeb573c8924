#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
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
    const auto expectAt = [&](std::size_t offset, const void* records, std::size_t size) {
        EXPECT_EQ(std::memcmp(bytes.data() + offset, records, size), 0) << layout.place(offset);
    };
    const std::size_t neurons = engine.states().size();
    const auto log = engine.spikeLog();
    ASSERT_GT(log.size(), 5);
    EXPECT_EQ(layout.number("log"), log.size());
    expectAt(0, "KELMWEN3", 8);
    expectAt(layout.begin("states") + 8, engine.states().data(), 40 * neurons);
    expectAt(layout.begin("random") + 8, "RNDCTX1", 8);
    expectAt(layout.begin("candidates"), engine.candidates().data(), 24 * neurons);
    expectAt(layout.begin("log") + 8, log.data(), 16 * log.size());
    const WindowProfile profile = engine.profile();
    expectAt(layout.begin("profile"), &profile, 40);
    expectAt(layout.begin("graph") + 8, "KELMSYN1", 8);
    expectAt(layout.begin("moments") + 8, &observer.sights.at(0).event, 64);
    EXPECT_EQ(layout.number("moment cursor"), 1);
    expectAt(layout.begin("store") + 8, "KELMBKT1", 8);
}

TEST_F(EngineSnapshotTest, IsRefusedCutShortAnywhereOrWithAByteBehindIt) {
    WindowEngine fresh = makeEngine(model);
    const Blob before = fresh.snapshot();
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        ASSERT_FALSE(fresh.restore(BlobView(bytes).first(length))) << layout.place(length);
    }
    Blob longer = bytes;
    longer.push_back(0);
    EXPECT_FALSE(fresh.restore(longer));
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
