#include <gtest/gtest.h>

#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "tests/support/BlobLayout.h"
#include "tests/support/Draws.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/GeneratedModel.h"
#include "tests/support/NaiveEventStore.h"
#include "tests/support/RunImage.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;
namespace Emulation = Device::Emulation;

Event observationAt(ModelTime time) {
    Event event;
    event.time = time;
    event.kind = EventKind::observation;
    return event;
}

/// Three hot neurons in windows of 1 ms, every one with synapses to the others.
WindowEngine hotEngine(std::uint64_t seed = 5, std::uint64_t node_count = 3) {
    std::vector<Synapse> synapses;
    for (NodeId n = 0; n < node_count; ++n) {
        Synapse synapse;
        synapse.source = n;
        synapse.target = (n + 1) % node_count;
        synapse.weight = 0.25F;
        synapse.delay = 1'000'000 + static_cast<ModelTime>(n) * 300'000;
        synapses.push_back(synapse);
    }
    Kernel::Firing firing;
    firing.base_rate = 1500.0;
    firing.gain = 1.0;
    return WindowEngine(SynapseGraph(node_count, 1'000'000, synapses), Kernel::Neuron(), firing,
                        seed, 20'000'000);
}

/// Sees nothing and counts it.
class CountingObserver : public IWindowObserver {
public:
    void observe(const Event&, std::span<const Kernel::State>, SynapseGraph&) override {}
    void observe(const Event& event, std::span<const Kernel::State>, std::span<const ModelTime>,
                 SynapseGraph&) override {
        times.push_back(event.time);
    }

    std::vector<ModelTime> times;
};

/// The snapshot of a hot engine that has run to 10 ms and seen one of two observations.
class EngineSnapshotTest : public testing::Test {
protected:
    EngineSnapshotTest() {
        engine.setHooks(nullptr, nullptr, &observer);
        for (const ModelTime time : {2'500'000, 15'500'000}) {
            engine.declareObserverEvent(observationAt(time));
        }
        engine.run(cpu, 10'000'000);
        bytes = engine.snapshot();
        layout = BlobLayout::ofEngine(bytes);
    }

    /// Expects a fresh engine to refuse `forged` and to stay as it was.
    static void expectRefused(BlobView forged) {
        WindowEngine fresh = hotEngine();
        const Blob before = fresh.snapshot();
        EXPECT_FALSE(fresh.restore(forged));
        EXPECT_EQ(fresh.snapshot(), before);
    }

    std::size_t begin(std::string_view field) const { return layout.field(field).begin; }

    CountingObserver observer;
    CpuWindowBackend cpu;
    WindowEngine engine = hotEngine();
    Blob bytes;
    BlobLayout layout;
};

template <class Record>
Record recordAt(const Blob& bytes, std::size_t offset) {
    Record record;
    std::memcpy(&record, bytes.data() + offset, sizeof(Record));
    return record;
}

TEST_F(EngineSnapshotTest, HoldsTheRunFieldByField) {
    EXPECT_EQ(std::memcmp(bytes.data(), "KELMWEN3", 8), 0);
    EXPECT_EQ(layout.number(bytes, "state count"), 3);
    for (NodeId n = 0; n < 3; ++n) {
        const auto state = recordAt<Kernel::State>(bytes, begin("states") + 40 * n);
        EXPECT_EQ(std::memcmp(&state, &engine.states()[n], 40), 0);
        const auto slot = recordAt<CandidateSlot>(bytes, begin("candidates") + 24 * n);
        EXPECT_EQ(slot.time, engine.candidates()[n].time);
        EXPECT_EQ(slot.rate, engine.candidates()[n].rate);
        EXPECT_EQ(slot.event_id, engine.candidates()[n].event_id);
    }
    const auto log = engine.spikeLog();
    ASSERT_GT(log.size(), 5);
    ASSERT_EQ(layout.number(bytes, "log"), log.size());
    for (std::size_t i = 0; i < log.size(); ++i) {
        EXPECT_EQ(recordAt<SpikeRecord>(bytes, begin("log") + 8 + 16 * i), log[i]);
    }
    EXPECT_EQ(recordAt<WindowProfile>(bytes, begin("profile")), engine.profile());
    EXPECT_EQ(layout.number(bytes, "observations"), 2);
    const auto seen = recordAt<Event>(bytes, begin("observations") + 8);
    EXPECT_EQ(seen.time, 2'500'000);
    EXPECT_EQ(seen.id, 9223372036854775807U);
    EXPECT_EQ(seen.kind, EventKind::observation);
    EXPECT_EQ(layout.number(bytes, "observer cursor"), 1);
    for (const auto& [field, tag] : {std::pair("random", "RNDCTX1"), std::pair("graph", "KELMSYN1"),
                                     std::pair("store", "KELMBKT1")}) {
        EXPECT_EQ(std::memcmp(layout.nested(bytes, field).data(), tag, 8), 0);
    }
    EXPECT_EQ(engine.snapshot(), bytes);
}

