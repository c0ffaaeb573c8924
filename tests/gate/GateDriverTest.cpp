// The driver with steps and a device that this program defines, to test the order of the steps and
// each outcome.

#include "gate/GateDriver.h"

#include <gtest/gtest.h>

#include <iostream>
#include <string>
#include <vector>

#include "gate/BackendGates.h"
#include "gate/BenchmarkReport.h"
#include "gate/FeatureGates.h"
#include "gate/GateRequire.h"
#include "gate/ParityMatrix.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/ShardLayout.h"

namespace Lumenar::Core::Kelm {

namespace {

bool device_present = true;
std::string steps_run;  // a digit each
int failing_step = -1;

/// Notes the step, and throws if it is the failing one.
void step(int index) {
    steps_run += static_cast<char>('0' + index);
    gateRequire(index != failing_step, "this differs");
}

}  // namespace

bool cudaDeviceUsable() { return device_present; }
std::string cudaDeviceName() { return "of a test"; }

void checkShardLayouts() { step(0); }
void checkResidentEligibility() { step(1); }
GateTotals runParityMatrix() {
    step(2);
    return {100, 1234567, 222};
}
void checkHeterogeneous() { step(3); }
void checkRestore() { step(4); }
void checkPlasticity() { step(5); }
void checkPhase() { step(6); }
void checkComposed() { step(7); }
void checkProfile() { step(8); }
void runBenchmark() {
    std::cout << "report\n";
    step(9);
}

namespace {

struct Outcome {
    int status;
    std::string out, err;
};

Outcome run(const std::vector<std::string_view>& arguments, int failing = -1) {
    steps_run.clear();
    failing_step = failing;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = runGate(arguments);
    return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

const std::string device_line = "kelmgate: device of a test\n";
const std::string success_line =
    "kelmgate shards=DETERMINISTIC fallback=VERIFIED heterogeneous=IDENTICAL "
    "logs=BIT-IDENTICAL-20x5 restore=IDENTICAL plasticity=IDENTICAL phase=IDENTICAL "
    "composed=IDENTICAL updates=EQUAL profiler=REPORTS runs=100 spikes=1234567 windows=222\n";

TEST(GateDriver, RunsEveryStepAndTheBenchmarkOnceForEachExactArgument) {
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

TEST(GateDriver, StopsAtTheFirstStepThatThrowsWithItsText) {
    for (int failing = 0; failing <= 9; ++failing) {
        SCOPED_TRACE(failing);
        const Outcome outcome = run({"--benchmark", "--benchmark"}, failing);
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(steps_run, std::string("0123456789", static_cast<std::size_t>(failing) + 1));
        EXPECT_EQ(outcome.out, (failing < 2 ? "" : device_line) + (failing == 9 ? "report\n" : ""));
        EXPECT_EQ(outcome.err, "kelmgate: this differs\n");
    }
}

TEST(GateDriver, EndsAfterTheStepsThatNeedNoDeviceIfThereIsNone) {
    device_present = false;
    const Outcome outcome = run({"--benchmark"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(steps_run, "01");
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "kelmgate: no CUDA device; the gate cannot be evaluated\n");
    // A failure of those steps comes before the missing device.
    EXPECT_EQ(run({}, 1).status, 1);
    device_present = true;
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
