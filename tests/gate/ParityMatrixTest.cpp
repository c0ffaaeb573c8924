#include "gate/ParityMatrix.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

#include "kelm/core/Failures.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm::Gate {

namespace {

using namespace Testing;
namespace Emulation = Device::Emulation;

constexpr const char* label = " (model 3, seed 2)";

GateRun someRun() {
    GateRun run;
    run.log = {{10, 1}, {20, 0}};
    run.states.resize(3);
    run.states[1].membrane = 0.0;
    run.states[2].adaptation = std::numeric_limits<double>::quiet_NaN();
    run.hash = 77;
    run.profile = {5, 40, 30, 20, 2};
    run.committed_windows = 5;
    return run;
}

/// One way in which two runs can differ, with its message.
struct Difference {
    const char* message;
    void (*make)(GateRun& cpu, GateRun& cuda);
};

/// In the order in which the comparisons are made.
constexpr Difference differences[] = {
    {"kelmgate: the two backends produced a different number of spikes (model 3, seed 2): 2 vs 3",
     [](GateRun&, GateRun& cuda) {
         cuda.log.push_back({30, 0});
     }},
    {"kelmgate: the event logs differ at spike 0 (model 3, seed 2)",
     [](GateRun&, GateRun& cuda) { cuda.log[0].time = 11; }},
    {"kelmgate: the event logs differ at spike 1 (model 3, seed 2)",
     [](GateRun&, GateRun& cuda) { cuda.log[1].neuron = 2; }},
    {"kelmgate: the log hashes differ (model 3, seed 2)",
     [](GateRun&, GateRun& cuda) { cuda.hash = 78; }},
    {"kelmgate: different neuron counts (model 3, seed 2)",
     [](GateRun&, GateRun& cuda) { cuda.states.pop_back(); }},
    {"kelmgate: neuron 1 ended in a different state, bit for bit (model 3, seed 2)",
     [](GateRun&, GateRun& cuda) { cuda.states[1].membrane = -0.0; }},
    {"kelmgate: neuron update counts differ (model 3, seed 2): 30 vs 31",
     [](GateRun&, GateRun& cuda) { cuda.profile.updates = 31; }},
    {"kelmgate: the runtime did not commit every completed window (model 3, seed 2)",
     [](GateRun& cpu, GateRun&) { cpu.committed_windows = 4; }},
    {"kelmgate: the runtime did not commit every completed window (model 3, seed 2)",
     [](GateRun&, GateRun& cuda) { cuda.committed_windows = 7; }},
    {"kelmgate: the profilers disagree (model 3, seed 2)",
     [](GateRun&, GateRun& cuda) { cuda.committed_windows = cuda.profile.windows = 6; }},
    {"kelmgate: the profilers disagree (model 3, seed 2)",
     [](GateRun&, GateRun& cuda) { cuda.profile.candidates = 21; }},
    {"kelmgate: the profilers disagree (model 3, seed 2)",
     [](GateRun&, GateRun& cuda) { cuda.profile.accepted = 3; }},
};

TEST(CompareRuns, AcceptsRunsThatAreEqualToTheBit) {
    EXPECT_NO_THROW(compareRuns(someRun(), someRun(), label));
    GateRun other = someRun();
    other.profile.deliveries = 41;  // not compared
    EXPECT_NO_THROW(compareRuns(someRun(), other, label));
}

TEST(CompareRuns, NamesEachDifference) {
    for (const Difference& difference : differences) {
        GateRun cpu = someRun();
        GateRun cuda = someRun();
        difference.make(cpu, cuda);
        expectThrows<std::runtime_error>([&] { compareRuns(cpu, cuda, label); },
                                         difference.message);
    }
}

TEST(CompareRuns, ReportsTheFirstOfSeveralDifferences) {
    const std::size_t count = std::size(differences);
    for (std::size_t first = 0; first < count; ++first) {
        GateRun cpu = someRun();
        GateRun cuda = someRun();
        // The last ones first: a later change must not undo an earlier one.
        for (std::size_t i = count; i-- > first;) differences[i].make(cpu, cuda);
        expectThrows<std::runtime_error>([&] { compareRuns(cpu, cuda, label); },
                                         differences[first].message);
    }
}

TEST(RequireExercised, RefusesRunsThatWouldProveNothing) {
    struct Case {
        GateTotals totals;
        const char* message;
    };
    const char* const cells = "kelmgate: the parity gate did not cover 20 models x 5 seeds";
    const char* const windows =
        "kelmgate: the runs used barely more than one window each, so the windowing is not "
        "exercised";
    for (const Case& c : {
             Case{{99, 0, 0}, cells},
             Case{{101, 5000, 5000}, cells},
             Case{{100, 0, 0},
                  "kelmgate: the parity matrix produced only 0 spikes; the gate would be vacuous"},
             Case{{100, 1000, 5000},
                  "kelmgate: the parity matrix produced only 1000 spikes; the gate would be "
                  "vacuous"},
             Case{{100, 1001, 200}, windows},
         }) {
        expectThrows<std::runtime_error>([&] { requireExercised(c.totals); }, c.message);
    }
    EXPECT_NO_THROW(requireExercised({100, 1001, 201}));
}

class ParityMatrixTest : public EmulatedDeviceTest {};

TEST_F(ParityMatrixTest, CoversItsHundredCells) {
    Emulation::permuteThreads(17);
    const GateTotals totals = runParityMatrix();
    EXPECT_EQ(totals.runs, 100);
    EXPECT_EQ(totals.spikes, 3240);
    EXPECT_EQ(totals.windows, 1229);
}

TEST_F(ParityMatrixTest, PassesOnWhatTheDeviceThrows) {
    Emulation::setPresent(false);
    expectThrows<WindowEngineError>(
        runParityMatrix,
        "no usable CUDA device; the CPU/GPU parity gate cannot be evaluated on this machine");
    Emulation::setPresent(true);
    Emulation::failOperation(1000, 2);
    EXPECT_THROW(runParityMatrix(), WindowEngineError);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm::Gate