TEST_F(EngineSnapshotTest, OfAFreshEngineRestoresToItsEqual) {
    WindowEngine fresh = hotEngine();
    const Blob start = fresh.snapshot();
    const BlobLayout fields = BlobLayout::ofEngine(start);
    EXPECT_EQ(fields.number(start, "log"), 0);
    EXPECT_EQ(recordAt<WindowProfile>(start, fields.field("profile").begin), WindowProfile());
    // Tag, d_min, bucket_count, cursor, started and next_id come before the store's event count.
    EXPECT_EQ(numberAt(fields.nested(start, "store"), 41), 3);
    // Also over one that has run.
    ASSERT_TRUE(engine.restore(start));
    EXPECT_EQ(engine.snapshot(), start);
    engine.setHooks(nullptr, nullptr, nullptr);
    EXPECT_EQ(runSideBySide(engine, cpu, fresh, cpu, 1'000'000), "");
}

TEST_F(EngineSnapshotTest, LeavesOutWhatTheConstructorSupplies) {
    WindowEngine twin = hotEngine();
    twin.post({});
    ASSERT_TRUE(twin.restore(bytes));
    EXPECT_TRUE(twin.hasExternalEvents());
    EXPECT_FALSE(twin.isPristine());
    WindowEngine other = hotEngine();
    ASSERT_TRUE(other.restore(bytes));
    EXPECT_FALSE(other.hasExternalEvents());
    EXPECT_FALSE(other.isPristine());
    EXPECT_EQ(other.snapshot(), bytes);
}

TEST_F(EngineSnapshotTest, NeitherRepeatsNorSkipsAnObservation) {
    WindowEngine twin = hotEngine();
    CountingObserver twins;
    twin.setHooks(nullptr, nullptr, &twins);
    ASSERT_TRUE(twin.restore(bytes));
    twin.run(cpu);
    EXPECT_EQ(observer.times, (std::vector<ModelTime>{2'500'000}));
    EXPECT_EQ(twins.times, (std::vector<ModelTime>{15'500'000}));
}

TEST_F(EngineSnapshotTest, IsRefusedCutShortAnywhereOrWithAByteBehindIt) {
    WindowEngine fresh = hotEngine();
    const Blob before = fresh.snapshot();
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        ASSERT_FALSE(fresh.restore(BlobView(bytes).first(length))) << layout.place(length);
    }
    Blob longer = bytes;
    longer.push_back(0);
    EXPECT_FALSE(fresh.restore(longer));
    EXPECT_EQ(fresh.snapshot(), before);
    // The store's length may not account for the byte either: whatever lies behind it is its own.
    EXPECT_FALSE(
        fresh.restore(withNumberAt(bytes, begin("store"), layout.number(bytes, "store") - 1)));
}

TEST_F(EngineSnapshotTest, IsRefusedUnderAnotherIdentity) {
    Blob older = bytes;
    older[7] = '2';
    expectRefused(older);
    expectRefused(hotEngine(6).snapshot());
    expectRefused(hotEngine(5, 4).snapshot());
    expectRefused(withNumberAt(bytes, begin("state count"), 2));
    expectRefused(withNumberAt(bytes, begin("state count"), std::uint64_t{1} << 61));
    // The seed of the nested streams, behind its tag.
    expectRefused(withNumberAt(bytes, begin("random") + 16, 6));
}

TEST_F(EngineSnapshotTest, IsRefusedWithACountThatItsBytesCannotHold) {
    for (const char* field : {"random", "log", "graph", "observations", "store"}) {
        SCOPED_TRACE(field);
        const std::uint64_t count = layout.number(bytes, field);
        for (const std::uint64_t forged :
             {count + 1, count - 1, std::uint64_t{1} << 40, std::uint64_t{1} << 60,
              (std::uint64_t{1} << 63) + count, ~std::uint64_t{0}}) {
            expectRefused(withNumberAt(bytes, begin(field), forged));
        }
    }
    expectRefused(withNumberAt(bytes, begin("observer cursor"), 3));
    WindowEngine fresh = hotEngine();
    EXPECT_TRUE(fresh.restore(withNumberAt(bytes, begin("observer cursor"), 2)));
}

