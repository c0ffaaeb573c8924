#include "gate/TimedBackend.h"

#include <gtest/gtest.h>

#include <chrono>

#include "kelm/engine/WindowEngine.h"
#include "tests/engine/ScriptedBackend.h"

namespace Lumenar::Core::Kelm::Gate {

namespace {

using namespace Testing;

TEST(TimedBackend, AddsUpEveryWindowThatDoesNotThrowAndTakesNoWholeRun) {
    struct Fault {};
    bool fails = false;
    ScriptedBackend slow([&](const WindowWork& item, const Kernel::WindowEvent*, ModelTime) {
        const auto entered = std::chrono::steady_clock::now();
        while (std::chrono::steady_clock::now() == entered) continue;
        if (fails) throw Fault();
        return quietResult(item, {7});
    });
    slow.takes_whole_runs = true;
    TimedBackend timed(slow);
    EXPECT_STREQ(timed.name(), "scripted");
    WindowEngine engine(SynapseGraph(1, 10, {}), Kernel::Neuron(), Kernel::Firing{.base_rate = 1e6},
                        1, 1'000'000);
    double before = timed.seconds();
    EXPECT_EQ(before, 0.0);
    for (int window = 1; window <= 3; ++window) {
        engine.run(timed);
        EXPECT_EQ(slow.windows, window);
        EXPECT_GT(timed.seconds(), before);
        before = timed.seconds();
        Event event;
        event.time = 900'000 + 10 * window;
        engine.post(event);
    }
    EXPECT_EQ(slow.offers, 0);
    EXPECT_EQ(engine.spikeLog().size(), 3);
    fails = true;
    EXPECT_THROW(engine.run(timed), Fault);
    EXPECT_EQ(timed.seconds(), before);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm::Gate
