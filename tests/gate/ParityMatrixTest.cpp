#include "gate/ParityMatrix.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>

#include "kelm/core/Failures.h"
#include "tests/support/EmulatedDeviceFixture.h"
#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm::Gate {

namespace {

using namespace Testing;

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

/// One way in which two runs can differ, with its message before and behind the label.
struct Difference {
    std::string message;
    void (*make)(GateRun& cpu, GateRun& cuda);
    std::string counts = {};
};

/// In the order in which the comparisons are made.
const Difference differences[] = {
    {"the two backends produced a different number of spikes",
     [](GateRun&, GateRun& b) {
         b.log.emplace_back(SpikeRecord{30, 0});
     },
     ": 2 vs 3"},
    {"the event logs differ at spike 0", [](GateRun&, GateRun& b) { b.log[0].time = 11; }},
    {"the event logs differ at spike 1", [](GateRun&, GateRun& b) { b.log[1].neuron = 2; }},
    {"the log hashes differ", [](GateRun&, GateRun& b) { b.hash = 78; }},
    {"different neuron counts", [](GateRun&, GateRun& b) { b.states.pop_back(); }},
    {"neuron 1 ended in a different state, bit for bit",
     [](GateRun&, GateRun& b) { b.states[1].membrane = -0.0; }},
    {"neuron update counts differ", [](GateRun&, GateRun& b) { b.profile.updates = 31; },
     ": 30 vs 31"},
    {"the runtime did not commit every completed window",
     [](GateRun& a, GateRun&) { a.committed_windows = 4; }},
    {"the runtime did not commit every completed window",
     [](GateRun&, GateRun& b) { b.committed_windows = 7; }},
    {"the profilers disagree",
     [](GateRun&, GateRun& b) { b.committed_windows = b.profile.windows = 6; }},
    {"the profilers disagree", [](GateRun&, GateRun& b) { b.profile.candidates = 21; }},
    {"the profilers disagree", [](GateRun&, GateRun& b) { b.profile.accepted = 3; }},
};

TEST(CompareRuns, AcceptsEqualBitsAndReportsTheFirstDifference) {
    GateRun other = someRun();
    other.profile.deliveries = 41;  // not compared
    EXPECT_NO_THROW(compareRuns(someRun(), other, label));
    const std::size_t count = std::size(differences);
    for (std::size_t first = 0; first < count; ++first) {
        GateRun cpu = someRun();
        GateRun cuda = someRun();
        // The last ones first: a later change must not undo an earlier one.
        for (std::size_t i = count; i-- > first;) differences[i].make(cpu, cuda);
        expectThrows<std::runtime_error>(
            [&] { compareRuns(cpu, cuda, label); },
            "kelmgate: " + differences[first].message + label + differences[first].counts);
    }
}

TEST(RequireExercised, RefusesRunsThatWouldProveNothing) {
    const auto refuse = [](const GateTotals& totals, const std::string& message) {
        expectThrows<std::runtime_error>([&] { requireExercised(totals); }, "kelmgate: " + message);
    };
    const std::string cells = "the parity gate did not cover 20 models x 5 seeds";
    refuse({99, 0, 0}, cells);
    refuse({101, 5000, 5000}, cells);
    refuse({100, 0, 0}, "the parity matrix produced only 0 spikes; the gate would be vacuous");
    refuse({100, 1000, 5000},
           "the parity matrix produced only 1000 spikes; the gate would be vacuous");
    refuse({100, 1001, 200},
           "the runs used barely more than one window each, so the windowing is not exercised");
    EXPECT_NO_THROW(requireExercised({100, 1001, 201}));
}

class ParityMatrix : public EmulatedDeviceTest {};

TEST_F(ParityMatrix, CoversItsHundredCellsAndPassesOnWhatTheDeviceThrows) {
    Emulation::permuteThreads(17);
    const GateTotals totals = runParityMatrix();
    EXPECT_EQ(totals.runs, 100);
    EXPECT_EQ(totals.spikes, 3240);
    EXPECT_EQ(totals.windows, 1229);
    Emulation::failOperation(1000, 2);
    EXPECT_THROW(runParityMatrix(), WindowEngineError);
}

}  // namespace

}  // namespace Lumenar::Core::Kelm::Gate
