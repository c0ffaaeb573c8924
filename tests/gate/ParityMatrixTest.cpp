#include "gate/ParityMatrix.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>

#include "tests/support/ExpectThrows.h"

namespace Lumenar::Core::Kelm {

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

/// A difference of two runs, with the parts of its message before and after the label.
struct Difference {
    std::string message;
    void (*make)(GateRun& cpu, GateRun& cuda);
    std::string counts = {};
};

/// In the order of the comparisons.
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
        // From the last to `first`, so that a later change does not undo an earlier one.
        for (std::size_t i = count; i-- > first;) differences[i].make(cpu, cuda);
        expectThrows<std::runtime_error>(
            [&] { compareRuns(cpu, cuda, label); },
            "kelmgate: " + differences[first].message + label + differences[first].counts);
    }
}

TEST(RequireExercised, RefusesRunsThatAreTooSmall) {
    const auto requiring = [](const GateTotals& totals) {
        return [totals] { requireExercised(totals); };
    };
    const char* const cells = "kelmgate: the parity gate did not cover 20 models x 5 seeds";
    expectRefusals<std::runtime_error>(
        {{cells, requiring({99, 0, 0})},
         {cells, requiring({101, 5000, 5000})},
         {"kelmgate: the parity matrix produced only 1000 spikes; the gate would be vacuous",
          requiring({100, 1000, 5000})},
         {"kelmgate: the runs used barely more than one window each, so the windowing is not "
          "exercised",
          requiring({100, 1001, 200})}});
    EXPECT_NO_THROW(requireExercised({100, 1001, 201}));
}

}  // namespace

}  // namespace Lumenar::Core::Kelm
