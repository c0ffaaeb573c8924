#include "gate/TimedBackend.h"

#include <gtest/gtest.h>

#include <chrono>

#include "kelm/core/Failures.h"
#include "kelm/engine/WindowEngine.h"
#include "tests/engine/ScriptedBackend.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

TEST(TimedBackend, AddsUpEveryWindowThatDoesNotThrowAndTakesNoWholeRun) {
    bool fails = false;
    ScriptedBackend slow([&](const WindowWork& item, const Kernel::WindowEvent*, ModelTime) {
        const auto entered = std::chrono::steady_clock::now();
        while (std::chrono::steady_clock::now() == entered) continue;
        if (fails) throw WindowEngineError("broken");
        return quietResult(item);
    });
    slow.takes_whole_runs = true;
    TimedBackend timed(slow);
    EXPECT_STREQ(timed.name(), "scripted");
    WindowEngine engine(SynapseGraph(1, 10, {}), Kernel::Neuron(), Kernel::Firing(), 1, 1000);
    double before = timed.seconds();
    EXPECT_EQ(before, 0.0);
    for (int window = 1; window <= 3; ++window) {
        engine.post({.time = 10 * window});
        engine.run(timed);
        EXPECT_GT(timed.seconds(), before);
        before = timed.seconds();
    }
    EXPECT_EQ(slow.offers, 0);
    fails = true;
    engine.post({.time = 900});
    EXPECT_THROW(engine.run(timed), WindowEngineError);
    EXPECT_EQ(timed.seconds(), before);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
