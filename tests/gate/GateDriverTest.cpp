#include "gate/GateDriver.h"

#include <gtest/gtest.h>

#include <new>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "kelm/core/Failures.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm::Gate {

namespace {

using namespace Testing;
namespace Emulation = Device::Emulation;

using Steps = std::vector<std::string>;

Steps steps_run;
std::string failing_step;
void (*failure)() = nullptr;

void note(const char* step) {
    steps_run.emplace_back(step);
    if (step == failing_step) failure();
}

/// Every step, each of which only notes that it ran, and fails if it is the one to fail.
GateSteps notedSteps() {
    GateSteps steps;
    steps.check_shard_layouts = [] { note("shards"); };
    steps.check_resident_eligibility = [] { note("eligibility"); };
    steps.run_parity_matrix = [] {
        note("matrix");
        return GateTotals{100, 1234567, 222};
    };
    steps.check_heterogeneous = [] { note("heterogeneous"); };
    steps.check_restore = [] { note("restore"); };
    steps.check_plasticity = [] { note("plasticity"); };
    steps.check_phase = [] { note("phase"); };
    steps.check_composed = [] { note("composed"); };
    steps.check_profile = [] { note("profile"); };
    steps.run_benchmark = [](std::ostream& out) {
        out << "report\n";
        note("benchmark");
    };
    return steps;
}

const Steps steps_without_device = {"shards", "eligibility"};
const Steps all_steps = {"shards",     "eligibility", "matrix",   "heterogeneous", "restore",
                         "plasticity", "phase",       "composed", "profile"};
const std::string device_line = "kelmgate: device host emulation\n";
const std::string success_line =
    "kelmgate shards=DETERMINISTIC fallback=VERIFIED heterogeneous=IDENTICAL "
    "logs=BIT-IDENTICAL-20x5 restore=IDENTICAL plasticity=IDENTICAL phase=IDENTICAL "
    "composed=IDENTICAL updates=EQUAL profiler=REPORTS runs=100 spikes=1234567 windows=222\n";

struct Outcome {
    int status = 0;
    std::string out, err;
    Steps steps;
};

class GateDriverTest : public EmulatedDeviceTest {
protected:
    static Outcome runWith(
        const std::vector<std::string_view>& arguments, const std::string& failing = {},
        void (*how)() = [] { throw std::runtime_error("kelmgate: no"); }) {
        steps_run.clear();
        failing_step = failing;
        failure = how;
        std::ostringstream out;
        std::ostringstream err;
        const int status = runGate(arguments, notedSteps(), out, err);
        return {status, out.str(), err.str(), steps_run};
    }
};

TEST_F(GateDriverTest, RunsEveryStepInOrderAndSaysSo) {
    const Outcome outcome = runWith({});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.steps, all_steps);
    EXPECT_EQ(outcome.out, device_line + success_line);
    EXPECT_EQ(outcome.err, "");
}

TEST_F(GateDriverTest, RunsTheBenchmarkOnceForEachExactArgument) {
    struct Case {
        std::vector<std::string_view> arguments;
        std::size_t reports;
    };
    for (const Case& c : {
             Case{{"--benchmark"}, 1},
             Case{{"--benchmark", "--verbose", "--benchmark"}, 2},
             Case{{"--benchmarks", "--benchmark=1", "--bench", "-benchmark", "", "benchmark",
                   " --benchmark", std::string_view("--benchmark\0", 12)},
                  0},
         }) {
        const Outcome outcome = runWith(c.arguments);
        EXPECT_EQ(outcome.status, 0);
        Steps expected = all_steps;
        std::string report;
        for (std::size_t i = 0; i < c.reports; ++i) {
            expected.emplace_back("benchmark");
            report += "report\n";
        }
        EXPECT_EQ(outcome.steps, expected);
        EXPECT_EQ(outcome.out, device_line + report + success_line);
        EXPECT_EQ(outcome.err, "");
    }
}

TEST_F(GateDriverTest, StopsAtTheFirstStepThatThrows) {
    Steps order = all_steps;
    order.emplace_back("benchmark");
    for (std::size_t failing = 0; failing < order.size(); ++failing) {
        SCOPED_TRACE(order[failing]);
        const Outcome outcome = runWith({"--benchmark", "--benchmark"}, order[failing]);
        EXPECT_EQ(outcome.status, 1);
        const Steps expected(order.begin(),
                             order.begin() + static_cast<std::ptrdiff_t>(failing) + 1);
        EXPECT_EQ(outcome.steps, expected);
        const bool before_device = failing < steps_without_device.size();
        const bool benchmark = order[failing] == "benchmark";
        EXPECT_EQ(outcome.out, (before_device ? "" : device_line) + (benchmark ? "report\n" : ""));
        EXPECT_EQ(outcome.err, "kelmgate: no\n");
    }
}

TEST_F(GateDriverTest, PassesOnTheTextOfAnyException) {
    EXPECT_EQ(runWith({}, "phase", [] { throw WindowEngineError("CUDA launch: out"); }).err,
              "CUDA launch: out\n");
    EXPECT_EQ(runWith({}, "shards", [] { throw std::bad_alloc(); }).err, "std::bad_alloc\n");
}

TEST_F(GateDriverTest, EndsBehindTheStepsThatNeedNoDeviceWhereThereIsNone) {
    Emulation::setPresent(false);
    const Outcome outcome = runWith({"--benchmark"});
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.steps, steps_without_device);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "kelmgate: no CUDA device; the gate cannot be evaluated\n");
    // A fault in those steps counts for more than the missing device.
    EXPECT_EQ(runWith({}, "eligibility").status, 1);
}

TEST_F(GateDriverTest, GoesOnWithADeviceWhoseNameCannotBeRead) {
    Emulation::failOperation(1, 7);
    const Outcome outcome = runWith({});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "kelmgate: device unknown\n" + success_line);
}

TEST(GateRequire, ThrowsItsMessageBehindTheNameOfTheGate) {
    EXPECT_NO_THROW(gateRequire(true, "nothing"));
    expectThrows<std::runtime_error>([] { gateRequire(false, "this differs"); },
                                     "kelmgate: this differs");
}

}  // namespace

}  // namespace Lumenar::Core::Kelm::Gate
