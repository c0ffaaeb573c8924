#include "kelm/engine/RunControl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <vector>

#include "kelm/core/Failures.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/runtime/Probe.h"
#include "tests/engine/ScriptedBackend.h"
#include "tests/support/ExpectThrows.h"
#include "tests/support/GeneratedModel.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

constexpr std::int64_t ms = 1'000'000;

std::int64_t wall_time = 0;  ///< ns
int readings = 0;            ///< of the clock

std::int64_t countedClock() {
    ++readings;
    return wall_time;
}

/// Passes windows of one model ms and `wall_ns` ns each to a control.
class RunControlTest : public testing::Test {
protected:
    void pass(int windows, std::size_t events, std::int64_t wall_ns) {
        for (; windows > 0; --windows) {
            wall_time += wall_ns;
            position += ms;
            if (control.isDue(events)) control.act(position, 7);
        }
    }
    void report(std::int64_t interval) {
        control.setCallback([&](const RunProgress& progress) { reports.push_back(progress); },
                            interval);
        control.begin(position);
    }

    RunControl control{countedClock};
    ModelTime position = 0;
    std::vector<RunProgress> reports;
};

TEST_F(RunControlTest, ReportsAtAnIntervalOfTheWallTimeThatRunsTake) {
    report(100 * ms);
    pass(100, 5000, 20 * ms);
    ASSERT_EQ(reports.size(), 20U);
    EXPECT_EQ(reports[1].position, 10 * ms);
    EXPECT_EQ(reports[1].spikes, 7U);
    EXPECT_EQ(reports[1].speed, 0.05);
    // A pause of any length and a jump of the position count for nothing.
    pass(2, 5000, 20 * ms);
    control.end(position);
    wall_time += 10'000 * ms;
    position = 3 * ms;
    control.begin(position);
    pass(2, 5000, 20 * ms);
    EXPECT_EQ(reports.size(), 20U);
    pass(1, 5000, 20 * ms);
    ASSERT_EQ(reports.size(), 21U);
    EXPECT_EQ(reports[20].speed, 0.05);
    control.setCallback(nullptr, 0);
    pass(100, 5000, 20 * ms);
    EXPECT_EQ(reports.size(), 21U);
}

TEST_F(RunControlTest, ReadsTheClockAfterEnoughWorkOrAfterEachWindow) {
    report(100 * ms);
    readings = 0;
    pass(256 * 100, 0, 1000);
    EXPECT_EQ(readings, 100);  // the first window, then every 256th
    report(0);
    readings = 0;
    pass(30, 0, 1000);
    EXPECT_EQ(readings, 30);
    EXPECT_EQ(reports.size(), 30U);
}

/// A model that runs in windows with spikes, and its state at the end of an undisturbed run.
class StoppedRunTest : public testing::Test {
protected:
    std::unique_ptr<WindowEngine> build() const {
        std::unique_ptr<WindowEngine> engine(new WindowEngine(makeEngine(model)));
        postInputs(model, *engine);
        return engine;
    }

    CpuWindowBackend cpu;
    const GeneratedModel model = generateModel(11);
    RunControl control{countedClock};
};

TEST_F(StoppedRunTest, GoesOnToTheSameBitsFromTheEndOfEachWindow) {
    const auto run_through = build();
    WindowEngine& straight = *run_through;
    straight.run(cpu);
    const Blob end = straight.snapshot();
    ASSERT_GT(straight.profile().windows, 10U);
    const auto stopped_run = build();
    WindowEngine& engine = *stopped_run;
    engine.setRunControl(&control);
    control.setCallback(
        [&](const RunProgress& progress) {
            EXPECT_EQ(progress.position, engine.processedUntil());
            EXPECT_EQ(progress.spikes, engine.spikeLog().size());
            control.requestStop();
        },
        0);
    std::uint64_t stops = 0;
    do {
        engine.run(cpu);
        EXPECT_EQ(engine.profile().windows, std::min(++stops, straight.profile().windows));
    } while (engine.stopped() && stops < 1000);
    EXPECT_EQ(engine.processedUntil(), straight.processedUntil());
    EXPECT_EQ(engine.snapshot(), end);
}

TEST_F(StoppedRunTest, TakesARequestFromASignalHandlerAndBeforeTheRun) {
    static RunControl* signalled = nullptr;
    signalled = &control;
    const auto stopped_run = build();
    WindowEngine& engine = *stopped_run;
    engine.setRunControl(&control);
    const auto previous = std::signal(SIGINT, [](int) { signalled->requestStop(); });
    std::raise(SIGINT);
    std::signal(SIGINT, previous);
    engine.run(cpu);
    EXPECT_TRUE(engine.stopped());
    EXPECT_EQ(engine.profile().windows, 0U);
    engine.run(cpu);
    EXPECT_FALSE(engine.stopped());
    EXPECT_GT(engine.profile().windows, 0U);
}

