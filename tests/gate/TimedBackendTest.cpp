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
    EXPECT_EQ(timed.seconds(), 0.0);

    Kernel::Firing firing;
    firing.base_rate = 1e6;
    WindowEngine engine(SynapseGraph(1, 10, {}), Kernel::Neuron(), firing, 1, 1'000'000);
    engine.run(timed);
    EXPECT_EQ(slow.windows, 1);
    EXPECT_EQ(slow.offers, 0);
    EXPECT_EQ(engine.spikeLog().size(), 1);
    const double first = timed.seconds();
    EXPECT_GT(first, 0.0);
    const auto runAnother = [&] {
        Event event;
        event.time = 900'000 + 10 * slow.windows;
        engine.post(event);
        engine.run(timed);
    };
    runAnother();
    const double second = timed.seconds();
    EXPECT_GT(second, first);
    fails = true;
    EXPECT_THROW(runAnother(), Fault);
    EXPECT_EQ(timed.seconds(), second);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm::Gate
