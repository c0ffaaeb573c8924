#include "gate/TimedBackend.h"

#include <gtest/gtest.h>

#include <chrono>

#include "kelm/engine/WindowEngine.h"

namespace Lumenar::Core::Kelm::Gate {

namespace {

/// Takes whole runs, and stays in a window until the clock has moved on.
class SlowBackend : public IWindowBackend {
public:
    struct Fault {};

    const char* name() override { return "slow"; }
    void processWindow(const std::span<const WindowWork>& work,
                       const std::span<const Kernel::WindowEvent>& events, ModelTime, ModelTime,
                       const Kernel::Neuron&, const Kernel::Firing&,
                       const std::span<Kernel::WindowResult>& results) override {
        ++windows;
        EXPECT_EQ(events.size(), 1);
        for (std::size_t i = 0; i < work.size(); ++i) {
            results[i].state.membrane = 7.0;
            results[i].rng = work[i].rng;
        }
        const auto entered = std::chrono::steady_clock::now();
        while (std::chrono::steady_clock::now() == entered) continue;
        if (fails) throw Fault();
    }
    bool tryResidentRun(WindowEngine&) override {
        ADD_FAILURE() << "under a timer every window is to be measured";
        return true;
    }

    int windows = 0;
    bool fails = false;
};

TEST(TimedBackend, MeasuresEveryWindowOfARunThatTheWrappedBackendWouldTakeWhole) {
    Kernel::Firing firing;
    firing.base_rate = 1e5;
    WindowEngine engine(SynapseGraph(1, 10, {}), Kernel::Neuron(), firing, 1, 1'000'000);
    SlowBackend slow;
    TimedBackend timed(slow);
    EXPECT_STREQ(timed.name(), "slow");
    EXPECT_EQ(timed.seconds(), 0.0);
    engine.run(timed);
    EXPECT_EQ(slow.windows, 1);
    EXPECT_EQ(engine.states()[0].membrane, 7.0);
    EXPECT_GT(timed.seconds(), 0.0);
}

TEST(TimedBackend, AddsUpWindowsAndLeavesOutThoseThatThrow) {
    SlowBackend slow;
    TimedBackend timed(slow);
    const WindowWork work[1];
    const Kernel::WindowEvent events[1];
    Kernel::WindowResult results[1];
    const auto run = [&] {
        timed.processWindow(work, events, 10, 100, {}, {}, results);
        return timed.seconds();
    };
    const double first = run();
    EXPECT_GT(first, 0.0);
    const double second = run();
    EXPECT_GT(second, first);
    slow.fails = true;
    EXPECT_THROW(run(), SlowBackend::Fault);
    EXPECT_EQ(timed.seconds(), second);
    EXPECT_EQ(slow.windows, 3);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm::Gate