TEST_F(StoppedRunTest, KeepsARequestOfItsLastWindowForTheNextRun) {
    WindowEngine engine(SynapseGraph(1, 10, {}), {}, Kernel::Firing{.base_rate = 0.0}, 1, 100);
    engine.post({.time = 12, .kind = EventKind::input});
    engine.setRunControl(&control);
    control.setCallback([&](const RunProgress&) { control.requestStop(); }, 0);
    engine.run(cpu, 15);
    EXPECT_FALSE(engine.stopped());
    engine.run(cpu, 30);
    EXPECT_TRUE(engine.stopped());
}

TEST_F(StoppedRunTest, MayBeEndedByAnExceptionOfTheCallbackAndGoOn) {
    const auto run_through = build();
    WindowEngine& straight = *run_through;
    straight.run(cpu);
    const auto stopped_run = build();
    WindowEngine& engine = *stopped_run;
    engine.setRunControl(&control);
    int windows = 0;
    control.setCallback(
        [&](const RunProgress&) {
            if (++windows % 3 == 0) throw std::runtime_error("enough");
        },
        0);
    const auto run = [&] { engine.run(cpu); };
    expectThrows<std::runtime_error>(run, "enough");
    // Between runs, as the engine sees it.
    EXPECT_EQ(engine.takeSpikes().size(), engine.taken().count);
    control.setCallback(nullptr, 0);
    run();
    EXPECT_EQ(engine.logHash(), straight.logHash());
    EXPECT_EQ(engine.profile(), straight.profile());
}

TEST_F(StoppedRunTest, IsNotOfferedToABackendThatTakesWholeRuns) {
    ScriptedBackend backend;
    backend.takes_whole_runs = true;
    const GeneratedModel ring = ringModel(8, 2, 1000, 4);
    WindowEngine engine = makeEngine(ring);
    ASSERT_TRUE(engine.isPristine());
    engine.setRunControl(&control);
    EXPECT_FALSE(engine.isPristine());
    engine.run(backend);
    EXPECT_EQ(backend.offers, 0);
}

TEST(TakingSpikes, IsRefusedDuringARunAsStatesAreAndWhereWindowsComeOutOfOrder) {
    // The n-th window has one spike at this time.
    std::vector<ModelTime> times = {30, 20};
    ScriptedBackend backend([&](const WindowWork& item, const Kernel::WindowEvent*, ModelTime) {
        const ModelTime time = times.back();
        times.pop_back();
        return quietResult(item, {time});
    });
    struct Taker final : IWindowCommit {
        void commit(ModelTime, ModelTime, std::span<const SpikeRecord>, SynapseGraph&) override {
            expectRefusals<WindowEngineError>(
                {{"spikes can only be taken between runs", [&] { engine->takeSpikes(); }},
                 {"states can only be read between runs", [&] { engine->statesAt(10); }},
                 {"samplers can only be added between runs", [&] { engine->addSampler(none); }}});
        }
        Probe none{{{0}, {ProbeField::hazard}, 1}, 1, 0};
        WindowEngine* engine = nullptr;
    } taker;
    WindowEngine engine(SynapseGraph(1, 10, {}), {}, Kernel::Firing{.base_rate = 0.0}, 1, 100);
    taker.engine = &engine;
    engine.setHooks(nullptr, &taker, nullptr);
    for (const ModelTime time : {5, 15}) {
        engine.post({.time = time, .kind = EventKind::input, .value = 1.0});
    }
    EXPECT_TRUE(engine.takeSpikes().empty());
    engine.run(backend, 10);
    EXPECT_EQ(engine.takeSpikes(), (std::vector<SpikeRecord>{{20, 0}}));
    engine.run(backend, 20);
    EXPECT_EQ(engine.takeSpikes(), (std::vector<SpikeRecord>{{30, 0}}));
    EXPECT_EQ(engine.taken().count, 2U);
    times = {29};
    engine.post({.time = 25, .kind = EventKind::input, .value = 1.0});
    engine.run(backend, 30);
    expectThrows<WindowEngineError>(
        [&] { engine.takeSpikes(); },
        "a spike lies before the spikes that were taken: the store hands out windows out of order");
    EXPECT_EQ(engine.spikeLog().size(), 1U);
    EXPECT_EQ(engine.taken().count, 2U);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
