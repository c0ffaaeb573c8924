#include "gate/GateDriver.h"

#include <gtest/gtest.h>

#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/EmulatedDeviceFixture.h"

namespace Lumenar::Core::Kelm {

namespace {

using namespace Testing;

constexpr int benchmark = 9;

std::string steps_run;  // a digit each
int failing_step = -1;

/// A step that only notes that it ran, and fails if it is the one to fail.
template <int index>
void step() {
    steps_run += static_cast<char>('0' + index);
    gateRequire(index != failing_step, "this differs");
}

GateTotals matrixStep() {
    step<2>();
    return {100, 1234567, 222};
}

void benchmarkStep(std::ostream& out) {
    out << "report\n";
    step<benchmark>();
}

/// In the order in which they are to run.
const GateSteps steps = {step<0>, step<1>, matrixStep, step<3>, step<4>,
                         step<5>, step<6>, step<7>,    step<8>, benchmarkStep};

struct Outcome {
    int status = 0;
    std::string out, err;
};

class GateDriver : public EmulatedDeviceTest {
protected:
    static Outcome run(const std::vector<std::string_view>& arguments, int failing = -1) {
        steps_run.clear();
        failing_step = failing;
        std::ostringstream out;
        std::ostringstream err;
        const int status = runGate(arguments, steps, out, err);
        return {status, out.str(), err.str()};
    }
};

const std::string device_line = "kelmgate: device host emulation\n";
const std::string success_line =
    "kelmgate shards=DETERMINISTIC fallback=VERIFIED heterogeneous=IDENTICAL "
    "logs=BIT-IDENTICAL-20x5 restore=IDENTICAL plasticity=IDENTICAL phase=IDENTICAL "
    "composed=IDENTICAL updates=EQUAL profiler=REPORTS runs=100 spikes=1234567 windows=222\n";

TEST_F(GateDriver, RunsEveryStepAndTheBenchmarkOnceForEachExactArgument) {
    struct Case {
        std::vector<std::string_view> arguments;
        std::string reports;
    };
    for (const Case& c : {Case{{}, ""}, Case{{"--benchmark"}, "report\n"},
                          Case{{"--benchmark", "--verbose", "--benchmark"}, "report\nreport\n"},
                          Case{{"--benchmarks", "--benchmark=1", "--bench", "-benchmark", "",
                                "benchmark", " --benchmark", std::string_view("--benchmark\0", 12)},
                               ""}}) {
        const Outcome outcome = run(c.arguments);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(steps_run, "012345678" + std::string(c.reports.size() / 7, '9'));
        EXPECT_EQ(outcome.out, device_line + c.reports + success_line);
        EXPECT_EQ(outcome.err, "");
    }
}

TEST_F(GateDriver, StopsAtTheFirstStepThatThrowsWithItsText) {
    for (int failing = 0; failing <= benchmark; ++failing) {
        SCOPED_TRACE(failing);
        const Outcome outcome = run({"--benchmark", "--benchmark"}, failing);
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(steps_run, std::string("0123456789", static_cast<std::size_t>(failing) + 1));
        EXPECT_EQ(outcome.out,
                  (failing < 2 ? "" : device_line) + (failing == benchmark ? "report\n" : ""));
        EXPECT_EQ(outcome.err, "kelmgate: this differs\n");
    }
}

TEST_F(GateDriver, EndsBehindTheStepsThatNeedNoDeviceWhereThereIsNone) {
    Emulation::setPresent(false);
    const Outcome outcome = run({"--benchmark"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(steps_run, "01");
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "kelmgate: no CUDA device; the gate cannot be evaluated\n");
    // A fault in those steps counts for more than the missing device.
    EXPECT_EQ(run({}, 1).status, 1);
}

TEST_F(GateDriver, GoesOnWithADeviceWhoseNameCannotBeRead) {
    Emulation::failOperation(1, 7);
    EXPECT_EQ(run({}).out, "kelmgate: device unknown\n" + success_line);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