TEST_F(EngineSnapshotTest, GapsComeBackAsZero) {
    Blob dirty = bytes;
    dirty[begin("observations") + 8 + 17] = 0xff;
    WindowEngine fresh = hotEngine();
    ASSERT_TRUE(fresh.restore(dirty));
    EXPECT_EQ(fresh.snapshot(), bytes);
}

TEST_F(EngineSnapshotTest, LeavesTheEngineAloneWhereAForeignStoreRefuses) {
    WindowEngine foreign(SynapseGraph(3, 1'000'000, {}), Kernel::Neuron(), Kernel::Firing(), 5,
                         20'000'000, std::make_unique<NaiveEventStore>(1'000'000));
    const RunImage before = imageOf(foreign);
    EXPECT_FALSE(foreign.restore(bytes));
    EXPECT_EQ(firstDifference(imageOf(foreign), before), "");
}

/// What a run may end in once its snapshot has been tampered with.
bool isDocumented(const std::exception& failure) {
    return dynamic_cast<const WindowEngineError*>(&failure) != nullptr ||
           dynamic_cast<const LookaheadViolation*>(&failure) != nullptr ||
           dynamic_cast<const SynapseRoutingViolation*>(&failure) != nullptr ||
           dynamic_cast<const TimeOverflow*>(&failure) != nullptr ||
           dynamic_cast<const Runtime::ReplayExhausted*>(&failure) != nullptr ||
           std::string(failure.what()).starts_with("RandomContext ");
}

TEST_F(EngineSnapshotTest, WithAnyByteChangedIsRefusedOrRuns) {
    Draws draws(11);
    std::uint64_t accepted = 0;
    std::uint64_t ended = 0;
    for (std::size_t offset = 0; offset < bytes.size(); ++offset) {
        const std::uint8_t masks[] = {0x01, 0x80, static_cast<std::uint8_t>(draws.next() | 2)};
        for (const std::uint8_t mask : masks) {
            SCOPED_TRACE(layout.place(offset) + ", mask " + std::to_string(mask));
            Blob changed = bytes;
            changed[offset] ^= mask;
            WindowEngine twin = hotEngine();
            if (!twin.restore(changed)) continue;
            ++accepted;
            CountingObserver twins;
            twin.setHooks(nullptr, nullptr, &twins);
            try {
                twin.run(cpu);
                const Blob end = twin.snapshot();
                WindowEngine reader = hotEngine();
                ASSERT_TRUE(reader.restore(end)) << "a run from it ends in what no engine reads";
            } catch (const std::exception& failure) {
                ++ended;
                ASSERT_TRUE(isDocumented(failure)) << failure.what();
            }
        }
    }
    EXPECT_GT(accepted, 1000);
    EXPECT_GT(ended, 10);
}

class EngineResumeTest : public EmulatedDeviceTest {};

// Cut anywhere, carried on by another engine on any backend, and cut again.
TEST_F(EngineResumeTest, IsTheSameRunWindowByWindow) {
    std::uint64_t spikes = 0;
    for (std::uint64_t seed = 1; seed <= 80; ++seed) {
        SCOPED_TRACE("model seed " + std::to_string(seed));
        Emulation::permuteThreads(seed);
        const GeneratedModel model = generateModel(seed);
        CpuWindowBackend cpu;
        CudaWindowBackend cuda;
        IWindowBackend* const backends[] = {&cpu, &cuda};
        WindowEngine whole = makeEngine(model);
        postInputs(model, whole);
        auto pieces = std::make_unique<WindowEngine>(model.graph(), model.neurons, model.firings,
                                                     model.run_seed, model.horizon);
        postInputs(model, *pieces);
        Draws draws(seed);
        try {
            for (ModelTime until = 0; until < model.horizon;) {
                until = std::min(
                    model.horizon,
                    until + 1 + draws.timeBelow(static_cast<std::uint64_t>(model.horizon / 3 + 1)));
                whole.run(cpu, until);
                pieces->run(*backends[draws.below(2)], until);
                const Blob bytes = pieces->snapshot();
                ASSERT_EQ(whole.snapshot(), bytes);
                pieces = std::make_unique<WindowEngine>(model.graph(), model.neurons, model.firings,
                                                        model.run_seed, model.horizon);
                ASSERT_TRUE(pieces->restore(bytes));
                ASSERT_EQ(firstDifference(imageOf(whole), imageOf(*pieces)), "");
                ASSERT_EQ(pieces->snapshot(), bytes);
            }
        } catch (const WindowEngineError&) {
            continue;  // too hot for its windows; side-by-side runs compare those
        }
        spikes += whole.profile().accepted;
    }
    EXPECT_GT(spikes, 1000);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
